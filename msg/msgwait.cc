// Wait channels: a flag that a sleeping thread polls.
#include <errno.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <new>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>

struct ka_waitchan {
  std::atomic<bool> woken;
  ka_mutex lock;  // of several sleepers one takes the flag
};

void ka_init_waitchan(ka_waitchan** channel) {
  const ka::ModuleScope scope(KA_MSG);
  *channel = new (ka_mem_allocate_raw(sizeof(ka_waitchan))) ka_waitchan{};
  if (!ka_init_lock(&(*channel)->lock)) ka_nfatal(260, "no lock for waitchans available");
}

void ka_delete_waitchan(ka_waitchan** channel) {
  const ka::ModuleScope scope(KA_MSG);
  if (!*channel) return;
  ka_delete_lock(&(*channel)->lock);
  ka_mem_release_raw(*channel);
  *channel = nullptr;
}

void ka_sleep(ka_waitchan* channel) {
  const ka::ModuleScope scope(KA_MSG);
  for (;;) {
    {
      const ka::LockScope locked(channel->lock);
      if (channel->woken.exchange(false)) return;
    }
    sched_yield();
  }
}

void ka_wakeup(ka_waitchan* channel) { channel->woken = true; }

void ka_msg_usleep(unsigned microseconds) {
  constexpr long million = 1'000'000, billion = 1'000'000'000;
  timespec end;
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += microseconds / million;
  end.tv_nsec += microseconds % million * 1000;
  end.tv_sec += end.tv_nsec / billion;
  end.tv_nsec %= billion;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {  // by a signal
  }
}
