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
  expect("  module    max KB  maxnblks        KB   nblocks    %%bytes");
  expect("%8.8s      2048         2      1024         1 %9.2f", ka_modname[last],
         100 * 1048576 / total);
  expect("   GEOSI         0         1         0         1 %9.2f", 10000 / total);
  expect("overhead                     %9d %9d %9.2f", all * 8 / 1024, all, 100 * 16 * all / total);
  expect("total                     %9d %9d    100.00", int(total) / 1024, all);
  for (void* block : blocks) ka_mem_release(block);
}

// The lines around the reports of memory and of the database.
TEST_F(Report, ThePostMortemSaysHowToLearnMore) {
  const std::uint32_t saved = ka_get_subverbosity(KA_MEM);
  const auto expect = [](std::uint32_t mask, const Texts& expected) {
    ka_set_subverbosity(KA_MEM, mask);
    Texts lines = messages_of(ka_mem_post_mortem, KA_INFO | KA_DEBUG);
    const auto summary = std::ranges::find(lines, "-------- memory summary --------");
    const auto next = std::ranges::find(lines, "-------- database summary --------");
    ASSERT_GE(next - summary, 4);
    lines.erase(summary + 1, next);
    std::erase_if(lines, [](const auto& line) { return line.starts_with("host  mod "); });
    EXPECT_EQ(lines, expected);
  };
  Texts lines = {"================ memory error post-mortem ================",
                 "-------- memory summary --------",
                 "-------- database summary --------",
                 "database elements by module:",
                 "database elements by type:",
                 "run with `-message mem debug --' for more info.",
                 "please try lower -jobmemory settings."};
  expect(KA_SUBVERB_DEFAULT, lines);
  ka_db_exit();  // it needs no database
  Texts less = lines;
  less.erase(less.begin() + 3, less.begin() + 5);
  expect(KA_SUBVERB_DEFAULT, less);
  ka_db_init();
  lines[5] = "-------- database dump --------";
  lines.insert(lines.begin() + 6, {"-------- memory dump --------", "ka_mem_dump not available"});
  expect(KA_SUBVERB_DEFAULT | KA_SUBVERB_DEBUG, lines);
  ka_set_subverbosity(KA_MEM, saved);
}

}  // namespace
