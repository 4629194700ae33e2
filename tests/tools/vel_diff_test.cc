// The built tool: what it prints where, and its exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <random>

#include "support.h"

namespace {

using test::bytes;

constexpr char kUsage[] =
    " [opts] image1 image2 [outimage [outimagetype]]\n"
    "-h\t    print help information\n"
    "-g gamma    output gamma correction (<1.0: dark, >1.0: bright)\n"
    "-m tol\t    ignore differences <= min (0..255), default 3\n"
    "-s\t    auto-brighten such that largest diff is shown white\n"
    "-a\t    ignore alpha channel\n"
    "-e\t    write output even if images match\n"
    "-f\t    use false-color range blue..red..white\n"
    "-u\t    underlay first image with 1/10 brightness\n"
    "-n\t    don't add histogram to output image\n"
    "-d\t    display difference image in a window\n"
    "-t thresh   difference in % that causes exit code 1, default 1.0\n"
    "-i\t    signed intensity histogram (image1 - image2)\n"
    "-v          verbose messages\n";

// A name as messages of the image library show it.
std::string shown(const std::string& name) {
  return name.size() <= 63 ? name : "..." + name.substr(name.size() - 60);
}

// Module 10, errors 1, number 3: code 101003.
std::string image_error(const std::string& name, const std::string& text) {
  return "IMG   .0  error  101003: " + shown(name) + ": " + text + "\n";
}

std::string fatal(const std::string& text) { return "MAIN  .0  fatal: " + text + "\n"; }

std::string cannot_open(const std::string& name, const std::string& text) {
  return image_error(name, text) + fatal("cannot open " + name);
}

std::string cannot_read(const std::string& name, const std::string& text) {
  return image_error(name, text) + fatal("cannot read " + name);
}

std::string verdict(const std::string& a, const std::string& b, const std::string& word) {
  return "== \"" + a + "\" and \"" + b + "\" are " + word + "\n";
}

std::string no_differences(const std::string& a, const std::string& b) {
  return a + " " + b + ": no differences.\n" + verdict(a, b, "identical");
}

class VelDiff : public testing::Test {
 protected:
  [[nodiscard]] std::string ppm(const char* name, int width, int height,
                                const std::string& pixels) {
    return scratch.write(
        name, "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n" + pixels);
  }

  static test::Outcome run(std::vector<std::string> arguments) {
    return test::run(VEL_DIFF, {.arguments = std::move(arguments)});
  }

  static void expect_failure(std::vector<std::string> arguments, const std::string& messages) {
    const test::Outcome outcome = run(std::move(arguments));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, messages);
  }

  test::Scratch scratch;
  // Two pixels; in the second picture one lacks its red, in the third both have a little more of
  // it.
  const std::string red = ppm("red.ppm", 2, 1, bytes({255, 0, 0, 9, 9, 9}));
  const std::string dark = ppm("dark.ppm", 2, 1, bytes({0, 0, 0, 9, 9, 9}));
  const std::string near = ppm("near.ppm", 2, 1, bytes({251, 0, 0, 13, 9, 9}));
};

TEST_F(VelDiff, EqualPicturesAreIdentical) {
  const std::string copy = ppm("copy.ppm", 2, 1, bytes({252, 3, 0, 12, 6, 9}));  // within 3
  const test::Outcome outcome = run({red, copy});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, no_differences(red, copy));
  EXPECT_EQ(outcome.err, "");
}

struct ResultCase {
  const char* name;
  std::vector<std::string> options;
  bool against_dark;  // else against the near one
  const char* lines;
  const char* word;
  int status;
};

class VelDiffResult : public VelDiff, public testing::WithParamInterface<ResultCase> {};

TEST_P(VelDiffResult, PrintsTheLines) {
  const ResultCase& row = GetParam();
  const std::string& other = row.against_dark ? dark : near;
  std::vector<std::string> arguments = row.options;
  arguments.insert(arguments.end(), {red, other});
  const test::Outcome outcome = run(arguments);
  EXPECT_EQ(outcome.out, row.lines + verdict(red, other, row.word));
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.status, row.status);
}

#define LINES(share, average, maximum)                                                            \
  "differing pixels:\t" share "\naverage difference:\t" average "\nmaximum difference:\t" maximum \
  "\n"

