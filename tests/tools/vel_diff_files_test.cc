// The built tool and the files it is given: damaged ones, strange ones, the order of what is told.
#include "vel_diff.h"

#include <sys/stat.h>

namespace {

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
      {missing, kMissing},
      {beyond, reason + "(Not a directory)"},
      {folder, reason + "(Is a directory)"},
      {pipe, reason + "(Illegal seek)"},
      {"", kMissing},
      {empty, "unrecognized file format, not an image file"},
      {text, "unrecognized file format, not an image file"}};
  for (const auto& [name, message] : rows) {
    expect_failure({name, red}, cannot_open(name, message));
    expect_failure({red, name}, cannot_open(name, message));
  }
}

TEST_F(VelDiff, LongNamesAreCutInTheLibrarysMessageOnly) {
  const std::string name = scratch.path(std::string(100, 'n'));
  expect_failure({name, red}, cannot_open(name, kMissing));
  EXPECT_EQ(shown(name), "..." + std::string(60, 'n'));
}

// What is told of the first `cut` bytes of the file. Lines are counted when they have been tried,
// so that the number told is the one behind the line that failed.
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

// A picture is read to its end before the next one is opened, so its failure is told first, also
// where both are read line by line.
TEST_F(VelDiff, FailureOfTheFirstPictureIsToldFirst) {
  const auto lost = [](const std::string& name, int line) {
    return cannot_read(name,
                       "can't read line " + std::to_string(line + 1) + " of 2, incomplete file");
  };
  const std::string missing = scratch.path("missing.ppm");
  const std::string no_file = cannot_open(missing, kMissing);
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

TEST_F(VelDiff, ClaimedSizesTakeNoMemory) {
  constexpr long most = 512 * 1024;  // kilobytes, with what the address sanitizer keeps for 3 GB
  const std::string large = scratch.write("large.ppm", "P6\n30000 30000\n255\nabcdefghijk");
  const std::string huge = scratch.write("huge.ppm", "P6\n60000 60000\n255\nabcdefghijk");
  const std::string of_large = cannot_read(large, "can't read line 2 of 30000, incomplete file");
  const std::string of_huge =
      image_error(huge, "file format subtype or version not supported (File too large)") +
      fatal("cannot allocate frame buffer");
  const std::string tall = scratch.write("tall.ppm", "P6\n1 100000000\n255\nabc");
  const std::string of_tall = image_error(tall, "can't read line 1 of 100000000, incomplete file") +
                              fatal("cannot allocate frame buffer");
  const std::string empty = scratch.write("empty.ppm", "P6\n0 100000000\n255\n");
  const std::string of_empty =
      image_error(empty, "can't read line 1 of 100000000, incomplete file") +
      fatal("cannot allocate frame buffer");
  for (const std::string option : {"-a", "-v"}) {
    for (const auto& [name, messages] :
         {std::pair{large, of_large}, {huge, of_huge}, {tall, of_tall}, {empty, of_empty}}) {
      const test::Outcome outcome = run({option, name, name});
      EXPECT_EQ(outcome.status, 1);
      EXPECT_EQ(failures(outcome.err), messages);
      EXPECT_LT(outcome.peak_kilobytes, most) << name << " " << option;
    }
  }
}

}  // namespace
