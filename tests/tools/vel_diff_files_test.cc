// The built tool and the files it is given: damaged ones, strange ones, the order of what is reported;
// what hostile files cost: memory and time in proportion to their size.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
                    no_file = cannot_open(missing, kMissing),  // cut in the library's message only
      no_folder = cannot_open(red + "/a.ppm", reason + "(Not a directory)"),
                    no_text = cannot_open(text, "unrecognized file format, not an image file"),
                    of_early = cannot_read(early, "can't read line 2 of 2, incomplete file"),
                    of_late = cannot_read(late, "can't read line 3 of 2, incomplete file"),
                    of_large = cannot_read(large, "can't read line 2 of 30000, incomplete file"),
                    too_large = "file format subtype or version not supported (File too large)";
  const std::string rows[][3] = {
      {red, whole, sizes},
      {ppm("wide.ppm", 3, 1, std::string(9, '\0')), red, sizes},
      {missing, early, no_file},
      {whole, missing, no_file},
      {late, missing, of_late},
      {late, early, of_late},
      {early, late, of_early},
      {red, late, of_late},
      {red, red + "/a.ppm", no_folder},
      {scratch.path(""), red, cannot_open(scratch.path(""), reason + "(Is a directory)")},
      {red, pipe, cannot_open(pipe, reason + "(Illegal seek)")},
      {"", red, cannot_open("", kMissing)},
      {text, red, no_text},
      {red, text, no_text},
      {large, large, of_large},
      {huge, huge, image_error(huge, too_large) + fatal("cannot allocate frame buffer")}};
  for (const auto& [first, second, messages] : rows) {
    expect_failure({first, second, "-t", "nan"}, messages);
    EXPECT_EQ(failures(run({"-v", first, second}).err), messages);
  }
}

// With -v, and on a terminal, the line before the fatal one.
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

TEST_F(VelDiff, ATerminalShowsTheExplanation) {
  const std::string wide = ppm("wide.ppm", 3, 1, std::string(9, '\0'));
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const int end = open(ptsname(terminal), O_RDWR | O_NOCTTY);
  test::run(VEL_DIFF, {.arguments = {wide, red}, .standard_error = end});
  char text[4096];
  const ssize_t length = read(terminal, text, sizeof text);
  EXPECT_EQ(std::string(text, std::size_t(std::max(length, ssize_t{0}))),
            "MAIN  .0  info : " + shown(wide) + ": 3x1, " + shown(red) + ": 2x1\r\n" +
                "MAIN  .0  fatal: files have different sizes\r\n");
  close(end);
  close(terminal);
}

// Lines are counted when they have been tried, so that the number told is the one after the line
// that failed.
TEST_F(VelDiff, EveryTruncatedPictureIsTold) {
  const std::string bad = "can't uncompress pixels in line ";
  const struct {
    std::string picture;
    std::size_t header, first_line, last_line;  // bytes up to the end of each
    std::string before, after;                  // the number of the line
  } rows[] = {
      {"P6\n2 2\n255\nabcdefABCDEF", 11, 17, 23, "can't read line ", " of 2, incomplete file"},
      {"P3\n2 2\n255\n1 22 3\t4 5 6\n7 8 9 1 11 9\n", 11, 23, 36, bad, " of 2, file is corrupted"}};
  for (const auto& [picture, header, first_line, last_line, before, after] : rows) {
    const std::string whole = scratch.write("whole.ppm", picture), cut = scratch.path("cut.ppm");
    for (std::size_t size = 0; size < last_line; ++size) {
      SCOPED_TRACE(size);
      scratch.write("cut.ppm", picture.substr(0, size));
      const char* const line = size < first_line ? "2" : "3";
      expect_failure({whole, cut},
                     size < 2 ? cannot_open(cut, "unrecognized file format, not an image file")
                     : size < header ? cannot_open(cut, bad + "1 of 0, file is corrupted")
                                     : cannot_read(cut, before + line + after));
    }
    scratch.write("cut.ppm", picture.substr(0, last_line));
    EXPECT_EQ(run({whole, cut}).out, no_differences(whole, cut));
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
