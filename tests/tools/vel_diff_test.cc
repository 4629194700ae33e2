// The built tool: its options, what it prints where, and its exit status.
#include "vel_diff.h"

#include <fcntl.h>
#include <unistd.h>

#include <random>

namespace {

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

TEST_F(VelDiff, PrintsTheLines) {
  const std::string fall = ppm("fall.ppm", 1, 2, test::bytes({20, 20, 20, 10, 10, 10})),
                    rise = ppm("rise.ppm", 1, 2, test::bytes({10, 10, 10, 20, 20, 20})),
                    white = ppm("white.ppm", 2, 1, std::string(6, '\xff')),
                    black = ppm("black.ppm", 2, 1, std::string(6, '\0'));
  const char kOneOfTwo[] = " 50.000% (1 of 2)", kBoth[] = "100.000% (2 of 2)";
  const struct {
    std::vector<std::string> arguments;  // the pictures first
    const char *share, *average, *maximum, *word;
    int status;
  } rows[] = {
      // R by 255 at one of two pixels
      {{red, dark}, kOneOfTwo, " 50.000%", " 50.000%", "different", 1},
      {{red, dark, "-a"}, kOneOfTwo, " 57.823%", " 57.823%", "different", 1},
      {{red, dark, "-t50"}, kOneOfTwo, " 50.000%", " 50.000%", "different", 1},
      {{red, dark, "-t", "50.001"}, kOneOfTwo, " 50.000%", " 50.000%", "similar", 0},
      {{red, dark, "-t", "nan"}, kOneOfTwo, " 50.000%", " 50.000%", "different", 0},
      // sqrt(3) * 255 of 510 and of 441, as the manual page says
      {{black, white}, kBoth, " 86.603%", " 86.603%", "different", 1},
      {{black, white, "-a"}, kBoth, "100.153%", "100.153%", "different", 1},
      // trunc(255 * 0.299) = 76, 76 / 255 = 29.804%; the threshold is compared without the sign
      {{red, dark, "-iat29"}, kOneOfTwo, " 29.804%", " 29.804%", "different", 1},
      {{dark, red, "-i"}, kOneOfTwo, "-29.804%", "-29.804%", "different", 1},
      {{red, dark, "-s", "-i"}, kOneOfTwo, "100.000%", " 29.804%", "different", 1},
      // R by 4 and -4: 100 * 4 / 510 = 0.784
      {{red, near}, kBoth, "  0.784%", "  0.784%", "similar", 0},
      {{red, near, "-t", "-1"}, kBoth, "  0.784%", "  0.784%", "different", 1},
      {{red, near, "-m9", "-m3", "-g0", "-gx"}, kBoth, "  0.784%", "  0.784%", "similar", 0},
      // 1 and -1: the earlier one says the sign, 1 / 255 = 0.392%
      {{red, near, "-i"}, kBoth, "  0.000%", "  0.392%", "similar", 0},
      // 2 + 5 + 1 and the same below 0, the lower line is the earlier one: 8 / 255 = 3.137%
      {{rise, fall, "-i"}, kBoth, "  0.000%", "  3.137%", "different", 1},
      {{fall, rise, "-i"}, kBoth, "  0.000%", " -3.137%", "different", 1}};
  for (const auto& [arguments, share, average, maximum, word, status] : rows) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const std::string lines = std::string("differing pixels:\t") + share +
                              "\naverage difference:\t" + average + "\nmaximum difference:\t" +
                              maximum + "\n" + verdict(arguments[0], arguments[1], word);
    expect_outcome({.arguments = arguments}, status, lines, "");
  }
}

TEST_F(VelDiff, ThresholdsAndTolerancesAreNumbers) {
  const std::string within = ppm("within.ppm", 2, 1, test::bytes({252, 3, 0, 12, 6, 9})),
                    empty = ppm("empty.ppm", 0, 3, "");
  const std::pair<std::vector<std::string>, int> identical[] = {
      {{red, within}, 0},           {{red, red, "-t", "0"}, 1},
      {{red, red, "-t", "nan"}, 0}, {{empty, empty, "-v"}, 0},
      {{red, near, "-m", "4"}, 0},  {{red, near, "-m", "4.9"}, 0},
      {{red, near, "-m010"}, 0},    {{red, near, "-m99999999999999999999"}, 0}};
  for (const auto& [arguments, status] : identical) {
    const test::Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.out, no_differences(arguments[0], arguments[1])) << arguments.back();
    EXPECT_EQ(outcome.status, status) << arguments.back();
  }
  for (const char* const tolerance : {"0", "-5", "x", "0x10", "-99999999999999999999", " +3"}) {
    EXPECT_NE(run({"-m", tolerance, red, near}).out, no_differences(red, near)) << tolerance;
  }
}