// Against the dark one: R by 255 at one of two pixels. Against the near one: R by 4 and -4.
INSTANTIATE_TEST_SUITE_P(
    Rows, VelDiffResult,
    testing::Values(
        ResultCase{
            "Colour", {}, true, LINES(" 50.000% (1 of 2)", " 50.000%", " 50.000%"), "different", 1},
        ResultCase{"ColourWithoutAlpha",
                   {"-a"},
                   true,
                   LINES(" 50.000% (1 of 2)", " 57.823%", " 57.823%"),
                   "different",
                   1},
        // 100 * 4 / 510 = 0.784
        ResultCase{"BelowTheThreshold",
                   {},
                   false,
                   LINES("100.000% (2 of 2)", "  0.784%", "  0.784%"),
                   "similar",
                   0},
        ResultCase{"EqualToTheThreshold",
                   {"-t", "50"},
                   true,
                   LINES(" 50.000% (1 of 2)", " 50.000%", " 50.000%"),
                   "different",
                   1},
        ResultCase{"JustBelowTheThreshold",
                   {"-t", "50.001"},
                   true,
                   LINES(" 50.000% (1 of 2)", " 50.000%", " 50.000%"),
                   "similar",
                   0},
        ResultCase{"NegativeThreshold",
                   {"-t", "-1"},
                   false,
                   LINES("100.000% (2 of 2)", "  0.784%", "  0.784%"),
                   "different",
                   1},
        ResultCase{"ThresholdThatIsNoNumber",
                   {"-t", "nan"},
                   true,
                   LINES(" 50.000% (1 of 2)", " 50.000%", " 50.000%"),
                   "different",
                   0},
        // trunc(255 * 0.299) = 76, 76 / 255 = 29.804%
        ResultCase{"Intensity",
                   {"-i"},
                   true,
                   LINES(" 50.000% (1 of 2)", " 29.804%", " 29.804%"),
                   "different",
                   1},
        // 1 and -1: the earlier one tells the sign, 1 / 255 = 0.392%
        ResultCase{"IntensityTie",
                   {"-i"},
                   false,
                   LINES("100.000% (2 of 2)", "  0.000%", "  0.392%"),
                   "similar",
                   0},
        ResultCase{"IntensityBrightened",
                   {"-s", "-i"},
                   true,
                   LINES(" 50.000% (1 of 2)", "100.000%", " 29.804%"),
                   "different",
                   1},
        ResultCase{"OptionsInOneWord",
                   {"-iat50"},
                   true,
                   LINES(" 50.000% (1 of 2)", " 29.804%", " 29.804%"),
                   "similar",
                   0},
        ResultCase{"LastOfAnOptionCounts",
                   {"-m", "255", "-m", "3", "-g", "0", "-g", "x"},
                   false,
                   LINES("100.000% (2 of 2)", "  0.784%", "  0.784%"),
                   "similar",
                   0}),
    [](const auto& test) { return test.param.name; });

TEST_F(VelDiff, NegativeIntensityIsComparedWithoutItsSign) {
  const test::Outcome outcome = run({"-i", dark, red});
  EXPECT_EQ(outcome.out,
            LINES(" 50.000% (1 of 2)", "-29.804%", "-29.804%") + verdict(dark, red, "different"));
  EXPECT_EQ(outcome.status, 1);
}

TEST_F(VelDiff, TolerancesAreDecimalNumbers) {
  for (const char* const counts_four : {"0", "3", "-5", "x", "-99999999999999999999", " +3"}) {
    EXPECT_NE(run({"-m", counts_four, red, near}).out, no_differences(red, near)) << counts_four;
  }
  for (const char* const ignores_four :
       {"4", "255", "010", "99999999999999999999", "0x10", "4.9"}) {
    const bool is_hexadecimal = std::string(ignores_four) == "0x10";  // reads as 0
    EXPECT_EQ(run({"-m", ignores_four, red, near}).out == no_differences(red, near),
              !is_hexadecimal)
        << ignores_four;
  }
}

TEST_F(VelDiff, IdenticalPicturesReachAThresholdOfNone) {
  EXPECT_EQ(run({"-t", "0", red, red}).status, 1);
  EXPECT_EQ(run({"-t", "0", red, red}).out, no_differences(red, red));
  EXPECT_EQ(run({"-t", "nan", red, red}).status, 0);
}

TEST_F(VelDiff, EmptyPicturesAreIdentical) {
  for (const auto& [width, height] : {std::pair{0, 3}, {3, 0}, {0, 0}}) {
    const std::string empty = ppm("empty.ppm", width, height, "");
    EXPECT_EQ(run({empty, empty}).out, no_differences(empty, empty));
    EXPECT_EQ(run({"-v", empty, empty}).status, 0);
  }
}

