// The heap estimate, its limit, and the purge that asks the modules to give memory back.
#include <algorithm>
#include <array>
#include <atomic>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "heap.h"
#include "keptblocks.h"
#include "startup.h"

namespace {

using ka::heap;
using ka::PurgeReason;

std::array<std::atomic<ka_mem_limit_function>, KA_MODULE_COUNT> mem_limit_handler;

ka_mutex limit_lock;  // held by the thread that purges; guards the two below
std::atomic<int> heap_npurges{0};
std::atomic<double> heap_purged{0.0};  // bytes saved by all purges

// Every allocation that grows the heap beyond its maximum comes here.
constexpr auto kRelaxed = std::memory_order_relaxed;

std::int64_t heap_size() { return heap.size.load(kRelaxed); }

// While this thread computes the alarm, another one may change the maximum or the limit and store
// the alarm that follows: both are read again afterwards, so that no alarm outlives its limit.
void set_alarm() {
  std::int64_t max, limit;
  do {
    max = heap.max;
    limit = heap.limit;
    heap.alarm = limit != 0 ? std::min(max, limit) : max;
  } while (max != heap.max || limit != heap.limit);
}

void set_limit(std::int64_t units) {
  heap.limit = units;
  set_alarm();
}

// A purge leaves, or makes room for, this much of the limit or of the heap.
std::int64_t kept_share(std::int64_t units) { return units * 7 / 8; }

struct NoCopy {
  NoCopy() = default;
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;
};

// A lock that another thread may have: it is tried and never waited for.
class TriedLock : NoCopy {
 public:
  explicit TriedLock(ka_mutex lock) : lock_(lock), taken_(ka_trylock(lock) != 0) {}
  ~TriedLock() {
    if (taken_) ka_unlock(lock_);
  }
  explicit operator bool() const { return taken_; }

 private:
  ka_mutex lock_;
  bool taken_;
};

// The contexts of all threads, which stay for as long as the list does.
class ThreadList : NoCopy {
 public:
  ThreadList() : contexts_(ka_msg_tls_info()) {}
  ~ThreadList() {
    if (contexts_) ka_msg_tls_info_end();
  }
  explicit operator bool() const { return contexts_ != nullptr; }
  [[nodiscard]] ka_context* const* begin() const { return contexts_; }

 private:
  ka_context* const* contexts_;
};

// Lets the calling thread look at another thread's areas as if they were its own.
class BorrowedAreas : NoCopy {
 public:
  BorrowedAreas(ka_context& own, void** areas) : own_(own), saved_(own.context_areas) {
    own_.context_areas = areas;
  }
  ~BorrowedAreas() { own_.context_areas = saved_; }

