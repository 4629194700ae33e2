// Accounted and raw blocks: contents, what the heap estimate counts, and whom they are charged to.
#include <gtest/gtest.h>
#include <ka/mem.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "heap.h"

namespace {

using Bytes = unsigned char*;

bool is_zero(const unsigned char* bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](unsigned char byte) { return byte == 0; });
}

// 1032 and 1033 bytes are served in two ways, 16 MB are a mapping.
TEST(Block, IsZeroedAlignedAndKnowsItsSize) {
  constexpr std::size_t sizes[] = {0, 1, 8, 9, 24, 25, 1032, 1033, 5000, 16 << 20};
  for (const std::size_t size : sizes) {
    for (int round = 0; round < 2; ++round) {  // the second one gets what the first has soiled
      const auto block = static_cast<Bytes>(ka_mem_allocate(size));
      EXPECT_TRUE(is_zero(block, size)) << size;
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U) << size;
      EXPECT_EQ(ka_mem_dogetsize(block), size);
      std::fill_n(block, size, std::uint8_t{0xff});
      ka_mem_release(block);
    }
  }
}

TEST(Block, KeepsItsBytesAndZeroesTheAddedOnesWhenItGrows) {
  auto block = static_cast<Bytes>(ka_mem_reallocate(nullptr, 4000));
  EXPECT_TRUE(is_zero(block, 4000));
  std::fill_n(block, 4000, std::uint8_t{7});
  block = static_cast<Bytes>(ka_mem_reallocate(block, 100));
  EXPECT_EQ(ka_mem_dogetsize(block), 100U);
  block = static_cast<Bytes>(ka_mem_reallocate(block, 4000));
  EXPECT_EQ(std::count(block, block + 100, 7), 100);
  EXPECT_TRUE(is_zero(block + 100, 3900));
  ka_mem_release(block);
  ka_mem_release(nullptr);
}

TEST(Block, TextsAreCopied) {
  char* const copy = ka_mem_strdup("texture");
  EXPECT_STREQ(copy, "texture");
  EXPECT_EQ(ka_mem_dogetsize(copy), 8U);
  ka_mem_release(copy);
  EXPECT_EQ(ka_mem_strdup(nullptr), nullptr);
}

TEST(Block, RawBlocksAreZeroedAndKeepTheirBytes) {
  auto block = static_cast<Bytes>(ka_mem_allocate_raw(300));
  EXPECT_TRUE(is_zero(block, 300));
  std::fill_n(block, 300, std::uint8_t{7});
  block = static_cast<Bytes>(ka_mem_reallocate_raw(block, 3000));
  EXPECT_EQ(std::count(block, block + 300, 7), 300);
  ka_mem_release_raw(block);
  block = static_cast<Bytes>(ka_mem_reallocate_raw(nullptr, 300));
  EXPECT_TRUE(is_zero(block, 300));
  ka_mem_release_raw(block);
}

using OversizedBlock = test::MemoryTest;

// A size that leaves no room for a header does not wrap around.
TEST_F(OversizedBlock, IsRefused) {
  void* const block = ka_mem_allocate(8);
  const std::size_t before = ka_mem_getsize();
  EXPECT_EQ(ka_mem_test_allocate(SIZE_MAX), nullptr);
  EXPECT_EQ(ka_mem_test_allocate(SIZE_MAX - 15), nullptr);
  EXPECT_EQ(ka_mem_test_reallocate(block, SIZE_MAX), nullptr);
  EXPECT_EQ(ka_mem_dogetsize(block), 8U);
  EXPECT_EQ(ka_mem_getsize(), before);
  ka_mem_release(block);
}

// Units of 8 bytes: a change of d bytes adds floor((d + 7) / 8) above 0 and floor((d - 7) / 8)
// else. A block counts its size and 8 more when it comes and its size when it goes.
// Counted so many times that each unit becomes a KB, which is what the operations tell.
TEST(HeapEstimate, FollowsTheBlocks) {
  const struct {
    std::size_t size, new_size;          // what blocks are resized to
    int come, resize, go;                // units
  } rows[] = {{16, 16, 3, 1, -3},        // 24 + 7, 0 + 8 + 7, -16 - 7
              {17, 17, 4, 1, -3},        // 25 + 7, 8 + 7, -17 - 7 = -24
              {0, 0, 1, 1, -1},          // 8 + 7, 8 + 7, 0 - 7
              {16, 1000, 3, 124, -126},  // 24 + 7, 992 + 7, -1007
              {100, 16, 14, -11, -3},    // 108 + 7, -76 - 7 = -83, -16 - 7
              {24, 16, 4, -1, -3}};      // 32 + 7, 0 - 7, -16 - 7
  ka_mem_release(ka_mem_allocate(1));    // the thread's counters are there
  auto growth = [start = test::heap_kilobytes()]() mutable {
    const std::int64_t now = test::heap_kilobytes();
    return now - std::exchange(start, now);
  };
  std::vector<void*> blocks(test::kUnits);
  for (const auto& [size, new_size, come, resize, go] : rows) {
    for (void*& block : blocks) block = ka_mem_allocate(size);
    EXPECT_EQ(growth(), come) << size;
    for (void*& block : blocks) block = ka_mem_reallocate(block, new_size);
    EXPECT_EQ(growth(), resize) << size << " to " << new_size;
    for (void* block : blocks) ka_mem_release(block);
    EXPECT_EQ(growth(), go) << new_size;
  }
  for (std::size_t i = 0; i < blocks.size(); ++i) ka_mem_release_raw(ka_mem_allocate_raw(17));
  EXPECT_EQ(growth(), 3);  // floor((17 + 7) / 8) units each, which are never taken off
}

// Bytes and, for each block, 16 more.
TEST(Accounting, TheSizeCountsBytesAndBlocks) {
  const std::size_t before = ka_mem_getsize();
  void* const first = ka_mem_allocate(1000);
  void* second = ka_mem_allocate(500);
  EXPECT_EQ(ka_mem_getsize() - before, 1000U + 500U + 2 * 16U);
  second = ka_mem_reallocate(second, 700);
  EXPECT_EQ(ka_mem_getsize() - before, 1000U + 700U + 2 * 16U);
  second = ka_mem_reallocate(second, 10);
  ka_mem_release(first);
  EXPECT_EQ(ka_mem_getsize() - before, 10U + 16U);
  ka_mem_release(second);
  EXPECT_EQ(ka_mem_getsize(), before);
}

}  // namespace
