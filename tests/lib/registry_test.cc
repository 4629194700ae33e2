// Registry: entries, expansion of texts with and without side effects, actions, loops.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/registry.h>

#include <cstdlib>
#include <latch>
#include <optional>
#include <string>
#include <vector>

#include "messages.h"
#include "support.h"

namespace {

using Texts = std::vector<std::string>;

constexpr std::uint32_t kReports = KA_ERROR | KA_WARNING | KA_INFO;
constexpr std::uint32_t kTraces = kReports | KA_DEBUG;
constexpr std::size_t kMaxResult = 10238;

std::optional<std::string> lookup(const std::string& text, bool side_effects = false) {
  char* const result = ka_lib_registry_lookup(text.c_str(), side_effects);
  if (!result) return std::nullopt;
  std::string copy = result;
  ka_mem_release(result);
  return copy;
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

struct Row {
  const char* name;
  const char* text;
  std::optional<std::string> result;
  Texts messages{};  // without side effects
};

class RegistryRow : public Registry, public testing::WithParamInterface<Row> {
 protected:
  void SetUp() override {
    Registry::SetUp();
    define("{a}", {{"comment", "first"}, {"value", "A"}, {"value", "not this"}});
    define("{nested}", {{"value", "<{a}{a}>"}});
    define("{faulty}", {{"value", "<{x{y}>"}});
    define("{empty}", {{"value", ""}});
    define("{bare}", {{"comment", "no value"}, {"value", nullptr}});
  }
};

// Errors have module 29, level 1 and with side effects 800 more, but for number 27.
Texts with_side_effects(Texts messages) {
  for (std::string& message : messages) message[3] = '8';
  return messages;
}

TEST_P(RegistryRow, Expands) {
  const Row& row = GetParam();
  const auto without = messages_of([&] { EXPECT_EQ(lookup(row.text), row.result); }, kReports);
  EXPECT_EQ(without, row.messages);
  const auto with = messages_of([&] { EXPECT_EQ(lookup(row.text, true), row.result); }, kReports);
  EXPECT_EQ(with, with_side_effects(row.messages));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RegistryRow,
    testing::Values(Row{"EmptyText", "", ""}, Row{"NoBraces", "a/b c", "a/b c"},
                    Row{"ClosingBraceAlone", "a}b", "a}b"}, Row{"Value", "x{a}y{a}", "xAyA"},
                    Row{"ValueOfValues", "{nested}", "<AA>"}, Row{"EmptyValue", "x{empty}y", "xy"},
                    Row{"EnvironmentIsNotExpandedAgain", "{$LUMORA_TEST}/x", "from/{environment/x"},
                    Row{"UndefinedVariable",
                        "x{$LUMORA_UNSET}",
                        {},
                        {"291023 x{$LUMORA_UNSET}: $LUMORA_UNSET is undefined"}},
                    Row{"VariableWithoutName", "{$}", {}, {"291023 {$}: $ is undefined"}},
                    Row{"BraceInAReference", "{x{y}", {}, {"291021 {x{y}: nested '{' not allowed"}},
                    Row{"NoClosingBrace", "{a}{a", {}, {"291022 {a}{a: closing '}' is missing"}},
                    Row{"NoSuchEntry", "x{b}", {}, {"291025 x{b}: registry entry {b} not found"}},
                    Row{"EmptyName", "{}", {}, {"291025 {}: registry entry {} not found"}},
                    Row{"NoSuchOptionalEntry", "x{_b}", {}},
                    Row{"ValueThatCannotBeExpandedStandsAsItIs",
                        "{faulty}{a}",
                        "<{x{y}>A",
                        {"291021 <{x{y}>: nested '{' not allowed"}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(RegistryRow, AnEntryWithoutAValueIsAnErrorOnlyWithoutSideEffects) {
  const auto messages = messages_of([] { EXPECT_EQ(lookup("x{bare}"), std::nullopt); }, kReports);
  EXPECT_EQ(messages, Texts{"291027 x{bare}: registry entry {bare} has no value"});
  EXPECT_EQ(messages_of([] { EXPECT_EQ(lookup("x{bare}", true), "x"); }, kReports), Texts{});
}

TEST_F(RegistryRow, EveryLookupIsTraced) {
  const Texts expected = {"registry lookup: \"A\" -> \"A\"", "registry lookup: \"{a}\" -> \"A\""};
  EXPECT_EQ(messages_of([] { lookup("{a}"); }), expected);
  EXPECT_EQ(messages_of([] { lookup("{_b}"); }), Texts{"{_b}: registry entry {_b} not found"});
}

TEST_F(Registry, ResultsHaveAGreatestLength) {
  define("{long}", {{"value", std::string(kMaxResult - 1, 'v').c_str()}});
  setenv("LUMORA_TEST", std::string(kMaxResult, 'e').c_str(), 1);
  EXPECT_EQ(lookup(std::string(kMaxResult, 'x')), std::string(kMaxResult, 'x'));
  EXPECT_EQ(lookup("{long}v"), std::string(kMaxResult, 'v'));
  EXPECT_EQ(lookup("{$LUMORA_TEST}"), std::string(kMaxResult, 'e'));

  const auto fails = [](const char* text, bool side_effects) {
    return messages_of([&] { EXPECT_EQ(lookup(text, side_effects), std::nullopt); }, kReports);
  };
  EXPECT_EQ(fails("1{long}234", false), Texts{"291020 1{long}234: overflow at '234'"});
  EXPECT_EQ(fails("{long}123", true), Texts{"291820 {long}123: overflow at '23'"});
  EXPECT_EQ(fails("{$LUMORA_TEST}{$LUMORA_TEST}", false),
            Texts{"291024 {$LUMORA_TEST}{$LUMORA_TEST}: overflow at $LUMORA_TEST"});
  EXPECT_EQ(fails("12{long}", true), Texts{"291826 12{long}: overflow at {long}"});
}

TEST_F(Registry, BeginReplacesAnEntry) {
  define("{a}", {{"value", "old"}});
  const auto messages = messages_of([] { define("{a}", {{"value", "new"}}); });
  EXPECT_EQ(messages, Texts{"deleting registry entry \"{a}\""});
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
  Texts messages = messages_of([] { EXPECT_EQ(lookup("{all}", true), "the value"); }, kTraces);
  std::erase_if(messages, [](const auto& text) { return text.starts_with("registry lookup"); });
  EXPECT_EQ(messages, expected);
  EXPECT_EQ(messages_of([] { EXPECT_EQ(lookup("{all}"), "the value"); }, kReports), Texts{});
}

TEST_F(Registry, ActionsInsideAnActionAreNotDone) {
  define("{inner}", {{"echo", "inner"}, {"value", "v"}});
  define("{outer}", {{"echo", "{inner}"}, {"value", "{inner}"}});
  const Texts expected = {"v", "inner"};  // the action, then the value with its own side effects
  EXPECT_EQ(messages_of([] { EXPECT_EQ(lookup("{outer}", true), "v"); }, kReports), expected);
}

TEST_F(Registry, SystemRunsAShellCommand) {
  const test::Scratch scratch;
  const std::string file = scratch.path("made");
  setenv("LUMORA_TEST", file.c_str(), 1);
  define("{make}", {{"system", "echo made > '{$LUMORA_TEST}'"}, {"system", "exit 3"}});
  EXPECT_EQ(messages_of([] { EXPECT_EQ(lookup("{make}", true), ""); }, kReports),
            Texts{"292007 system \"exit 3\" failed"});
  EXPECT_EQ(test::read_file(file), "made\n");
}

TEST_F(Registry, AValueThatRefersToItselfIsFollowed128Times) {
  define("{loop}", {{"value", "<{loop}>"}});
  // 128 times the value, and inside them once more, as it stands.
  const std::string result = std::string(129, '<').append("{loop}").append(129, '>');
  for (const bool side_effects : {false, true}) {
    const auto messages =
        messages_of([&] { EXPECT_EQ(lookup("{loop}", side_effects), result); }, kReports);
    EXPECT_EQ(messages,
              Texts{"291028 infinite registry lookup loop near {loop} in <{loop}>, stop"});
  }
}

TEST_F(Registry, ALoopOfActionsIsFollowed128Times) {
  define("{loop}", {{"echo", "tick"}, {"value", "{loop}"}});
  const auto messages = messages_of([] { EXPECT_EQ(lookup("{loop}", true), "{loop}"); }, kReports);
  Texts expected(128, "tick");
  expected.emplace_back("291028 infinite registry lookup loop near {loop} in {loop}, stop");
  EXPECT_EQ(messages, expected);
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
    EXPECT_LE(messages.size(), 2u);  // one for the value, one for the action
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
  ka_errorhandler([](std::uint32_t, const char*, const char*, int) {
    if (++calls % 2 != 0) lookup("{a}", true);
    ka_lib_registry_begin("{fresh}");
  });
  const std::uint32_t verbosity = ka_get_verbosity();
  ka_set_verbosity(KA_INFO | KA_ERROR);
  EXPECT_EQ(lookup("{a}", true), "A");
  EXPECT_EQ(ka_lib_registry_add("{missing}", "value", "x"), 0);
  ka_lib_registry_print(nullptr);
  ka_set_verbosity(verbosity);
  ka_errorhandler(nullptr);
  EXPECT_GT(calls, 3);
}

// Defines and looks up an entry named after the thread.
void use_entries(void* latch) {
  std::string name = "{t";
  name += std::to_string(ka_msg_my_thread_id());
  name += '}';
  for (int round = 0; round < 200; ++round) {
    define(name.c_str(), {{"value", "{shared}"}});
    EXPECT_EQ(lookup(name), "v");
  }
  static_cast<std::latch*>(latch)->count_down();
}

TEST_F(Registry, ThreadsShareTheEntries) {
  define("{shared}", {{"value", "{own}"}});
  define("{own}", {{"value", "v"}});
  std::latch done(4);
  for (int i = 0; i < 4; ++i) ASSERT_GT(ka_msg_start_thread(use_entries, &done), 0);
  done.wait();
}

TEST(RegistryWithoutStart, TextsStandForThemselves) {
  EXPECT_EQ(lookup("{x{y} {$HOME}"), "{x{y} {$HOME}");
  EXPECT_EQ(ka_lib_registry_lookup(nullptr, 1), nullptr);
  EXPECT_EQ(ka_lib_registry_begin("{a}"), 0);
  EXPECT_EQ(ka_lib_registry_add("{a}", "value", "x"), 0);
  ka_lib_registry_print(nullptr);
  ka_lib_registry_exit();
}

TEST_F(Registry, StartingTwiceKeepsTheEntriesAndExitReleasesThem) {
  define("{a}", {{"value", "A"}});
  ka_lib_registry_init();
  EXPECT_EQ(lookup("{a}"), "A");
  EXPECT_EQ(ka_lib_registry_lookup(nullptr, 0), nullptr);
  ka_lib_registry_exit();
  EXPECT_EQ(lookup("{a}"), "{a}");
  ka_lib_registry_init();
  EXPECT_EQ(lookup("{_a}"), std::nullopt);
}

}  // namespace
