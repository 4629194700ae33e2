// Released blocks that a thread keeps for its next requests: how many, and when they go back to the
// system.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/trans.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "heap.h"
#include "refuse.h"

namespace {

using KeptBlocks = test::MemoryTest;

constexpr long kMost = 4;               // of one class, 16 bytes wide
constexpr std::size_t kLargest = 1032;  // bytes of a block that is kept

void release_blocks(int count, std::size_t size) {
  std::vector<void*> blocks(static_cast<std::size_t>(count));
  for (void*& block : blocks) block = ka_mem_allocate(size);
  for (void* block : blocks) ka_mem_release(block);
}

// What a function leaves of the C library's blocks, in a thread that has areas of its own.
template <typename Function>
long left_by(Function function) {
  long left = 0;
  test::registered([&] {
    ka_mem_release(ka_mem_allocate(5000));  // the areas are there
    const long before = test::live_blocks();
    function();
    left = test::live_blocks() - before;
  }).join();
  return left;
}

TEST_F(KeptBlocks, AreFewAndSmall) {
  EXPECT_LE(left_by([] { release_blocks(100, 64); }), kMost);
  EXPECT_LE(left_by([] { release_blocks(100, kLargest); }), kMost);
  EXPECT_EQ(left_by([] { release_blocks(100, kLargest + 1); }), 0);
  EXPECT_LE(left_by([] { release_blocks(100, 0); }), kMost);
}

TEST_F(KeptBlocks, GoBackWithTheirThread) {
  (void)left_by([] {});  // what the first thread brings with it
  const long before = test::live_blocks();
  (void)left_by([] {
    for (std::size_t size = 0; size <= kLargest; ++size) release_blocks(2, size);
    void** const saved = ka_context_push();
    release_blocks(5, 100);
    ka_context_pop(saved);
    release_blocks(5, 100);
  });
  EXPECT_EQ(test::live_blocks(), before);
}

// The system may have refused because of them.
TEST_F(KeptBlocks, GoBackWhenTheAreasAreSetAsideAndWhenTheSystemRefuses) {
  EXPECT_EQ(left_by([] {
              release_blocks(50, 100);
              ka_context_pop(ka_context_push());
            }),
            0);
  EXPECT_EQ(left_by([] {
              release_blocks(50, 100);
              test::refuse(1, 1 << 20);
              EXPECT_EQ(ka_mem_test_allocate(1 << 20), nullptr);
            }),
            0);
}

// 1 to 8 bytes are the first class, 9 to 24 the second and so on: the smallest block of a class
// serves the largest.
TEST_F(KeptBlocks, ServeEverySizeOfTheirClass) {
  for (std::size_t largest = 24; largest <= kLargest; largest += 16) {
    void* const small = ka_mem_reallocate(ka_mem_allocate(3000), largest - 15);
    ka_mem_release(small);
    auto* const block = static_cast<unsigned char*>(ka_mem_allocate(largest));
    auto* const neighbour = static_cast<unsigned char*>(ka_mem_allocate(largest));
    std::fill_n(block, largest, std::uint8_t{0xff});
    EXPECT_EQ(std::count(neighbour, neighbour + largest, 0), std::ptrdiff_t(largest));
    ka_mem_release(neighbour);
    ka_mem_release(block);
  }
}

TEST(KeptBlocksDeathTest, AreNotReleasedTwice) {
  const auto release_twice = [] {
    setenv("KA_LOGFILE", "/dev/null", 1);
    void* const block = ka_mem_allocate(100);
    ka_mem_release(block);
    ka_mem_release(block);
  };
  EXPECT_DEATH(release_twice(), "ASSERTION FAILED|heap-use-after-free");
}

}  // namespace
