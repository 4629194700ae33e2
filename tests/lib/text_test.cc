// What texts.txt says about references, actions, paths and messages, and what takes more than a
// text: lengths, loops, files, threads.
#include <gtest/gtest.h>
#include <ka/detail/paths.h>
#include <ka/mem.h>
#include <ka/registry.h>
#include <ka/subst.h>
#include <ka/trans.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <sstream>

#include "messages.h"

namespace {

// The parts of a text between marks.
Texts split(const std::string& text, const std::string& mark) {
  Texts parts;
  std::size_t start = 0, end;
  while ((end = text.find(mark, start)) != std::string::npos) {
    parts.push_back(text.substr(start, end - start));
    start = end + mark.size();
  }
  parts.push_back(text.substr(start));
  return parts;
}

// "\\(3ab)" is "ab" three times.
std::string unescaped(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i] == '\\' ? text[++i] : '\0';
    if (c == 'x') {
      result += char(std::stoi(text.substr(std::exchange(i, i + 2) + 1, 2), nullptr, 16));
    } else if (c == '(') {
      std::size_t digits = 0;
      const int count = std::stoi(text.substr(i + 1), &digits);
      const std::size_t start = i + 1 + digits, end = text.find(')', start);
      for (int k = 0; k < count; ++k) result.append(text, start, end - start);
      i = end;
    } else {
      result += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c == 'e' ? '\033' : text[i];
    }
  }
  return result;
}

// Sets a variable of the environment to the text after "=", or removes it.
void set(const std::string& assignment) {
  const std::size_t end = assignment.find('=');
  const std::string name = assignment.substr(0, end);
  if (end == std::string::npos)
    unsetenv(name.c_str());
  else
    setenv(name.c_str(), assignment.c_str() + end + 1, 1);
}

void define(const std::string& name, const Texts& items) {
  ASSERT_EQ(ka_lib_registry_begin(name.c_str()), 1);
  for (const std::string& item : items) {
    const std::size_t end = item.find('=');
    const std::string key = item.substr(0, end);
    const char* const value = end == std::string::npos ? nullptr : item.c_str() + end + 1;
    ASSERT_EQ(ka_lib_registry_add(name.c_str(), key.empty() ? nullptr : key.c_str(), value), 1);
  }
}

std::string lookup(const std::string& text, bool side_effects) {
  char* const result = ka_lib_registry_lookup(text.c_str(), side_effects);
  std::string copy = result ? result : "(none)";
  ka_mem_release(result);
  return copy;
}
std::string act(const std::string& text) { return lookup(text, true); }

std::string substitute(const std::string& name, std::size_t size = 5000) {
  std::string buffer(size + 1, '\0');
  EXPECT_EQ(ka_string_substitute(buffer.data(), name.c_str(), size), buffer.data());
  return buffer.c_str();
}

// What the registry prints to a stream.
std::string print() {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* const stream = open_memstream(&text, &size);
  ka_lib_registry_print(stream);
  std::fclose(stream);
  const std::string copy(text, size);
  std::free(text);
  return copy;
}

void use_rules(const std::string& rules) {
  set("KA_LUM_SUBSTITUTE=" + rules);
  ka_lib_subst_exit();
}

// What comes after "~", with the rules before it.
std::string with_rules(const std::string& text) {
  const Texts parts = split(text, "~ ");
  if (parts.size() > 1) use_rules(parts[0].empty() ? "" : parts[0].substr(0, parts[0].size() - 1));
  return parts.back();
}

std::string say(const std::string& text) {
  std::istringstream words(text);
  int module = 0, number = 0;
  char level = 0;
  words >> module >> level >> number;
  const std::string said = text.substr(std::size_t(words.tellg()) + 1);
  const std::map<char, void (*)(const char*, ...)> functions = {{'E', ka_error}, {'W', ka_warning},
                                                                {'I', ka_info},  {'P', ka_progress},
                                                                {'D', ka_debug}, {'V', ka_vdebug}};
  ka_module_push(module);
  if (number == 0)
    functions.at(level)("%s", said.c_str());
  else
    (level == 'E' ? ka_nerror : ka_nwarning)(number, "%s", said.c_str());
  ka_module_pop();
  return std::exchange(test::MessageLog::lines(), {}).back();
}

