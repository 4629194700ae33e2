// Accounted and raw blocks: contents, what the heap estimate counts, and whom they are charged to.
#include <gtest/gtest.h>
#include <ka/mem.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "heap.h"

namespace {

using Bytes = unsigned char*;

// 1032 and 1033 bytes are served in two ways, 16 MB are a mapping.
TEST(Block, IsZeroedAlignedAndKeepsItsBytesWhenItGrows) {
  for (const std::size_t size : {0u, 1u, 8u, 9u, 24u, 25u, 1032u, 1033u, 5000u, 16u << 20}) {
    for (int round = 0; round < 2; ++round) {  // the second one gets what the first has soiled
      auto block = static_cast<Bytes>(ka_mem_allocate(size));
      EXPECT_EQ(std::count(block, block + size, 0), std::ptrdiff_t(size)) << size;
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U) << size;
      EXPECT_EQ(ka_mem_dogetsize(block), size);
      std::fill_n(block, size, std::uint8_t{7});
      block = static_cast<Bytes>(ka_mem_reallocate(block, size + 4000));
      EXPECT_EQ(std::count(block, block + size, 7), std::ptrdiff_t(size));
      EXPECT_EQ(std::count(block + size, block + size + 4000, 0), 4000);
      ka_mem_release(block);
    }
  }
  auto raw = static_cast<Bytes>(ka_mem_allocate_raw(300));
  EXPECT_EQ(std::count(raw, raw + 300, 0), 300);
  std::fill_n(raw, 300, std::uint8_t{7});
  raw = static_cast<Bytes>(ka_mem_reallocate_raw(raw, 3000));
  EXPECT_EQ(std::count(raw, raw + 300, 7), 300);
  ka_mem_release_raw(raw);
}

using Accounting = test::MemoryTest;

// Bytes and, for each block, 16 more. A size that leaves no room for a header does not wrap around.
TEST_F(Accounting, TheSizeCountsBytesAndBlocks) {
  const std::size_t before = ka_mem_getsize();
  void* const first = ka_mem_allocate(1000);
  void* second = ka_mem_allocate(500);
  EXPECT_EQ(ka_mem_getsize() - before, 1000U + 500U + 2 * 16U);
  second = ka_mem_reallocate(second, 10);
  ka_mem_release(first);
  EXPECT_EQ(ka_mem_test_allocate(SIZE_MAX - 15), nullptr);
  EXPECT_EQ(ka_mem_test_reallocate(second, SIZE_MAX), nullptr);
  EXPECT_EQ(ka_mem_getsize() - before, 10U + 16U);
  ka_mem_release(second);
  EXPECT_EQ(ka_mem_getsize(), before);
}

// Units of 8 bytes: a change of d bytes adds floor((d + 7) / 8) above 0 and floor((d - 7) / 8)
// else. A block counts its size and 8 more when it comes and its size when it goes. So many of
// them that each unit becomes a KB, which is what the operations tell.
TEST_F(Accounting, TheHeapEstimateFollowsTheBlocks) {
  const struct {
    std::size_t size, new_size;
    int come, resize, go;
  } rows[] = {{16, 16, 3, 1, -3},        // 24 + 7, 0 + 8 + 7, -16 - 7
              {17, 17, 4, 1, -3},        // 25 + 7, 8 + 7, -17 - 7 = -24
              {0, 0, 1, 1, -1},          // 8 + 7, 8 + 7, 0 - 7
              {16, 1000, 3, 124, -126},  // 24 + 7, 992 + 7, -1007
              {100, 16, 14, -11, -3},    // 108 + 7, -76 - 7 = -83, -16 - 7
              {24, 16, 4, -1, -3}};      // 32 + 7, 0 - 7, -16 - 7
  for (const auto& [size, new_size, come, resize, go] : rows) {
    std::vector<void*> blocks(test::kUnits);
    std::int64_t heap = test::heap_kilobytes();
    for (void*& block : blocks) block = ka_mem_allocate(size);
    EXPECT_EQ(test::heap_kilobytes(), heap += come) << size;
    for (void*& block : blocks) block = ka_mem_reallocate(block, new_size);
    EXPECT_EQ(test::heap_kilobytes(), heap += resize) << size;
    for (void* block : blocks) ka_mem_release(block);
    EXPECT_EQ(test::heap_kilobytes(), heap += go) << size;
    // raw memory is never taken off: floor((17 + 7) / 8) units each
    for (int i = 0; i < test::kUnits; ++i) ka_mem_release_raw(ka_mem_allocate_raw(17));
    EXPECT_EQ(test::heap_kilobytes(), heap + 3);
  }
}

}  // namespace
