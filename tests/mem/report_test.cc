// The reports, line by line.
#include <gtest/gtest.h>
#include <ka/db.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "heap.h"
#include "lib/messages.h"

namespace {

using Report = test::MemoryTest;

template <typename... Values>
std::string format(const char* text, Values... values) {
  char line[256];
  std::snprintf(line, sizeof line, text, values...);
  return line;
}

// Two blocks of a megabyte, one of which has gone, in a module that nothing else works for. 100
// bytes in a second one are no KB, but a block.
TEST_F(Report, TheSummaryTellsWhatEachModuleHoldsAndHeld) {
  void* blocks[3];
  {
    const ka::ModuleScope module(44);
    blocks[0] = ka_mem_allocate(1 << 20);
    blocks[1] = ka_mem_allocate(1 << 20);
    ka_mem_release(blocks[0]);
  }
  {
    const ka::ModuleScope module(17);
    blocks[2] = ka_mem_allocate(100);
  }
  const auto total = static_cast<double>(ka_mem_getsize());
  const auto lines = messages_of(ka_mem_summary, KA_INFO);
  ASSERT_GE(lines.size(), 6U);
  EXPECT_EQ(lines[0], "  module    max KB  maxnblks        KB   nblocks    %bytes");
  const auto holds = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  EXPECT_TRUE(holds(
      format("   GAPIS      2048         2      1024         1 %9.2f", 100 * 1048576.0 / total)));
  EXPECT_TRUE(
      holds(format("   GEOSI         0         1         0         1 %9.2f", 10000 / total)));

  // The blocks of all modules: the sixth column of their rows, summed up.
  int blocks_in_all = 0;
  for (const std::string& line : lines) {
    EXPECT_EQ(line.find("GAPFA"), std::string::npos) << line;  // never held a block: no row
    int live = 0;
    if (std::sscanf(line.c_str(), "%*s %*d %*d %*d %d %*f", &live) == 1) blocks_in_all += live;
  }
  const auto overhead = std::find_if(lines.begin(), lines.end() - 2, [](const std::string& line) {
    return line.starts_with("overhead");
  });
  EXPECT_EQ(overhead[0],
            format("overhead                     %9d %9d %9.2f", blocks_in_all * 8 / 1024,
                   blocks_in_all, 100 * 16 * blocks_in_all / total));
  EXPECT_EQ(overhead[1], format("total                     %9d %9d    100.00", int(total) / 1024,
                                blocks_in_all));
  ka_mem_release(blocks[1]);
  ka_mem_release(blocks[2]);
}

// Each purge gives 3 MB back, and a few bytes of rounding; MB are units shifted right by 17. Ends
// the process with its summary.
void save_3_megabytes_twice() {
  static void* hoard;
  ka_mem_limit_handler(KA_IMG, [](std::int64_t /*wanted*/) {
    ka_mem_release(std::exchange(hoard, nullptr));
    return 0;
  });
  for (int purge = 0; purge < 2; ++purge) {
    hoard = ka_mem_allocate(3 << 20);
    ka_mem_memory_limit(test::align_heap() * 8);
    ka_mem_release(ka_mem_allocate(1000));
    ka_mem_memory_limit(0);
  }
  for (const std::string& line : messages_of(ka_mem_summary, KA_INFO)) {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
  std::_Exit(0);
}

// What the process has done before counts: this runs in one of its own, from its start.
TEST_F(Report, TellsWhatPurgesSavedAndTheHeap) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // until the end of the test
  EXPECT_EXIT(save_3_megabytes_twice(), testing::ExitedWithCode(0),
              "100.00\n2 heap memory purges saved approx. 6 MB\n"
              "max heap memory approx. 3 MB, now approx. 0 MB\n$");
}

// The lines around the summary.
Texts post_mortem_frame(std::uint32_t mask) {
  const std::uint32_t saved = ka_get_subverbosity(KA_MEM);
  ka_set_subverbosity(KA_MEM, mask);
  Texts lines = messages_of(ka_mem_post_mortem, KA_INFO | KA_DEBUG);
  ka_set_subverbosity(KA_MEM, saved);
  const auto summary = std::find(lines.begin(), lines.end(), "-------- memory summary --------");
  const auto next = std::find(lines.begin(), lines.end(), "-------- database summary --------");
  if (summary == lines.end() || next == lines.end()) return {};
  EXPECT_GE(next - summary, 4);
  lines.erase(summary + 1, next);
  return lines;
}

constexpr char kDumpHeading[] =
    "host  mod        tag      addr   ctrans    size pidx fj v priv refs    type          ka name";

TEST_F(Report, ThePostMortemTellsHowToLearnMore) {
  Texts expected = {"================ memory error post-mortem ================",
                    "-------- memory summary --------",
                    "-------- database summary --------",
                    "database elements by module:",
                    "database elements by type:",
                    "run with `-message mem debug --' for more info.",
                    "please try lower -jobmemory settings."};
  EXPECT_EQ(post_mortem_frame(KA_SUBVERB_DEFAULT), expected);

  Texts for_those_who_debug = expected;
  for_those_who_debug.erase(for_those_who_debug.begin() + 5);
  for_those_who_debug.insert(for_those_who_debug.begin() + 5,
                             {"-------- database dump --------", kDumpHeading,
                              "-------- memory dump --------", "ka_mem_dump not available"});
  EXPECT_EQ(post_mortem_frame(KA_SUBVERB_DEFAULT | KA_SUBVERB_DEBUG), for_those_who_debug);

  ka_db_exit();  // it needs no database
  expected.erase(expected.begin() + 3, expected.begin() + 5);
  EXPECT_EQ(post_mortem_frame(KA_SUBVERB_DEFAULT), expected);
  ka_db_init();
}

TEST_F(Report, ChecksAndDumpsAreNotAvailable) {
  EXPECT_EQ(messages_of(ka_mem_check, KA_DEBUG), Texts{"ka_mem_check not available"});
  EXPECT_EQ(messages_of(ka_mem_dump, KA_DEBUG), Texts{"ka_mem_dump not available"});
}

}  // namespace
