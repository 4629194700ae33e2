// Signals end a process with a message, in the process that asked for it.
#include <gtest/gtest.h>
#include <ka/msg.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace {

TEST(SignalDeathTest, CaughtSignalsAreNamed) {
  const std::pair<int, const char*> rows[] = {{SIGINT, "2 \\(interrupt\\) "},
                                              {SIGABRT, "6 \\(unknown\\) "},
                                              {SIGFPE, "8 \\(floating point exception\\) "},
                                              {SIGSEGV, "11 \\(segmentation violation\\) "},
                                              {SIGTERM, "15 \\(software termination signal\\) "}};
  for (const auto& [signal, text] : rows) {
    EXPECT_EXIT((ka_msg_sigset_init(0), raise(signal)), testing::ExitedWithCode(1),
                std::string("MSG   .0  fatal  011501: interrupted by signal ") + text);
  }
}

TEST(SignalDeathTest, AHangUpAndALostReaderAreNoEndAndInterruptNoReading) {
  const auto hang_up_while_reading = [] {
    ka_msg_sigset_init(0);
    raise(SIGPIPE);
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

}  // namespace
