// The limit of the heap and the purges that keep to it: whom they ask, for how much and in which
// order.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/trans.h>

#include <latch>
#include <thread>
#include <utility>
#include <vector>

#include "heap.h"

namespace {

using Purge = test::MemoryTest;

constexpr std::int64_t kMegabyte = 1 << 20;

std::vector<std::pair<int, std::int64_t>> calls;  // module, bytes wanted

template <int module>
int note(std::int64_t wanted) {
  calls.emplace_back(module, wanted);
  return 1;
}

void* hoard = nullptr;

// Has `limit` units and asks for a block that passes it by `units`.
void pass_limit(std::int64_t limit, std::int64_t units) {
  ka_mem_memory_limit(limit * 8);
  calls.clear();
  ka_mem_release(ka_mem_allocate(static_cast<std::size_t>(units * 8 - 8)));
}

// 7/8 of the limit is the target: heap + 21 - limit * 7 / 8 units are too many.
TEST_F(Purge, RunsPastTheLimitAndWantsSevenEighthsOfItInTheOrderOfTheModulesAndJobsLast) {
  ka_mem_limit_handler(KA_JOB, note<KA_JOB>);
  ka_mem_limit_handler(54, note<54>);
  ka_mem_limit_handler(KA_NULL, note<KA_NULL>);
  const std::int64_t heap = test::align_heap();
  pass_limit(heap + 20, 20);
  EXPECT_TRUE(calls.empty());
  pass_limit(heap + 20, 21);
  const std::int64_t wanted = (heap + 21 - (heap + 20) * 7 / 8) * 8;
  EXPECT_EQ(calls, (decltype(calls){{KA_NULL, wanted}, {54, wanted}, {KA_JOB, wanted}}));
}

// The threads 1 and 2 have an area of the module each, this one has none. What a handler releases
// is taken off this thread's account, not off that of the thread whose areas it looks at.
TEST_F(Purge, ShowsTheHandlerTheAreaOfEachThreadUntilItSaysThatItIsEnough) {
  constexpr int module = 33;
  static std::vector<int> seen;
  static int result;
  ka_context_register_module(module, nullptr, nullptr, sizeof(int));
  std::latch ready(2), done(1);
  const auto wait = [&] {
    *static_cast<int*>(ka_context_mem(module)) = ka_msg_my_thread_id();
    ready.count_down();
    done.wait();
  };
  const std::jthread threads[] = {test::registered(wait), test::registered(wait)};
  ready.wait();
  void* const own = ka_context_mem(KA_IMG);
  const std::size_t before = ka_mem_getsize();
  ka_mem_limit_handler(module, [](std::int64_t) {
    ka_mem_release(std::exchange(hoard, nullptr));
    seen.push_back(*static_cast<int*>(ka_context_mem(module)));
    return result;
  });
  for (result = 1; result >= 0; --result) {
    hoard = ka_mem_allocate(kMegabyte);
    pass_limit(test::align_heap(), 10);
    ka_mem_memory_limit(0);
    EXPECT_LT(ka_mem_getsize(), before + kMegabyte / 2);
  }
  EXPECT_EQ(seen, (std::vector{1, 2, 1}));
  EXPECT_EQ(ka_context_mem(KA_IMG), own);
  done.count_down();
}

}  // namespace
