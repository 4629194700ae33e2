// Mutexes, reader/writer locks and wait channels.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/msg.h>

#include <atomic>
#include <latch>
#include <thread>

namespace {

// A thread that the library knows, which something else has started.
template <typename Function>
std::jthread registered(Function function) {
  return std::jthread([function] {
    EXPECT_GT(ka_msg_register_thread(), 0);
    function();
    ka_msg_unregister_thread();
  });
}

TEST(Lock, HoldsOffOthers) {
  ka_mutex lock{};
  ASSERT_EQ(ka_init_lock(&lock), 1);
  ka_lock(lock);
  registered([&] { EXPECT_EQ(ka_trylock(lock), 0); }).join();
  ka_unlock(lock);
  registered([&] {
    EXPECT_EQ(ka_trylock(lock), 1);
    ka_unlock(lock);
  }).join();
  ka_delete_lock(&lock);
  EXPECT_EQ(lock.handle, nullptr);
}

TEST(Lock, CountsRightUnderContention) {
  ka_mutex lock{};
  ka_init_lock(&lock);
  int count = 0;
  const auto add = [&] {
    for (int i = 0; i < 2000; ++i) {
      ka_lock(lock);
      ++count;
      ka_unlock(lock);
    }
  };
  { const auto a = registered(add), b = registered(add), c = registered(add); }
  EXPECT_EQ(count, 6000);
  ka_delete_lock(&lock);
}

TEST(LockDeathTest, ADeletedLockIsFatal) {
  const ka_mutex none{};
  EXPECT_EXIT(ka_lock(none), testing::ExitedWithCode(1),
              "MSG   .0  fatal  011424: pthread_mutex_lock failed, ");
  EXPECT_EXIT(ka_unlock(none), testing::ExitedWithCode(1), "011426: pthread_mutex_unlock failed");
  EXPECT_EXIT(ka_trylock(none), testing::ExitedWithCode(1),
              "011427: pthread_mutex_trylock failed, ");
}

TEST(ReaderWriterLock, ManyReadOneWrites) {
  ka_rwlock lock{};
  ka_rwlock_init(&lock);
  std::atomic<int> readers{0};
  int value = 0;
  std::latch both_read(2);
  const auto read = [&] {
    ka_rwlock_lock(lock, 0, 0);
    ++readers;
    both_read.arrive_and_wait();  // passes only while both hold the lock
    ka_rwlock_unlock(lock);
  };
  { const auto a = registered(read), b = registered(read); }
  EXPECT_EQ(readers, 2);
  const auto write = [&] {
    for (int i = 0; i < 1000; ++i) {
      ka_rwlock_lock(lock, 0, 1);
      ++value;
      EXPECT_EQ(ka_rwlock_unlock(lock), 0);
    }
  };
  { const auto a = registered(write), b = registered(write); }
  EXPECT_EQ(value, 2000);
  ka_rwlock_delete(&lock);
  EXPECT_EQ(lock.handle, nullptr);
  EXPECT_EQ(ka_rwlock_unlock(lock), EINVAL);  // "no lock": told, as every failure to give it back
}

TEST(ReaderWriterLockDeathTest, FailuresAreFatal) {
  ka_rwlock lock{};
  ka_rwlock_init(&lock);
  EXPECT_EXIT((ka_rwlock_lock(lock, 0, 0), ka_rwlock_delete(&lock)), testing::ExitedWithCode(1),
              "011433: failed to destroy rwlock");
  EXPECT_EXIT((ka_rwlock_lock(lock, 0, 1), ka_rwlock_lock(lock, 0, 1)), testing::ExitedWithCode(1),
              "011435: ka_rwlock_lock failed for writer, ");
  EXPECT_EXIT((ka_rwlock_lock(lock, 0, 1), ka_rwlock_lock(lock, 0, 0)), testing::ExitedWithCode(1),
              "011434: ka_rwlock_lock failed for reader, ");
  ka_rwlock_delete(&lock);
}

TEST(WaitChannel, WakesTheSleeperOnce) {
  ka_waitchan* channel = nullptr;
  ka_init_waitchan(&channel);
  ka_wakeup(channel);
  ka_sleep(channel);  // woken before: returns at once and is then as new
  std::atomic<bool> is_awake{false};
  {
    const auto sleeper = registered([&] {
      ka_sleep(channel);
      is_awake = true;
    });
    ka_msg_usleep(20000);
    EXPECT_FALSE(is_awake);
    ka_wakeup(channel);
  }
  EXPECT_TRUE(is_awake);
  ka_delete_waitchan(&channel);
  EXPECT_EQ(channel, nullptr);
}

}  // namespace
