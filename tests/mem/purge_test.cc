// The limit of the heap and the purges that keep to it: whom they ask, for how much and in which
// order.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "heap.h"
#include "lib/messages.h"

namespace {

using Purge = test::MemoryTest;
using Names = std::vector<std::string>;

constexpr std::int64_t kMegabyte = 1 << 20;

struct Call {
  int module;
  std::int64_t wanted;
};
std::vector<Call> calls;

template <int module>
int note(std::int64_t wanted) {
  calls.push_back({module, wanted});
  return 1;
}

// Has `limit` units and asks for a block that passes it by `units`.
void pass_limit(std::int64_t limit, std::int64_t units) {
  ka_mem_memory_limit(limit * 8);
  calls.clear();
  ka_mem_release(ka_mem_allocate(static_cast<std::size_t>(units * 8 - 8)));
}

TEST_F(Purge, TheLimitIsToldAndThePreviousOneReturned) {
  const std::int64_t heap = test::align_heap();
  const Names lines = messages_of([] {
    EXPECT_EQ(ka_mem_memory_limit(64 * kMegabyte), 0);
    EXPECT_EQ(ka_mem_memory_limit(-1), 64 * kMegabyte / 8);
    EXPECT_EQ(ka_mem_memory_limit(3 * kMegabyte + 4095), 64 * kMegabyte / 8);
    EXPECT_EQ(ka_mem_memory_limit(0), (3 * kMegabyte + 4088) / 8);
  });
  EXPECT_EQ(lines, (Names{"heap size limit set to 64 MB", "heap size limit set to 3 MB",
                          "heap size limit set to 0 MB"}));
  EXPECT_EQ(ka_mem_getremain(), 0xffffffffU);
  ka_mem_memory_limit(heap * 8 + 5 * 1024 + 1000);
  EXPECT_EQ(ka_mem_getremain(), 5U);
  ka_mem_memory_limit(heap * 8 - 1024);
  EXPECT_EQ(ka_mem_getremain(), 0U);
}

// 7/8 of the limit is the target.
TEST_F(Purge, RunsPastTheLimitAndWantsWhatLeadsDownToSevenEighths) {
  ka_mem_limit_handler(KA_IMG, note<KA_IMG>);
  const std::int64_t heap = test::align_heap(), limit = heap + 20;
  pass_limit(limit, 20);
  EXPECT_TRUE(calls.empty());
  pass_limit(limit, 21);
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].wanted, (limit + 1 - limit * 7 / 8) * 8);
  ASSERT_NE(ka_msg_tls_info(), nullptr);  // it does not wait for threads that come or go
  pass_limit(limit, 30);
  ka_msg_tls_info_end();
  EXPECT_TRUE(calls.empty());
}

TEST_F(Purge, AsksInTheOrderOfTheModulesAndJobsLast) {
  ka_mem_limit_handler(KA_JOB, note<KA_JOB>);
  ka_mem_limit_handler(54, note<54>);
  ka_mem_limit_handler(22, note<22>);
  ka_mem_limit_handler(KA_NULL, [](std::int64_t wanted) {
    ka_mem_release(ka_mem_allocate(kMegabyte));  // only one runs at a time
    return note<KA_NULL>(wanted);
  });
  pass_limit(test::align_heap(), 10);
  std::vector<int> order;
  for (const Call& call : calls) order.push_back(call.module);
  EXPECT_EQ(order, (std::vector<int>{KA_NULL, 22, 54, KA_JOB}));
}

void* hoard = nullptr;

// 64 MB go: floor((-67108864 - 7) / 8) = -8388609 units, which are 67108872 bytes, and 64 when
// shifted right by 17. 8 KB of a heap that holds a megabyte and more: floor((-8192 - 7) / 8) =
// -1025 units.
TEST_F(Purge, EndsWhenEnoughHasComeBack) {
  void* const rest = ka_mem_allocate(kMegabyte);
  ka_mem_limit_handler(KA_IMG, [](std::int64_t wanted) {
    ka_mem_release(std::exchange(hoard, nullptr));
    return note<KA_IMG>(wanted);
  });
  ka_mem_limit_handler(KA_MAIN, note<KA_MAIN>);
  const auto told_for = [](std::size_t size) {
    hoard = ka_mem_allocate(size);
    const std::int64_t heap = test::align_heap();
    return messages_of([&] { pass_limit(heap, 10); }, KA_PROGRESS | KA_VDEBUG);
  };
  EXPECT_EQ(told_for(64 * kMegabyte),
            (Names{"67108872 fewer bytes after asking module IMG", "heap purge saved 64 MB"}));
  EXPECT_EQ(calls.size(), 1U);
  EXPECT_EQ(told_for(8192), Names{"8200 fewer bytes after asking module IMG"});
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[1].wanted, calls[0].wanted - 1025 * 8);
  ka_mem_release(rest);
}

// Two threads with an area of module 33 each, this one with none. What the handler releases is
// taken off this thread's account, not off that of the thread whose areas it looks at.
TEST_F(Purge, ShowsTheHandlerTheAreaOfEachThreadUntilItSaysSo) {
  static constexpr int kModule = 33;
  static std::vector<int> seen;
  static int last;
  ka_context_register_module(kModule, nullptr, nullptr, sizeof(int));
  ka_mem_limit_handler(kModule, [](std::int64_t) {
    seen.push_back(*static_cast<int*>(ka_context_mem(kModule)));
    ka_mem_release(std::exchange(hoard, nullptr));
    return int(seen.back() != last);
  });
  std::latch may_end(1);
  std::vector<std::jthread> threads;
  for (int number = 1; number <= 2; ++number) {
    std::latch is_ready(1);
    threads.emplace_back([&is_ready, &may_end, number] {
      ka_msg_register_thread();
      *static_cast<int*>(ka_context_mem(kModule)) = number;
      is_ready.count_down();
      may_end.wait();
      ka_msg_unregister_thread();
    });
    is_ready.wait();
  }
  const std::size_t before = ka_mem_getsize();
  for (last = 2; last > 0; --last) {
    ka_mem_memory_limit(0);
    hoard = ka_mem_allocate(1000);
    seen.clear();
    pass_limit(test::align_heap(), 10);
    EXPECT_EQ(seen, last == 2 ? std::vector({1, 2}) : std::vector({1}));
    EXPECT_EQ(ka_mem_getsize(), before);
  }
  may_end.count_down();
}

}  // namespace
