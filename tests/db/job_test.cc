// Jobs: one execution for all who wait, failures and new tries, pins, giving data back.
#include <latch>
#include <set>

#include "jobs.h"
#include "lib/messages.h"

namespace {

using Job = test::StoreTest;
using test::executions;

TEST_F(Job, IsExecutedOnceForAllThreads) {
  const test::Fill fill{.first = 7};
  const std::uint32_t tag = make_job(fill);
  std::latch start(6);
  test::in_threads(6, [&] {
    start.arrive_and_wait();
    EXPECT_TRUE(test::is_filled(ka_db_access(tag), fill));
    ka_db_unpin(tag);
  });
  EXPECT_EQ(executions, 1);
  EXPECT_EQ(ka_db_size(tag), 4000U);
  EXPECT_EQ(ka_job_size(tag), 4000U);
}

TEST_F(Job, ThatFailsIsNullForAllWhoWaitAndCanBeTriedAgain) {
  test::Fill fill{.fails = true};
  std::uint32_t tag = make_job(fill);
  std::latch start(6);
  test::in_threads(6, [&] {
    start.arrive_and_wait();
    EXPECT_EQ(ka_job_access(tag), nullptr);
  });
  EXPECT_LT(executions, 4);  // most have waited for the first one
  EXPECT_EQ(ka_job_access(0), nullptr);
  EXPECT_EQ(ka_job_access(tag + 1), nullptr);
  fill.fails = false;
  EXPECT_TRUE(ka_job_create(&tag, 42, test::kJobModule, &fill, sizeof fill, nullptr));
  EXPECT_EQ(ka_db_type(tag), 42);
  EXPECT_TRUE(test::is_filled(ka_job_access(tag), fill));
}

TEST_F(Job, StaysWhileAThreadHasItPinned) {
  const std::uint32_t tag = make_job({});
  const auto cannot_go = [tag] { return !ka_db_delete(tag) && !ka_job_flush(tag); };
  ka_db_access(tag);
  EXPECT_TRUE(cannot_go());
  test::registered([&] {
    ka_db_access(tag);
    ka_db_access(tag);
    ka_db_unpin(tag);
  }).join();
  ka_db_unpin(tag);
  EXPECT_TRUE(cannot_go());  // a pin of a thread that has ended
  test::registered([&] { ka_db_unpin(tag); }).join();
  EXPECT_TRUE(ka_job_flush(tag));
  EXPECT_EQ(ka_job_size(tag), 0U);
  ka_db_access(tag);
  EXPECT_EQ(executions, 2);
  ka_db_unpin(tag);
  EXPECT_TRUE(ka_db_delete(tag));
  EXPECT_FALSE(ka_db_exists(tag));
  EXPECT_EQ(counts().flushes, 1U);
}

TEST_F(Job, IsToldWhatHappensToIt) {
  ka_job_register(test::kJobModule, test::fill);
  const std::uint32_t tag = produced({});
  char text[KA_JOB_TEXT_SIZE];
  EXPECT_TRUE(ka_job_describe(tag, text));
  EXPECT_STREQ(text, "fills");
  const test::Scratch scratch;
  ka_db_swap_config(scratch.path("").c_str(), 1000);
  ka_db_entry* const entry = ka_db_accessinfo(tag);
  EXPECT_TRUE(ka_db_disk_pageout(tag, entry, entry->data, entry->size));
  ka_db_delete(tag);
  std::vector<int> expected = {KA_JOB_BEGIN, KA_JOB_DESCRIBE, KA_JOB_DELETE, KA_JOB_END};
  EXPECT_EQ(std::exchange(test::operations, {}), expected);
  // The callback goes with its data, the store with its jobs.
  const std::uint32_t other = produced({});
  ka_job_register(test::kJobModule + 1, nullptr);
  EXPECT_NE(ka_job_size(other), 0U);
  ka_job_register(test::kJobModule, nullptr);
  EXPECT_EQ(ka_job_size(other), 0U);
  ka_job_register(test::kJobModule, test::fill);
  ka_db_exit();
  EXPECT_EQ(test::operations, (std::vector<int>{KA_JOB_BEGIN, KA_JOB_DELETE, KA_JOB_END}));
  ka_db_init();
}

TEST_F(Job, GivesItsDataBackUnderALimit) {
  constexpr int kJobs = 40;
  std::vector<std::uint32_t> tags;
  for (int i = 0; i < kJobs; ++i) {
    tags.push_back(make_job({.words = 25000, .first = std::uint32_t(i), .is_fixed = i == 0}));
  }
  for (const std::uint32_t tag : tags) {
    ka_db_access(tag);
    if (tag != tags[1]) ka_db_unpin(tag);
  }
  purge();
  EXPECT_EQ(counts().flushes, std::uint64_t(kJobs - 2));  // all but the fixed and the pinned one
  for (int i = 0; i < kJobs; ++i) {
    EXPECT_TRUE(test::is_filled(ka_db_access(tags[std::size_t(i)]),
                                {.words = 25000, .first = std::uint32_t(i)}));
  }
  EXPECT_EQ(executions, 2 * kJobs - 2);
}

}  // namespace
