// What all families of formats have in common: every picture comes back, and damaged files and full
// disks are reported.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/trans.h>

#include <algorithm>
#include <span>

#include "cached.h"
#include "fuzz/pictures.h"
#include "imgcall.h"
#include "pictures.h"

namespace {

// Families with small files in the folders of the fuzz targets.
constexpr const char* kFamilies[] = {"alias", "bmp", "catia", "ct", "hdr", "iff", "jpg", "lwi",
                                     "map",   "pic", "ppm",   "ps", "rgb", "rla", "tga", "tif"};

struct FormatAndType {
  int format, type;
};

// Without the formats that take any number of lines and keep none of them.
std::vector<FormatAndType> writable_pairs() {
  std::vector<FormatAndType> pairs;
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    const ka::img_format_row& row = ka::img_format_at(format);
    if (!row.driver.write || format == IMG_FORMAT_NULL || format == IMG_FORMAT_LWI) continue;
    for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
      if (row.type_map >> type & 1) pairs.push_back({format, type});
    }
  }
  return pairs;
}

class Written : public testing::TestWithParam<FormatAndType> {};

TEST_P(Written, ComesBack) {
  const auto [format, type] = GetParam();
  for (const auto& [width, height] : {std::pair{1, 1}, {7, 3}, {500, 2}}) {
    const test::Image image = test::random_image(type, width, height, unsigned(type));
    EXPECT_TRUE(fuzz::write_and_compare(image.get(), format, type));
  }
}

// No line is left out when the disk is full, whichever write it is that fails: the file goes away.
TEST_P(Written, IsRemovedWhenTheDiskIsFull) {
  const auto [format, type] = GetParam();
  const test::Image image = test::random_image(type, 500, 400, unsigned(type));
  const auto bytes = test::written(format, image.get()).size();
  for (const auto limit : {bytes * 0, bytes / 2, bytes - 1}) {
    SCOPED_TRACE(limit);
    const test::Limit disk(RLIMIT_FSIZE, limit);
    const test::Scratch scratch;
    const std::string path = scratch.path("a");
    test::Handle file;
    file->file_type = std::uint8_t(type);
    const bool written = ka_img_create(file, path.c_str(), type, format, 500, 400) &&
                         ka_img_image_write(file, image.get());
    EXPECT_FALSE(ka_img_close(file) && written);
    EXPECT_TRUE(file->error == IMG_ERR_WRITE || file->error == IMG_ERR_CLOSE) << file->error;
    EXPECT_EQ(file->os_error, EFBIG);
    EXPECT_FALSE(test::exists(path));
  }
}

