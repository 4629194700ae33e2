// Message log: levels, prefix and code, long texts, handlers, groups, colours, the log file, the
// way out.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support.h"

namespace {

using test::MessageLog;

std::string last_line() { return MessageLog::lines().empty() ? "" : MessageLog::lines().back(); }

TEST(Message, TheMaskShowsLevels) {
  const MessageLog log;
  for (const auto& [mask, expected] : {std::pair{7u, "ew"},
                                       {0u, ""},
                                       {3u, "e"},
                                       {15u, "ewi"},
                                       {127u, "ewipdv"},
                                       {~1u, "ewipdv"},
                                       {16u, "p"}}) {
    if (mask != 7u) ka_set_verbosity(mask);  // the first is the default
    EXPECT_EQ(ka_get_verbosity() & mask, mask);
    log.lines().clear();
    ka_error("e");
    ka_warning("w");
    ka_info("i");
    ka_progress("p");
    ka_debug("d");
    ka_vdebug("v");
    std::string levels;
    for (const std::string& line : log.lines()) levels += line.back();
    EXPECT_EQ(levels, expected) << mask;
  }
}

TEST(Message, LinesTellModuleThreadLevelAndCode) {
  const MessageLog log(127);
  const struct {
    int module;
    void (*send)();
    const char* line;
  } rows[] = {{KA_IMG, [] { ka_nerror(5, "t"); }, "IMG   .0  error  101005: t"},
              {KA_IMG, [] { ka_nwarning(999, "t"); }, "IMG   .0  warn   102999: t"},
              {KA_IMG, [] { ka_nerror(1001, "t"); }, "IMG   .0  error  101001: t"},
              {KA_IMG, [] { ka_nerror(-1, "t"); }, "IMG   .0  error  100999: t"},
              {KA_IMG, [] { ka_nerror(0, "t"); }, "IMG   .0  error: t"},
              {KA_SCENE, [] { ka_info("%s %d", "t", 5); }, "SCEN  .0  info : t 5"},
              {KA_DB, [] { ka_progress("t"); }, "DB    .0  progr: t"},
              {KA_JPG, [] { ka_debug("t"); }, "JPG   .0  debug: t"},
              {KA_MEM, [] { ka_vdebug("t"); }, "MEM   .0  vdebg: t"},
              // the modules of the geometry share the codes from 90000 on
              {KA_GEOKA, [] { ka_nerror(7, "t"); }, "GEOK  .0  error  091007: t"},
              {KA_GAPAD, [] { ka_nwarning(7, "t"); }, "GAPA  .0  warn   092007: t"},
              {KA_GEOTE, [] { ka_nerror(7, "t"); }, "GEOT  .0  error  091007: t"},
              {KA_GAPAD - 1, [] { ka_nerror(7, "t"); }, "CAPI  .0  error  401007: t"},
              // no module at all
              {KA_MODULE_COUNT, [] { ka_nerror(7, "t"); }, "NULL  .0  error  001007: t"},
              {-1, [] { ka_error("t"); }, "NULL  .0  error: t"}};
  for (const auto& [module, send, line] : rows) {
    ka_module_push(module);
    send();
    ka_module_pop();
    EXPECT_EQ(last_line(), line);
  }
}

TEST(Message, LongTextsKeepBothEnds) {
  const MessageLog log;
  const std::string start(147, 'a'), end(147, 'z'), prefix = "MAIN  .0  error: ";
  ka_error("%s-----%s", start.c_str(), end.c_str());  // 299 characters
  EXPECT_EQ(last_line(), prefix + start + "-----" + end);
  for (const std::size_t between : {6u, 3000u, 10000u}) {
    ka_error("%s%s%s", start.c_str(), std::string(between, '-').c_str(), end.c_str());
    EXPECT_EQ(last_line(),
              prefix + start + "[...]" + (between < 10000 ? end : std::string(147, '-')));
  }
  ka_error("no text: %ls", L"\xd800");
  EXPECT_EQ(last_line(), prefix + "no text: %ls");
  errno = ENOENT;
  ka_error("%s,\n%s\n", ka_strerror(), ka_nstrerror(EACCES));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(last_line(), prefix + "No such file or directory, Permission denied ");
}

// The second set of controls, 0x80 to 0x9f, comes as UTF-8, as single bytes, and in longer codes.
TEST(Message, ControlCharactersBecomeBlanks) {
  const std::pair<const char*, const char*> rows[] = {
      {"a\nb\r\x1b[31m\x7f\x01", "a b  [31m  "},
      {"a\tb", "a\tb"},
      {"\xc2\x9b|\x9b|\xe0\x82\x9b|\xc2|\xf0\x80\x82\x9b", "  | |\xe0  |\xc2|\xf0   "},
      {"\xc3\x9b \xe2\x82\xac \xf0\x9f\x98\x80 \xe9",
       "\xc3\x9b \xe2\x82\xac \xf0\x9f\x98\x80 \xe9"}};
  const MessageLog log;
  for (const auto& [text, shown] : rows) {
    ka_error("%s", text);
    EXPECT_EQ(last_line(), std::string("MAIN  .0  error: ") + shown);
  }
}

TEST(Message, PiecesOfThePrefixAreSwitchedOnAndOff) {
  const MessageLog log;
  ka_set_subverbosity(KA_MAIN, KA_SUBVERB_MSGTRANS);
  ka::context().transaction = 0x12ab;
  ka_nerror(5, "x");
  ka::context().transaction = 0;
  ka_set_subverbosity(KA_NULL, KA_SUBVERB_DEFAULT);
  EXPECT_EQ(last_line(), "00012ab MAIN  .0  error: x");
}

TEST(Message, ListsOfGroups) {
  const struct {
    const char* list;
    std::uint32_t mask;
    int result = 1;
  } rows[] = {{"", 0},
              {",,", 0},
              {"default,-phase,12", 0x107e},
              {"all,~msgcode", 0xffffefff},
              {"all,!all", 0},
              {"d", 0x107f},
              {"deb", 0x800},
              {"n,ne", 0x200},
              {"p", 1},
              {"pr", 2},
              {"v", 4},
              {"vr", 0x80},
              {"re", 0x40},
              {"res", 0x100},
              {"m", 0x20},
              {"msgc", 0x1000},
              {"msgt", 0x2000},
              {"t,te", 0x4008},
              {"s,f", 0x410},
              {"37", 1U << 5},
              {"3,-3,4", 0x10},
              {"phase,nonsense,time", 1, 0},
              {"defaults", 0, 0}};
  for (const auto& [list, expected, result] : rows) {
    const MessageLog log(0x7f);
    std::uint32_t mask = 99;
    EXPECT_EQ(ka_parse_subverbosity(&mask, list), result) << list;
    EXPECT_EQ(mask, expected) << list;
    if (result) continue;
    EXPECT_EQ(last_line(),
              "LIB   .0  error  291048: invalid message list, use "
              "0..31,none,default,all,none,phase,progress,vprogress,"
              "time,scene,memory,render,vrender,resources,network,files,debug,msgcode,msgtrans,"
              "tessellate");
  }
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
  });
  EXPECT_EQ(standard_error([] { ka_nwarning(3, "text"); }), "");
  EXPECT_EQ(heard, "4|MAIN  .0  warn   242003: text|text|242003");
  // one that removes itself lets the line through
  ka_errorhandler([](std::uint32_t, const char*, const char*, int) { ka_errorhandler(nullptr); });
  EXPECT_EQ(standard_error([] { ka_error("x"); }), "MAIN  .0  error: x\n");
}

