// Shared by the files of this room: the system allocator, the heap estimate, statistics, and what
// happens when memory runs out.
#pragma once

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/msg.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ka {

// The system allocator.

// Null on failure. Zeroed memory of a large block is the system's own zeros, untouched.
[[nodiscard]] void* system_allocate(std::size_t size, bool zero);
[[nodiscard]] void* system_reallocate(void* memory, std::size_t size);

// Larger requests count as this one, which no system grants.
constexpr std::size_t kMaxRequest = std::size_t{1} << 62;

// The heap estimate.

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

void purge_start();
void purge_end();

struct PurgeTotals {
  int count;
  double bytes;  // saved by all purges
};
PurgeTotals purge_totals();

// Statistics.

// Of the process: what is live, and its peak. Of a thread: the change since it was merged last, the
// peak of that change, and the peak of the process that it is added to.
struct Gauge {
  std::int64_t now, peak, base;
  void grow(std::int64_t change) {
    now += change;
    if (now > peak) peak = now;
  }
};
struct ModuleStats {
  Gauge bytes, blocks;
  std::int64_t unused[2];  // makes the way to a module's counters a shift
};
using MemStats = std::array<ModuleStats, KA_MODULE_COUNT>;  // indexed by module

extern constinit std::atomic<bool> is_accounting;  // between ka_mem_init and ka_mem_exit

// Small blocks.

// Stands in front of the memory handed out. Its size leaves the memory aligned for any type; the
// estimate counts it as 8 bytes.
struct alignas(std::max_align_t) BlockHeader {
  union {
    std::size_t size;   // bytes that were asked for
    BlockHeader* next;  // of a block that is kept
  };
  // Charged for them, or one of the two below. As wide as what the system allocator reads here
  // first thing in free: a narrower store would make that read wait.
  std::int64_t module;
};
constexpr std::int64_t kUncounted = -1;  // the statistics do not hold the block
constexpr std::int64_t kKept = -2;       // released, and kept for the next request

// Blocks of up to this size come in classes of 16 bytes. A class is what the C library makes of a
// request anyway, so that a block serves every size of its class.
constexpr std::size_t kSmallBlock = 1032;
constexpr std::size_t size_class(std::size_t size) { return (size + 7) / 16; }
constexpr std::size_t class_bytes(std::size_t size) { return 16 * size_class(size) + 8; }
constexpr std::size_t kClasses = size_class(kSmallBlock) + 1;

// How many released blocks of a class a thread keeps. Sanitizers are to see every release.
#if defined(__SANITIZE_ADDRESS__)  // g++
constexpr std::size_t kKeptBlocks = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)  // clang
constexpr std::size_t kKeptBlocks = 0;
#else
constexpr std::size_t kKeptBlocks = 4;
#endif
#else
constexpr std::size_t kKeptBlocks = 4;
#endif

// Released blocks of one class, the one released last first.
struct KeptBlocks {
  BlockHeader* first;
  std::size_t count;
};

// What a thread has in its context area. Its next requests take the blocks that it has kept, which
// costs less than half of the way through the C library, and much less for the blocks that the
// header makes too large for what the C library keeps itself.
struct ThreadMemory {
  MemStats stats;
  std::array<KeptBlocks, kClasses> kept;  // indexed by class
};

// The area in which the calling thread counts at this moment; null: call count_elsewhere.
inline ThreadMemory* thread_memory() { return static_cast<ThreadMemory*>(context().mem_stats); }

// Gives the blocks that a thread has kept back to the system.
void release_kept(ThreadMemory& memory);

// Returns whether the change was counted.
bool count_elsewhere(int module, std::int64_t bytes, std::int64_t blocks);

void stats_start();
void stats_end();
// The statistics of the process, those of the calling thread merged into them.
MemStats merged_stats();

// The live bytes and blocks of all modules that blocks are charged to.
struct MemTotals {
  std::int64_t bytes, blocks;
};
MemTotals totals_of(const MemStats& stats);
constexpr std::int64_t kBlockOverhead = 16;  // bytes that reports add for a live block

// Creates a lock at initialisation, with an error message when the system refuses.
void start_lock(ka_mutex* lock);

// Running out of memory.

constexpr int kAttempts = 1000;  // a system that refuses is asked this often

// What a refusal leads to: the error handler every time, the post-mortem the first time.
enum class FailureOrder { kReportFirst, kHandlerFirst };
void attempt_failed(int failures, FailureOrder order);

// Calls the error handler; false when there is none.
bool call_error_handler();

// Prints the post-mortem, unless the calling thread is at it.
void report_failure();

template <typename Attempt, typename Fatal>
[[gnu::cold, gnu::noinline]] void* retry_failed(Attempt attempt, Fatal fatal, FailureOrder order) {
  const ModuleScope scope(KA_MEM);
  for (int failures = 1;; ++failures) {
    attempt_failed(failures, order);
    if (failures == kAttempts) fatal();
    if (void* const memory = attempt()) return memory;
  }
}

// The memory that `attempt` gets; after the last failed attempt `fatal` ends the process. The
// module goes on the stack with the first failure: before, nobody is called who could see it.
template <typename Attempt, typename Fatal>
[[nodiscard]] void* mem_retry(Attempt attempt, Fatal fatal,
                              FailureOrder order = FailureOrder::kReportFirst) {
  if (void* const memory = attempt()) [[likely]]
    return memory;
  return retry_failed(attempt, fatal, order);
}

// A number that indexes tables: blocks of unknown modules are charged to none.
inline int known_module(int module) {
  return module >= 0 && module < KA_MODULE_COUNT ? module : KA_NULL;
}

// The module that calls an operation of this room, which has not pushed its own.
inline int calling_module() { return known_module(module_at(context(), 0)); }

// Zeroed accounted memory charged to `module`; never null.
[[nodiscard]] void* allocate_for(int module, std::size_t size);

}  // namespace ka
