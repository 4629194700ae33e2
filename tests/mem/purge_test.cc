// The limit of the heap and the purges that keep to it: whom they ask, for how much and in which
// order.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <atomic>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

#include "heap.h"
#include "lib/messages.h"

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
int give_back(std::int64_t wanted) {
  ka_mem_release(std::exchange(hoard, nullptr));
  note<KA_IMG>(wanted);
  return 0;
}

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

// 64 MB go: floor((-67108864 - 7) / 8) = -8388609 units, which are 67108872 bytes, and 64 when
// shifted right by 17. 8 KB of a heap that holds a megabyte and more, -1025 units, are too little.
TEST_F(Purge, EndsWhenEnoughHasComeBack) {
  void* const rest = ka_mem_allocate(kMegabyte);
  ka_mem_limit_handler(KA_IMG, give_back);
  ka_mem_limit_handler(KA_MAIN, note<KA_MAIN>);
  const auto purge = [](std::int64_t size) {
    hoard = ka_mem_allocate(std::size_t(size));
    const std::int64_t heap = test::align_heap();
    return messages_of([&] { pass_limit(heap, 10); }, KA_PROGRESS | KA_VDEBUG);
  };
  EXPECT_EQ(purge(64 * kMegabyte),
            (Texts{"67108872 fewer bytes after asking module IMG", "heap purge saved 64 MB"}));
  EXPECT_EQ(calls.size(), 1U);
  ka_mem_memory_limit(0);
  EXPECT_EQ(purge(8192), Texts{"8200 fewer bytes after asking module IMG"});
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[1], std::pair(int(KA_MAIN), calls[0].second - 1025 * 8));
  ka_mem_release(rest);
}

TEST_F(Purge, RunsAloneAndDoesNotWaitForThreadsThatComeOrGo) {
  ka_mem_limit_handler(KA_IMG, [](std::int64_t wanted) {
    ka_mem_release(ka_mem_allocate(kMegabyte));
    return note<KA_IMG>(wanted);
  });
  const std::int64_t heap = test::align_heap();
  ASSERT_NE(ka_msg_tls_info(), nullptr);
  pass_limit(heap, 10);
  ka_msg_tls_info_end();
  EXPECT_TRUE(calls.empty());
  pass_limit(heap, 20);
  EXPECT_EQ(calls.size(), 1U);
}

// One thread sets a limit while another one raises the maximum: whatever the order, the next
// allocation notices the limit.
TEST_F(Purge, ALimitHoldsThatIsSetWhileTheHeapGrows) {
  constexpr int rounds = 20'000;
  const std::int64_t below_heap = test::align_heap() * 4;  // bytes: half of the heap
  std::atomic<int> started{0}, done{0};
  const std::jthread setter = test::registered([&] {
    for (int round = 1; round <= rounds; ++round) {
      while (started < round) std::this_thread::yield();
      ka_mem_memory_limit(below_heap);
      done = round;
    }
    // A thread that ends holds the list of threads, and a purge then leaves it for another time.
    while (started <= rounds) std::this_thread::yield();
  });
  int unnoticed = 0;
  ka_mem_limit_handler(KA_IMG, note<KA_IMG>);
  for (int round = 1; round <= rounds; ++round) {
    ka_mem_memory_limit(0);
    started = round;
    ka_mem_release(ka_mem_allocate(std::size_t(round) * 16));  // more than ever before
    while (done < round) std::this_thread::yield();
    calls.clear();
    ka_mem_release(ka_mem_allocate(1));
    if (calls.empty()) ++unnoticed;
  }
  started = rounds + 1;
  EXPECT_EQ(unnoticed, 0);
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
