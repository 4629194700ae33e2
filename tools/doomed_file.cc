#include "doomed_file.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace {

constexpr std::array kSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// The path with its closing zero; empty: none. A handler of signals may not ask for memory.
std::array<char, PATH_MAX> doomed;

void end_by_signal(int number) {
  remove_doomed_file();
  signal(number, SIG_DFL);
  raise(number);  // delivered on return
}

// A signal that is ignored stays so, as under nohup.
void catch_signal(int number) {
  struct sigaction before;
  if (sigaction(number, nullptr, &before) != 0 || before.sa_handler == SIG_IGN) return;
  signal(number, end_by_signal);
}

}  // namespace

void doom_file(const std::string& path) {
  if (path.size() >= doomed.size()) return;
  std::copy_n(path.c_str(), path.size() + 1, doomed.begin());
  std::atexit(remove_doomed_file);
  for (const int number : kSignals) catch_signal(number);
}

void spare_doomed_file() { doomed[0] = '\0'; }

void remove_doomed_file() {
  if (doomed[0] != '\0') unlink(doomed.data());
  spare_doomed_file();
}

HeldSignals::HeldSignals() : before_{} {
  sigset_t held;
  sigemptyset(&held);
  for (const int number : kSignals) sigaddset(&held, number);
  sigprocmask(SIG_BLOCK, &held, &before_);
}

HeldSignals::~HeldSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
