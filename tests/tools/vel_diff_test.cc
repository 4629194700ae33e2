// The built tool: its options, what it prints where, and its exit status.
#include "vel_diff.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <random>

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

TEST_F(VelDiff, EqualPicturesAreIdentical) {
  const std::string copy = ppm("copy.ppm", 2, 1, bytes({252, 3, 0, 12, 6, 9}));  // within 3
  const test::Outcome outcome = run({red, copy});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, no_differences(red, copy));
  EXPECT_EQ(outcome.err, "");
}

std::string lines(const std::string& share, const std::string& average,
                  const std::string& maximum) {
  return "differing pixels:\t" + share + "\naverage difference:\t" + average +
         "\nmaximum difference:\t" + maximum + "\n";
}
constexpr char kOneOfTwo[] = " 50.000% (1 of 2)", kBoth[] = "100.000% (2 of 2)";

struct ResultCase {
  const char* name;
  std::vector<std::string> options;
  bool against_dark;  // else against the near one
  const char *average, *maximum, *word;
  int status;
};

class VelDiffResult : public VelDiff, public testing::WithParamInterface<ResultCase> {};

TEST_P(VelDiffResult, PrintsTheLines) {
  const ResultCase& row = GetParam();
  const std::string& other = row.against_dark ? dark : near;
  std::vector<std::string> arguments = row.options;
  arguments.insert(arguments.end(), {red, other});
  const test::Outcome outcome = run(arguments);
  EXPECT_EQ(outcome.out, lines(row.against_dark ? kOneOfTwo : kBoth, row.average, row.maximum) +
                             verdict(red, other, row.word));
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.status, row.status);
}

// Against the dark one: R by 255 at one of two pixels. Against the near one: R by 4 and -4.
const std::vector<ResultCase> kResults = {
    {"Colour", {}, true, " 50.000%", " 50.000%", "different", 1},
    {"ColourWithoutAlpha", {"-a"}, true, " 57.823%", " 57.823%", "different", 1},
    // 100 * 4 / 510 = 0.784
    {"BelowTheThreshold", {}, false, "  0.784%", "  0.784%", "similar", 0},
    {"EqualToTheThreshold", {"-t", "50"}, true, " 50.000%", " 50.000%", "different", 1},
    {"JustBelowTheThreshold", {"-t", "50.001"}, true, " 50.000%", " 50.000%", "similar", 0},
    {"NegativeThreshold", {"-t", "-1"}, false, "  0.784%", "  0.784%", "different", 1},
    {"ThresholdThatIsNoNumber", {"-t", "nan"}, true, " 50.000%", " 50.000%", "different", 0},
    // trunc(255 * 0.299) = 76, 76 / 255 = 29.804%
    {"Intensity", {"-i"}, true, " 29.804%", " 29.804%", "different", 1},
    // 1 and -1: the earlier one tells the sign, 1 / 255 = 0.392%
    {"IntensityTie", {"-i"}, false, "  0.000%", "  0.392%", "similar", 0},
    {"IntensityBrightened", {"-s", "-i"}, true, "100.000%", " 29.804%", "different", 1},
    {"OptionsInOneWord", {"-iat50"}, true, " 29.804%", " 29.804%", "similar", 0},
    {"LastOfAnOptionCounts",
     {"-m9", "-m3", "-g0", "-gx"},
     false,
     "  0.784%",
     "  0.784%",
     "similar",
     0},
};
INSTANTIATE_TEST_SUITE_P(Rows, VelDiffResult, testing::ValuesIn(kResults),
                         test::row_name<ResultCase>);

TEST_F(VelDiff, NegativeIntensityIsComparedWithoutItsSign) {
  const test::Outcome outcome = run({"-i", dark, red});
  EXPECT_EQ(outcome.out,
            lines(kOneOfTwo, "-29.804%", "-29.804%") + verdict(dark, red, "different"));
  EXPECT_EQ(outcome.status, 1);
}

TEST_F(VelDiff, TolerancesAreDecimalNumbers) {
  for (const char* const tolerance :
       {"0", "3", "-5", "x", "0x10", "-99999999999999999999", " +3"}) {
    EXPECT_NE(run({"-m", tolerance, red, near}).out, no_differences(red, near)) << tolerance;
  }
  for (const char* const tolerance : {"4", "255", "010", "99999999999999999999", "4.9"}) {
    EXPECT_EQ(run({"-m", tolerance, red, near}).out, no_differences(red, near)) << tolerance;
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
  expect_failure({red, "--", "-m"}, cannot_open("-m", kMissing));
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

TEST_F(VelDiff, OutputNamesAreChecked) {
  const std::string output = scratch.path("out");
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

TEST_F(VelDiff, MessagesGoToTheLogFile) {
  const std::string log = scratch.path("log"), missing = scratch.path("missing.ppm");
  const test::Outcome outcome =
      test::run(VEL_DIFF, {.arguments = {missing, red}, .environment = {"KA_LOGFILE=" + log}});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out + outcome.err, "");

  // A fatal message stands there twice: as a line like any other, and once more in short.
  const std::string expected =
      cannot_open(missing, kMissing) + "MAIN fatal: cannot open " + missing + "\n";
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
