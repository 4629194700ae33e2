// What each module holds: counters of the process and of threads.
#pragma once

#include <ka/detail/context.h>

#include <array>
#include <cstdint>

namespace ka {

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

// Counts a change for a thread without an area to count in: in its area of KA_MEM, which is made, or
// for the process. False: statistics have not started, and the change is not counted.
bool count_elsewhere(int module, std::int64_t bytes, std::int64_t blocks);

// The statistics of the process, those of the calling thread merged into them.
MemStats merged_stats();

// The live bytes and blocks of all modules that blocks are charged to.
struct MemTotals {
  std::int64_t bytes, blocks;
};
MemTotals totals_of(const MemStats& stats);
constexpr std::int64_t kBlockOverhead = 16;  // bytes that reports add for a live block

// A number that indexes tables: blocks of unknown modules are charged to none.
inline int known_module(int module) {
  return module >= 0 && module < KA_MODULE_COUNT ? module : KA_NULL;
}

// The module that calls an operation of this room, which has not pushed its own.
inline int calling_module() { return known_module(module_at(context(), 0)); }

}  // namespace ka
