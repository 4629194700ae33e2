// Path substitution: environment variables, rules and their language, what fits, the first use.
#include <gtest/gtest.h>
#include <ka/img.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/registry.h>
#include <ka/subst.h>

#include <atomic>
#include <cstdlib>
#include <latch>
#include <string>
#include <vector>

#include "messages.h"
#include "subst_fixture.h"
#include "support.h"

namespace {

constexpr std::size_t kMaxName = 4095, kMaxPiece = 2047;  // characters

struct Row {
  const char* name;
  const char* rules;  // null: the default
  const char* from;
  const char* to;
  Texts messages{};  // with those of reading the rules
};

class SubstRow : public Subst, public testing::WithParamInterface<Row> {};

TEST_P(SubstRow, Rewrites) {
  const Row& row = GetParam();
  use_rules(row.rules);
  const auto messages = messages_of([&] { EXPECT_EQ(substitute(row.from), row.to); }, kReports);
  EXPECT_EQ(messages, row.messages);
}

const auto row_name = [](const auto& row) { return std::string(row.param.name); };

INSTANTIATE_TEST_SUITE_P(
    DefaultRules, SubstRow,
    testing::Values(Row{"WindowsName", nullptr, "C:\\tex\\wood.dll", "/tex/wood.so"},
                    Row{"LowerCaseDrive", nullptr, "c:wood.obj", "wood.o"},
                    Row{"Library", nullptr, "a/b.lib", "a/b.a"},
                    Row{"SuffixInside", nullptr, "a.dll.bak", "a.dll.bak"},
                    Row{"SuffixWithoutDot", nullptr, "dll", "dll"},
                    Row{"DriveInside", nullptr, "a/C:/b", "a/C:/b"},
                    Row{"DigitIsNoDrive", nullptr, "1:/b", "1:/b"},
                    // Each rule is applied once: the letter that comes to the start stays.
                    Row{"UpperCaseAfterLowerCase", nullptr, "a:B:x", "x"},
                    Row{"LowerCaseAfterUpperCase", nullptr, "B:a:x", "a:x"},
                    Row{"PlainName", nullptr, "/usr/people/a.rgb", "/usr/people/a.rgb"},
                    Row{"EmptyName", nullptr, "", ""}),
    row_name);

INSTANTIATE_TEST_SUITE_P(
    Language, SubstRow,
    testing::Values(
        Row{"NoRules", "", "C:\\a.dll", "C:\\a.dll"}, Row{"Deletes", "/a//", "banana", "bnn"},
        Row{"AnyDelimiter", "xaxbx", "aa", "bb"},
        Row{"BlanksBetweenRules", " \t/a/b/ \t /b/c/", "ab", "cc"},
        Row{"NoBlankBetweenRules", "/a/b/,b,c,", "ab", "cc"},
        Row{"BlanksInside", "/ / _ /", "a b", "a _ b"},
        Row{"MatchesDoNotOverlap", "/aa/b/", "aaaaa", "bba"},
        Row{"ReplacementIsNotScannedAgain", "/a/aa/", "aba", "aabaa"},
        Row{"StartOnly", "/^a/b/", "aa", "ba"}, Row{"StartWithBackquote", "/`a/b/", "aa", "ba"},
        Row{"StartNotFound", "/^b/c/", "ab", "ab"}, Row{"StartAlone", "/^/x/", "ab", "xab"},
        Row{"CaretInsideIsACharacter", "/a^/b/", "aa^", "ab"}, Row{"EndOnly", "/a$/b/", "aa", "ab"},
        Row{"EndAlone", "/$/x/", "a$.b", "ax.b"}, Row{"EndEndsThePattern", "/a$.b/x/", "ba", "bx"},
        Row{"DollarInsideIsACharacter", "/a$./x/", "a$.b", "xb"},
        Row{"WholeName", "/^a$/b/", "a", "b"}, Row{"WholeNameIsLonger", "/^a$/b/", "aa", "aa"},
        Row{"AnyCharacter", "/a?c/x/", "abcac", "xac"}, Row{"AnyNeedsOne", "/a?/x/", "a", "a"},
        Row{"Range", "/[b-d]/x/", "abcde", "axxxe"}, Row{"RangeOfOne", "/[b-b]/x/", "abc", "axc"},
        Row{"RangeWithinAPattern", "/a[0-9]z/x/", "a5za.z", "xa.z"},
        // Codes are signed: 0x80 is -128, below every character of ASCII.
        Row{"RangeOfSignedCodes", "/[\x80-0]/x/",
            "\x80\xff/0"
            "1",
            "xxxx1"},
        Row{"RangeTheWrongWay", "/[d-b]/x/", "bcd", "bcd"},
        Row{"EscapedDelimiter", "/a\033/b/c\033/d/", "a/b", "c/d"},
        Row{"EscapedDollar", "/\033$LUMORA_DIR/x/", "\033$LUMORA_DIR", "x"},
        Row{"VariablesInRules", "/$LUMORA_DIR:/${LUMORA_DIR}2/", "a/dir:b", "a/dir2b"}),
    row_name);

INSTANTIATE_TEST_SUITE_P(
    FaultyRules, SubstRow,
    testing::Values(Row{"NullSearch",
                        "/a/b/ //c/ /b/d/",
                        "ab",
                        "bb",
                        {"291041 path substitution: null search string"}},
                    Row{"NothingBehindADelimiter",
                        "/a/b/ /",
                        "a",
                        "b",
                        {"291041 path substitution: null search string"}},
                    Row{"SearchWithoutEnd",
                        "/a/b/ /b",
                        "a",
                        "b",
                        {"291042 path substitution: unterminated search string"}},
                    Row{"ReplacementWithoutEnd",
                        "/a/b/ /b/c",
                        "a",
                        "b",
                        {"291043 path substitution: unterminated replace string"}},
                    Row{"EscapedEnd",
                        "/a/b\033/",
                        "a",
                        "a",
                        {"291043 path substitution: unterminated replace string"}},
                    Row{"ShortRange",
                        "/[a-z/x/",
                        "a",
                        "a",
                        {"291044 path substitution: incorrect [x-y] match syntax"}},
                    Row{"RangeWithoutDash",
                        "/a[b.c]/x/",
                        "zab",
                        "zab",
                        {"291044 path substitution: incorrect [x-y] match syntax"}},
                    Row{"UnsetVariableCutsTheReplacement",
                        "/a/b$LUMORA_UNSET.c/ /c/d/",
                        "ac",
                        "bd",
                        {"291040 path substitution: undefined $var \"LUMORA_UNSET\""}},
                    Row{"SearchEmptiedByAVariableIsNotFound",
                        "/$LUMORA_UNSET/x/ /c/d/",
                        "ac",
                        "ad",
                        {"291040 path substitution: undefined $var \"LUMORA_UNSET\""}}),
    row_name);

INSTANTIATE_TEST_SUITE_P(
    Environment, SubstRow,
    testing::Values(
        Row{"Name", nullptr, "$LUMORA_DIR/x", "/dir/x"},
        Row{"NameInBraces", nullptr, "${LUMORA_DIR}x", "/dirx"},
        Row{"DigitInAName", nullptr, "a$LUMORA_0", "azero"},
        Row{"Underscore", nullptr, "$_/x", "underscore/x"},
        Row{"Several", nullptr, "$LUMORA_DIR$LUMORA_0${LUMORA_0}", "/dirzerozero"},
        Row{"DollarWithoutName", nullptr, "a$/$.$", "a$/$.$"},
        Row{"Escapes", nullptr, "\033$LUMORA_DIR\033\033\033a", "$LUMORA_DIR\033a"},
        Row{"EscapeAtTheEnd", nullptr, "a\033", "a\033"},
        Row{"NoClosingBrace",
            nullptr,
            "a${LUMORA_DIR/x",
            "a",
            {"291039 path substitution: unterminated $var name \"LUMORA_DIR/x\""}},
        Row{"Unset",
            nullptr,
            "a$LUMORA_UNSET/x",
            "a",
            {"291040 path substitution: undefined $var \"LUMORA_UNSET\""}},
        Row{"UnsetInBraces",
            nullptr,
            "a${LUMORA_UNSET}/x",
            "a",
            {"291040 path substitution: undefined $var \"LUMORA_UNSET\""}},
        Row{"EmptyName", nullptr, "a${}", "a", {"291040 path substitution: undefined $var \"\""}},
        Row{"RulesApplyToValues", "/dir/x/", "$LUMORA_DIR", "/x"}),
    row_name);

TEST_F(Subst, WhatDoesNotFitIsCutAfterAnError) {
  const Texts too_long = {"291038 path substitution: path too long: $LUMORA_0.x"};
  const auto cut_to = [](std::size_t size, const char* expected) {
    return messages_of([&] { EXPECT_EQ(substitute("$LUMORA_0.x", size), expected); }, kReports);
  };
  EXPECT_EQ(cut_to(7, "zero.x"), Texts{});
  EXPECT_EQ(cut_to(6, "zero."), too_long);
  EXPECT_EQ(cut_to(1, ""), too_long);
  char untouched = '#';
  EXPECT_EQ(messages_of([&] { ka_string_substitute(&untouched, "$LUMORA_0.x", 0); }, kReports),
            too_long);
  EXPECT_EQ(untouched, '#');
  EXPECT_EQ(ka_string_substitute(&untouched, nullptr, 1), nullptr);
}

TEST_F(Subst, NamesHaveAGreatestLengthOnTheWay) {
  const test::MessageLog log(KA_ERROR);
  use_rules("/a/bb/");
  EXPECT_EQ(substitute(std::string(kMaxName + 5, 'x')), std::string(kMaxName, 'x'));
  EXPECT_EQ(substitute(std::string(kMaxName, 'a')), std::string(kMaxName, 'b'));
  set("LUMORA_0", std::string(kMaxName, 'e').c_str());
  EXPECT_EQ(substitute("x$LUMORA_0/y"), join({"x", std::string(kMaxName - 1, 'e')}));
  EXPECT_EQ(test::MessageLog::lines().size(), 3u);  // error 38 for each
}

TEST_F(Subst, TextsOfRulesHaveAGreatestLength) {
  const std::string search(kMaxPiece, 'a'), replacement(kMaxPiece, 'b');
  use_rules(join({"/", search, "xx/", replacement, "yy/"}).c_str());
  EXPECT_EQ(substitute(join({search, "!"})), join({replacement, "!"}));
}

TEST_F(Subst, RulesAreReadOnce) {
  use_rules("/a/b/");
  EXPECT_EQ(substitute("a"), "b");
  set("KA_LUM_SUBSTITUTE", "/a/c/");
  EXPECT_EQ(substitute("a"), "b");
  ka_lib_subst_exit();
  EXPECT_EQ(substitute("a"), "c");
}

TEST_F(Subst, EveryStepIsTraced) {
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
  EXPECT_EQ(messages_of([] { substitute("z"); }), Texts{"substitute: apply to z"});
}

TEST_F(Subst, ChangesAreToldWhenFilesAre) {
  use_rules("/a/b/ /b/c/");
  const std::uint32_t mask = ka_get_subverbosity(KA_LIB);
  ka_set_subverbosity(KA_LIB, mask | KA_SUBVERB_FILES);
  EXPECT_EQ(messages_of([] { substitute("a/$LUMORA_0"); }, kReports),
            Texts{"substitute: a/$LUMORA_0 -> c/zero"});
  EXPECT_EQ(messages_of([] { substitute("$LUMORA_0"); }, kReports), Texts{});
  ka_set_subverbosity(KA_LIB, mask);
}

TEST_F(Subst, TheRegistryHasTheLastWord) {
  use_rules("/a/b/");
  ka_lib_registry_init();
  ka_lib_registry_begin("{b}");
  ka_lib_registry_add("{b}", "value", "from/registry");
  EXPECT_EQ(substitute("{a}"), "from/registry");
  EXPECT_EQ(messages_of([] { EXPECT_EQ(substitute("{a}", 5), "from"); }, kReports),
            Texts{"291038 path substitution: path too long: {a}"});
  EXPECT_EQ(substitute("{_c}"), "{_c}");  // no value: the name stays
  ka_lib_registry_exit();
  EXPECT_EQ(substitute("{a}"), "{b}");
}

TEST_F(Subst, ImagesAreOpenedByTheSubstitutedPath) {
  const test::Scratch scratch;
  scratch.write("a.ppm", "P6 1 1 255\nabc");
  set("LUMORA_0", scratch.path("").c_str());
  use_rules("%^tex:%${LUMORA_0}%");
  test::Handle file;
  ASSERT_EQ(ka_img_open(file, "tex:a.ppm", IMG_TYPE_RGBA), 1);
  EXPECT_STREQ(file->name, "tex:a.ppm");
}

std::atomic<int> builds;

void count_builds(std::uint32_t /*level*/, const char* /*line*/, const char* text, int /*code*/) {
  if (std::string_view(text).starts_with("parsing")) ++builds;
}

class SubstStart : public Subst {
 protected:
  void SetUp() override {
    Subst::SetUp();
    builds = 0;
    verbosity_ = ka_get_verbosity();
    ka_set_verbosity(KA_DEBUG);
  }
  void TearDown() override {
    ka_errorhandler(nullptr);
    ka_set_verbosity(verbosity_);
    Subst::TearDown();
  }

 private:
  std::uint32_t verbosity_ = 0;
};

TEST_F(SubstStart, ThreadsThatComeTogetherReadTheRulesOnce) {
  ka_errorhandler(count_builds);
  std::latch done(4);
  for (int i = 0; i < 4; ++i) {
    const int thread = ka_msg_start_thread(
        [](void* latch) {
          EXPECT_EQ(substitute("C:\\a.dll"), "/a.so");
          static_cast<std::latch*>(latch)->count_down();
        },
        &done);
    ASSERT_GT(thread, 0);
  }
  done.wait();
  EXPECT_EQ(builds, 1);
}

// A handler that shows messages elsewhere may open a file while the rules are being read.
TEST_F(SubstStart, AMessageHandlerMaySubstitute) {
  ka_errorhandler([](std::uint32_t level, const char* line, const char* text, int code) {
    count_builds(level, line, text, code);
    char buffer[64];
    if (std::string_view(text).starts_with("parsing")) {
      EXPECT_STREQ(ka_string_substitute(buffer, "a.dll", sizeof buffer), "a.dll");
    }
  });
  EXPECT_EQ(substitute("a.dll"), "a.so");
  EXPECT_EQ(builds, 1);
}

}  // namespace
