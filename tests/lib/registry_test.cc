// Registry: entries, expansion of texts with and without side effects, actions, loops.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/registry.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "messages.h"
#include "support.h"

namespace {

constexpr std::size_t kMaxResult = 10238;

std::optional<std::string> lookup(const std::string& text, bool side_effects = false) {
  char* const result = ka_lib_registry_lookup(text.c_str(), side_effects);
  if (!result) return std::nullopt;
  std::string copy = result;
  ka_mem_release(result);
  return copy;
}

// What a lookup with this result reports.
Texts told(const std::string& text, const std::optional<std::string>& result,
           bool side_effects = false, std::uint32_t mask = kReports) {
  return messages_of([&] { EXPECT_EQ(lookup(text, side_effects), result); }, mask);
}

void define(const char* name, const std::vector<std::pair<const char*, const char*>>& items) {
  ASSERT_EQ(ka_lib_registry_begin(name), 1);
  for (const auto& [key, value] : items) ASSERT_EQ(ka_lib_registry_add(name, key, value), 1);
}

class Registry : public testing::Test {
 protected:
  void SetUp() override {
    ka_lib_registry_init();
    setenv("LUMORA_TEST", "from/{environment", 1);
    unsetenv("LUMORA_UNSET");
  }
  void TearDown() override {
    ka_lib_registry_exit();
    unsetenv("LUMORA_TEST");
  }
};

TEST_F(Registry, ReferencesAreExpanded) {
  define("{a}", {{"comment", "first"}, {"value", "A"}, {"value", "not this"}});
  define("{nested}", {{"value", "<{a}{a}>"}});
  define("{faulty}", {{"value", "<{x{y}>"}});
  define("{empty}", {{"value", ""}});
  const struct {
    const char* text;
    std::optional<std::string> result;
    std::string message = "";
  } rows[] = {{"", ""},
              {"a/b c", "a/b c"},
              {"a}b", "a}b"},
              {"x{a}y{a}", "xAyA"},
              {"{nested}", "<AA>"},
              {"x{empty}y", "xy"},
              {"{$LUMORA_TEST}/x", "from/{environment/x"},  // not expanded again
              {"x{$LUMORA_UNSET}", {}, "23 x{$LUMORA_UNSET}: $LUMORA_UNSET is undefined"},
              {"{$}", {}, "23 {$}: $ is undefined"},
              {"{x{y}", {}, "21 {x{y}: nested '{' not allowed"},
              {"{a}{a", {}, "22 {a}{a: closing '}' is missing"},
              {"x{b}", {}, "25 x{b}: registry entry {b} not found"},
              {"{}", {}, "25 {}: registry entry {} not found"},
              {"x{_b}", {}},
              {"{faulty}{a}", "<{x{y}>A", "21 <{x{y}>: nested '{' not allowed"}};
  for (const auto& [text, result, message] : rows) {
    for (const bool side_effects : {false, true}) {  // module 29, level 1; 800 more with them
      const std::string code = side_effects ? "2918" : "2910";
      EXPECT_EQ(told(text, result, side_effects),
                message.empty() ? Texts{} : Texts{code + message});
    }
  }
  EXPECT_EQ(told("{a}", "A", false, 0x7f),
            (Texts{"registry lookup: \"A\" -> \"A\"", "registry lookup: \"{a}\" -> \"A\""}));
  EXPECT_EQ(told("{_b}", {}, false, 0x7f), Texts{"{_b}: registry entry {_b} not found"});
}

TEST_F(Registry, AnEntryWithoutAValueIsAnErrorOnlyWithoutSideEffects) {
  define("{bare}", {{"comment", "no value"}, {"value", nullptr}});
  EXPECT_EQ(told("x{bare}", {}), Texts{"291027 x{bare}: registry entry {bare} has no value"});
  EXPECT_EQ(told("x{bare}", "x", true), Texts{});
}

TEST_F(Registry, ResultsHaveAGreatestLength) {
  define("{long}", {{"value", std::string(kMaxResult - 1, 'v').c_str()}});
  setenv("LUMORA_TEST", std::string(kMaxResult, 'e').c_str(), 1);
  EXPECT_EQ(lookup(std::string(kMaxResult, 'x')), std::string(kMaxResult, 'x'));
  EXPECT_EQ(lookup("{long}v"), std::string(kMaxResult, 'v'));
  EXPECT_EQ(lookup("{$LUMORA_TEST}"), std::string(kMaxResult, 'e'));

  EXPECT_EQ(told("1{long}234", {}), Texts{"291020 1{long}234: overflow at '234'"});
  EXPECT_EQ(told("{long}123", {}, true), Texts{"291820 {long}123: overflow at '23'"});
  EXPECT_EQ(told("{$LUMORA_TEST}{$LUMORA_TEST}", {}),
            Texts{"291024 {$LUMORA_TEST}{$LUMORA_TEST}: overflow at $LUMORA_TEST"});
  EXPECT_EQ(told("12{long}", {}, true), Texts{"291826 12{long}: overflow at {long}"});
}

TEST_F(Registry, BeginReplacesAnEntry) {
  define("{a}", {{"value", "old"}});
  EXPECT_EQ(messages_of([] {
              define("{a}", {{"value", "new"}});
            }),
            Texts{"deleting registry entry \"{a}\""});
  EXPECT_EQ(lookup("{a}"), "new");
  EXPECT_EQ(messages_of([] { EXPECT_EQ(ka_lib_registry_add("{b}", "value", "x"), 0); }),
            Texts{"291019 registry entry \"{b}\" not found, cannot add"});
}

TEST_F(Registry, ActionsFollowTheOrderOfTheItems) {
  define("{name}", {{"value", "expanded"}});
  define("{all}", {{"echo", "one {name}"},
                   {"link", "{name}.so"},
                   {"value", "the value"},
                   {"code", "{name}.c"},
                   {"ka", "{name}.ka"},
                   {"spdl", "{name}.spdl"},
                   {"ka", "{missing}"},
                   {"shader", "{name}"},
                   {"echo", nullptr},
                   {nullptr, "{name}"},
                   {"echo", "two"}});
  const Texts expected = {"one expanded",
                          "registry {all} links {name}.so",
                          "registry {all} links {name}.c",
                          "registry {all} reads expanded.ka",
                          "registry {all} reads expanded.spdl",
                          "291025 {missing}: registry entry {missing} not found",
                          "two"};
  Texts messages = told("{all}", "the value", true, kReports | KA_DEBUG);
  std::erase_if(messages, [](const auto& text) { return text.starts_with("registry lookup"); });
  EXPECT_EQ(messages, expected);
  EXPECT_EQ(told("{all}", "the value"), Texts{});
}

TEST_F(Registry, ActionsInsideAnActionAreNotDone) {
  define("{inner}", {{"echo", "inner"}, {"value", "v"}});
  define("{outer}", {{"echo", "{inner}"}, {"value", "{inner}"}});
  // the action, then the value with its own side effects
  EXPECT_EQ(told("{outer}", "v", true), (Texts{"v", "inner"}));
}

TEST_F(Registry, SystemRunsAShellCommand) {
  const test::Scratch scratch;
  const std::string file = scratch.path("made");
  setenv("LUMORA_TEST", file.c_str(), 1);
  define("{make}", {{"system", "echo made > '{$LUMORA_TEST}'"}, {"system", "exit 3"}});
  EXPECT_EQ(told("{make}", "", true), Texts{"292007 system \"exit 3\" failed"});
  EXPECT_EQ(test::read_file(file), "made\n");
}

TEST_F(Registry, AValueThatRefersToItselfIsFollowed128Times) {
  define("{loop}", {{"value", "<{loop}>"}});
  // 128 times the value, and inside them once more, as it stands.
  const std::string result = std::string(129, '<').append("{loop}").append(129, '>');
  for (const bool side_effects : {false, true}) {
    EXPECT_EQ(told("{loop}", result, side_effects),
              Texts{"291028 infinite registry lookup loop near {loop} in <{loop}>, stop"});
  }
}

TEST_F(Registry, ALoopOfActionsIsFollowed128Times) {
  define("{loop}", {{"echo", "tick"}, {"value", "{loop}"}});
  Texts expected(128, "tick");
  expected.emplace_back("291028 infinite registry lookup loop near {loop} in {loop}, stop");
  EXPECT_EQ(told("{loop}", "{loop}", true), expected);
}

TEST_F(Registry, ALongChainOfDifferentEntriesIsNoLoop) {
  constexpr int length = 1000;
  for (int i = 0; i < length; ++i) {
    const auto name = [](int number) { return "{e" + std::to_string(number) + "}"; };
    define(name(i).c_str(), {{"value", i + 1 < length ? name(i + 1).c_str() : "end"}});
  }
  define("{tail}", {{"echo", "{e0}"}, {"value", "{e0}"}});
  EXPECT_EQ(told("{tail}", "end", true), Texts{"end"});
}

TEST_F(Registry, ALoopEndsTheActionThatItIsInAndNoOther) {
  define("{loop}", {{"value", "{loop}"}});
  define("{in}", {{"echo", "{loop}"}, {"echo", "next"}, {"value", "{loop}v"}});
  define("{out}", {{"value", "{in}{other}"}});
  define("{other}", {{"echo", "other"}, {"value", "o"}});
  const std::string loop = "291028 infinite registry lookup loop near {loop} in {loop}, stop";
  EXPECT_EQ(told("{out}", "{loop}vo", true), (Texts{loop, "{loop}", "next", loop, "other"}));
}

// Forty levels of two references each would be followed 2^40 times; what comes after them is
// followed all the same.
TEST_F(Registry, WorkIsLimitedToo) {
  for (int i = 0; i < 40; ++i) {
    const std::string next = "{e" + std::to_string(i + 1) + "}";
    define(("{e" + std::to_string(i) + "}").c_str(), {{"value", (next + next).c_str()}});
  }
  define("{e40}", {{"value", ""}});
  define("{a}", {{"echo", "{e0}"}, {"echo", "next"}});
  const Texts messages = told("{a}", "", true, KA_ERROR | KA_INFO);
  EXPECT_TRUE(messages.at(0).starts_with("291028 infinite registry lookup loop near {e"));
  EXPECT_EQ(messages.back(), "next");
}

// Followed everywhere, two references on each of 128 levels would not come to an end.
TEST_F(Registry, ALoopThatBranchesEndsToo) {
  define("{loop}", {{"value", "{loop}{loop}"}, {"echo", "{loop}"}});
  define("{a}", {{"value", "{b}"}});
  define("{b}", {{"value", "B"}});
  for (const bool side_effects : {false, true}) {
    const auto messages = messages_of(
        [&] {
          const auto result = lookup("{loop}{a}", side_effects);
          ASSERT_TRUE(result);
          EXPECT_TRUE(result->starts_with("{loop}{loop}"));
          EXPECT_TRUE(result->ends_with("}B"));  // what comes behind the loop is expanded
        },
        KA_ERROR);
    EXPECT_GE(messages.size(), 1u);
    EXPECT_LE(messages.size(), 3u);  // the action, the value, and the action inside that
  }
  EXPECT_EQ(lookup("{a}"), "B");
}

TEST_F(Registry, PrintingShowsEveryItem) {
  define("{a}", {{"echo", "x"}, {"value", "1"}, {"value", "2"}});
  const Texts expected = {"registry \"{a}\": \"echo\"=\"x\"", "registry \"{a}\": \"value\"=\"1\" *",
                          "registry \"{a}\": \"value\"=\"2\""};
  EXPECT_EQ(messages_of([] { ka_lib_registry_print(nullptr); }), expected);
  const test::Scratch scratch;
  FILE* const stream = std::fopen(scratch.path("printed").c_str(), "w");
  ka_lib_registry_print(stream);
  std::fclose(stream);
  EXPECT_EQ(test::read_file(scratch.path("printed")),
            "registry \"{a}\"\n\techo\t\"x\"\n\tvalue\t\"1\"\n\tvalue\t\"2\"\nend registry\n\n");
}

// A handler that shows messages elsewhere opens files, whose names go through the registry.
TEST_F(Registry, AMessageHandlerMayUseTheRegistry) {
  define("{a}", {{"echo", "x"}, {"value", "A"}});
  static int calls;
  calls = 0;
  const test::MessageLog log(KA_INFO | KA_ERROR);
  ka_errorhandler([](std::uint32_t, const char*, const char*, int) {
    if (++calls % 2 != 0) lookup("{a}", true);
    ka_lib_registry_begin("{fresh}");
  });
  EXPECT_EQ(lookup("{a}", true), "A");
  EXPECT_EQ(ka_lib_registry_add("{missing}", "value", "x"), 0);
  ka_lib_registry_print(nullptr);
  EXPECT_GT(calls, 3);
}

TEST_F(Registry, ThreadsShareTheEntries) {
  define("{shared}", {{"value", "{own}"}});
  define("{own}", {{"value", "v"}});
  test::in_threads(4, [] {
    const std::string name = "{t" + std::to_string(ka_msg_my_thread_id()) + "}";
    for (int round = 0; round < 200; ++round) {
      define(name.c_str(), {{"value", "{shared}"}});
      EXPECT_EQ(lookup(name), "v");
    }
  });
}

TEST_F(Registry, StartingTwiceKeepsTheEntriesAndAfterTheExitTextsStandForThemselves) {
  define("{a}", {{"value", "A"}});
  ka_lib_registry_init();
  EXPECT_EQ(lookup("{a}"), "A");
  EXPECT_EQ(ka_lib_registry_lookup(nullptr, 0), nullptr);
  for (int i = 0; i < 2; ++i) ka_lib_registry_exit();
  EXPECT_EQ(lookup("{a} {x{y} {$HOME}"), "{a} {x{y} {$HOME}");
  EXPECT_EQ(ka_lib_registry_lookup(nullptr, 1), nullptr);
  EXPECT_EQ(ka_lib_registry_begin("{a}"), 0);
  EXPECT_EQ(ka_lib_registry_add("{a}", "value", "x"), 0);
  ka_lib_registry_print(nullptr);
  ka_lib_registry_init();
  EXPECT_EQ(lookup("{_a}"), std::nullopt);
}

}  // namespace
