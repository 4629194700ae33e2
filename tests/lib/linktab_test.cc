// Substitution rules from linktab.ini: where the file is looked for, and how its lines are read.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <utility>

#include "messages.h"
#include "subst_fixture.h"
#include "support.h"

namespace {

class Linktab : public Subst {
 protected:
  void SetUp() override {
    Subst::SetUp();
    use_rules("");
  }

  // What reading a file of these lines tells, with FILE for its name.
  [[nodiscard]] Texts read(const std::string& lines) const {
    scratch.write("linktab.ini", lines);
    const std::string folder = scratch.path(""), file = folder + "/linktab.ini";
    set("SI_LOCATION", folder.c_str());
    ka_lib_subst_exit();
    Texts messages = messages_of([] { substitute(""); });
    for (std::string& message : messages) {
      const std::size_t at = message.find(file);
      if (at != std::string::npos) message.replace(at, file.size(), "FILE");
    }
    EXPECT_EQ(messages.front(), "reading Softimage ini file \"FILE\"");
    const auto end = std::ranges::find(messages, "finished reading \"FILE\"");
    EXPECT_NE(end, messages.end());
    return {messages.begin() + 1, end};
  }

  test::Scratch scratch;
};

struct Line {
  const char* name;
  const char* line;
  Texts messages;
};

class LinktabLine : public Linktab, public testing::WithParamInterface<Line> {};

TEST_P(LinktabLine, IsUnderstood) { EXPECT_EQ(read(GetParam().line), GetParam().messages); }

INSTANTIATE_TEST_SUITE_P(
    Lines, LinktabLine,
    testing::Values(
        Line{"Pair", "N:/nt /unix\n", {"substitute: add rule: /unix/ -> N:/nt/"}},
        Line{"SlashesAtTheEnd", "N:/nt/ /unix/\n", {"substitute: add rule: /unix/ -> N:/nt/"}},
        Line{"Backslashes",
             "\\\\server\\nt\\ \\unix\n",
             {"substitute: add rule: /unix/ -> //server/nt/"}},
        Line{"BlanksAndTabs", " \t N: \t /unix\tignored", {"substitute: add rule: /unix/ -> N:/"}},
        Line{"CarriageReturn",
             "N: /unix\r\nM: /other\rX: /y\n",
             {"substitute: add rule: /unix/ -> N:/", "substitute: add rule: /other/ -> M:/"}},
        Line{"Comments",
             "# N: /unix\n\n \t\n  #\r\nN: /unix\n",
             {"substitute: add rule: /unix/ -> N:/"}},
        Line{"NoEnd", "\nN:", {"FILE 2: missing NT string"}},
        Line{"NoUnixString",
             "N: \t \nM: /m\n",
             {"FILE 1: missing UNIX string", "substitute: add rule: /m/ -> M:/"}},
        Line{"UnknownDrive",
             "/n!nt /unix\n",
             {"FILE 1: no drive for \"/n\"", "substitute: add rule: /unix/ -> nt/"}},
        Line{"NoDrive",
             "!nt /unix\n",
             {"FILE 1: no drive for \"\"", "substitute: add rule: /unix/ -> nt/"}},
        Line{"NothingBehindTheMark",
             "/n! /unix\n",
             {"FILE 1: no drive for \"/n\"", "FILE 1: missing NT string after '!'"}},
        Line{"NoEndBehindTheMark",
             "/n!nt\n",
             {"FILE 1: no drive for \"/n\"", "FILE 1: missing NT string"}},
        Line{"MarkInTheSecondField", "N: /a!b\n", {"substitute: add rule: /a!b/ -> N:/"}}),
    [](const auto& line) { return std::string(line.param.name); });

TEST_F(Linktab, LinesHaveAGreatestLength) {
  const std::string folder = join({"/", std::string(2042, 'u')});  // behind "N: " up to 2046
  const std::string comment = join({"#", std::string(2000, 'x'), std::string(100, ' ')});
  const Texts messages = read(join({comment, "N: /n\nN: ", folder, "v\n"}));
  EXPECT_EQ(messages.size(), 1u);
  EXPECT_EQ(substitute(join({folder, "/x"})), "N:/x");
}

TEST_F(Linktab, ItsRulesComeBeforeThoseOfTheEnvironment) {
  set("KA_LUM_SUBSTITUTE", "/N:/M:/ /$LUMORA_0/x/");
  const Texts messages = read("N: /n\n$LUMORA_0 /zero\n");
  const Texts expected = {"substitute: add rule: /n/ -> N:/",
                          "substitute: add rule: /zero/ -> $LUMORA_0/"};  // not expanded
  EXPECT_EQ(messages, expected);
  EXPECT_EQ(substitute("/n/a"), "M:/a");
}

TEST_F(Linktab, TheEnvironmentLeadsToTheFile) {
  scratch.write("linktab.ini", "N: /folder\n");
  const std::string other = scratch.write("other.ini", "N: /file\n");
  struct Place {
    std::string linktab_location, location, first_message;
  };
  const std::string folder = scratch.path("x/.."), read_folder = folder + "/linktab.ini";
  std::filesystem::create_directory(scratch.path("x"));
  const auto reading = [](const std::string& name) {
    return join({"reading Softimage ini file \"", name, "\""});
  };
  const std::array places = {
      Place{"", "", ""},
      Place{folder, "", reading(read_folder)},
      Place{other, "", reading(other)},
      Place{"", folder, reading(read_folder)},
      Place{other, folder, reading(other)},
      Place{"/missing", folder, ""},
      Place{"", other, ""},
  };
  for (const Place& place : places) {
    for (const auto& [name, value] : {std::pair{"SI_LINKTAB_LOCATION", place.linktab_location},
                                      {"SI_LOCATION", place.location}}) {
      set(name, value.empty() ? nullptr : value.c_str());
    }
    ka_lib_subst_exit();
    const Texts messages = messages_of([] { substitute(""); }, kReports);
    EXPECT_EQ(messages.empty() ? "" : messages[0], place.first_message);
  }
}

}  // namespace
