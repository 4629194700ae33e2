// Path substitution: environment variables, rules and their language, what fits, the first use, and
// rules from linktab.ini: where the file is looked for, and how its lines are read.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/detail/paths.h>
#include <ka/message.h>
#include <ka/registry.h>
#include <ka/subst.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "messages.h"
#include "support.h"

namespace {

constexpr std::size_t kMaxName = 4095, kMaxPiece = 2047;  // characters

void set(const char* name, const char* value) { value ? setenv(name, value, 1) : unsetenv(name); }

std::string join(std::initializer_list<std::string_view> pieces) {
  std::string text;
  for (const std::string_view piece : pieces) text += piece;
  return text;
}

std::string substitute(const std::string& name, std::size_t size = 5000) {
  std::string buffer(size, '#');
  EXPECT_EQ(ka_string_substitute(buffer.data(), name.c_str(), size), buffer.data());
  return buffer.c_str();
}

// Null: the default rules.
void use_rules(const char* rules) {
  set("KA_LUM_SUBSTITUTE", rules);
  ka_lib_subst_exit();
}

// Every test starts with the default rules and variables of its own.
class Subst : public testing::Test {
 protected:
  Subst() { clear(); }
  ~Subst() override { clear(); }

 private:
  static void clear() {
    for (const char* name : {"SI_LINKTAB_LOCATION", "SI_LOCATION", "LUMORA_UNSET"}) unsetenv(name);
    set("LUMORA_DIR", "/dir");
    set("LUMORA_0", "zero");
    set("_", "underscore");
    use_rules(nullptr);
  }
};

std::string message_of(int number, const std::string& text) {
  return "2910" + std::to_string(number) + " path substitution: " + text;
}

struct Row {
  const char *rules, *from, *to;  // rules: null for the default
};

void expect(const Row& row, const Texts& messages = {}) {
  use_rules(row.rules);
  const auto told = messages_of([&] { EXPECT_EQ(substitute(row.from), row.to); }, kReports);
  EXPECT_EQ(told, messages) << row.rules << row.from;
}

// Each rule is applied once: the letter that comes to the start stays.
TEST_F(Subst, TheDefaultRulesTurnWindowsNamesIntoUnixNames) {
  for (const Row& row :
       {Row{nullptr, "C:\\tex\\wood.dll", "/tex/wood.so"}, Row{nullptr, "c:wood.obj", "wood.o"},
        Row{nullptr, "a/b.lib", "a/b.a"}, Row{nullptr, "a.dll.bak", "a.dll.bak"},
        Row{nullptr, "dll", "dll"}, Row{nullptr, "a/C:/b", "a/C:/b"}, Row{nullptr, "1:/b", "1:/b"},
        Row{nullptr, "a:B:x", "x"}, Row{nullptr, "B:a:x", "a:x"}, Row{nullptr, "", ""}}) {
    expect(row);
  }
}

TEST_F(Subst, RulesHaveALanguageAndVariablesAreExpanded) {
  for (const Row& row :
       {Row{"", "C:\\a.dll", "C:\\a.dll"}, Row{"/a//", "banana", "bnn"}, Row{"xaxbx", "aa", "bb"},
        Row{" \t/a/b/ \t /b/c/", "ab", "cc"}, Row{"/a/b/,b,c,", "ab", "cc"},
        Row{"/ / _ /", "a b", "a _ b"}, Row{"/aa/b/", "aaaaa", "bba"},
        Row{"/a/aa/", "aba", "aabaa"}, Row{"/^a/b/", "aa", "ba"}, Row{"/`a/b/", "aa", "ba"},
        Row{"/^b/c/", "ab", "ab"}, Row{"/^/x/", "ab", "xab"}, Row{"/a^/b/", "aa^", "ab"},
        Row{"/a$/b/", "aa", "ab"}, Row{"/$/x/", "a$.b", "ax.b"}, Row{"/a$.b/x/", "ba", "bx"},
        Row{"/a$./x/", "a$.b", "xb"}, Row{"/^a$/b/", "a", "b"}, Row{"/^a$/b/", "aa", "aa"},
        Row{"/a?c/x/", "abcac", "xac"}, Row{"/a?/x/", "a", "a"}, Row{"/[b-d]/x/", "abcde", "axxxe"},
        Row{"/[b-b]/x/", "abc", "axc"}, Row{"/a[0-9]z/x/", "a5za.z", "xa.z"},
        // codes are signed: 0x80 is -128, below every character of ASCII
        Row{"/[\x80-0]/x/", "\x80\xff/0.1", "xxxxx1"}, Row{"/[d-b]/x/", "bcd", "bcd"},
        Row{"/a\033/b/c\033/d/", "a/b", "c/d"}, Row{"/\033$LUMORA_DIR/x/", "\033$LUMORA_DIR", "x"},
        Row{"/$LUMORA_DIR:/${LUMORA_DIR}2/", "a/dir:b", "a/dir2b"},
        Row{"", "$LUMORA_DIR/x", "/dir/x"}, Row{"", "${LUMORA_DIR}x", "/dirx"},
        Row{"", "a$LUMORA_0", "azero"}, Row{"", "$_/x", "underscore/x"},
        Row{"", "$LUMORA_DIR$LUMORA_0${LUMORA_0}", "/dirzerozero"}, Row{"", "a$/$.$", "a$/$.$"},
        Row{"", "\033$LUMORA_DIR\033\033\033a", "$LUMORA_DIR\033a"}, Row{"", "a\033", "a\033"},
        Row{"/dir/x/", "$LUMORA_DIR", "/x"}}) {
    expect(row);
  }
}

TEST_F(Subst, FaultsAreTold) {
  const Texts null = {message_of(41, "null search string")},
              search = {message_of(42, "unterminated search string")},
              replacement = {message_of(43, "unterminated replace string")},
              range = {message_of(44, "incorrect [x-y] match syntax")},
              unset = {message_of(40, "undefined $var \"LUMORA_UNSET\"")};
  expect({"/a/b/ //c/ /b/d/", "ab", "bb"}, null);
  expect({"/a/b/ /", "a", "b"}, null);
  expect({"/a/b/ /b", "a", "b"}, search);
  expect({"/a/b/ /b/c", "a", "b"}, replacement);
  expect({"/a/b\033/", "a", "a"}, replacement);
  expect({"/[a-z/x/", "a", "a"}, range);
  expect({"/a[b.c]/x/", "zab", "zab"}, range);
  expect({"/a/b$LUMORA_UNSET.c/ /c/d/", "ac", "bd"}, unset);
  expect({"/$LUMORA_UNSET/x/ /c/d/", "ac", "ad"}, unset);
  expect({"", "a$LUMORA_UNSET/x", "a"}, unset);
  expect({"", "a${LUMORA_UNSET}/x", "a"}, unset);
  expect({"", "a${}", "a"}, {message_of(40, "undefined $var \"\"")});
  expect({"", "a${LUMORA_DIR/x", "a"}, {message_of(39, "unterminated $var name \"LUMORA_DIR/x\"")});
}

TEST_F(Subst, WhatDoesNotFitIsCutAfterAnError) {
  const auto cut_to = [](std::size_t size, const char* expected) {
    return messages_of([&] { EXPECT_EQ(substitute("$LUMORA_0.x", size), expected); }, kReports);
  };
  const Texts too_long = {message_of(38, "path too long: $LUMORA_0.x")};
  EXPECT_EQ(cut_to(7, "zero.x"), Texts{});
  EXPECT_EQ(cut_to(6, "zero."), too_long);
  EXPECT_EQ(cut_to(1, ""), too_long);
  char untouched = '#';
  ka_string_substitute(&untouched, "$LUMORA_0.x", 0);
  EXPECT_EQ(untouched, '#');
}

// Faults of rules do not count, those of a name do, wherever on its way they show.
TEST_F(Subst, NamesThatLeadNowhereAreKnown) {
  const struct {
    const char *rules, *name, *entry;
    int fault;
  } rows[] = {{"", "a", "", 0},
              {"", "$LUMORA_DIR", "", 0},
              {"/a/b$LUMORA_UNSET/ /[/x/ /y", "a", "", 0},
              {"", "a$LUMORA_UNSET", "", ENOENT},
              {"", "a${LUMORA_DIR", "", ENOENT},
              {"", "123456789", "", 0},
              {"", "1234567890", "", ENAMETOOLONG},
              {"/a/1234567890/", "a", "", ENAMETOOLONG},
              {"", "1234567890$LUMORA_UNSET", "", ENOENT},
              {"", "{_e}", "123456789", 0},
              {"", "{_e}", "1234567890", ENAMETOOLONG},
              {"", "{_f}", "", 0}};
  ka_lib_registry_init();
  for (const auto& [rules, name, entry, fault] : rows) {
    use_rules(rules);
    ka_lib_registry_begin("{_e}");
    ka_lib_registry_add("{_e}", "value", entry);
    char buffer[10];
    const test::MessageLog log;
    EXPECT_EQ(ka::substitute_path(buffer, name, sizeof buffer), fault) << rules << name << entry;
  }
  ka_lib_registry_exit();
}

TEST_F(Subst, NamesAndRulesHaveAGreatestLength) {
  const test::MessageLog log(KA_ERROR);
  use_rules("/a/bb/");
  EXPECT_EQ(substitute(std::string(kMaxName + 5, 'x')), std::string(kMaxName, 'x'));
  EXPECT_EQ(substitute(std::string(kMaxName, 'a')), std::string(kMaxName, 'b'));
  set("LUMORA_0", std::string(kMaxName, 'e').c_str());
  EXPECT_EQ(substitute("x$LUMORA_0/y"), join({"x", std::string(kMaxName - 1, 'e')}));
  EXPECT_EQ(test::MessageLog::lines().size(), 3u);  // error 38 for each
  const std::string search(kMaxPiece, 'a'), replacement(kMaxPiece, 'b');
  use_rules(join({"/", search, "xx/", replacement, "yy/"}).c_str());
  EXPECT_EQ(substitute(join({search, "!"})), join({replacement, "!"}));
}

TEST_F(Subst, RulesAreReadOnceAndEveryStepIsTraced) {
  use_rules("/a/b/ /x/y/ /b/c/");
  const Texts expected = {"parsing $KA_LUM_SUBSTITUTE = \"/a/b/ /x/y/ /b/c/\"",
                          "substitute: add rule: a -> b",
                          "substitute: add rule: x -> y",
                          "substitute: add rule: b -> c",
                          "finished parsing $KA_LUM_SUBSTITUTE",
                          "substitute: apply to a",
                          "substitute: a -> b",
                          "substitute: b -> c"};
  EXPECT_EQ(messages_of([] { substitute("a"); }), expected);
  set("KA_LUM_SUBSTITUTE", "/a/z/");
  ka_set_subverbosity(KA_LIB, KA_SUBVERB_DEFAULT | KA_SUBVERB_FILES);
  EXPECT_EQ(messages_of([] { substitute("a/$LUMORA_0"); }, kReports),
            Texts{"substitute: a/$LUMORA_0 -> c/zero"});
  EXPECT_EQ(messages_of([] { substitute("$LUMORA_0"); }, kReports), Texts{});
  ka_set_subverbosity(KA_LIB, KA_SUBVERB_DEFAULT);
}

TEST_F(Subst, TheRegistryHasTheLastWord) {
  use_rules("/a/b/");
  ka_lib_registry_init();
  ka_lib_registry_begin("{b}");
  ka_lib_registry_add("{b}", "value", "from/registry");
  EXPECT_EQ(substitute("{a}"), "from/registry");
  EXPECT_EQ(messages_of([] { EXPECT_EQ(substitute("{a}", 5), "from"); }, kReports),
            Texts{message_of(38, "path too long: {a}")});
  EXPECT_EQ(substitute("{_c}"), "{_c}");  // no value: the name stays
  ka_lib_registry_exit();
}

TEST_F(Subst, ThreadsThatComeTogetherReadTheRulesOnce) {
  static std::atomic<int> builds;
  builds = 0;
  const test::MessageLog log(KA_DEBUG);
  ka_errorhandler([](std::uint32_t, const char*, const char* text, int) {
    if (std::string_view(text).starts_with("parsing")) ++builds;
  });
  test::in_threads(4, [] { EXPECT_EQ(substitute("C:\\a.dll"), "/a.so"); });
  EXPECT_EQ(builds, 1);
}

class Linktab : public Subst {
 protected:
  Linktab() { use_rules(""); }