std::string groups(const std::string& list) {
  std::uint32_t mask = 99;
  char text[32];
  const bool is_known = ka_parse_subverbosity(&mask, list.c_str()) != 0;
  std::snprintf(text, sizeof text, "%x%s", mask, is_known ? "" : " refused");
  return text;
}

// The error of a path of at most 9 characters.
std::string lead(const std::string& text) {
  char buffer[10];
  const int fault = ka::substitute_path(buffer, with_rules(text).c_str(), sizeof buffer);
  test::MessageLog::lines().clear();
  return std::to_string(fault);
}

class Text : public testing::Test {
 protected:
  Text() { restart(); }
  ~Text() override {
    restart();
    ka_lib_registry_exit();
  }

  void restart() {
    for (const char* const variable :
         {"SI_LINKTAB_LOCATION", "SI_LOCATION", "LUMORA_UNSET", "KA_LUM_SUBSTITUTE",
          "LUMORA_DIR=/dir", "LUMORA_0=zero", "LUMORA_TEST=test", "_=underscore"}) {
      set(variable);
    }
    ka_lib_registry_exit();
    ka_lib_registry_init();
    ka_lib_subst_exit();
    ka_set_subverbosity(KA_LIB, KA_SUBVERB_DEFAULT);
    levels_ = kReports;
  }

  void run(const std::string& line) {
    const std::string verb = line.substr(0, line.find(' '));
    Texts messages = split(line.substr(verb.size() + 1), " ! ");
    const Texts cases = split(messages[0], " | ");
    messages.erase(messages.begin());
    for (std::string& message : messages) message = unescaped(message);
    run(verb == "both" ? "look" : verb, cases, messages);
    if (verb != "both") return;
    for (std::string& message : messages) message.replace(3, 1, "8");  // 800 more for actions
    run("act", cases, messages);
  }

  test::Scratch scratch_;
  const std::string folder_ = scratch_.path("");
  std::uint32_t levels_ = kReports;

 private:
  std::string result_of(const std::string& verb, const std::string& text) {
    const std::size_t word = text.find(' ');
    if (verb == "look" || verb == "act") return lookup(text, verb == "act");
    if (verb == "say") return say(text);
    if (verb == "groups") return groups(text);
    if (verb == "lead") return lead(text);
    if (verb == "path") return substitute(with_rules(text));
    if (verb == "cut") return substitute(text.substr(word + 1), std::stoul(text));
    if (verb == "print") return ka_lib_registry_print(nullptr), print();
    if (verb == "set") return set(text), "";
    if (verb == "entry")
      return define(text.substr(0, word), split(text.substr(word + 1), " ; ")), "";
    if (verb == "levels") return levels_ = unsigned(std::stoi(text)), "";
    if (verb == "masks") return ka_set_subverbosity(KA_LIB, unsigned(std::stoi(text))), "";
    EXPECT_EQ(verb, "linktab");
    scratch_.write("linktab.ini", text);
    set("SI_LOCATION=" + folder_);
    ka_lib_subst_exit();
    return substitute("");
  }

  void run(const std::string& verb, const Texts& cases, const Texts& messages) {
    const auto perform = [&] {
      for (const std::string& one : cases) {
        const std::size_t end = one.find(" =>");
        const std::string input = one.substr(0, end);
        const std::string expected =
            end < one.size() && end + 4 < one.size() ? one.substr(end + 4) : "";
        EXPECT_EQ(result_of(verb, unescaped(input)), unescaped(expected)) << input;
      }
    };
    Texts told = messages_of(perform, levels_);
    if (verb == "linktab") {
      const std::string file = folder_ + "/linktab.ini";
      told = {told.begin() + 1, std::ranges::find(told, "finished reading \"" + file + "\"")};
      for (std::string& text : told) {
        if (text.starts_with(file)) text.replace(0, file.size(), "linktab.ini");
      }
    }
    if (verb == "act")
      std::erase_if(told, [](const auto& text) { return text.starts_with("registry lookup"); });
    EXPECT_EQ(told, messages);
  }
};

