// Registry: entries, expansion of texts with and without side effects, actions, loops.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/registry.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "messages.h"
#include "support.h"

namespace {

using Texts = std::vector<std::string>;

constexpr std::uint32_t kReports = KA_ERROR | KA_WARNING | KA_INFO;
constexpr std::size_t kMaxResult = 10238;

std::optional<std::string> lookup(const std::string& text, bool side_effects = false) {
  char* const result = ka_lib_registry_lookup(text.c_str(), side_effects);
  if (!result) return std::nullopt;
  std::string copy = result;
  ka_mem_release(result);
  return copy;
}

// What a lookup with this result reports.
Texts reports(const std::string& text, bool side_effects,
              const std::optional<std::string>& expected) {
  return messages_of([&] { EXPECT_EQ(lookup(text, side_effects), expected) << text; }, kReports);
}

void define(const char* name, const std::vector<std::pair<const char*, const char*>>& items) {
  ASSERT_EQ(ka_lib_registry_begin(name), 1);
  for (const auto& [key, value] : items) ASSERT_EQ(ka_lib_registry_add(name, key, value), 1);
}

class Registry : public testing::Test {
 protected:
  Registry() {
    ka_lib_registry_init();
    setenv("LUMORA_TEST", "from/{environment", 1);
    define("{a}", {{"comment", "first"}, {"value", "A"}, {"value", "not this"}});
  }
  ~Registry() override { ka_lib_registry_exit(); }
};

struct Row {
  const char* text;
  std::optional<std::string> result;
  Texts messages{};
};

TEST_F(Registry, TextsAreExpanded) {
  define("{nested}", {{"value", "<{a}{a}>"}});
  define("{faulty}", {{"value", "<{x{y}>"}});
  define("{empty}", {{"value", ""}});
  for (const Row& row :
       {Row{"", ""}, Row{"a/b c", "a/b c"}, Row{"a}b", "a}b"}, Row{"x{a}y{a}", "xAyA"},
        Row{"{nested}", "<AA>"}, Row{"x{empty}y", "xy"}, Row{"x{_b}", {}},
        Row{"{$LUMORA_TEST}/x", "from/{environment/x"},
        Row{"x{$LUMORA_NO}", {}, {"291023 x{$LUMORA_NO}: $LUMORA_NO is undefined"}},
        Row{"{$}", {}, {"291023 {$}: $ is undefined"}},
        Row{"{x{y}", {}, {"291021 {x{y}: nested '{' not allowed"}},
        Row{"{a}{a", {}, {"291022 {a}{a: closing '}' is missing"}},
        Row{"x{b}", {}, {"291025 x{b}: registry entry {b} not found"}},
        Row{"{}", {}, {"291025 {}: registry entry {} not found"}},
        Row{"{faulty}{a}", "<{x{y}>A", {"291021 <{x{y}>: nested '{' not allowed"}}}) {
    EXPECT_EQ(reports(row.text, false, row.result), row.messages);
    Texts messages = row.messages;
    for (std::string& message : messages) message[3] = '8';  // with side effects 800 more
    EXPECT_EQ(reports(row.text, true, row.result), messages);
  }
  define("{bare}", {{"comment", "no value"}, {"value", nullptr}});
  EXPECT_EQ(reports("x{bare}", false, std::nullopt),
            Texts{"291027 x{bare}: registry entry {bare} has no value"});
  EXPECT_EQ(reports("x{bare}", true, "x"), Texts{});
}

TEST_F(Registry, ResultsHaveAGreatestLength) {
  define("{long}", {{"value", std::string(kMaxResult - 1, 'v').c_str()}});
  setenv("LUMORA_TEST", std::string(kMaxResult, 'e').c_str(), 1);
  EXPECT_EQ(lookup("{long}v"), std::string(kMaxResult, 'v'));
  EXPECT_EQ(lookup("{$LUMORA_TEST}"), std::string(kMaxResult, 'e'));
  EXPECT_EQ(reports("1{long}234", false, {}), Texts{"291020 1{long}234: overflow at '234'"});
  EXPECT_EQ(reports("{long}123", true, {}), Texts{"291820 {long}123: overflow at '23'"});
  EXPECT_EQ(reports("{$LUMORA_TEST}{$LUMORA_TEST}", false, {}),
            Texts{"291024 {$LUMORA_TEST}{$LUMORA_TEST}: overflow at $LUMORA_TEST"});
  EXPECT_EQ(reports("12{long}", true, {}), Texts{"291826 12{long}: overflow at {long}"});
}

TEST_F(Registry, ChangesAndLookupsAreTold) {
  EXPECT_EQ(messages_of([] {
              define("{a}", {{"value", "new"}, {"echo", "x"}});
            }),
            Texts{"deleting registry entry \"{a}\""});
  EXPECT_EQ(messages_of([] { EXPECT_EQ(ka_lib_registry_add("{b}", "value", "x"), 0); }),
            Texts{"291019 registry entry \"{b}\" not found, cannot add"});
  EXPECT_EQ(messages_of([] { lookup("{_b}"); }), Texts{"{_b}: registry entry {_b} not found"});
  EXPECT_EQ(messages_of([] { lookup("{a}"); }),
            (Texts{"registry lookup: \"new\" -> \"new\"", "registry lookup: \"{a}\" -> \"new\""}));
  ka_lib_registry_init();  // keeps the entries
  const test::Scratch scratch;
  FILE* const stream = std::fopen(scratch.path("printed").c_str(), "w");
  ka_lib_registry_print(stream);
  std::fclose(stream);
  EXPECT_EQ(test::read_file(scratch.path("printed")),
            "registry \"{a}\"\n\tvalue\t\"new\"\n\techo\t\"x\"\nend registry\n\n");
}

TEST_F(Registry, ActionsFollowTheOrderOfTheItems) {
  define("{inner}", {{"echo", "not inside an action"}, {"value", "expanded"}});
  define("{all}", {{"echo", "one {inner}"},
                   {"link", "{inner}.so"},
                   {"value", "the value"},
                   {"code", "{inner}.c"},
                   {"ka", "{inner}.ka"},
                   {"spdl", "{inner}.spdl"},
                   {"ka", "{missing}"},
                   {"echo", nullptr},
                   {nullptr, "{inner}"},
                   {"system", "exit 3"}});
  const Texts expected = {"one expanded",
                          "registry {all} links {inner}.so",
                          "registry {all} links {inner}.c",
                          "registry {all} reads expanded.ka",
                          "registry {all} reads expanded.spdl",
                          "291025 {missing}: registry entry {missing} not found",
                          "registry {all} execs exit 3",
                          "292007 system \"exit 3\" failed"};
  Texts messages =
      messages_of([] { EXPECT_EQ(lookup("{all}", true), "the value"); }, kReports | KA_DEBUG);
  std::erase_if(messages, [](const auto& text) { return text.starts_with("registry lookup"); });
  EXPECT_EQ(messages, expected);
  EXPECT_EQ(reports("{all}", false, "the value"), Texts{});
}

TEST_F(Registry, LoopsAreFollowed128Times) {
  define("{loop}", {{"value", "<{loop}>"}});
  // 128 times the value, and inside them once more, as it stands.
  const std::string result = std::string(129, '<').append("{loop}").append(129, '>');
  for (const bool side_effects : {false, true}) {
    EXPECT_EQ(reports("{loop}", side_effects, result),
              Texts{"291028 infinite registry lookup loop near {loop} in <{loop}>, stop"});
  }
  define("{loop}", {{"echo", "tick"}, {"value", "{loop}"}});
  Texts expected(128, "tick");
  expected.emplace_back("291028 infinite registry lookup loop near {loop} in {loop}, stop");
  EXPECT_EQ(reports("{loop}", true, "{loop}"), expected);
}

// Followed everywhere, two references on each of 128 levels would not come to an end.
TEST_F(Registry, ALoopThatBranchesEndsToo) {
  define("{loop}", {{"value", "{loop}{loop}"}, {"echo", "{loop}"}});
  for (const bool side_effects : {false, true}) {
    const auto result = lookup("{loop}{a}", side_effects).value_or("");
    EXPECT_TRUE(result.starts_with("{loop}{loop}") && result.ends_with("}A")) << result;
  }
}

TEST(RegistryWithoutStart, TextsStandForThemselves) {
  EXPECT_EQ(lookup("{x{y} {$HOME}"), "{x{y} {$HOME}");
  EXPECT_EQ(ka_lib_registry_begin("{a}"), 0);
}

}  // namespace
