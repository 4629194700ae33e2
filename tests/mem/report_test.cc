// The reports, line by line.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "heap.h"
#include "lib/messages.h"

namespace {

using Names = std::vector<std::string>;
using Report = test::MemoryTest;

template <typename... Values>
std::string format(const char* text, Values... values) {
  char line[256];
  std::snprintf(line, sizeof line, text, values...);
  return line;
}

// Two blocks of a megabyte in a module that nothing else works for, one of which goes in a purge.
TEST_F(Report, TheSummaryTellsWhatEachModuleHoldsAndHeld) {
  static void* hoard;
  ka_module_push(44);
  hoard = ka_mem_allocate(1 << 20);
  void* const block = ka_mem_allocate(1 << 20);
  ka_module_pop();
  ka_mem_limit_handler(KA_IMG, [](std::int64_t) {
    ka_mem_release(std::exchange(hoard, nullptr));
    return 0;
  });
  ka_mem_memory_limit(test::align_heap() * 8);
  ka_mem_release(ka_mem_allocate(1000));
  const double total = double(ka_mem_getsize());
  const Names lines = messages_of(ka_mem_summary, KA_INFO);
  ASSERT_GE(lines.size(), 6U);
  EXPECT_EQ(lines[0], "  module    max KB  maxnblks        KB   nblocks    %bytes");
  const std::string row =
      format("   GAPIS      2048         2      1024         1 %9.2f", 100 * 1048576.0 / total);
  EXPECT_EQ(std::ranges::count(lines, row), 1) << row;
  int blocks = 0;  // of all modules: the sixth column of their rows, summed up
  for (const std::string& line : lines) {
    int live = 0;
    if (std::sscanf(line.c_str(), "%*s %*d %*d %*d %d %*f", &live) == 1) blocks += live;
  }
  EXPECT_EQ(lines.end()[-4], format("overhead                     %9d %9d %9.2f", blocks * 8 / 1024,
                                    blocks, 100 * 16 * blocks / total));
  EXPECT_EQ(lines.end()[-3],
            format("total                     %9d %9d    100.00", int(total) / 1024, blocks));
  EXPECT_TRUE(test::matches(lines.end()[-2], "[0-9]+ heap memory purges? saved approx. [0-9]+ MB"));
  EXPECT_TRUE(
      test::matches(lines.end()[-1], "max heap memory approx. [0-9]+ MB, now approx. [0-9]+ MB"));
  ka_mem_release(block);
}

TEST_F(Report, ThePostMortemTellsHowToLearnMoreAndDumpsForThoseWhoDebug) {
  const auto post_mortem = [](std::uint32_t mask) {  // without the summary's lines
    ka_set_subverbosity(KA_MEM, mask);
    Names lines = messages_of(ka_mem_post_mortem, KA_INFO | KA_DEBUG);
    ka_set_subverbosity(KA_MEM, KA_SUBVERB_DEFAULT);
    lines.erase(lines.begin() + 2, std::ranges::find(lines, "-------- database summary --------"));
    return lines;
  };
  const Names start = {"================ memory error post-mortem ================",
                       "-------- memory summary --------", "-------- database summary --------",
                       "database elements by module:", "database elements by type:"};
  Names plain = start, debug = start;
  plain.insert(plain.end(), {"run with `-message mem debug --' for more info.",
                             "please try lower -jobmemory settings."});
  debug.insert(debug.end(),
               {"-------- database dump --------",
                ("host  mod        tag      addr   ctrans    size pidx fj v priv refs    type      "
                 "    ka name"),
                "-------- memory dump --------", "ka_mem_dump not available",
                "please try lower -jobmemory settings."});
  EXPECT_EQ(post_mortem(KA_SUBVERB_DEFAULT), plain);
  EXPECT_EQ(post_mortem(KA_SUBVERB_DEFAULT | KA_SUBVERB_DEBUG), debug);
}

}  // namespace
