// What the store gives back when the memory manager asks: job elements move to disk, and data that a
// job can produce again go. The thread that asks may hold any lock: here they are only tried.
#include <ka/mem.h>

#include <algorithm>
#include <array>
#include <tuple>

#include "store.h"

namespace {

// Elements used longest ago, a handful at a time: a purge must not need memory itself.
struct Candidate {
  std::uint32_t time, tag;
  bool operator<(const Candidate& other) const {
    return std::tie(time, tag) < std::tie(other.time, other.tag);
  }
};

// Whether an element has data that may go. Its lock decides.
bool may_give(ka_db_entry& entry) {
  return ka::shared(entry.data).load() && !ka::shared(entry.is_fixed).load() &&
         !ka::is_pinned(entry);
}
struct Oldest {
  std::array<Candidate, 256> items;
  std::size_t count = 0;

  void add(const Candidate& candidate) {
    if (count < items.size()) {
      items[count++] = candidate;
      std::push_heap(items.begin(), items.begin() + count);
    } else if (candidate < items.front()) {
      std::pop_heap(items.begin(), items.end());
      items.back() = candidate;
      std::push_heap(items.begin(), items.end());
    }
  }
};

// Calls give_back(tag, entry) with the entry's lock for elements with data, oldest first, until it
// has given `wanted` bytes.
template <bool (*give_back)(std::uint32_t tag, ka_db_entry& entry)>
int give_back_oldest(std::int64_t wanted) {
  std::int64_t given = 0;
  Candidate passed{};  // those up to this one have been tried
  for (bool is_last = false; given < wanted && !is_last;) {
    Oldest oldest;
    ka::for_each_entry(ka::kFirstJobPage, ka::kPageCount, [&](std::uint32_t tag, auto& entry) {
      const Candidate candidate = {ka::shared(entry.time).load(), tag};
      if (passed < candidate && may_give(entry)) oldest.add(candidate);
    });
    is_last = oldest.count < oldest.items.size();
    std::sort_heap(oldest.items.begin(), oldest.items.begin() + oldest.count);
    for (std::size_t i = 0; i < oldest.count && given < wanted; ++i) {
      passed = oldest.items[i];
      ka_db_entry& entry = *ka::entry_at(oldest.items[i].tag);
      if (!ka::try_lock(entry.lock)) continue;
      const std::size_t size = entry.data ? entry.size : 0;
      if (size > 0 && !ka::shared(entry.is_fixed).load() && give_back(oldest.items[i].tag, entry)) {
        given += std::int64_t(size);
      }
      ka::unlock(entry.lock);
    }
  }
  return given < wanted;
}

int swap_out(std::int64_t wanted) {
  const ka::ModuleScope scope(KA_DB);
  return ka::is_swapping() ? give_back_oldest<ka::page_out>(wanted) : 1;
}

bool flush_one(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock) {
  if (!entry.job || !ka::flush_locked(tag, entry)) return false;
  ka::count_flush();
  return true;
}

int flush(std::int64_t wanted) {
  const ka::ModuleScope scope(KA_JOB);
  return give_back_oldest<flush_one>(wanted);
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
