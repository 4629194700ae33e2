// The built tool and the files it is given: damaged ones, strange ones, the order of what is reported.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "vel_diff.h"

namespace {

TEST_F(VelDiff, DifferentSizesAreTold) {
  const std::string tall = ppm("tall.ppm", 1, 2, std::string(6, '\0'));
  const std::string wide = ppm("wide.ppm", 3, 1, std::string(9, '\0'));
  expect_failure({red, tall}, fatal("files have different sizes"));
  expect_failure({wide, red, "-t", "nan"}, fatal("files have different sizes"));
}

TEST_F(VelDiff, FilesThatAreNoPicturesAreTold) {
  const std::string folder = scratch.path(""), pipe = scratch.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string no_picture = "unrecognized file format, not an image file";
  const std::string reason = "can't open file for reading ";
  const std::pair<std::string, std::string> rows[] = {
      {scratch.path(std::string(100, 'n')), kMissing},  // cut in the library's message only
      {red + "/beyond.ppm", reason + "(Not a directory)"},
      {folder, reason + "(Is a directory)"},
      {pipe, reason + "(Illegal seek)"},
      {"", kMissing},
      {scratch.write("text", "P5 1 1 255\n"), no_picture}};
  for (const auto& [name, message] : rows) {
    expect_failure({name, red}, cannot_open(name, message));
    expect_failure({red, name}, cannot_open(name, message));
  }
}

// With -v, and on a terminal, the line before the fatal one.
TEST_F(VelDiff, AFatalMessageIsExplained) {
  const std::string wide = ppm("wide.ppm", 3, 1, std::string(9, '\0'));
  const std::string text = scratch.write("text", "P5 1 1 255\n");
  const std::string bmp = scratch.write(
      "run_length.bmp", "BM" + test::bytes({62, 0, 0, 0, 0, 0, 0, 0, 62, 0, 0, 0, 40, 0, 0, 0,
                                            2,  0, 0, 0, 1, 0, 0, 0, 1,  0, 8, 0, 1,  0, 0, 0}) +
                            std::string(60, '\0'));
  // One entry: compression 7 in a short.
  const std::string tiff = scratch.write(
      "jpeg.tif", "MM" + test::bytes({0, 42, 0, 0, 0, 8, 0, 1, 1, 3, 0, 3, 0, 0, 0, 1, 0, 7}) +
                      std::string(300, '\0'));
  const std::string rgb = scratch.write(
      "deep.rgb", test::bytes({1, 218, 0, 4, 0, 2, 0, 5, 0, 6, 0, 1}) + std::string(600, '\0'));
  const std::string formats = "rla rlb pic alias rgb ct ct16 st st16 vt wt zt nt tt tif tifu tif3";
  const struct {
    std::vector<std::string> names;
    std::string line, fatal;
  } rows[] = {
      {{red, wide}, shown(red) + ": 2x1, " + shown(wide) + ": 3x1", "files have different sizes"},
      {{red, dark, "x.xyz"}, "formats that are written: " + formats, "unknown extension \".xyz\""},
      {{text, red}, shown(text) + ": not in one of the formats " + formats, "cannot open " + text},
      {{scratch.write("empty", ""), red}, ": the file is empty", "cannot open"},
      {{bmp, red}, ": compression 1 is not read; 0 (none) is", "cannot open " + bmp},
      {{tiff, red}, shown(tiff) + ": compression 7 (JPEG) is not read; 1", "cannot open " + tiff},
      {{rgb, red}, ": 4 bytes per sample are not read; 1 and 2 are", "cannot open " + rgb}};
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

// A picture is read to its end before the next one is opened, so its failure is reported first, also
// where both are read line by line.
TEST_F(VelDiff, FailureOfTheFirstPictureIsToldFirst) {
  const std::string missing = scratch.path("missing.ppm"), whole = ppm("whole.ppm", 1, 2, "abcdef"),
                    early = ppm("early.ppm", 1, 2, "ab"), late = ppm("late.ppm", 1, 2, "abcde"),
                    no_file = cannot_open(missing, kMissing),
                    of_early = cannot_read(early, "can't read line 2 of 2, incomplete file"),
                    of_late = cannot_read(late, "can't read line 3 of 2, incomplete file");
  const std::string rows[][3] = {{missing, early, no_file}, {whole, missing, no_file},
                                 {late, missing, of_late},  {late, early, of_late},
                                 {early, late, of_early},   {red, late, of_late}};
  for (const auto& [first, second, messages] : rows) {
    expect_failure({first, second}, messages);
    EXPECT_EQ(failures(run({"-v", first, second}).err), messages);
  }
}

TEST_F(VelDiff, ClaimedSizesTakeNoMemory) {
#if defined(__SANITIZE_THREAD__)
  constexpr long most = LONG_MAX;  // the sanitizer writes a shadow of all that is allocated
#else
  constexpr long most = 512 * 1024;  // kilobytes, with what the address sanitizer keeps for 3 GB
#endif
  const std::string no_buffer = fatal("cannot allocate frame buffer");
  const std::string large = scratch.write("large.ppm", "P6\n30000 30000\n255\nabcdefghijk"),
                    huge = scratch.write("huge.ppm", "P6\n60000 60000\n255\nabcdefghijk");
  const std::pair<std::string, std::string> rows[] = {
      {large, cannot_read(large, "can't read line 2 of 30000, incomplete file")},
      {huge, image_error(huge, "file format subtype or version not supported (File too large)") +
                 no_buffer}};
  for (const auto& [name, messages] : rows) {
    for (const char* const option : {"-a", "-v"}) {
      const test::Outcome outcome = run({option, name, name});
      EXPECT_EQ(outcome.status, 1);
      EXPECT_EQ(failures(outcome.err), messages);
      EXPECT_LT(outcome.peak_kilobytes, most) << name << " " << option;
    }
  }
}

}  // namespace