TEST_F(Text, BecomesWhatTheListSays) {
  std::istringstream list(test::read_file(LUMORA_TEXTS));
  Texts lines;
  for (std::string line; std::getline(list, line);) {
    if (line.starts_with("  "))
      lines.back() += line.substr(1);
    else if (!line.empty() && line[0] != '#')
      lines.push_back(line);
  }
  EXPECT_GT(lines.size(), 100U);
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    line[0] == '[' ? restart() : run(line);
  }
}

// 1000 entries in a chain are no loop. Forty levels of two references each would be followed 2^40
// times, and those of a loop on each of 128 levels; what comes after them is followed all the same.
TEST_F(Text, CostsALimitedNumberOfSteps) {
  const auto name = [](const char* letter, int i) { return letter + std::to_string(i) + "}"; };
  for (int i = 0; i < 1000; ++i) {
    define(name("{e", i), {"value=" + name("{e", i + 1)});
    define(name("{d", i), {i < 40 ? "value=" + name("{d", i + 1) + name("{d", i + 1) : "value="});
  }
  define("{e1000}", {"value=end"});
  define("{a}", {"echo={d0}", "echo={e0}", "value=A"});
  define("{loop}", {"value={loop}{loop}", "echo={loop}"});
  const Texts messages = messages_of([] { EXPECT_EQ(act("{a}"), "A"); }, kReports);
  EXPECT_TRUE(messages.at(0).starts_with("291028 infinite registry lookup loop near {d"));
  EXPECT_EQ(messages.back(), "end");
  const test::MessageLog quiet(KA_FATAL);
  EXPECT_TRUE(test::matches(act("{loop}{e0}"), "(\\{loop\\}){2}.*\\}end"));
}

TEST_F(Text, IsExpandedInThreads) {
  define("{shared}", {"value={own}"});
  define("{own}", {"value=v"});
  static std::atomic<int> builds;
  builds = 0;
  const test::MessageLog log(KA_DEBUG);
  ka_errorhandler([](std::uint32_t, const char*, const char* text, int) {
    if (std::string_view(text).starts_with("parsing")) ++builds;
  });
  test::in_threads(4, [] {
    EXPECT_EQ(substitute("C:\\a.dll"), "/a.so");
    const std::string name = "{t" + std::to_string(ka_msg_my_thread_id()) + "}";
    for (int round = 0; round < 200; ++round) {
      define(name, {"value={shared}"});
      EXPECT_EQ(lookup(name, false), "v");
    }
  });
  EXPECT_EQ(builds, 1) << "the rules are read once";
}

// Where the file is looked for, and what is no file of settings.
TEST_F(Text, OfLinktabComesFromARegularFileOfALimitedSize) {
  const std::string line = "N: /nt\n", file = folder_ + "/linktab.ini";
  scratch_.write("linktab.ini", line);
  const std::string large = scratch_.write("large", line + std::string((1 << 20) - 7, '#'));
  const std::string larger = scratch_.write("larger", test::read_file(large) + "#");
  const struct {
    std::string linktab_location, location, read;
    bool is_refused = false;
  } rows[] = {{"", "", ""},           {folder_, "", file},
              {"", folder_, file},    {large, folder_, large},
              {larger, "", "", true}, {"/dev/zero", "", "", true}};
  for (const auto& [linktab_location, location, read, is_refused] : rows) {
    set("SI_LINKTAB_LOCATION" + (linktab_location.empty() ? "" : "=" + linktab_location));
    set("SI_LOCATION" + (location.empty() ? "" : "=" + location));
    use_rules("");
    Texts expected;
    if (!read.empty()) expected = {"reading Softimage ini file \"" + read + "\""};
    if (is_refused)
      expected = {"291046 path substitution: \"" + linktab_location +
                  "\" is not a regular file of at most 1 MiB"};
    const std::string path = read.empty() ? "/nt/x" : "N:/x";
    EXPECT_EQ(messages_of([&] { EXPECT_EQ(substitute("/nt/x"), path); }, kReports), expected);
  }
}

}  // namespace
