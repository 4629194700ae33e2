// The heap estimate as the public operations show it, and limit handlers that do not outlive a
// test.
#pragma once

#include <gtest/gtest.h>
#include <ka/mem.h>

#include <cstdint>

#include "support.h"

namespace test {

constexpr std::int64_t kUnits = 128;  // of 8 bytes, in a KB

// The heap estimate in KB, rounded down.
inline std::int64_t heap_kilobytes() {
  constexpr std::int64_t limit = std::int64_t{1} << 40;  // bytes
  const std::int64_t previous = ka_mem_memory_limit(limit);
  const auto remaining = static_cast<std::int64_t>(ka_mem_getremain());
  ka_mem_memory_limit(previous * 8);
  return limit / 1024 - remaining;
}

// Fills the heap up to a whole KB and returns the estimate in units. Raw memory is never taken off,
// and a byte of it counts as one unit.
inline std::int64_t align_heap() {
  const std::int64_t start = heap_kilobytes();
  while (heap_kilobytes() == start) ka_mem_release_raw(ka_mem_allocate_raw(1));
  return heap_kilobytes() * kUnits;
}

// Without limit, limit handlers and error handler before and after each test.
class MemoryTest : public testing::Test {
 protected:
  MemoryTest() { reset(); }
  ~MemoryTest() override { reset(); }

 private:
  static void reset() {
    ka_mem_memory_limit(0);
    ka_mem_error_handler(nullptr);
    for (int module = 0; module < KA_MODULE_COUNT; ++module) ka_mem_limit_handler(module, nullptr);
  }
};

}  // namespace test
