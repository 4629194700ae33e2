// Signals end a process with a message, in the process that asked for it.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support.h"

namespace {

struct Row {
  int signal;
  const char* text;
};

TEST(SignalDeathTest, CaughtSignalsAreNamed) {
  const Row rows[] = {
      {SIGINT, "interrupted by signal 2 \\(interrupt\\) "},
      {SIGQUIT, "interrupted by signal 3 \\(quit\\) "},
      {SIGILL, "interrupted by signal 4 \\(illegal instruction\\) "},
      {SIGTRAP, "interrupted by signal 5 \\(unknown\\) "},
      {SIGABRT, "interrupted by signal 6 \\(unknown\\) "},
      {SIGBUS, "interrupted by signal 7 \\(bus error\\) "},
      {SIGFPE, "interrupted by signal 8 \\(floating point exception\\) "},
      {SIGSEGV, "interrupted by signal 11 \\(segmentation violation\\) "},
      {SIGTERM, "interrupted by signal 15 \\(software termination signal\\) "},
  };
  for (const Row& row : rows) {
    EXPECT_EXIT((ka_msg_sigset_init(0), raise(row.signal)), testing::ExitedWithCode(1),
                std::string("MSG   .0  fatal  011501: ") + row.text);
  }
}

TEST(SignalDeathTest, AHangUpAndALostReaderAreNoEnd) {
  EXPECT_EXIT((ka_msg_sigset_init(0), raise(SIGHUP), raise(SIGPIPE), _exit(3)),
              testing::ExitedWithCode(3), "");
}

TEST(SignalDeathTest, AHangUpInterruptsNoReading) {
  const auto hang_up_while_reading = [] {
    ka_msg_sigset_init(0);
    int ends[2];
    if (pipe(ends) != 0) _exit(1);
    if (fork() == 0) {
      usleep(50'000);
      kill(getppid(), SIGHUP);
      usleep(50'000);
      _exit(write(ends[1], "x", 1) == 1 ? 0 : 1);
    }
    char byte;
    _exit(read(ends[0], &byte, 1) == 1 ? 3 : 4);
  };
  EXPECT_EXIT(hang_up_while_reading(), testing::ExitedWithCode(3), "");
}

TEST(SignalDeathTest, AChildPassesItsSignalsOn) {
  const auto child_gets_a_signal = [] {
    ka_msg_sigset_init(0);
    if (fork() == 0) {
      raise(SIGTERM);
      _exit(0);
    }
    for (;;) pause();
  };
  EXPECT_EXIT(child_gets_a_signal(), testing::ExitedWithCode(1), "software termination signal");
}

TEST(SignalDeathTest, WithoutCatchingOnlyPipesAreIgnored) {
  const auto uncaught = [] {
    ka_set_verbosity(0x7f);
    ka_msg_sigset_init(1);
    raise(SIGPIPE);
    raise(SIGTERM);
  };
  EXPECT_EXIT(uncaught(), testing::KilledBySignal(SIGTERM), "debug: not catching any exceptions");
}

}  // namespace