TEST_F(VelDiff, OptionsMayFollowTheNames) {
  EXPECT_EQ(run({red, "-m", "4", near}).status, 0);
  EXPECT_EQ(run({red, near, "-t", "0.1", "-m", "3"}).status, 1);
  expect_failure({red, "--", "-m"},
                 cannot_open("-m", "can't open file for reading (No such file or directory)"));
}

TEST_F(VelDiff, UsageIsPrintedForWrongCommandLines) {
  const std::string usage = VEL_DIFF + std::string(kUsage), name = VEL_DIFF + std::string(": ");
  expect_failure({"-h"}, usage);
  expect_failure({red, near, "-h"}, usage);
  expect_failure({}, usage);
  expect_failure({red}, usage);
  expect_failure({red, near, "out.ppm", ".ppm", "more"}, usage);
  expect_failure({"-x", red, near}, name + "invalid option -- 'x'\n" + usage);
  for (const std::string letter : {"g", "m", "t"}) {
    expect_failure({red, near, "-" + letter},
                   name + "option requires an argument -- '" + letter + "'\n" + usage);
  }
}

TEST_F(VelDiff, DifferentSizesAreTold) {
  const std::string tall = ppm("tall.ppm", 1, 2, std::string(6, '\0'));
  const std::string wide = ppm("wide.ppm", 3, 1, std::string(9, '\0'));
  for (const std::string& other : {tall, wide}) {
    expect_failure({red, other}, fatal("files have different sizes"));
    expect_failure({other, red, "-t", "nan"}, fatal("files have different sizes"));
  }
}

TEST_F(VelDiff, FilesThatAreNoPicturesAreTold) {
  const std::string reason = "can't open file for reading ";
  const std::string missing = scratch.path("missing.ppm"), folder = scratch.path("folder");
  const std::string pipe = scratch.path("pipe"), beyond = red + "/beyond.ppm";
  std::filesystem::create_directory(folder);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string empty = scratch.write("empty.ppm", ""),
                    text = scratch.write("text", "P5 1 1 255\n");
  const std::pair<std::string, std::string> rows[] = {
      {missing, reason + "(No such file or directory)"},
      {beyond, reason + "(Not a directory)"},
      {folder, reason + "(Is a directory)"},
      {pipe, reason + "(Illegal seek)"},
      {"", reason + "(No such file or directory)"},
      {empty, "unrecognized file format, not an image file"},
      {text, "unrecognized file format, not an image file"}};
  for (const auto& [name, message] : rows) {
    expect_failure({name, red}, cannot_open(name, message));
    expect_failure({red, name}, cannot_open(name, message));
  }
}

TEST_F(VelDiff, LongNamesAreCutInTheLibrarysMessageOnly) {
  const std::string name = scratch.path(std::string(100, 'n'));
  expect_failure({name, red},
                 image_error(name, "can't open file for reading (No such file or directory)") +
                     fatal("cannot open " + name));
  EXPECT_EQ(shown(name), "..." + std::string(60, 'n'));
}

// What is told of the first `cut` bytes of the file. Lines are counted when they have been tried, so
// that the number told is the one behind the line that failed.
struct Damage {
  std::size_t header, first_line, last_line;  // bytes up to the end of each
  const char* read_error;
  std::string operator()(std::size_t cut, const std::string& name) const {
    if (cut < 2) return cannot_open(name, "unrecognized file format, not an image file");
    if (cut < header) {
      return cannot_open(name, "can't uncompress pixels in line 1 of 0, file is corrupted");
    }
    char text[100];
    std::snprintf(text, sizeof text, read_error, cut < first_line ? 2 : 3);
    return cannot_read(name, text);
  }
};

TEST_F(VelDiff, EveryTruncatedPictureIsTold) {
  const struct {
    std::string picture;
    Damage damage;
  } rows[] = {
      {"P6\n2 2\n255\nabcdefABCDEF", {11, 17, 23, "can't read line %d of 2, incomplete file"}},
      {"P3\n2 2\n255\n1 22 3\t4 5 6\n7 8 9 1 11 9\n",
       {11, 23, 36, "can't uncompress pixels in line %d of 2, file is corrupted"}}};
  for (const auto& [picture, damage] : rows) {
    const std::string whole = scratch.write("whole.ppm", picture);
    for (std::size_t cut = 0; cut < damage.last_line; ++cut) {
      SCOPED_TRACE(picture.substr(0, cut));
      const std::string name = scratch.write("cut.ppm", picture.substr(0, cut));
      expect_failure({whole, name}, damage(cut, name));
    }
    const std::string enough = scratch.write("cut.ppm", picture.substr(0, damage.last_line));
    EXPECT_EQ(run({whole, enough}).out, no_differences(whole, enough));
  }
}

