// Signals end a process with a message, in the process that asked for it.
#include <gtest/gtest.h>
#include <ka/msg.h>
#include <signal.h>

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

}  // namespace
