// The thread table: numbers, contexts, messages of several threads at once.
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <algorithm>
#include <latch>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "support.h"

namespace {

std::size_t contexts() {
  ka_context* const* list = nullptr;
  while (!(list = ka_msg_tls_info())) std::this_thread::yield();
  std::size_t count = 0;
  while (list[count]) ++count;
  ka_msg_tls_info_end();
  return count;
}

// Until the table has forgotten all but this one.
void wait_for_threads() {
  while (contexts() > 1) ka_msg_usleep(1000);
}

TEST(Thread, TheTableIsLimitedAndNumbersAreUsedAgain) {
  const unsigned pins = ka_msg_pins(17);
  std::latch may_end(1);
  const auto wait = [](void* latch) {
    static_cast<std::latch*>(latch)->wait();
    ka::context().pins[17] = 5;  // those of finished threads add up
  };
  std::set<int> numbers;
  for (int i = 0; i < 1024; ++i) numbers.insert(ka_msg_start_thread(wait, &may_end));
  EXPECT_EQ(numbers.size(), 1024U);
  EXPECT_EQ(*numbers.begin(), 1);
  EXPECT_EQ(*numbers.rbegin(), 1024);  // the network thread's number is the last to go
  EXPECT_EQ(contexts(), 1025U);
  {
    const test::MessageLog log(KA_ERROR);  // threads that start tell so while they debug
    EXPECT_EQ(ka_msg_start_thread(wait, &may_end), -1);
    EXPECT_EQ(test::MessageLog::lines().at(0), "MSG   .0  error  011100: too many threads");
    EXPECT_EQ(test::MessageLog::lines().at(1), "MSG   .0  error  011101: cannot allocate thread");
  }
  may_end.count_down();
  wait_for_threads();
  EXPECT_EQ(ka_msg_pins(17),
            pins + 1023 * 5);  // the one in the network thread's place is not counted
  const auto look = [](void*) { EXPECT_EQ(ka_msg_my_thread_id(), 1); };
  EXPECT_EQ(ka_msg_start_thread(look, nullptr), 1);
  wait_for_threads();
}

TEST(ThreadDeathTest, AttachingAgainChangesNothingAndOtherRecordsAreRefused) {
  ka_context* const context = &ka::context();
  EXPECT_EQ(ka_lumoralib_attach_process(), 1);
  EXPECT_EQ((*&ka_lumoralib_attach_process)(), 1);
  EXPECT_EQ(ka_lumoralib_attach(KA_VERSION + 1, KA_RECORDS), 1);
  EXPECT_EQ(&ka::context(), context);
  EXPECT_EQ(contexts(), 1U);
  EXPECT_EXIT(ka_lumoralib_attach(KA_VERSION, KA_RECORDS + 1), testing::ExitedWithCode(1),
              "compiled for records");
  EXPECT_EXIT(ka_lumoralib_attach(KA_VERSION + 10000, KA_RECORDS), testing::ExitedWithCode(1),
              "of release 4.2.0, but run with");
}

TEST(Thread, MessagesOfManyThreadsDoNotMix) {
  static std::mutex guard;
  static std::vector<std::string> lines;
  lines.clear();
  ka_errorhandler([](std::uint32_t, const char* line, const char*, int) {
    const std::scoped_lock locked(guard);
    lines.emplace_back(line);
  });
  test::in_threads(4, [] {
    for (int i = 0; i < 200; ++i) ka_error("thread %d says %d", ka_msg_my_thread_id(), i);
  });
  ka_errorhandler(nullptr);
  EXPECT_EQ(lines.size(), 800U);
  EXPECT_TRUE(std::ranges::all_of(lines, [](const std::string& line) {
    return line.starts_with(std::string("MSG   .") + line[7] + "  error: thread " + line[7]);
  }));
}

}  // namespace