// The errors and fatal messages among what was printed.
std::string failures(const std::string& text) {
  std::string result;
  for (std::size_t at = 0, end; at < text.size(); at = end) {
    end = text.find('\n', at) + 1;
    const std::string line = text.substr(at, end - at);
    if (line.find(" error") < 12 || line.find(" fatal") < 12) result += line;
  }
  return result;
}

// A picture is read to its end before the next one is opened, so its failure is told first, also
// where both are read line by line.
TEST_F(VelDiff, FailureOfTheFirstPictureIsToldFirst) {
  const auto lost = [](const std::string& name, int line) {
    return cannot_read(name, "can't read line " + std::to_string(line + 1) + " of 2, incomplete file");
  };
  const std::string missing = scratch.path("missing.ppm");
  const std::string no_file =
      cannot_open(missing, "can't open file for reading (No such file or directory)");
  const std::string whole = ppm("whole.ppm", 1, 2, "abcdef"), early = ppm("early.ppm", 1, 2, "ab");
  const std::string late = ppm("late.ppm", 1, 2, "abcde");
  const struct {
    std::string first, second, messages;
  } rows[] = {{missing, early, no_file},      {whole, missing, no_file},
              {late, missing, lost(late, 2)}, {whole, early, lost(early, 1)},
              {late, early, lost(late, 2)},   {early, late, lost(early, 1)},
              {late, red, lost(late, 2)},     {red, late, lost(late, 2)}};
  for (const auto& [first, second, messages] : rows) {
    expect_failure({first, second}, messages);
    EXPECT_EQ(failures(run({"-v", first, second}).err), messages);
  }
}

TEST_F(VelDiff, OutputNamesAreChecked) {
  const std::string output = scratch.path("out"), folder = output.substr(0, output.rfind('/'));
  const auto told = [&](std::vector<std::string> names) {
    names.insert(names.begin(), {"-e", red, red});
    const test::Outcome outcome = run(names);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, no_differences(red, red));
    return outcome.err;
  };
  const std::string bare = "no-dot-at-all";
  EXPECT_EQ(told({bare}), fatal("missing output image file type"));
  EXPECT_EQ(told({output + ".xyz"}), fatal("unknown extension \".xyz\""));
  EXPECT_EQ(told({output + ".PPM"}), fatal("unknown extension \".PPM\""));
  EXPECT_EQ(told({output + ".ppm."}), fatal("unknown extension \".\""));
  EXPECT_EQ(told({output + ".ppm", ".tiff"}), fatal("unknown extension \".tiff\""));
  EXPECT_EQ(told({output + ".ppm", "ppm"}), fatal("unknown extension \"ppm\""));
  EXPECT_EQ(told({bare, ""}), fatal("unknown extension \"\""));
  EXPECT_FALSE(test::exists(output + ".xyz"));
}

TEST_F(VelDiff, IdenticalPicturesLeaveNoOutput) {
  const std::string output = scratch.path("out.xyz");
  const test::Outcome outcome = run({"-d", red, red, output});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_FALSE(test::exists(output));
}

TEST_F(VelDiff, LostResultsAreTold) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);  // nobody reads
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  const std::pair<int, const char*> rows[] = {{test::kClosed, "Bad file descriptor"},
                                              {full, "No space left on device"},
                                              {ends[1], "Broken pipe"}};
  for (const auto& [output, reason] : rows) {
    const test::Outcome outcome =
        test::run(VEL_DIFF, {.arguments = {red, red}, .standard_output = output});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, fatal(std::string("cannot write to standard output (") + reason + ")"));
  }
  close(ends[1]);
  close(full);
}

TEST_F(VelDiff, ClosedStandardErrorHarmsNothing) {
  const std::string before = test::read_file(red);
  const auto run_mute = [](std::vector<std::string> arguments) {
    return test::run(VEL_DIFF,
                     {.arguments = std::move(arguments), .standard_error = test::kClosed});
  };
  EXPECT_EQ(run_mute({red, red}).out, no_differences(red, red));
  EXPECT_EQ(run_mute({"-v", red, near}).status, 0);
  EXPECT_EQ(run_mute({red, scratch.path("missing.ppm")}).status, 1);
  EXPECT_EQ(test::read_file(red), before);
}