 private:
  ka_context& own_;
  void** saved_;
};

// Marks the calling thread as the one that purges.
class PurgeMark : NoCopy {
 public:
  PurgeMark() {
    heap.purger = &ka::context();
    ka::context().mem_stats = nullptr;  // it may soon look at the areas of other threads
  }
  ~PurgeMark() { heap.purger = nullptr; }
};

// Bytes that are missing, counted anew for every module.
std::int64_t bytes_wanted(PurgeReason reason) {
  const std::int64_t size = heap_size();
  const std::int64_t of = reason == PurgeReason::kFailure ? size : heap.limit.load();
  return (size - kept_share(of)) * 8;
}

// The thread's areas if it has one of the module; the owner may be making it at this moment.
void** areas_with(const ka_context* thread, int module) {
  if (thread->areas_hidden) return nullptr;
  auto* const context = const_cast<ka_context*>(thread);  // atomic_ref takes no const objects
  void** const areas = std::atomic_ref(context->context_areas).load();
  return areas && std::atomic_ref(areas[module]).load() ? areas : nullptr;
}

// Calls the module's handler for every thread that has an area for it, until one call says that it
// is enough.
void ask_module(int module, std::int64_t wanted, const ThreadList& threads) {
  const auto handler = mem_limit_handler[std::size_t(module)].load();
  if (!handler) return;
  const ka::CallbackScope scope(KA_MEM);
  ka_context& own = ka::context();
  bool asked = false;
  for (ka_context* const* thread = threads.begin(); *thread; ++thread) {
    void** const areas = areas_with(*thread, module);
    if (!areas) continue;
    asked = true;
    const BorrowedAreas borrowed(own, areas);
    if (!handler(wanted)) break;
  }
  if (!asked) handler(wanted);
}

// Jobs can be computed again, but at a price: their module comes last.
constexpr auto kAskingOrder = [] {
  std::array<int, KA_MODULE_COUNT> order{};
  std::size_t count = 0;
  for (int module = 0; module < KA_MODULE_COUNT; ++module) {
    if (module != KA_JOB) order[count++] = module;
  }
  order[count] = KA_JOB;
  return order;
}();

// Asks module after module until nothing is missing.
void ask_modules(PurgeReason reason, const ThreadList& threads) {
  const std::int64_t start = heap_size();
  for (const int module : kAskingOrder) {
    const std::int64_t before = heap_size();
    const std::int64_t wanted = bytes_wanted(reason);
    if (wanted < 1) break;
    ask_module(module, wanted, threads);
    if (heap_size() < before) {
      ka_vdebug("%lld fewer bytes after asking module %s",
                8 * static_cast<long long>(start - heap_size()), ka_modname[module]);
    }
  }
}

void limit_after_failure() {
  ka_nwarning(7, "out of memory after allocating %lld MB, trying to recover automatically",
              static_cast<long long>(ka::heap_megabytes(heap_size())));
  if (heap.limit != 0) return;
  set_limit(kept_share(heap_size()));
  ka_nwarning(8, "limiting heap usage to %lld MB from now on",
              static_cast<long long>(ka::heap_megabytes(heap.limit)));
}

}  // namespace

constinit ka::Heap ka::heap;

void ka::purge_start() { start_lock(&limit_lock); }
void ka::purge_end() { ka_delete_lock(&limit_lock); }

void ka::heap_raised(std::int64_t size) {
  if (size > heap.max.load(kRelaxed)) {
    heap.max = size;
    set_alarm();
  }
  const std::int64_t limit = heap.limit.load(kRelaxed);
  if (limit != 0 && size > limit) heap_purge(PurgeReason::kLimit);
}

void ka::heap_purge(PurgeReason reason) {
  if (heap.purger.load() || !is_accounting) return;
  const ModuleScope scope(KA_MEM);
  const TriedLock locked(limit_lock);
  if (!locked) return;
  if (reason == PurgeReason::kFailure) limit_after_failure();
  const PurgeMark mark;
  const std::int64_t start = heap_size();
  {
    const ThreadList threads;
    if (!threads) return;
    ask_modules(reason, threads);
  }
  const std::int64_t saved = start - heap_size();
  ++heap_npurges;
  heap_purged = heap_purged + double(saved * 8);
  if (saved * 10 > start) {
    ka_progress("heap purge saved %lld MB", static_cast<long long>(heap_megabytes(saved)));
  }
}

void ka::heap_refused(std::int64_t bytes) {
  heap.size = heap_size() + (bytes < 0 ? (-bytes + 7) >> 3 : (-bytes - 7) >> 3);
  if (ThreadMemory* const thread = thread_memory()) release_kept(*thread);
  heap_purge(PurgeReason::kFailure);
}

ka::PurgeTotals ka::purge_totals() { return {.count = heap_npurges, .bytes = heap_purged}; }

void ka_mem_limit_handler(int module, ka_mem_limit_function handler) {
  if (module >= 0 && module < KA_MODULE_COUNT) mem_limit_handler[std::size_t(module)] = handler;
}

std::int64_t ka_mem_memory_limit(std::int64_t bytes) {
  const ka::ModuleScope scope(KA_MEM);
  const std::int64_t previous = heap.limit;
  if (bytes >= 0) {
    set_limit(bytes >> 3);
    ka_info("heap size limit set to %lld MB", static_cast<long long>(bytes >> 20));
  }
  return previous;
}

std::size_t ka_mem_getremain() {
  const std::int64_t limit = heap.limit;
  if (limit == 0) return KA_MEM_UNLIMITED;
  constexpr std::int64_t units_per_kb = 128;
  return std::size_t(std::max<std::int64_t>(limit / units_per_kb - heap_size() / units_per_kb, 0));
}
