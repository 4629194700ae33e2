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
  }
  const auto has = [&lines](const char* format, auto... values) {
    char text[100];
    std::snprintf(text, sizeof text, format, values...);
    return std::ranges::count(lines, text) == 1;
  };
  const int kilobytes = int(total) / 1024;
  EXPECT_EQ(lines[0], "  module    max KB  maxnblks        KB   nblocks    %bytes");
  EXPECT_TRUE(has("%8.8s      2048         2      1024         1 %9.2f", ka_modname[last],
                  100 * 1048576 / total));
  EXPECT_TRUE(has("   GEOSI         0         1         0         1 %9.2f", 10000 / total));
  EXPECT_TRUE(has("overhead                     %9d %9d %9.2f", all * 8 / 1024, all,
                  100 * 16 * all / total));
  EXPECT_TRUE(has("total                     %9d %9d    100.00", kilobytes, all));
  for (const std::string& line : lines) EXPECT_EQ(line.find("GAPFA"), line.npos) << line;
  for (void* block : blocks) ka_mem_release(block);
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

TEST_F(Report, ThePostMortemSaysHowToLearnMore) {
  const Texts start = {"================ memory error post-mortem ================",
                       "-------- memory summary --------", "-------- database summary --------"};
  const Texts database = {"database elements by module:", "database elements by type:"};
  const Texts hint = {"run with `-message mem debug --' for more info."};
  const Texts dumps = {
      "-------- database dump --------",
      "host  mod        tag      addr   ctrans    size pidx fj v priv refs    type "
      "         ka name",
      "-------- memory dump --------", "ka_mem_dump not available"};
  const Texts end = {"please try lower -jobmemory settings."};
  const auto joined = [](std::initializer_list<Texts> parts) {
    Texts all;
    for (const Texts& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  };
  EXPECT_EQ(post_mortem_frame(KA_SUBVERB_DEFAULT), joined({start, database, hint, end}));
  EXPECT_EQ(post_mortem_frame(KA_SUBVERB_DEFAULT | KA_SUBVERB_DEBUG),
            joined({start, database, dumps, end}));
  ka_db_exit();  // it needs no database
  EXPECT_EQ(post_mortem_frame(KA_SUBVERB_DEFAULT), joined({start, hint, end}));
  ka_db_init();
  EXPECT_EQ(messages_of(ka_mem_check, KA_DEBUG), Texts{"ka_mem_check not available"});
}

}  // namespace
