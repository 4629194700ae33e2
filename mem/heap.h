// The estimate of the heap, its limit, and the purge that asks the modules for memory.
#pragma once

#include <ka/detail/context.h>

#include <atomic>
#include <cstdint>

namespace ka {

// Of the whole process, in units of 8 bytes. Counted without a lock, so that threads may lose each
// other's changes: it is an estimate.
struct Heap {
  std::atomic<std::int64_t> size{0};
  std::atomic<std::int64_t> alarm{0};  // a size above is a new maximum, or above the limit
  std::atomic<std::int64_t> max{0};
  std::atomic<std::int64_t> limit{0};              // 0: none
  std::atomic<const ka_context*> purger{nullptr};  // the thread that runs a purge, null: none
};
extern constinit Heap heap;

inline std::int64_t heap_megabytes(std::int64_t units) { return units >> 17; }

// Asks the modules to give memory back, unless that is going on already.
enum class PurgeReason { kLimit, kFailure };
void heap_purge(PurgeReason reason);

// The heap has grown to a size above the alarm: notes the maximum, and purges above the limit.
void heap_raised(std::int64_t size);

// Counts bytes, more than 0, that are about to be asked of the system.
inline void heap_grow(std::int64_t bytes) {
  const std::int64_t size = heap.size.load(std::memory_order_relaxed) + ((bytes + 7) >> 3);
  heap.size.store(size, std::memory_order_relaxed);
  if (size > heap.alarm.load(std::memory_order_relaxed)) [[unlikely]]
    heap_raised(size);
}

// Counts bytes, 0 or more, that are no longer in use.
inline void heap_shrink(std::int64_t bytes) {
  heap.size.store(heap.size.load(std::memory_order_relaxed) + ((-bytes - 7) >> 3),
                  std::memory_order_relaxed);
}

// Takes a change back that the system has refused, and purges.
void heap_refused(std::int64_t bytes);

struct PurgeTotals {
  int count;
  double bytes;  // saved by all purges
};
PurgeTotals purge_totals();

}  // namespace ka
