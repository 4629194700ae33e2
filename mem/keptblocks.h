// Small blocks: their header, their size classes, and those that a thread keeps for its next
// requests.
#pragma once

#include <ka/detail/context.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "statistics.h"

namespace ka {

// Precedes the memory handed out. Its size leaves the memory aligned for any type; the
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

}  // namespace ka
