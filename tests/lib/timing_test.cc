// Elapsed time and resources as messages.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/timing.h>

#include "messages.h"

namespace {

TEST(Timing, ReportsWhatWasUsed) {
  ka_timer* const timer = ka_timing(nullptr, nullptr);
  void* const block = ka_mem_allocate(1);
  const std::string kilobytes = std::to_string((ka_mem_getsize() + 1023) / 1024);
  const Texts lines = messages_of([&] { ka_timing(timer, "reading"); });
  std::string text;
  for (const std::string& line : lines) text += line + "|";
  const std::string time = "  0:00:0[0-9]\\.[0-9][0-9] for reading\\|";
  EXPECT_TRUE(test::matches(
      text,
      "wallclock" + time + "CPU user" + time + "allocated " + kilobytes +
          " KB, max resident .*\\|total [0-9]+ page faults, [0-9]+ block ops, [0-9]+ signals, "
          "[0-9]+ context switches\\|"))
      << text;
  EXPECT_EQ(ka_timing(timer, nullptr), nullptr);
  ka_mem_release(block);
}

}  // namespace
