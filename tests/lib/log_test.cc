// The message log: levels, the form of a line, codes, handlers.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/trans.h>

#include "support.h"

namespace {

// A module on top of the stack while it lives.
struct Module {
  explicit Module(int module) { ka_module_push(module); }
  ~Module() { ka_module_pop(); }
};

std::string last_line() {
  return test::MessageLog::lines().empty() ? "" : test::MessageLog::lines().back();
}

TEST(Log, ShowsTheLevelsOfTheMask) {
  const test::MessageLog log;
  const auto shown = [&] {
    log.lines().clear();
    ka_error("e");
    ka_warning("w");
    ka_info("i");
    ka_progress("p");
    ka_debug("d");
    ka_vdebug("v");
    std::string levels;
    for (const std::string& line : log.lines()) levels += line.back();
    return levels;
  };
  EXPECT_EQ(ka_get_verbosity(), std::uint32_t(KA_FATAL | KA_ERROR | KA_WARNING));
  EXPECT_EQ(shown(), "ew");
  for (const auto& [mask, levels] : {std::pair{0u, ""},
                                     {3u, "e"},
                                     {15u, "ewi"},
                                     {127u, "ewipdv"},
                                     {~1u, "ewipdv"},
                                     {16u, "p"}}) {
    ka_set_verbosity(mask);
    EXPECT_EQ(shown(), levels) << mask;
  }
}

TEST(Log, LinesTellModuleThreadLevelAndCode) {
  const test::MessageLog log(127);
  const struct {
    int module;
    void (*send)();
    const char* line;
  } rows[] = {{KA_IMG, [] { ka_nerror(5, "t"); }, "IMG   .0  error  101005: t"},
              {KA_IMG, [] { ka_nwarning(999, "t"); }, "IMG   .0  warn   102999: t"},
              {KA_IMG, [] { ka_nerror(1001, "t"); }, "IMG   .0  error  101001: t"},
              {KA_IMG, [] { ka_nerror(-1, "t"); }, "IMG   .0  error  100999: t"},
              {KA_IMG, [] { ka_error("t"); }, "IMG   .0  error: t"},
              {KA_IMG, [] { ka_nerror(0, "t"); }, "IMG   .0  error: t"},
              {KA_SCENE, [] { ka_info("%s %d", "t", 5); }, "SCEN  .0  info : t 5"},
              {KA_DB, [] { ka_progress("t"); }, "DB    .0  progr: t"},
              {KA_JPG, [] { ka_debug("t"); }, "JPG   .0  debug: t"},
              {KA_MEM, [] { ka_vdebug("t"); }, "MEM   .0  vdebg: t"},
              // the modules of the geometry share the codes from 90000 on
              {KA_GEOKA, [] { ka_nerror(7, "t"); }, "GEOK  .0  error  091007: t"},
              {KA_GAPAD, [] { ka_nwarning(7, "t"); }, "GAPA  .0  warn   092007: t"},
              {KA_GEOTE, [] { ka_nerror(7, "t"); }, "GEOT  .0  error  091007: t"},
              // no module at all
              {KA_MODULE_COUNT, [] { ka_nerror(7, "t"); }, "NULL  .0  error  001007: t"},
              {-1, [] { ka_error("t"); }, "NULL  .0  error: t"},
              {KA_GAPAD - 1, [] { ka_nerror(7, "t"); }, "CAPI  .0  error  401007: t"}};
  for (const auto& [module, send, line] : rows) {
    const Module pushed(module);
    send();
    EXPECT_EQ(last_line(), line);
  }
}

TEST(Log, LongTextsKeepBothEnds) {
  const test::MessageLog log;
  const std::string start(147, 'a'), end(147, 'z'), prefix = "MAIN  .0  error: ";
  ka_error("%s-----%s", start.c_str(), end.c_str());  // 299 characters
  EXPECT_EQ(last_line(), prefix + start + "-----" + end);
  for (const int between : {6, 100, 3000}) {
    const std::string middle(std::size_t(between), '-');
    ka_error("%s%s%s", start.c_str(), middle.c_str(), end.c_str());
    EXPECT_EQ(last_line(), prefix + start + "[...]" + end);
  }
  ka_error("%s", std::string(10000, 'a').c_str());
  EXPECT_EQ(last_line(), prefix + start + "[...]" + start);
  ka_error("one\ntwo\n");
  EXPECT_EQ(last_line(), prefix + "one two ");
}

TEST(Log, KeepsTheSystemsError) {
  const test::MessageLog log;
  errno = ENOENT;
  ka_error("%s, %s", ka_strerror(), ka_nstrerror(EACCES));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(last_line(), "MAIN  .0  error: No such file or directory, Permission denied");
}

TEST(Log, HandlersGetLevelTextAndCode) {
  static std::string heard;
  ka_errorhandler([](std::uint32_t level, const char* line, const char* text, int code) {
    heard = std::to_string(level) + "|" + line + "|" + text + "|" + std::to_string(code);
  });
  testing::internal::CaptureStderr();
  ka_nwarning(3, "text");
  EXPECT_EQ(heard, "4|MAIN  .0  warn   242003: text|text|242003");
  ka_errorhandler(nullptr);
  ka_error("text");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MAIN  .0  error: text\n");
}

}  // namespace
