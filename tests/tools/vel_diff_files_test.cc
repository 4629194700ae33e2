// The built tool and the files it is given: damaged ones, strange ones, the order of what is reported;
// what hostile files cost: memory and time in proportion to their size.
#include <sys/stat.h>

#include <cstdio>

#include "hostile.h"
#include "vel_diff.h"

namespace {

// A picture is read to its end before the next one is opened, so its failure is reported first, also
// where both are read line by line. With -v they are read whole.
TEST_F(VelDiff, FilesThatCannotBeComparedAreTold) {
  const std::string pipe = scratch.path("pipe"), missing = scratch.path(std::string(100, 'n')),
                    text = scratch.write("text", "P5 1 1 255\n"),
                    whole = ppm("whole.ppm", 1, 2, "abcdef"), early = ppm("early.ppm", 1, 2, "ab"),
                    late = ppm("late.ppm", 1, 2, "abcde"),
                    large = scratch.write("large.ppm", "P6\n30000 30000\n255\nabcdefghijk"),
                    huge = scratch.write("huge.ppm", "P6\n60000 60000\n255\nabcdefghijk");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string sizes = fatal("files have different sizes"),
                    reason = "can't open file for reading ",
                    no_file = cannot_open(missing, kMissing),
                    no_text = cannot_open(text, "unrecognized file format, not an image file"),
                    of_late = cannot_read(late, "can't read line 3 of 2, incomplete file"),
                    of_large = cannot_read(large, "can't read line 2 of 30000, incomplete file"),
                    too_large = "file format subtype or version not supported (File too large)";
  const std::string rows[][3] = {
      {red, whole, sizes},
      {missing, early, no_file},
      {whole, missing, no_file},
      {late, early, of_late},
      {scratch.path(""), red, cannot_open(scratch.path(""), reason + "(Is a directory)")},
      {red, pipe, cannot_open(pipe, reason + "(Illegal seek)")},
      {text, red, no_text},
      {large, large, of_large},
      {huge, huge, image_error(huge, too_large) + fatal("cannot allocate frame buffer")}};
  for (const auto& [first, second, messages] : rows) {
    expect_failure({first, second, "-t", "nan"}, messages);
    EXPECT_EQ(failures(run({"-v", first, second}).err), messages);
  }
}

// With -v, the line before the fatal one.
TEST_F(VelDiff, AFatalMessageIsExplained) {
  const std::string wide = ppm("wide.ppm", 3, 1, std::string(9, '\0')), cases = LUMORA_CORPUS "/",
                    text = scratch.write("text", "P5 1 1 255\n"),
                    bmp = cases + "bmp/compressed.case",
                    rgb = cases + "rgb/three_bytes_per_sample.case";
  const std::string formats = "rla rlb pic alias rgb ct ct16 st st16 vt wt zt nt tt tif tifu tif3";
  const struct {
    std::vector<std::string> names;
    std::string line, fatal;
  } rows[] = {
      {{red, wide}, shown(red) + ": 2x1, " + shown(wide) + ": 3x1", "files have different sizes"},
      {{red, dark, "x.xyz"}, "formats that are written: " + formats, "unknown extension \".xyz\""},
      {{text, red}, shown(text) + ": not in one of the formats " + formats, "cannot open " + text},
      {{scratch.write("empty", ""), red}, ": the file is empty", "cannot open"},
      {{bmp, red}, shown(bmp) + ": the file ends in the palette", "cannot open " + bmp},
      {{rgb, red}, ": 3 bytes per sample are not read; 1 and 2 are", "cannot open " + rgb}};
  for (const auto& [names, line, fatal] : rows) {
    std::vector<std::string> arguments = {"-v"};
    arguments.insert(arguments.end(), names.begin(), names.end());
    const std::string err = run(arguments).err;
    const std::size_t start = err.rfind("MAIN  .0  info : ");
    ASSERT_NE(start, std::string::npos);
    const std::string last = err.substr(start);
    EXPECT_NE(last.find(line), std::string::npos) << err;
    EXPECT_NE(last.find("\nMAIN  .0  fatal: " + fatal), std::string::npos) << err;
  }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSlow = true;  // shadow memory counts as the program's
#else
constexpr bool kIsSlow = false;
#endif

constexpr long kKiB = 1024, kMostKilobytes = 64 * kKiB, kMostPerByte = 64;
constexpr double kMostSeconds = kIsSlow ? 10 : 0.5;  // and as much again for each 100 KiB

class Cost : public testing::TestWithParam<test::HostilePair> {
 protected:
  test::Scratch scratch;
};

// The program may refuse the files. Nothing here depends on the word it ends with. A histogram adds
// lines to the buffers that a picture has to fit.
TEST_P(Cost, IsInProportionToTheFile) {
  const auto& [name, first, second] = GetParam();
  const std::string paths[] = {scratch.write("first", first), scratch.write("second", second)};
  const auto bytes = static_cast<long>(first.size() + second.size());
  const double most_seconds = kMostSeconds * (1 + double(bytes) / (100 * kKiB));
  for (const char* const option : {"-m3", "-n"}) {
    const test::Outcome outcome = test::run(VEL_DIFF, {.arguments = {option, paths[0], paths[1]}});
    std::printf("%-36s %s %8ld bytes %8ld KiB %8.3f s, status %d\n", name.c_str(), option, bytes,
                outcome.peak_kilobytes, outcome.cpu_seconds, outcome.status);
    EXPECT_GE(outcome.status, 0) << "ended by a signal";
    EXPECT_LE(outcome.cpu_seconds, most_seconds);
    if (kIsSlow) continue;
    EXPECT_LE(outcome.peak_kilobytes, kMostKilobytes + kMostPerByte * bytes / kKiB);
  }
}

INSTANTIATE_TEST_SUITE_P(Hostile, Cost, testing::ValuesIn(test::hostile_pairs()),
                         test::row_name<test::HostilePair>);

}  // namespace
