// Elements and their tags: creation, access, deletion, stamps, what ends the process, reports.
#include "store.h"

#include <map>
#include <random>

#include "jobs.h"
#include "lib/messages.h"

namespace {

using Store = test::StoreTest;

TEST_F(Store, TheFirstTagsHaveTheirPagesAndFreedSlotsComeNext) {
  std::uint32_t first = 0, job = 0;
  const void* const data = ka_db_create(&first, 5, 0);
  EXPECT_EQ(ka_db_access(first), data);
  EXPECT_EQ(first, 1U << 10);
  EXPECT_EQ(ka_db_size(first), 1U);
  EXPECT_EQ(make_element(), first + 1);
  const ka_db_entry* const entry = ka_db_jobcreate(&job, 7);
  EXPECT_EQ(job, 1U << 24);
  EXPECT_EQ((std::pair{int(entry->module), int(entry->type)}), (std::pair{int(KA_MAIN), 7}));
  EXPECT_EQ(entry->creation, ka_db_accessinfo(first)->creation + 2);
  EXPECT_TRUE(ka_db_delete(first));
  EXPECT_EQ(make_element(), first);
  EXPECT_NE(ka_db_accessinfo(first)->serial, ka_db_accessinfo(first + 1)->serial);
}

// A plain map and the store go through the same random operations.
TEST_F(Store, KeepsWhatAMapKeeps) {
  std::mt19937 random(1);
  std::map<std::uint32_t, std::string> model;
  const auto any = [&] { return std::next(model.begin(), long(random() % model.size())); };
  const auto text = [&] { return std::string(1 + random() % 60, char('a' + random() % 26)); };
  std::size_t creations = 0, reallocations = 0;
  for (int step = 0; step < 30000; ++step) {
    const unsigned what = random() % 8;
    if (what < 4 || model.empty()) {
      const std::string value = text();
      std::uint32_t tag = 0;
      std::memcpy(ka_db_create(&tag, int(value.size()), value.size()), value.data(), value.size());
      EXPECT_TRUE(model.emplace(tag, value).second);
      ++creations;
    } else if (const auto element = any(); what == 4) {
      EXPECT_TRUE(ka_db_delete(element->first));
      model.erase(element);
    } else if (what == 5) {
      element->second += std::string(random() % 9, '\0');
      ka_db_realloc(element->first, element->second.size());
      ++reallocations;
    }
    if (model.empty()) continue;
    const auto& [tag, value] = *any();
    ASSERT_EQ(ka_db_size(tag), value.size());
    ASSERT_EQ(std::memcmp(ka_db_access(tag), value.data(), value.size()), 0);
  }
  EXPECT_EQ(counts().tags, model.size());
  EXPECT_EQ(counts().creations, creations);
  EXPECT_EQ(counts().reallocations, reallocations);
  EXPECT_EQ(counts().deletions, creations - model.size());
}

TEST_F(Store, WhatIsNotThereEndsTheProcess) {
  const std::uint32_t gone = make_element(), other = gone | 1U << 25;
  ka_db_delete(gone);
  EXPECT_FALSE(ka_db_exists(gone));
  EXPECT_FALSE(ka_db_exists(0));
  EXPECT_FALSE(ka_db_exists(other));
  const std::uint32_t fails = make_job({.fails = true});
  const std::uint32_t nothing = make_job({.yields_nothing = true});
  std::uint32_t no_job = 0;
  ka_db_jobcreate(&no_job, 3);
  const std::pair<std::uint32_t, const char*> ends[] = {
      {0, "fatal  041008: attempt to access null DB tag"},
      {gone, "fatal  041052: accessing unknown tag 0x400"},
      {other, "fatal  041051: database network access failed"},
      {fails, "fatal  041037: database job execution failed"},
      {no_job, "fatal  041037: database job execution failed"},
      {nothing, "fatal *: accessing unknown tag 0x1000001"}};
  for (const auto& [tag, text] : ends) {
    EXPECT_EXIT(ka_db_access(tag), testing::ExitedWithCode(1), text);
  }
}

TEST_F(Store, StampsAreScaledWhenTheyOverflow) {
  const std::uint32_t early = make_element(), job = make_job({});
  EXPECT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
  ka::set_clock(0xffffffff - 1);
  ka_db_access(job);
  EXPECT_EQ(messages_of([&] { ka_db_unpin(job); }, KA_INFO),
            (Texts{"LRU timestamps overflowed, running timewarp to make room"}));
  EXPECT_EQ(ka_db_accessinfo(early)->time, 1U / 16);
  EXPECT_EQ(ka_trans_get_lowttime(), 4U / 16);
  EXPECT_EQ(ka_db_accessinfo(make_element())->time, 0x10000000U);
  EXPECT_TRUE(ka_trans_end(KA_TRANS_TRANSACTION));
  ka::set_clock(0xffffffff);
  EXPECT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
  EXPECT_EQ(ka_trans_get_lowttime(), 0x0fffffffU);
  EXPECT_TRUE(ka_trans_end(KA_TRANS_TRANSACTION));
}

TEST_F(Store, PrivateElementsAreTheirMakersAlone) {
  std::uint32_t tag = 0;
  EXPECT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
  ka_db_create_private(&tag, 5, 8);
  EXPECT_FALSE(ka_db_delete(tag));
  EXPECT_FALSE(ka_db_delete_private(make_element()));
  EXPECT_TRUE(ka_trans_end(KA_TRANS_TRANSACTION));
  EXPECT_TRUE(ka_db_delete_private(tag));
}

TEST_F(Store, DelayedDeletionsWaitForWhatIsInUse) {
  const std::uint32_t job = make_job({});
  ka_db_access(job);
  ka_db_delete_delay(1);
  EXPECT_TRUE(ka_db_delete(job));
  ka_db_delete_delay(0);
  EXPECT_TRUE(ka_db_exists(job));
  ka_db_unpin(job);
  ka_db_delete_delay(0);
  EXPECT_FALSE(ka_db_exists(job));
}

TEST_F(Store, ReportsHaveARowForEachModuleTypeAndElement) {
  make_element(KA_DB_IMAGE, 5000);
  make_element(77, 10);
  make_job({});
  const auto lines = messages_of([] {
    ka_db_summary();
    ka_db_dump();
  });
  ASSERT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines[0], "database elements by module:");
  EXPECT_EQ(lines[1], "MAIN                         3 elements         4 KB");
  EXPECT_EQ(lines[3], "image                        1 elements         4 KB");
  EXPECT_EQ(lines[5], "type77                       1 elements         0 KB");
  EXPECT_TRUE(test::matches(lines[8], " +0  MAIN +401 +0x[0-9a-f]+ +0 +10 +0 -- 0 +0 .*type77.*"));
  EXPECT_TRUE(test::matches(lines[9], " +0  MAIN +1000000 .* -j 0 +0 .*type41.*"));
}

}  // namespace
