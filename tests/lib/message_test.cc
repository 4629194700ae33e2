// Message log: levels, prefix and code, long texts, groups, colours, records of other hosts, the
// log file, the way out.
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "support.h"

namespace {

using test::MessageLog;

// Pushes a module and takes back every setting of the log that a test changes.
class Settings {
 public:
  explicit Settings(int module) { ka_module_push(module); }
  ~Settings() {
    ka_module_pop();
    ka_set_subverbosity(KA_NULL, KA_SUBVERB_DEFAULT);
    ka_set_colormessage("off");
    ka::context().host = -1;
  }
};

TEST(Message, PrefixPiecesFollowTheGroupsAndTheContext) {
  const Settings settings(KA_IMG);
  const MessageLog log(0x7f);
  ka_set_subverbosity(KA_IMG, 0);
  ka_nerror(5, "no code");
  ka_set_subverbosity(KA_IMG, KA_SUBVERB_MSGTRANS | KA_SUBVERB_MSGCODE);
  ka::context().transaction = 0x12ab;
  ka_nerror(5, "transaction");
  ka::context().transaction = 0;
  ka_set_subverbosity(KA_IMG, 0);
  ka::context().host = 7;
  ka_vdebug("host");
  ka::context().thread = 1024;
  ka_debug("network thread");
  ka::context().thread = 0;
  EXPECT_EQ(MessageLog::lines(),
            (std::vector<std::string>{"IMG   .0  error: no code",
                                      "00012ab IMG   .0  error  101005: transaction",
                                      "IMG  7.0  vdebg: host", "IMG  7.n  debug: network thread"}));
}

TEST(Message, ListsOfGroups) {
  struct Row {
    const char* list;
    int result;
    std::uint32_t mask;
  };
  const Row rows[] = {
      {"", 1, 0},
      {",,", 1, 0},
      {"default,-phase,12", 1, 0x107e},  // bit 12 is part of the default already
      {"all,~msgcode", 1, 0xffffefff},
      {"all,!all", 1, 0},
      {"d", 1, 0x107f},
      {"deb", 1, 0x800},
      {"n,ne", 1, 0x200},
      {"p", 1, 1},
      {"pr", 1, 2},
      {"v", 1, 4},
      {"vr", 1, 0x80},
      {"re", 1, 0x40},
      {"res", 1, 0x100},
      {"m", 1, 0x20},
      {"msgc", 1, 0x1000},
      {"msgt", 1, 0x2000},
      {"t,te", 1, 0x4008},
      {"s,f", 1, 0x410},
      {"37", 1, 1U << 5},  // bits count modulo 32
      {"3,-3,4", 1, 0x10},
      {"phase,nonsense,time", 0, 1},
      {"defaults", 0, 0},
  };
  for (const Row& row : rows) {
    const MessageLog log(0x7f);
    std::uint32_t mask = 99;
    EXPECT_EQ(ka_parse_subverbosity(&mask, row.list), row.result) << row.list;
    EXPECT_EQ(mask, row.mask) << row.list;
    if (row.result) continue;
    EXPECT_EQ(MessageLog::lines().at(0),
              "LIB   .0  error  291048: invalid message list, use "
              "0..31,none,default,all,none,phase,progress,vprogress,"
              "time,scene,memory,render,vrender,resources,network,files,debug,msgcode,msgtrans,"
              "tessellate");
  }
}

TEST(Message, MasksBelongToModulesAndToAll) {
  const Settings settings(KA_MAIN);
  ka_set_subverbosity(KA_IMG, 0x5);
  EXPECT_EQ(ka_get_subverbosity(KA_IMG), 0x5U);
  EXPECT_EQ(ka_get_subverbosity(KA_MEM), 0x107fU);
  ka_set_subverbosity(KA_NULL, 0x9);
  EXPECT_EQ(ka_get_subverbosity(KA_IMG), 0x9U);
  EXPECT_EQ(ka_get_subverbosity(54), 0x9U);
}

// Standard error of what `issue` reports.
template <typename Issue>
std::string standard_error(Issue issue) {
  testing::internal::CaptureStderr();
  issue();
  return testing::internal::GetCapturedStderr();
}

TEST(Message, ColoursSurroundTheLine) {
  const Settings settings(KA_MAIN);
  const auto error = [] { ka_error("x"); };
  const std::string plain = "MAIN  .0  error: x\n";
  EXPECT_EQ(standard_error(error), plain);
  ka_set_colormessage("on");
  EXPECT_EQ(ka_get_colormessage(), 1);
  EXPECT_EQ(standard_error(error), "\033[31m" + plain + "\033[0m");
  EXPECT_EQ(standard_error([] { ka_warning("x"); }), "\033[36mMAIN  .0  warn : x\n\033[0m");
  ka_set_colormessage("rgbcmyk.");
  EXPECT_EQ(standard_error(error), "\033[32m" + plain + "\033[0m");
  ka_set_colormessage("\"rk.....b");
  EXPECT_EQ(standard_error(error), "\033[30m" + plain + "\033[34m");
  EXPECT_EQ(standard_error([] { ka_set_colormessage("rx"); }),
            "\033[36mMAIN  .0  warn   242018: unknown color 'x', expected [.rgbcmyk]\n\033[0m");
  EXPECT_EQ(standard_error(error), "\033[31m" + plain + "\033[0m");  // the slot keeps its default
  for (const char* text : {"off", "-", "false", "0"}) {
    ka_set_colormessage(text);
    EXPECT_EQ(ka_get_colormessage(), 0) << text;
  }
}

TEST(Message, ARemovedHandlerLetsTheLineThrough) {
  ka_errorhandler([](std::uint32_t, const char*, const char*, int) { ka_errorhandler(nullptr); });
  EXPECT_EQ(standard_error([] { ka_error("x"); }), "MAIN  .0  error: x\n");
}

TEST(Message, OnlyTheMasterOfANetworkInstallsAHandler) {
  const Settings settings(KA_MAIN);
  const MessageLog log(0x7f);
  ka::context().host = 3;
  ka_errorhandler(nullptr);
  EXPECT_EQ(MessageLog::lines().at(0),
            "MAIN 3.0  error  241036: ka_errorhandler can only be used on master");
}

TEST(Message, LinesOfOtherHostsAreShown) {
  const MessageLog log(0x7f);
  ka_message_record record{};
  record.kind = __builtin_bswap32(KA_RECORD_LINE);
  record.level = __builtin_bswap32(KA_ERROR);
  std::strcpy(record.prefix, "IMG  3.0  error");
  std::strcpy(record.text, "from afar");  // texts have no byte order
  ka_lib_netmessage(0, &record, sizeof record, 1);
  EXPECT_EQ(MessageLog::lines().at(0), "IMG  3.0  error: from afar");
}

TEST(Message, SettingsOfTheMasterAreTakenOver) {
  const Settings settings(KA_MAIN);
  const std::uint32_t saved = ka_get_verbosity();
  for (const int swap : {0, 1}) {
    const auto word = [&](std::uint32_t value) { return swap ? __builtin_bswap32(value) : value; };
    ka_message_record record{};
    record.kind = static_cast<int>(word(KA_RECORD_SETTINGS));
    record.level = word(0x1f);
    for (std::uint32_t module = 0; module < KA_MODULE_COUNT; ++module) {
      const std::uint32_t mask = word(module * 2 + 1);
      std::memcpy(record.text + 4 * module, &mask, 4);
    }
    ka_set_subverbosity(KA_NULL, 0);
    ka_lib_netmessage(0, &record, sizeof record, swap);
    EXPECT_EQ(ka_get_verbosity(), 0x1fU);
    for (int module = 1; module < KA_MODULE_COUNT; ++module) {
      EXPECT_EQ(ka_get_subverbosity(module), static_cast<std::uint32_t>(module) * 2 + 1);
    }
    ka_set_verbosity(saved);
  }
}

// The log decides once where its lines go, so each of these runs in a process of its own.
void log_in(const std::string& path) { setenv("KA_LOGFILE", path.c_str(), 1); }

TEST(MessageDeathTest, AFatalLineEndsTheProcess) {
  test::Scratch scratch;
  const std::string log = scratch.path("log");
  EXPECT_EXIT((log_in(log), ka_set_verbosity(0), ka_nfatal(5, "over\n")),
              testing::ExitedWithCode(1), "^$");
  const std::string stamp =
      "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}: "
      "lumoralib\\[[0-9]+,[0-9]+\\] ";
  EXPECT_TRUE(test::matches(test::read_file(log), stamp + "MAIN  \\.0  fatal  241005: over \n" +
                                                      stamp + "MAIN fatal: over\n\n"))
      << test::read_file(log);
  struct stat status;
  ASSERT_EQ(stat(log.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0666U);
}

TEST(MessageDeathTest, NoPlantedLinkAndNoPipeIsWrittenTo) {
  test::Scratch scratch;
  const std::string folder = scratch.path("shared");
  mkdir(folder.c_str(), 0777);
  chmod(folder.c_str(), 01777);
  const std::string victim = scratch.write("victim", "mine"), link = folder + "/link",
                    pipe = folder + "/pipe";
  ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  const std::string second_name = folder + "/second_name";
  std::filesystem::create_hard_link(victim, second_name);
  for (const std::string& name : {link, pipe, second_name}) {
    EXPECT_EXIT((log_in(name), ka_error("x"), std::_Exit(0)), testing::ExitedWithCode(0), "^$");
  }
  EXPECT_EQ(test::read_file(victim), "mine");
  chmod(folder.c_str(), 0755);  // what only its owner can write to holds his own links
  EXPECT_EXIT((log_in(link), ka_error("x"), std::_Exit(0)), testing::ExitedWithCode(0), "^$");
  EXPECT_NE(test::read_file(victim), "mine");
}

TEST(MessageDeathTest, AFailedAssertionAborts) {
  test::Scratch scratch;
  const std::string log = scratch.path("log");
  EXPECT_EXIT((log_in(log), __assert("a == b", "file.c", 12)), testing::KilledBySignal(SIGABRT),
              "^ASSERTION FAILED: a == b: file.c 12\n$");
  EXPECT_NE(test::read_file(log).find("] ASSERTION FAILED a == b: file.c 12\n"), std::string::npos);
}

}  // namespace