// Pictures may lack lines where the format can do without them, but have none too many.
TEST_P(Written, HasAtMostTheLinesOfItsHeight) {
  const auto [format, type] = GetParam();
  for (const int lines : {1, 3}) {
    test::NewFile file(format, type, 4, 2);
    for (int y = 0; y < lines; ++y) EXPECT_EQ(file.write_line(), y < 2);
    EXPECT_EQ(file->error, lines == 3 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    const bool needs_all = format == IMG_FORMAT_JPG || format == IMG_FORMAT_MAP;
    EXPECT_TRUE(file.close() == !needs_all || lines == 3);
    EXPECT_EQ(test::exists(file.path()), lines == 1 && !needs_all);
  }
}

INSTANTIATE_TEST_SUITE_P(Pairs, Written, testing::ValuesIn(writable_pairs()), [](const auto& pair) {
  std::string name = ka_img_format_name(pair.param.format);
  std::ranges::replace(name, '-', '_');
  return name + "_" + std::to_string(pair.param.type);
});

// What headers can hold: sides of 16 bits, tiles that end at such numbers, 32 bits for the bytes.
TEST(Families, SidesThatDoNotFitTheHeaderAreRefused) {
  struct Row {
    int format, width, height, error, os_error;
  };
  std::vector<Row> rows;
  for (const auto& [format, largest] : {std::pair{IMG_FORMAT_RGB, 65535},
                                        {IMG_FORMAT_ALIAS, 65535},
                                        {IMG_FORMAT_TGA, 65535},
                                        {IMG_FORMAT_CT, 65535},
                                        {IMG_FORMAT_IFF, 65536},
                                        {IMG_FORMAT_RLA, 32768},
                                        {IMG_FORMAT_PIC, 65535}}) {
    rows.push_back({format, largest + 1, 1, IMG_ERR_SUBTYPE, EFBIG});
    rows.push_back({format, 1, largest + 1, IMG_ERR_SUBTYPE, EFBIG});
    rows.push_back({format, largest, 1, IMG_ERR_NONE, 0});
  }
  for (const int format : {IMG_FORMAT_TIF, IMG_FORMAT_TIFU, IMG_FORMAT_BMP, IMG_FORMAT_PICTURE}) {
    rows.push_back({format, 40000, 40000, IMG_ERR_SUBTYPE, EFBIG});
  }
  // more than a sub-block, no width, and more than 4 GiB of samples; what the codec does not take
  rows.insert(rows.end(), {{IMG_FORMAT_PICTURE, 262081, 1, IMG_ERR_SUBTYPE, EFBIG},
                           {IMG_FORMAT_PICTURE, 0, 1, IMG_ERR_SUBTYPE, EFBIG},
                           {IMG_FORMAT_PICTURE, 262080, 0x7fffffff, IMG_ERR_SUBTYPE, EFBIG},
                           {IMG_FORMAT_JPG, 65501, 1, IMG_ERR_CREATE, EFBIG},
                           {IMG_FORMAT_JPG, 1, 65501, IMG_ERR_CREATE, EFBIG},
                           {IMG_FORMAT_JPG, 0, 1, IMG_ERR_CREATE, 0}});
  for (const auto& [format, width, height, error, os_error] : rows) {
    SCOPED_TRACE(testing::Message() << format << " " << width << " " << height);
    test::NewFile file(format, IMG_TYPE_RGB, width, height);
    EXPECT_EQ(file.write_line(), error == IMG_ERR_NONE);
    EXPECT_EQ(std::pair(file->error, file->os_error), std::pair(error, os_error));
    EXPECT_TRUE(file.close());
    EXPECT_EQ(test::exists(file.path()), error == IMG_ERR_NONE);
  }
}

// What can be had of a file: the lines up to the first that fails.
struct Outcome {
  bool opened = false;
  int format = 0, height = 0;
  test::Lines lines;
};

constexpr std::int64_t kMostPixels = 100'000;

// Expects an error or all lines, and memory for what the file holds.
Outcome read(const std::string& bytes, int type = IMG_TYPE_FILE) {
  const test::MessageLog log;  // a file with a byte too many is reported
  const fuzz::MemoryFile input(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  const std::size_t before = ka_mem_getsize();
  test::Handle file;
  Outcome outcome{.opened = ka_img_open(file, input.name(), type) != 0, .lines = {}};
  outcome.format = file->format;
  // a line of conversion, the buffers of readers up to the size of the file, tables and maps
  EXPECT_LE(ka_mem_getsize() - before, 1'500'000 + 20 * bytes.size());
  const bool says_why = file->error == IMG_ERR_FORMAT || file->reason[0] != '\0';
  EXPECT_TRUE(outcome.opened || says_why) << file->error;
  if (outcome.opened && std::int64_t{file->width} * file->height <= kMostPixels) {
    outcome.height = file->height;
    const test::Image image = test::make_image(file->type, file->width, 1);
    img_line line{};
    test::point_at(line, image.get(), 0);
    for (int y = 0; y < file->height && ka_img_line_read(file, &line); ++y) {
      outcome.lines.push_back(test::planes_of(image.get(), 0));
    }
  }
  const bool whole = outcome.opened && outcome.lines.size() == std::size_t(outcome.height);
  EXPECT_TRUE(whole || (file->error > IMG_ERR_NONE && file->error <= IMG_ERR_SIZE)) << file->error;
  return outcome;
}

struct Seed {
  std::string name, bytes;
};

std::vector<Seed> seeds() {
  std::vector<Seed> seeds;
  for (const std::string family : kFamilies) {
    for (const auto& entry : std::filesystem::directory_iterator(LUMORA_CORPUS "/" + family)) {
      if (entry.path().extension() == ".case") continue;  // those have a test that knows them
      seeds.push_back({family + "_" + entry.path().stem().string(), test::read_file(entry.path())});
    }
  }
  std::ranges::sort(seeds, {}, &Seed::name);
  return seeds;
}

class SmallFile : public testing::TestWithParam<Seed> {};

// Numbers in text that are cut off are other numbers: such a line counts as one that failed.
TEST_P(SmallFile, GivesNoMoreThanAPrefixHolds) {
  const std::string& whole = GetParam().bytes;
  const Outcome complete = read(whole);
  const bool is_text = complete.format == IMG_FORMAT_PPM && whole.substr(0, 2) != "P6";
  for (std::size_t bytes = 0; bytes < whole.size(); ++bytes) {
    SCOPED_TRACE(bytes);
    Outcome part = read(whole.substr(0, bytes));
    if (!part.opened || part.format != complete.format || part.height != complete.height) continue;
    if (is_text && !part.lines.empty()) part.lines.pop_back();
    ASSERT_LE(part.lines.size(), complete.lines.size());
    EXPECT_TRUE(std::ranges::equal(part.lines, std::span(complete.lines).first(part.lines.size())));
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SmallFile, testing::ValuesIn(seeds()), test::row_name<Seed>);

}  // namespace
