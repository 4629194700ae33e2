// Keeps signals waiting while a file is made and its name noted, or is put in place.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace ka {

// While one of these lives no signal ends this thread, except SIGKILL.
class HeldSignals {
 public:
  HeldSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~HeldSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t before_;
};

}  // namespace ka
