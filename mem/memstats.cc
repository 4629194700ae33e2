// Statistics: every thread counts in its own area; the areas are merged when somebody asks, when a
// thread sets its areas aside and when it ends.
#include <algorithm>
#include <atomic>

#include <ka/detail/hooks.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>

#include "heap.h"
#include "keptblocks.h"
#include "startup.h"
#include "statistics.h"

namespace {

using ka::Gauge;
using ka::MemStats;
using ka::ThreadMemory;

ka_mutex stats_lock;
MemStats stats KA_GUARDED_BY(stats_lock);  // of the process; its bases are not used

// The statistics lock, for as long as there is one.
class KA_SCOPED_CAPABILITY StatsLock {
 public:
  StatsLock() KA_ACQUIRE(stats_lock) {
    if (stats_lock.handle) ka_lock(stats_lock);
  }
  ~StatsLock() KA_RELEASE() {
    if (stats_lock.handle) ka_unlock(stats_lock);
  }
  StatsLock(const StatsLock&) = delete;
  StatsLock& operator=(const StatsLock&) = delete;
};

// The areas of a thread that purges may be those of another thread: it leaves them alone and counts
// for the process.
bool is_purging(const ka_context& thread) {
  return ka::heap.purger.load(std::memory_order_relaxed) == &thread;
}

void init_area(void* memory) {
  MemStats& area = static_cast<ThreadMemory*>(memory)->stats;
  const StatsLock locked;
  for (std::size_t module = 0; module < area.size(); ++module) {
    area[module].bytes.base = stats[module].bytes.peak;
    area[module].blocks.base = stats[module].blocks.peak;
  }
}

bool has_changes(const Gauge& thread, const Gauge& process) {
  return thread.now != 0 || thread.base + thread.peak > process.peak;
}

bool has_changes(const MemStats& area) KA_REQUIRES(stats_lock) {
  for (std::size_t module = 1; module < area.size(); ++module) {
    if (has_changes(area[module].bytes, stats[module].bytes) ||
        has_changes(area[module].blocks, stats[module].blocks)) {
      return true;
    }
  }
  return false;
}

void merge(Gauge& thread, Gauge& process) {
  process.now += thread.now;
  process.peak = std::max(process.peak, thread.base + thread.peak);
  thread = {.now = 0, .peak = 0, .base = process.peak};
}

void count(MemStats& counters, int module, std::int64_t bytes, std::int64_t blocks) {
  counters[std::size_t(module)].bytes.grow(bytes);
  counters[std::size_t(module)].blocks.grow(blocks);
}

// The thread sets its areas aside: from now on it needs another one.
void detach_area(void* memory) {
  ka_context& thread = ka::context();
  if (!is_purging(thread)) {
    ka_mem_merge_stats(memory);
    ka::release_kept(*static_cast<ThreadMemory*>(memory));
  }
  thread.mem_stats = nullptr;
}

void exit_area(void* memory) {
  detach_area(memory);
  ka::release_kept(*static_cast<ThreadMemory*>(memory));
}

}  // namespace

constinit std::atomic<bool> ka::is_accounting{false};

void ka::start_lock(ka_mutex* lock) {
  if (!ka_init_lock(lock)) ka_nerror(1, "cannot init lock");
}

void ka::stats_start() {
  start_lock(&stats_lock);
  ka_context_register_module(KA_MEM, init_area, exit_area, sizeof(ThreadMemory));
  call_before_context_push(KA_MEM, detach_area);
}

void ka::stats_end() {
  (void)merged_stats();
  context().mem_stats = nullptr;
  ka_delete_lock(&stats_lock);
}

void ka_mem_merge_stats(void* memory) {
  MemStats& area = static_cast<ThreadMemory*>(memory)->stats;
  const StatsLock locked;
  if (!has_changes(area)) return;
  for (std::size_t module = 1; module < area.size(); ++module) {
    merge(area[module].bytes, stats[module].bytes);
    merge(area[module].blocks, stats[module].blocks);
  }
}

bool ka::count_elsewhere(int module, std::int64_t bytes, std::int64_t blocks) {
  if (!is_accounting) return false;
  ka_context& thread = context();
  if (!is_purging(thread)) thread.mem_stats = ka_context_mem(KA_MEM);
  if (ThreadMemory* const own = thread_memory()) {
    count(own->stats, module, bytes, blocks);
  } else {
    const StatsLock locked;
    count(stats, module, bytes, blocks);
  }
  return true;
}

MemStats ka::merged_stats() {
  const ka_context& thread = context();
  if (thread.context_areas && !is_purging(thread)) {
    if (void* const area = thread.context_areas[KA_MEM]) ka_mem_merge_stats(area);
  }
  const StatsLock locked;
  return stats;
}

ka::MemTotals ka::totals_of(const MemStats& all) {
  MemTotals totals{};
  for (std::size_t module = 1; module < all.size(); ++module) {
    totals.bytes += all[module].bytes.now;
    totals.blocks += all[module].blocks.now;
  }
  return totals;
}

std::size_t ka_mem_getsize() {
  const auto totals = ka::totals_of(ka::merged_stats());
  return std::size_t(std::max<std::int64_t>(totals.bytes + ka::kBlockOverhead * totals.blocks, 0));
}
