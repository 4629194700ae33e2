// Mutexes, reader/writer locks and wait channels.
#include <gtest/gtest.h>
#include <ka/msg.h>

#include <atomic>

#include "support.h"

namespace {

TEST(Lock, HoldsOffOthers) {
  ka_mutex lock{};
  ASSERT_EQ(ka_init_lock(&lock), 1);
  int count = 0;
  test::in_threads(3, [&] {
    for (int i = 0; i < 2000; ++i) {
      ka_lock(lock);
      ++count;
      ka_unlock(lock);
    }
  });
  EXPECT_EQ(count, 6000);
  ka_lock(lock);
  test::registered([&] { EXPECT_EQ(ka_trylock(lock), 0); }).join();
  ka_unlock(lock);
  EXPECT_EQ(ka_trylock(lock), 1);
  ka_unlock(lock);
  ka_delete_lock(&lock);
}

TEST(LockDeathTest, FailuresAreFatal) {
  const ka_mutex none{};
  ka_rwlock lock{};
  ka_rwlock_init(&lock);
  const auto ends = testing::ExitedWithCode(1);
  EXPECT_EXIT(ka_lock(none), ends, "MSG   .0  fatal  011424: pthread_mutex_lock failed, ");
  EXPECT_EXIT(ka_unlock(none), ends, "011426: pthread_mutex_unlock failed");
  EXPECT_EXIT(ka_trylock(none), ends, "011427: pthread_mutex_trylock failed, ");
  EXPECT_EXIT((ka_rwlock_lock(lock, 0, 0), ka_rwlock_delete(&lock)), ends,
              "011433: failed to destroy rwlock");
  EXPECT_EXIT((ka_rwlock_lock(lock, 0, 1), ka_rwlock_lock(lock, 0, 1)), ends,
              "011435: ka_rwlock_lock failed for writer, ");
  EXPECT_EXIT((ka_rwlock_lock(lock, 0, 1), ka_rwlock_lock(lock, 0, 0)), ends,
              "011434: ka_rwlock_lock failed for reader, ");
  ka_rwlock_delete(&lock);
}

TEST(WaitChannel, WakesTheSleeperOnce) {
  ka_waitchan* channel = nullptr;
  ka_init_waitchan(&channel);
  ka_wakeup(channel);
  ka_sleep(channel);  // woken before: returns at once and is then as new
  std::atomic<bool> is_awake{false};
  auto sleeper = test::registered([&] {
    ka_sleep(channel);
    is_awake = true;
  });
  ka_msg_usleep(20000);
  EXPECT_FALSE(is_awake);
  ka_wakeup(channel);
  sleeper.join();
  for (int i = 0; i < 2; ++i) ka_delete_waitchan(&channel);
  EXPECT_EQ(channel, nullptr);
}

}  // namespace