TEST_F(VelDiff, ClaimedSizesTakeNoMemory) {
  constexpr long most = 512 * 1024;  // kilobytes; the claimed pictures have 3 GB and more
  const std::string large = scratch.write("large.ppm", "P6\n30000 30000\n255\nabcdefghijk");
  const std::string huge = scratch.write("huge.ppm", "P6\n60000 60000\n255\nabcdefghijk");
  const std::string of_large = cannot_read(large, "can't read line 2 of 30000, incomplete file");
  const std::string of_huge =
      image_error(huge, "file format subtype or version not supported (File too large)") +
      fatal("cannot allocate frame buffer");
  for (const std::string option : {"-a", "-v"}) {
    for (const auto& [name, messages] : {std::pair{large, of_large}, {huge, of_huge}}) {
      const test::Outcome outcome = run({option, name, name});
      EXPECT_EQ(outcome.status, 1);
      EXPECT_EQ(failures(outcome.err), messages);
      EXPECT_LT(outcome.peak_kilobytes, most) << name << " " << option;
    }
  }
}

TEST_F(VelDiff, MessagesGoToTheLogFile) {
  const std::string log = scratch.path("log"), missing = scratch.path("missing.ppm");
  const test::Outcome outcome =
      test::run(VEL_DIFF, {.arguments = {missing, red}, .environment = {"KA_LOGFILE=" + log}});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out + outcome.err, "");

  // A fatal message stands there twice: as a line like any other, and once more in short.
  const std::string expected =
      cannot_open(missing, "can't open file for reading (No such file or directory)") +
      "MAIN fatal: cannot open " + missing + "\n";
  const std::string written = test::read_file(log);
  std::string texts;
  for (std::size_t at = 0, end; at < written.size(); at = end) {
    end = written.find('\n', at) + 1;
    const std::string line = written.substr(at, end - at);
    tm date{};
    EXPECT_EQ(strptime(line.c_str(), "%b %d %H:%M:%S %Y", &date), line.c_str() + 20) << line;
    date.tm_isdst = -1;
    EXPECT_NEAR(difftime(mktime(&date), time(nullptr)), 0, 60);
    int process = 0, user = -1, length = 0;
    std::sscanf(line.c_str() + 20, ": lumoralib[%d,%d] %n", &process, &user, &length);
    EXPECT_GT(process, 1);
    EXPECT_EQ(user, int(getuid()));
    texts += line.substr(20 + std::size_t(length));
  }
  EXPECT_EQ(texts, expected);
  EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0666));
}

TEST_F(VelDiff, VerboseTellsTheSteps) {
  const test::Outcome outcome = run({"-v", red, near});
  EXPECT_EQ(outcome.out, run({red, near}).out);
  std::size_t at = 0;
  for (const std::string& line :
       {std::string("info : vel_diff version 2.2"), "progr: reading " + red + ": 2x1",
        "progr: reading " + near + ": 2x1", std::string("progr: pass 1: max diff"),
        std::string("progr: pass 2: histogram")}) {
    at = outcome.err.find("MAIN  .0  " + line + "\n", at);
    EXPECT_NE(at, std::string::npos) << line;
  }
  EXPECT_EQ(failures(outcome.err), "");
}

TEST_F(VelDiff, WholeAndStreamedPicturesMeasureTheSame) {
  std::mt19937 random(3);
  for (int round = 0; round < 24; ++round) {
    const std::size_t width = random() % 70, height = random() % 6, count = 3 * width * height;
    std::string first, second;
    for (std::size_t i = 0; i < count; ++i) {
      first += char(random());
      second += random() % 3 ? first.back() : char(first.back() + char(random() % 16));
    }
    const std::string a = ppm("a.ppm", int(width), int(height), first);
    std::string text = "P3 " + std::to_string(width) + " " + std::to_string(height) + " 255\n";
    for (const char c : second) text += std::to_string(std::uint8_t(c)) + "\n";
    const std::string b =
        round % 2 ? scratch.write("b.ppm", text) : ppm("b.ppm", int(width), int(height), second);
    std::vector<std::string> arguments = {
        a, b, "-m", std::to_string(random() % 8), "-t", std::to_string(random() % 40)};
    for (const char* const option : {"-i", "-a", "-s"}) {
      if (random() % 2) arguments.emplace_back(option);
    }
    const test::Outcome streamed = run(arguments);
    arguments.emplace_back("-v");
    const test::Outcome whole = run(arguments);
    EXPECT_EQ(streamed.out, whole.out);
    EXPECT_EQ(streamed.status, whole.status);
    EXPECT_NE(streamed.out, "");
  }
}

}  // namespace
