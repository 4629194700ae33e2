#include "viewer.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <string>

#include <ka/message.h>

namespace {

constexpr char kViewer[] = "vel_disp";

// While one of these lives the user's interrupts are the viewer's alone, and only this thread
// learns of the viewer's end.
class WaitingSignals {
 public:
  WaitingSignals() {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    for (std::size_t i = 0; i < kInterrupts.size(); ++i) {
      sigaction(kInterrupts[i], &ignore, &before_[i]);
    }
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, &mask_);
  }
  ~WaitingSignals() {
    for (std::size_t i = 0; i < kInterrupts.size(); ++i) {
      sigaction(kInterrupts[i], &before_[i], nullptr);
    }
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
  }
  WaitingSignals(const WaitingSignals&) = delete;
  WaitingSignals& operator=(const WaitingSignals&) = delete;

  [[nodiscard]] const sigset_t& mask_before() const { return mask_; }

  // What the viewer finds as a shell would leave it: ignoring broken pipes and full files is the
  // tool's choice.
  [[nodiscard]] sigset_t defaults() const {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    for (std::size_t i = 0; i < kInterrupts.size(); ++i) {
      if (before_[i].sa_handler != SIG_IGN) sigaddset(&signals, kInterrupts[i]);
    }
    return signals;
  }

 private:
  static constexpr std::array kInterrupts = {SIGINT, SIGQUIT};

  std::array<struct sigaction, kInterrupts.size()> before_;
  sigset_t mask_;
};

// Starts the viewer with the signals as they were. Returns the system's error number, 0 for none.
int start_viewer(char* const* arguments, const WaitingSignals& signals, pid_t& viewer) {
  const sigset_t defaults = signals.defaults();
  posix_spawnattr_t attributes;
  int failure = posix_spawnattr_init(&attributes);
  if (failure != 0) return failure;
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &signals.mask_before());
  failure = posix_spawnp(&viewer, kViewer, nullptr, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  return failure;
}

}  // namespace

void run_viewer(std::string title, std::string name) {
  if (name.starts_with('-')) name.insert(0, "./");
  std::string viewer_name = kViewer, option = "-imgtitle";
  char* const arguments[] = {viewer_name.data(), option.data(), title.data(), name.data(), nullptr};
  const WaitingSignals signals;
  pid_t viewer;
  const int failure = start_viewer(arguments, signals, viewer);
  if (failure != 0) return ka_warning("cannot start %s (%s)", kViewer, ka_nstrerror(failure));
  while (waitpid(viewer, nullptr, 0) < 0 && errno == EINTR) {
  }
}