TEST(Message, ColoursSurroundTheLine) {
  const auto error = [] { ka_error("x"); };
  const std::string plain = "MAIN  .0  error: x\n";
  ka_set_colormessage("on");
  EXPECT_EQ(standard_error(error), "\033[31m" + plain + "\033[0m");
  EXPECT_EQ(standard_error([] { ka_warning("x"); }), "\033[36mMAIN  .0  warn : x\n\033[0m");
  ka_set_colormessage("\"rk.....b");
  EXPECT_EQ(standard_error(error), "\033[30m" + plain + "\033[34m");
  EXPECT_EQ(standard_error([] { ka_set_colormessage("rx"); }),
            "\033[36mMAIN  .0  warn   242018: unknown color 'x', expected [.rgbcmyk]\n\033[0m");
  EXPECT_EQ(standard_error(error), "\033[31m" + plain + "\033[0m");  // the slot keeps its default
  for (const char* text : {"off", "-", "false", "0"}) {
    ka_set_colormessage("on");
    ka_set_colormessage(text);
    EXPECT_EQ(standard_error(error), plain) << text;
  }
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
                    link = folder + "/link", pipe = folder + "/pipe", second = folder + "/second";
  mkdir(folder.c_str(), 0777);
  chmod(folder.c_str(), 01777);
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  std::filesystem::create_hard_link(victim, second);
  for (const std::string& name : {link, pipe, second}) {
    EXPECT_EXIT((log_in(name), ka_error("x"), std::_Exit(0)), testing::ExitedWithCode(0), "^$");
  }
  EXPECT_EQ(test::read_file(victim), "mine");
  chmod(folder.c_str(), 0755);  // what only its owner can write to holds his own links
  EXPECT_EXIT((log_in(link), ka_error("x"), std::_Exit(0)), testing::ExitedWithCode(0), "^$");
  EXPECT_NE(test::read_file(victim), "mine");
}

}  // namespace