TEST_F(VelDiff, UsageIsPrintedForWrongCommandLines) {
  const std::string usage = VEL_DIFF + std::string(kUsage), name = VEL_DIFF + std::string(": ");
  expect_failure({red, near, "-h"}, usage);
  expect_failure({red}, usage);
  expect_failure({red, near, "out.ppm", ".ppm", "more"}, usage);
  expect_failure({"-x", red, near}, name + "invalid option -- 'x'\n" + usage);
  for (const std::string letter : {"g", "m", "t"}) {
    expect_failure({red, near, "-" + letter},
                   name + "option requires an argument -- '" + letter + "'\n" + usage);
  }
  expect_failure({"-\x1b[31m", red, near}, name + "invalid option -- ' '\n" + usage);
  expect_failure({red, "--", "-m"}, cannot_open("-m", kMissing));
}

TEST_F(VelDiff, NamesForgeNoLinesAndCommandNoTerminal) {
  const std::string odd = scratch.path("a\n== \x9b[2J\xc2\x9b\tb"),
                    shown = scratch.path("a ==  [2J  \tb");
  std::filesystem::copy_file(red, odd);
  expect_outcome({.arguments = {odd, red}}, 0, no_differences(shown, red), "");
  expect_failure({red, odd + "c"}, cannot_open(shown + "c", kMissing));
}

TEST_F(VelDiff, OutputNamesAreChecked) {
  const std::string output = scratch.path("out.PPM");
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"-e", red, red, "no-dot-at-all"}, "missing output image file type"},
      {{"-e", red, red, output}, "unknown extension \".PPM\""},
      {{"-e", red, red, output + "."}, "unknown extension \".\""},
      {{"-e", red, red, output, "ppm"}, "unknown extension \"ppm\""},
      {{"-e", red, red, output, ""}, "unknown extension \"\""}};
  for (const auto& [arguments, message] : rows) {
    expect_outcome({.arguments = arguments}, 1, no_differences(red, red), fatal(message));
  }
  EXPECT_FALSE(test::exists(output));
}

TEST_F(VelDiff, LostResultsAreTold) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  for (const auto& [output, reason] :
       {std::pair{test::kClosed, "Bad file descriptor"}, {full, "No space left on device"}}) {
    expect_outcome({.arguments = {red, red}, .standard_output = output}, 1, "",
                   fatal(std::string("cannot write to standard output (") + reason + ")"));
  }
  close(full);
  const std::string before = test::read_file(red);
  const test::Program mute = {.arguments = {"-v", red, near}, .standard_error = test::kClosed};
  EXPECT_EQ(test::run(VEL_DIFF, mute).status, 0);
  EXPECT_EQ(test::read_file(red), before);
}

TEST_F(VelDiff, VerboseTellsTheSteps) {
  const std::string step = "MAIN  [.]0  progr: ", rest = "(.|\n)*";
  EXPECT_TRUE(test::matches(run({"-v", red, near}).err,
                            rest + "MAIN  [.]0  info : vel_diff version 2[.]2\n" + rest + step +
                                "reading " + red + ": 2x1\n" + rest + step + "reading " + near +
                                ": 2x1\n" + rest + step + "pass 1: max diff\n" + rest + step +
                                "pass 2: histogram\n" + rest));
}

// Pictures are streamed where nothing but the lines is asked for, and kept whole with -v.
TEST_F(VelDiff, WholeAndStreamedPicturesMeasureTheSame) {
  std::mt19937 random(3);
  for (int round = 0; round < 24; ++round) {
    const int width = int(random() % 70), height = int(random() % 6);
    std::string first, second;
    for (int i = 0; i < 3 * width * height; ++i) {
      first += char(random());
      second += char(first.back() + char(random() % 3 ? 0 : random() % 16));
    }
    std::vector<std::string> arguments = {ppm("a.ppm", width, height, first),
                                          ppm("b.ppm", width, height, second),
                                          "-m" + std::to_string(random() % 8)};
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
