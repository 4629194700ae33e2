// The thread table: numbers, contexts, what a finished thread leaves behind.
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "support.h"

namespace {

// Runs functions on threads of the library and waits for their ends: these threads are detached.
class Threads {
 public:
  int start(std::function<void()> function) {
    auto* const task = new Task{*this, std::move(function)};
    ++running_;
    const int number = ka_msg_start_thread(
        [](void* argument) {
          const std::unique_ptr<Task> own(static_cast<Task*>(argument));
          own->function();
          --own->owner.running_;
        },
        task);
    if (number < 0) {
      --running_;
      delete task;
    }
    return number;
  }
  void wait() const {
    while (running_ != 0) ka_msg_usleep(1000);
    while (contexts() > 1) ka_msg_usleep(1000);  // until the table has forgotten them too
  }
  static std::size_t contexts() {
    ka_context* const* list = nullptr;
    while (!(list = ka_msg_tls_info())) std::this_thread::yield();
    std::size_t count = 0;
    while (list[count]) ++count;
    ka_msg_tls_info_end();
    return count;
  }

 private:
  struct Task {
    Threads& owner;
    std::function<void()> function;
  };
  std::atomic<int> running_{0};
};

TEST(Thread, RunsWithANumberAndAContextOfItsOwn) {
  Threads threads;
  std::atomic<int> seen{-1}, module{-1}, depth{-1};
  const int number = threads.start([&] {
    seen = ka_msg_my_thread_id();
    module = ka_module_current();
    depth = ka::context().depth;
  });
  threads.wait();
  EXPECT_EQ(number, 1);  // the lowest free one; 0 is the main thread's
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(module, KA_MSG);
  EXPECT_EQ(depth, 1);
  EXPECT_EQ(ka_msg_my_thread_id(), 0);
  EXPECT_EQ(ka_thread_get(), 0);
  EXPECT_EQ(ka_host_get(), -1);
}

TEST(Thread, TheTableIsLimitedAndNumbersAreUsedAgain) {
  Threads threads;
  std::latch may_end(1);
  const auto wait = [&] { may_end.wait(); };
  std::set<int> numbers;
  for (int i = 0; i < 1024; ++i) numbers.insert(threads.start(wait));
  EXPECT_EQ(numbers.size(), 1024U);
  EXPECT_EQ(*numbers.begin(), 1);
  EXPECT_EQ(*numbers.rbegin(), 1024);  // the network thread's number is the last to go
  EXPECT_EQ(Threads::contexts(), 1025U);
  {
    const test::MessageLog log(0x7f);
    EXPECT_EQ(threads.start(wait), -1);
    EXPECT_EQ(test::MessageLog::lines().at(0), "MSG   .0  error  011100: too many threads");
    EXPECT_EQ(test::MessageLog::lines().at(1), "MSG   .0  error  011101: cannot allocate thread");
  }
  may_end.count_down();
  threads.wait();
  EXPECT_EQ(threads.start([] {}), 1);
  threads.wait();
}

TEST(Thread, ContextsAreSeenByOneThreadAtATime) {
  ka_context* const* const list = ka_msg_tls_info();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list[0], &ka::context());
  EXPECT_EQ(list[1], nullptr);
  std::thread([] { EXPECT_EQ(ka_msg_tls_info(), nullptr); }).join();
  ka_msg_tls_info_end();
}

TEST(Thread, PinsOfFinishedThreadsAddUp) {
  Threads threads;
  const unsigned before = ka_msg_pins(17);
  for (int i = 0; i < 3; ++i) {
    threads.start([] { ka::context().pins[17] = 5; });
    threads.wait();
  }
  EXPECT_EQ(ka_msg_pins(17), before + 15);
  EXPECT_EQ(ka_msg_pins(18), 0U);
}

TEST(Thread, ForeignThreadsAreRegistered) {
  std::thread([] {
    EXPECT_EQ(ka_msg_register_thread(), 1);
    EXPECT_EQ(ka_msg_my_thread_id(), 1);
    EXPECT_EQ(Threads::contexts(), 2U);
    ka_mem_release(ka_mem_allocate(100));
    ka_msg_unregister_thread();
  }).join();
  EXPECT_EQ(Threads::contexts(), 1U);
}

TEST(Thread, RegisteringAgainAndUnregisteringAgainChangeNothing) {
  std::thread([] {
    ka_msg_unregister_thread();
    ka_msg_set_netthread();
    EXPECT_EQ(Threads::contexts(), 1U);  // the main thread keeps its place
    EXPECT_EQ(ka_msg_register_thread(), 1);
    EXPECT_EQ(ka_msg_register_thread(), 1);
    EXPECT_EQ(Threads::contexts(), 2U);
    ka_msg_unregister_thread();
    ka_msg_unregister_thread();
  }).join();
  EXPECT_EQ(Threads::contexts(), 1U);
  EXPECT_EQ(ka_msg_my_thread_id(), 0);
}

TEST(Thread, ThereIsOneNetworkThread) {
  std::thread([] {
    ka_msg_register_thread();
    ka_msg_set_netthread();
    ka_msg_set_netthread();
    EXPECT_EQ(ka_msg_my_thread_id(), 1024);
    std::thread([] {
      ka_msg_register_thread();
      const test::MessageLog log(KA_ERROR);
      ka_msg_set_netthread();
      EXPECT_EQ(test::MessageLog::lines(),
                std::vector<std::string>{"MSG   .1  error  011100: too many threads"});
      EXPECT_EQ(ka_msg_my_thread_id(), 1);
      ka_msg_unregister_thread();
    }).join();
    EXPECT_EQ(Threads::contexts(), 2U);
    ka_msg_unregister_thread();
  }).join();
  EXPECT_EQ(Threads::contexts(), 1U);
}

TEST(Thread, TheNetworkThreadHasTheLastNumber) {
  std::thread([] {
    ka_msg_register_thread();
    ka_msg_set_netthread();
    EXPECT_EQ(ka_msg_my_thread_id(), 1024);
    const test::MessageLog log(0x7f);
    ka_error("x");
    EXPECT_EQ(test::MessageLog::lines().at(0), "MSG   .n  error: x");
    ka_msg_unregister_thread();
  }).join();
  EXPECT_EQ(Threads::contexts(), 1U);
}

TEST(Thread, MessagesOfManyThreadsDoNotMix) {
  static std::mutex guard;
  static std::vector<std::string> lines;
  lines.clear();
  ka_errorhandler([](std::uint32_t, const char* line, const char*, int) {
    const std::scoped_lock locked(guard);
    lines.emplace_back(line);
  });
  Threads threads;
  for (int t = 0; t < 4; ++t) {
    threads.start([] {
      for (int i = 0; i < 200; ++i) ka_error("thread %d says %d", ka_msg_my_thread_id(), i);
    });
  }
  threads.wait();
  ka_errorhandler(nullptr);
  EXPECT_EQ(lines.size(), 800U);
  EXPECT_TRUE(std::ranges::all_of(lines, [](const std::string& line) {
    return line.starts_with("MSG   .") &&
           line.find(std::string("thread ") + line[7]) != std::string::npos;
  }));
}

TEST(Thread, ProcessorsAreCounted) {
  EXPECT_EQ(ka_msg_no_of_cpus(), static_cast<int>(std::thread::hardware_concurrency()));
  ka_msg_advise_threads(4);
}

}  // namespace