  // What reading a file of these lines tells, with FILE for its name.
  [[nodiscard]] Texts read(const std::string& lines) const {
    scratch.write("linktab.ini", lines);
    set("SI_LOCATION", folder.c_str());
    ka_lib_subst_exit();
    Texts messages = messages_of([] { substitute(""); });
    for (std::string& message : messages) {
      const std::size_t at = message.find(file);
      if (at != std::string::npos) message.replace(at, file.size(), "FILE");
    }
    const auto end = std::ranges::find(messages, "finished reading \"FILE\"");
    return {messages.begin() + 1, end};
  }

  test::Scratch scratch;
  const std::string folder = scratch.path(""), file = folder + "/linktab.ini";
};

TEST_F(Linktab, LinesAreUnderstood) {
  const std::string rule = "substitute: add rule: ";
  const std::pair<const char*, Texts> rows[] = {
      {"N:/nt /unix\n", {rule + "/unix/ -> N:/nt/"}},
      {"N:/nt/ /unix/\n", {rule + "/unix/ -> N:/nt/"}},
      {"\\\\server\\nt\\ \\unix\n", {rule + "/unix/ -> //server/nt/"}},
      {" \t N: \t /unix\tignored", {rule + "/unix/ -> N:/"}},
      {"N: /unix\r\nM: /other\rX: /y\n", {rule + "/unix/ -> N:/", rule + "/other/ -> M:/"}},
      {"# N: /unix\n\n \t\n  #\r\nN: /unix\n", {rule + "/unix/ -> N:/"}},
      {"\nN:", {"FILE 2: missing NT string"}},
      {"N: \t \nM: /m\n", {"FILE 1: missing UNIX string", rule + "/m/ -> M:/"}},
      {"/n!nt /unix\n", {"FILE 1: no drive for \"/n\"", rule + "/unix/ -> nt/"}},
      {"!nt /unix\n", {"FILE 1: no drive for \"\"", rule + "/unix/ -> nt/"}},
      {"/n! /unix\n", {"FILE 1: no drive for \"/n\"", "FILE 1: missing NT string after '!'"}},
      {"/n!nt\n", {"FILE 1: no drive for \"/n\"", "FILE 1: missing NT string"}},
      {"N: /a!b\n", {rule + "/a!b/ -> N:/"}}};
  for (const auto& [lines, messages] : rows) EXPECT_EQ(read(lines), messages) << lines;
}

TEST_F(Linktab, LinesHaveAGreatestLength) {
  const std::string longest = join({"/", std::string(2042, 'u')});  // behind "N: " up to 2046
  const std::string comment = join({"#", std::string(2000, 'x'), std::string(100, ' ')});
  EXPECT_EQ(read(join({comment, "N: /n\nN: ", longest, "v\n"})).size(), 1u);
  EXPECT_EQ(substitute(join({longest, "/x"})), "N:/x");
}

TEST_F(Linktab, OnlyRegularFilesOfALimitedSizeHoldSettings) {
  const auto errors_of = [](const std::string& path) {
    set("SI_LINKTAB_LOCATION", path.c_str());
    ka_lib_subst_exit();
    return messages_of([] { EXPECT_EQ(substitute("/n/"), "/n/"); }, KA_ERROR);
  };
  const std::string line = "N: /nt\n", pipe = scratch.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string large =
      scratch.write("large", line + std::string((1 << 20) - line.size(), '#'));
  EXPECT_EQ(errors_of(large), Texts{});
  EXPECT_EQ(substitute("/nt/"), "N:/");
  for (const std::string& path :
       {scratch.write("larger", test::read_file(large) + "#"), pipe, std::string("/dev/zero")}) {
    EXPECT_EQ(errors_of(path),
              Texts{message_of(46, "\"" + path + "\" is not a regular file of at most 1 MiB")});
  }
}

TEST_F(Linktab, ItsRulesComeBeforeThoseOfTheEnvironment) {
  set("KA_LUM_SUBSTITUTE", "/N:/M:/ /$LUMORA_0/x/");
  const Texts expected = {"substitute: add rule: /n/ -> N:/",
                          "substitute: add rule: /zero/ -> $LUMORA_0/"};  // not expanded
  EXPECT_EQ(read("N: /n\n$LUMORA_0 /zero\n"), expected);
  EXPECT_EQ(substitute("/n/a"), "M:/a");
}

TEST_F(Linktab, TheEnvironmentLeadsToTheFile) {
  scratch.write("linktab.ini", "N: /folder\n");
  const std::string other = scratch.write("other.ini", "N: /file\n");
  const std::string empty = scratch.path("empty"), odd = scratch.path("odd");
  std::filesystem::create_directories(empty);
  std::filesystem::create_directories(odd + "/linktab.ini");
  const std::string rows[][3] = {
      {"", "", ""},       {folder, "", file},     {other, "", other},
      {"", folder, file}, {other, folder, other}, {"/missing", folder, ""},
      {"", other, ""},    {empty, "", ""},        {"", odd, ""}};
  for (const auto& [linktab_location, location, read] : rows) {
    set("SI_LINKTAB_LOCATION", linktab_location.empty() ? nullptr : linktab_location.c_str());
    set("SI_LOCATION", location.empty() ? nullptr : location.c_str());
    ka_lib_subst_exit();
    const Texts messages = messages_of([] { substitute(""); }, kReports);
    const std::string first = join({"reading Softimage ini file \"", read, "\""});
    EXPECT_EQ(messages.empty() ? "" : messages[0], read.empty() ? "" : first);
  }
}

}  // namespace
