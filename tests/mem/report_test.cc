// The reports, line by line.
#include <gtest/gtest.h>
#include <ka/db.h>
#include <ka/mem.h>
#include <ka/message.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "heap.h"
#include "lib/messages.h"

namespace {

using Report = test::MemoryTest;

// Two blocks of a megabyte, one of which has gone, in a module that nothing else works for, the last
// one. 100 bytes in a second one are no KB, but a block; a third one has never held any.
TEST_F(Report, TheSummaryShowsWhatEachModuleHoldsAndHeld) {
  constexpr int last = KA_MODULE_COUNT - 1;
  const auto get = [](int module, std::size_t size) {
    return ka_mem_doalloc(__FILE__, __LINE__, module, size, 0);
  };
  void* const blocks[] = {get(last, 1 << 20), get(17, 100)};
  ka_mem_release(get(last, 1 << 20));
  const auto total = static_cast<double>(ka_mem_getsize());
  const auto lines = messages_of(ka_mem_summary, KA_INFO);
  int all = 0;  // blocks: the sixth column of the modules' rows, summed up
  for (const std::string& line : lines) {
    int live = 0;
    if (std::sscanf(line.c_str(), "%*s %*d %*d %*d %d %*f", &live) == 1) all += live;
    EXPECT_EQ(line.find("GAPFA"), line.npos) << line;
  }
  const auto expect = [&lines](const char* format, auto... values) {
    char text[100];
    std::snprintf(text, sizeof text, format, values...);
    EXPECT_EQ(std::ranges::count(lines, text), 1) << text;
  };
  expect("%s", "  module    max KB  maxnblks        KB   nblocks    %bytes");
  expect("%8.8s      2048         2      1024         1 %9.2f", ka_modname[last],
         100 * 1048576 / total);
  expect("   GEOSI         0         1         0         1 %9.2f", 10000 / total);
  expect("overhead                     %9d %9d %9.2f", all * 8 / 1024, all, 100 * 16 * all / total);
  expect("total                     %9d %9d    100.00", int(total) / 1024, all);
  for (void* block : blocks) ka_mem_release(block);
}

}  // namespace
