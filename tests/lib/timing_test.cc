// Elapsed time and resources as messages.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/timing.h>
#include <ka/trans.h>
#include <unistd.h>

#include "messages.h"

namespace {

TEST(Timing, ReportsWhatWasUsedWhereTheGroupIsOn) {
  ka_timer* const timer = ka_timing(nullptr, nullptr);
  ASSERT_NE(timer, nullptr);
  usleep(30000);
  const auto report = [&](const char* label) {
    return messages_of([&] { EXPECT_EQ(ka_timing(timer, label), timer); });
  };
  const auto reading = report("reading");
  ASSERT_EQ(reading.size(), 4U);
  EXPECT_TRUE(test::matches(reading[0], "wallclock  0:00:0[0-9]\\.[0-9][0-9] for reading"))
      << reading[0];
  EXPECT_TRUE(test::matches(reading[1], "CPU user  0:00:0[0-9]\\.[0-9][0-9] for reading"))
      << reading[1];
  EXPECT_EQ(reading[2].substr(0, 10), "allocated ");
  EXPECT_TRUE(test::matches(
      reading[3],
      "total [0-9]+ page faults, [0-9]+ block ops, [0-9]+ signals, [0-9]+ context switches"));
  EXPECT_TRUE(test::matches(report("total")[0], "wallclock  0:00:0[0-9]\\.[0-9][0-9] total"));
  ka_reset_time(timer);
  EXPECT_EQ(report("total")[0].substr(0, 18), "wallclock  0:00:00");
  ka_set_subverbosity(ka_module_current(), 0);
  EXPECT_TRUE(report("total").empty());
  ka_set_subverbosity(KA_NULL, KA_SUBVERB_DEFAULT);
  EXPECT_EQ(ka_timing(timer, nullptr), nullptr);
}

// The label's 62.5 seconds are too long to wait for: memory is what else the report can show
// exactly.
TEST(Timing, CountsTheMemoryManagersKilobytesUpwards) {
  ka_timer* const timer = ka_timing(nullptr, nullptr);
  void* const block = ka_mem_allocate(1);
  const std::string expected =
      "allocated " + std::to_string((ka_mem_getsize() + 1023) / 1024) + " KB, max resident ";
  const auto lines = messages_of([&] { ka_timing(timer, "x"); });
  EXPECT_EQ(lines.at(2).substr(0, expected.size()), expected);
  ka_mem_release(block);
  ka_timing(timer, nullptr);
}

TEST(Timing, TheClockGoesForward) {
  const double start = ka_clock();
  EXPECT_GE(start, 0.0);
  EXPECT_GE(ka_clock(), start);
}

}  // namespace
