// Substitution rules from linktab.ini: where the file is looked for, and how its lines are read.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "messages.h"
#include "subst_fixture.h"
#include "support.h"

namespace {

class Linktab : public Subst {
 protected:
  Linktab() { folder = scratch.path(""), file = folder + "/linktab.ini"; }
  void SetUp() override {
    Subst::SetUp();
    use_rules("");
  }

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
  std::string folder, file;
};

TEST_F(Linktab, LinesAreUnderstood) {
  const std::string rule = "substitute: add rule: ";
  const struct {
    const char* lines;
    Texts messages;
  } rows[] = {
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
  const struct {
    std::string linktab_location, location, read;
  } rows[] = {{"", "", ""},       {folder, "", file},     {other, "", other},
              {"", folder, file}, {other, folder, other}, {"/missing", folder, ""},
              {"", other, ""}};
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
