#include "signalremoval.h"

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace {

// What does not end a process, or cannot be caught.
constexpr std::array kOthers = {SIGKILL, SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU,
                                SIGCONT, SIGCHLD, SIGURG,  SIGWINCH};

// The path with its closing zero; empty: none. A handler of signals may not ask for memory.
std::array<char, PATH_MAX> marked;

void end_by_signal(int number) {
  remove_file_now();
  signal(number, SIG_DFL);
  raise(number);  // delivered on return
}

// A signal that is ignored stays so, as under nohup, and so does one that has a handler already.
void catch_signal(int number) {
  struct sigaction before;
  if (sigaction(number, nullptr, &before) != 0 || before.sa_handler != SIG_DFL) return;
  signal(number, end_by_signal);
}

}  // namespace

void remove_on_signal(const std::string& path) {
  if (path.size() >= marked.size()) return;
  std::copy_n(path.c_str(), path.size() + 1, marked.begin());
  std::atexit(remove_file_now);
  for (int number = 1; number <= SIGRTMAX; ++number) {
    if (std::ranges::find(kOthers, number) == kOthers.end()) catch_signal(number);
  }
}

void keep_file() { marked[0] = '\0'; }

void remove_file_now() {
  if (marked[0] != '\0') unlink(marked.data());
  keep_file();
}
