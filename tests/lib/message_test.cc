// Message log: levels, prefix and code, long texts, handlers, groups, colors, the log file, the
// way out.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "support.h"

namespace {

using test::MessageLog;

std::string last_line() { return MessageLog::lines().empty() ? "" : MessageLog::lines().back(); }

TEST(Message, TheMaskShowsLevels) {
  EXPECT_EQ(ka_get_verbosity(), 7U);
  for (const std::uint32_t mask : {0U, 3U, 7U, 15U, 16U, 127U, ~1U}) {
    ka_set_verbosity(mask);
    const MessageLog log;
    void (*const send[])(const char*, ...) = {ka_error,    ka_warning, ka_info,
                                              ka_progress, ka_debug,   ka_vdebug};
    for (const auto& function : send) function("x");
    EXPECT_EQ(log.lines().size(), std::size_t(std::popcount(mask & 126U))) << mask;
    EXPECT_TRUE(mask != 16 || last_line() == "MAIN  .0  progr: x");
  }
  ka_set_verbosity(7);
}

TEST(Message, LongTextsKeepBothEnds) {
  const MessageLog log;
  const std::string start(147, 'a'), end(147, 'z'), prefix = "MAIN  .0  error: ";
  for (const std::size_t between : {5U, 6U, 10000U}) {  // 299, 300 characters
    ka_error("%s%s%s", start.c_str(), std::string(between, '-').c_str(), end.c_str());
    EXPECT_EQ(last_line(), prefix + start + (between == 5 ? "-----" : "[...]") +
                               (between < 10000 ? end : std::string(147, '-')));
  }
  ka_error("no text: %ls", L"\xd800");
  EXPECT_EQ(last_line(), prefix + "no text: %ls");
  errno = ENOENT;
  ka_error("%s,\n%s\n", ka_strerror(), ka_nstrerror(EACCES));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(last_line(), prefix + "No such file or directory, Permission denied ");
}

// Standard error of what `issue` reports.
template <typename Issue>
std::string standard_error(Issue issue) {
  testing::internal::CaptureStderr();
  issue();
  return testing::internal::GetCapturedStderr();
}

TEST(Message, HandlersGetLevelTextAndCode) {
  static std::string heard;
  ka_errorhandler([](std::uint32_t level, const char* line, const char* text, int code) {
    heard = std::to_string(level) + "|" + line + "|" + text + "|" + std::to_string(code);
    errno = EBADF;
  });
  errno = ENOENT;
  EXPECT_EQ(standard_error([] { ka_nwarning(3, "text"); }), "");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(heard, "4|MAIN  .0  warn   242003: text|text|242003");
  // one that removes itself lets the line through
  ka_errorhandler([](std::uint32_t, const char*, const char*, int) { ka_errorhandler(nullptr); });
  EXPECT_EQ(standard_error([] { ka_error("x"); }), "MAIN  .0  error: x\n");
}

// The log decides once where its lines go, so each of these runs in a process of its own.
void log_in(const std::string& path) { setenv("KA_LOGFILE", path.c_str(), 1); }

TEST(MessageDeathTest, AFatalLineEndsTheProcess) {
  test::Scratch scratch;
  const std::string log = scratch.path("log");
  EXPECT_EXIT((log_in(log), ka_set_verbosity(0), ka_nfatal(5, "over\n\x1b")),
              testing::ExitedWithCode(1), "^$");
  const std::string stamp =
      "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}: "
      "lumoralib\\[[0-9]+,[0-9]+\\] ";
  EXPECT_TRUE(test::matches(test::read_file(log), stamp + "MAIN  \\.0  fatal  241005: over  \n" +
                                                      stamp + "MAIN fatal: over  \n"))
      << test::read_file(log);
  EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0666));
  EXPECT_EXIT((log_in(log), __assert("a == b", "file.c", 12)), testing::KilledBySignal(SIGABRT),
              "^ASSERTION FAILED: a == b: file.c 12\n$");
  EXPECT_NE(test::read_file(log).find("] ASSERTION FAILED a == b: file.c 12\n"), std::string::npos);
  const std::string longest(5000, 'x');
  EXPECT_EXIT((log_in(log), __assert(longest.c_str(), (longest + ".c").c_str(), 12)),
              testing::KilledBySignal(SIGABRT), "");
  EXPECT_TRUE(test::read_file(log).ends_with("xx: " + longest.substr(3002) + ".c 12\n"));
}

TEST(MessageDeathTest, NoPlantedLinkAndNoPipeIsWrittenTo) {
  test::Scratch scratch;
  const std::string folder = scratch.path("shared"), victim = scratch.write("victim", "mine"),
                    link = folder + "/link", pipe = folder + "/pipe";
  mkdir(folder.c_str(), 0777);
  chmod(folder.c_str(), 01777);
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  std::filesystem::create_hard_link(victim, folder + "/second");
  for (const std::string& name : {link, pipe, std::string("second")}) {
    EXPECT_EXIT((std::filesystem::current_path(folder), log_in(name), ka_error("x"), std::_Exit(0)),
                testing::ExitedWithCode(0), "^$");
  }
  EXPECT_EQ(test::read_file(victim), "mine");
  chmod(folder.c_str(), 0755);  // what only its owner can write to holds his own links
  EXPECT_EXIT((log_in(link), ka_error("x"), std::_Exit(0)), testing::ExitedWithCode(0), "^$");
  EXPECT_NE(test::read_file(victim), "mine");
}

}  // namespace
