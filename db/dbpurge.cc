// What the store gives back when the memory manager asks: job elements move to disk, and data that a
// job can produce again go. The thread that asks may hold any lock: here they are only tried.
#include <ka/mem.h>

#include <algorithm>
#include <array>

#include "store.h"

namespace {

// Elements used longest ago, a handful at a time: a purge must not need memory itself.
struct Candidate {
  std::uint32_t time, tag;
};
struct Oldest {
  std::array<Candidate, 64> items;
  std::size_t count = 0;

  void add(const Candidate& candidate) {
    const auto by_time = [](const Candidate& a, const Candidate& b) { return a.time < b.time; };
    if (count < items.size()) {
      items[count++] = candidate;
      std::push_heap(items.begin(), items.begin() + count, by_time);
    } else if (by_time(candidate, items.front())) {
      std::pop_heap(items.begin(), items.end(), by_time);
      items.back() = candidate;
      std::push_heap(items.begin(), items.end(), by_time);
    }
  }
};

// Calls give_back(tag, entry) for elements with data, oldest first, until it has given `wanted`
// bytes. The entry's lock is held.
template <typename GiveBack>
int give_back_oldest(std::int64_t wanted, GiveBack give_back) {
  std::int64_t given = 0;
  std::uint32_t passed = 0;  // those up to this stamp have been tried
  for (bool is_last = false; given < wanted && !is_last;) {
    Oldest oldest;
    ka::for_each_entry(ka::kFirstJobPage, ka::kPageCount, [&](std::uint32_t tag, auto& entry) {
      const std::uint32_t time = ka::shared(entry.time).load();
      if (time > passed && ka::shared(entry.data).load()) oldest.add({time, tag});
    });
    is_last = oldest.count < oldest.items.size();
    std::sort_heap(oldest.items.begin(), oldest.items.begin() + oldest.count,
                   [](const auto& a, const auto& b) { return a.time < b.time; });
    for (std::size_t i = 0; i < oldest.count && given < wanted; ++i) {
      passed = oldest.items[i].time;
      ka_db_entry& entry = *ka::entry_at(oldest.items[i].tag);
      if (!ka_trylock(entry.lock)) continue;
      const std::size_t size = entry.data ? entry.size : 0;
      if (size > 0 && ka::can_move(entry) && give_back(oldest.items[i].tag, entry)) {
        given += std::int64_t(size);
      }
      ka_unlock(entry.lock);
    }
  }
  return given < wanted;
}

int swap_out(std::int64_t wanted) {
  const ka::ModuleScope scope(KA_DB);
  if (!ka::is_swapping()) return 1;
  return give_back_oldest(wanted, [](std::uint32_t tag, ka_db_entry& entry) {
    return ka::page_out(tag, entry, ka::Wait::kNo);
  });
}

int flush(std::int64_t wanted) {
  const ka::ModuleScope scope(KA_JOB);
  return give_back_oldest(wanted, [](std::uint32_t tag, ka_db_entry& entry) {
    return entry.job && ka::flush_locked(tag, entry);
  });
}

}  // namespace

void ka::handle_limits() {
  ka_mem_limit_handler(KA_DB, swap_out);
  ka_mem_limit_handler(KA_JOB, flush);
}

void ka::ignore_limits() {
  ka_mem_limit_handler(KA_DB, nullptr);
  ka_mem_limit_handler(KA_JOB, nullptr);
}
