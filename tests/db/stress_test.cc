// Many threads in the store at once. They leave nothing behind.
#include <ka/message.h>

#include <random>

#include "jobs.h"

namespace {

using Stress = test::StoreTest;

constexpr int kThreads = 8, kRounds = 400;

std::minstd_rand& random_of_thread() {
  thread_local std::minstd_rand random(unsigned(ka_msg_my_thread_id()) + 1);
  return random;
}

TEST_F(Stress, TransactionsComeAndGoWhileElementsDo) {
  const test::MessageLog quiet(KA_FATAL);
  std::atomic<std::uint32_t> shared{0};  // of any thread
  test::in_threads(kThreads, [&] {
    auto& random = random_of_thread();
    for (int round = 0; round < kRounds; ++round) {
      if (random() % 3 == 0) ka_trans_begin(KA_TRANS_SESSION);
      ASSERT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
      shared = ka_transaction_get();
      std::array<std::uint32_t, 8> tags{};
      for (std::uint32_t& tag : tags) {
        auto* const data = static_cast<std::uint32_t*>(ka_db_create(&tag, 5, 64));
        *data = tag;
      }
      for (std::size_t i = 0; i < tags.size(); i += 2) {
        EXPECT_EQ(*static_cast<std::uint32_t*>(ka_db_access(tags[i])), tags[i]);
        EXPECT_TRUE(ka_db_delete(tags[i]));
      }
      const std::uint32_t job = make_job({.words = 10});
      if (random() % 2) ka_db_access(job), ka_db_unpin(job);
      ka_trans_end(KA_TRANS_TRANSACTION);  // unless another thread has
      ka_trans_default();
      if (ka_trans_attach(shared, KA_TRANS_TRANSACTION)) {
        std::uint32_t tag = 0;
        ka_db_create(&tag, 6, 16);
        if (random() % 4 == 0) ka_trans_end(KA_TRANS_TRANSACTION);
      }
      ka_trans_default();
    }
  });
  ka_trans_wst_exit();
  ka_trans_exit();  // the sessions
  EXPECT_EQ(counts().tags, 0U);
  ka_trans_init();
}

TEST_F(Stress, LosesNoByteOfElementsThatAreSwappedAndProducedAgain) {
  const test::Scratch scratch;
  ka_db_swap_config(scratch.path("").c_str(), 4000);
  std::vector<std::uint32_t> tags;
  for (unsigned i = 0; i < 64; ++i) tags.push_back(make_job({.words = 20000, .first = i * 7}));
  ka_mem_memory_limit(3 << 20);
  test::in_threads(kThreads, [&] {
    auto& random = random_of_thread();
    for (int round = 0; round < kRounds; ++round) {
      const unsigned i = unsigned(random() % tags.size());
      const void* const data = ka_job_access(tags[i]);
      EXPECT_TRUE(data && test::is_filled(data, {.words = 20000, .first = i * 7}));
      ka_db_unpin(tags[i]);
      if (random() % 8 == 0) ka_job_flush(tags[random() % tags.size()]);
    }
  });
  ka_mem_memory_limit(0);
  EXPECT_GT(counts().swapped_in, 0U);
  for (const std::uint32_t tag : tags) EXPECT_TRUE(ka_db_delete(tag));
  EXPECT_EQ(counts().tags, 0U);
  EXPECT_EQ(counts().disk, 0U);
}

TEST_F(Stress, ElementsAreDeletedWhileOthersAskForThem) {
  std::array<std::atomic<std::uint32_t>, 16> tags{};
  test::in_threads(kThreads, [&] {
    auto& random = random_of_thread();
    for (int round = 0; round < 10 * kRounds; ++round) {
      auto& place = tags[random() % tags.size()];
      const std::uint32_t tag = place;
      if (random() % 4 == 0) {
        std::uint32_t old = place.exchange(make_job({.words = 8, .first = 5}));
        while (old != 0 && !ka_db_delete(old)) ka_msg_usleep(10);
      } else if (const void* const data = ka_job_access(tag)) {
        EXPECT_TRUE(test::is_filled(data, {.words = 8, .first = 5}));
        ka_db_unpin(tag);
      }
    }
  });
  for (const auto& tag : tags) EXPECT_TRUE(ka_db_delete(tag));
  EXPECT_EQ(counts().tags, 0U);
}

}  // namespace
