// What all families of formats have in common: every picture comes back, and damaged files and full
// disks are reported.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/trans.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <span>
#include <tuple>

#include "imgcall.h"
#include "pictures.h"

namespace {

// Families with small files in the folders of the fuzz targets.
constexpr const char* kFamilies[] = {"alias", "bmp", "catia", "ct", "hdr", "iff", "jpg", "lwi",
                                     "map",   "pic", "ppm",   "ps", "rgb", "rla", "tga", "tif"};

struct FormatAndType {
  int format, type;
};

// Formats that take lines and keep none of them; Quantel frames have their own size and samples.
bool keeps_nothing(int format) { return format == IMG_FORMAT_NULL || format == IMG_FORMAT_LWI; }
bool is_frame(int format) { return format == IMG_FORMAT_QNTPAL || format == IMG_FORMAT_QNTNTSC; }

std::vector<FormatAndType> writable_pairs() {
  std::vector<FormatAndType> pairs;
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    const ka::img_format_row& row = ka::img_format_at(format);
    if (!row.driver.write || keeps_nothing(format)) continue;
    for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
      if (row.type_map >> type & 1) pairs.push_back({format, type});
    }
  }
  return pairs;
}

// The type that a written file is read as: some formats hold fewer types than they are given.
int type_read(const FormatAndType& pair) {
  if (pair.format == IMG_FORMAT_MAP) return pair.type;
  const bool keeps_exponents = pair.format == IMG_FORMAT_PPM || pair.format == IMG_FORMAT_CTH ||
                               pair.format == IMG_FORMAT_HDR;
  if (pair.type == IMG_TYPE_RGBE && !keeps_exponents) return IMG_TYPE_RGBA;
  if (pair.format == IMG_FORMAT_BMP) return IMG_TYPE_RGBA;
  if (pair.format == IMG_FORMAT_RGB && pair.type == IMG_TYPE_RGB_FP) return IMG_TYPE_RGB_16;
  if (pair.format == IMG_FORMAT_PPM && pair.type == IMG_TYPE_RGB_FP) return IMG_TYPE_RGBE;
  if (pair.format == IMG_FORMAT_PPM && pair.type == IMG_TYPE_RGB_16) return IMG_TYPE_RGB;
  return pair.type == IMG_TYPE_VTS ? IMG_TYPE_VTA : pair.type;
}

// Random pixels. Floats are numbers, and of shared exponents the red mantissa is the largest.
test::Image random_picture(int type, int width, int height) {
  std::mt19937 random(unsigned(type + 1));
  const test::Image blank = test::make_image(type, width, height);
  test::Lines lines = test::lines_of(blank.get());
  for (test::Planes& planes : lines) {
    for (std::size_t c = 0; c < planes.size(); ++c) {
      for (std::uint32_t& sample : planes[c]) {
        sample = std::uint32_t(random());
        if (ka_img_nbits[type] <= 16) sample &= (1U << std::max(ka_img_nbits[type], 8)) - 1;
        if (ka_img_nbits[type] == 32) sample &= 0xbfffffff;  // below 2
        if (type == IMG_TYPE_RGBE)
          sample = c == 0 ? sample | 128 : c == 3 ? 60 + sample / 2 : sample;
      }
    }
  }
  return test::make_picture(type, width, lines);
}

// Depths in tiles are for other programs. RLA pictures of one column or one line do not count as
// such.
bool is_read_back(const FormatAndType& pair, int width, int height) {
  if (pair.format == IMG_FORMAT_RLA || pair.format == IMG_FORMAT_RLB)
    return width > 1 && height > 1;
  return pair.format != IMG_FORMAT_IFF || pair.type != IMG_TYPE_Z;
}

class Written : public testing::TestWithParam<FormatAndType> {};

TEST_P(Written, ComesBack) {
  const auto [format, type] = GetParam();
  if (is_frame(format)) return;
  const int read_type = type_read(GetParam());
  for (const auto& [width, height] : {std::pair{1, 1}, {7, 3}, {500, 2}}) {
    const test::Scratch scratch;
    const test::Image image = random_picture(type, width, height);
    ASSERT_EQ(test::write_image(scratch.path("a"), format, image.get()), IMG_ERR_NONE);
    if (format == IMG_FORMAT_ZPIC) continue;  // files are written only
    int error = IMG_ERR_NONE;
    const test::Image read = test::read_image(scratch.path("a"), IMG_TYPE_FILE, &error);
    ASSERT_EQ(error, is_read_back(GetParam(), width, height) ? IMG_ERR_NONE : IMG_ERR_FORMAT);
    if (!read) continue;
    EXPECT_EQ(std::tuple(read->type, read->width, read->height),
              std::tuple(read_type, width, height));
    if (ka_img_nbits[type] != ka_img_nbits[read_type]) continue;
    if (format == IMG_FORMAT_JPG) continue;  // its losses are bounded in jpg_test.cc
    test::Lines lines = test::lines_of(read.get());
    for (test::Planes& planes : lines) planes.resize(std::size_t(image->components));  // no alpha
    EXPECT_EQ(lines, test::lines_of(image.get()));
  }
}

// No line is left out when the disk is full, whichever write it is that fails: the file goes away.
TEST_P(Written, IsRemovedWhenTheDiskIsFull) {
  const auto [format, type] = GetParam();
  const test::Image image = random_picture(type, 500, 400);
  const auto bytes = test::written(format, image.get()).size();
  for (const auto limit : {bytes * 0, bytes / 2, bytes - 1}) {
    SCOPED_TRACE(limit);
    const test::Limit disk(RLIMIT_FSIZE, limit);
    const test::Scratch scratch;
    test::Handle file;
    file->file_type = std::uint8_t(type);
    const bool written = ka_img_create(file, scratch.path("a").c_str(), type, format, 500, 400) &&
                         ka_img_image_write(file, image.get());
    EXPECT_FALSE(ka_img_close(file) && written);
    EXPECT_TRUE(file->error == IMG_ERR_WRITE || file->error == IMG_ERR_CLOSE) << file->error;
    EXPECT_EQ(file->os_error, EFBIG);
    EXPECT_FALSE(test::exists(scratch.path("a")));
  }
}

TEST_P(Written, HasNoLineBeyondItsHeight) {
  const auto [format, type] = GetParam();
  test::NewFile file(format, type, 4, 2);
  for (int y = 0; y < 2; ++y) ASSERT_TRUE(file.write_line());
  EXPECT_FALSE(file.write_line());
  EXPECT_EQ(file->error, IMG_ERR_WRITE);
  EXPECT_FALSE(test::exists(file.path()));
}

TEST_P(Written, LacksLinesWithoutAnErrorOfItsClose) {
  const auto [format, type] = GetParam();
  test::NewFile file(format, type, 4, 2);
  ASSERT_TRUE(file.write_line());
  EXPECT_EQ(file.close(), format != IMG_FORMAT_JPG && format != IMG_FORMAT_MAP);
}

// However many lines are passed: what is written is a header, if the format can do without lines.
TEST_P(Written, HasOneHeaderAndNoLineWithoutHeight) {
  const auto [format, type] = GetParam();
  const auto bytes_after = [format = format, type = type](int lines) {
    test::NewFile file(format, type, 4, 0);
    for (int i = 0; i < lines; ++i) (void)file.write_line();
    (void)file.close();
    return test::exists(file.path()) ? file.contents().size() : 0;
  };
  const std::size_t once = bytes_after(1), live = ka_mem_getsize();
  EXPECT_EQ(bytes_after(3), once);
  EXPECT_EQ(ka_mem_getsize(), live);
}

// Where the format can do without columns.
TEST_P(Written, ComesBackWithoutColumns) {
  const auto [format, type] = GetParam();
  test::NewFile out(format, type, 0, 2);
  if (is_frame(format) || !out.write_line()) return;
  ASSERT_TRUE(out.write_line() && out.close());
  test::Handle in;
  if (!ka_img_open(in, out.path().c_str(), IMG_TYPE_FILE)) return;
  img_line line{};
  for (int y = 0; y < 2; ++y) EXPECT_TRUE(ka_img_line_read(in, &line));
}

TEST(Families, FormatsThatKeepNothingTakeAnyNumberOfLines) {
  for (const int format : {IMG_FORMAT_NULL, IMG_FORMAT_LWI}) {
    test::NewFile file(format, IMG_TYPE_RGB, 4, 1);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(file.write_line());
  }
}

INSTANTIATE_TEST_SUITE_P(Pairs, Written, testing::ValuesIn(writable_pairs()), [](const auto& pair) {
  std::string name = ka_img_format_name(pair.param.format);
  std::ranges::replace(name, '-', '_');
  return name + "_" + std::to_string(pair.param.type);
});

void expect_sides(int format, int width, int height, int error, int os_error = EFBIG) {
  SCOPED_TRACE(testing::Message() << format << " " << width << " " << height);
  test::NewFile file(format, IMG_TYPE_RGB, width, height);
  EXPECT_EQ(file.write_line(), error == IMG_ERR_NONE);
  EXPECT_EQ(file->error, error);
  EXPECT_EQ(file->os_error, os_error);
  EXPECT_TRUE(file.close());
  EXPECT_EQ(test::exists(file.path()), error == IMG_ERR_NONE);
}

// What headers can hold: sides of 16 bits, tiles that end at such numbers, 32 bits for the bytes.
TEST(Families, SidesThatDoNotFitTheHeaderAreRefused) {
  for (const auto& [format, largest] : {std::pair{IMG_FORMAT_RGB, 65535},
                                        {IMG_FORMAT_ALIAS, 65535},
                                        {IMG_FORMAT_TGA, 65535},
                                        {IMG_FORMAT_CT, 65535},
                                        {IMG_FORMAT_IFF, 65536},
                                        {IMG_FORMAT_RLA, 32768},
                                        {IMG_FORMAT_PIC, 65535}}) {
    expect_sides(format, largest + 1, 1, IMG_ERR_SUBTYPE);
    expect_sides(format, 1, largest + 1, IMG_ERR_SUBTYPE);
    expect_sides(format, largest, 1, IMG_ERR_NONE, 0);
  }
  for (const int format : {IMG_FORMAT_TIF, IMG_FORMAT_TIFU, IMG_FORMAT_BMP, IMG_FORMAT_PICTURE}) {
    expect_sides(format, 40000, 40000, IMG_ERR_SUBTYPE);
  }
  // more than a sub-block, no width, and more than 4 GiB of samples
  expect_sides(IMG_FORMAT_PICTURE, 262081, 1, IMG_ERR_SUBTYPE);
  expect_sides(IMG_FORMAT_PICTURE, 0, 1, IMG_ERR_SUBTYPE);
  expect_sides(IMG_FORMAT_PICTURE, 262080, 0x7fffffff, IMG_ERR_SUBTYPE);
  // what the codec does not take
  expect_sides(IMG_FORMAT_JPG, 65501, 1, IMG_ERR_CREATE);
  expect_sides(IMG_FORMAT_JPG, 1, 65501, IMG_ERR_CREATE);
  expect_sides(IMG_FORMAT_JPG, 0, 1, IMG_ERR_CREATE, 0);
}

// What can be had of a file: the lines up to the first that fails.
struct Outcome {
  bool opened = false;
  int format = 0, error = 0, height = 0;
  std::size_t memory = 0;  // bytes that the open handle holds, lines of the caller's not counted
  test::Lines lines;
};

constexpr std::int64_t kMostPixels = 100'000;

Outcome outcome_of(const std::string& path, int type) {
  const std::size_t before = ka_mem_getsize();
  Outcome outcome;
  test::Handle file;
  outcome.opened = ka_img_open(file, path.c_str(), type) != 0;
  outcome.memory = ka_mem_getsize() - before;
  outcome.format = file->format;
  const bool says_why = file->error == IMG_ERR_FORMAT || file->reason[0] != '\0';
  EXPECT_TRUE(outcome.opened || says_why) << file->error;
  if (outcome.opened && std::int64_t{file->width} * file->height <= kMostPixels) {
    outcome.height = file->height;
    img_file shape = *file;
    shape.height = 1;
    const test::Image image(ka_img_image_alloc(&shape));
    img_line line{};
    test::point_at(line, image.get(), 0);
    for (int y = 0; y < file->height && ka_img_line_read(file, &line); ++y) {
      outcome.lines.push_back(test::planes_of(image.get(), 0));
    }
  }
  outcome.error = file->error;
  return outcome;
}

// Either an error or all lines, and memory for what the file holds.
void expect_sound(const Outcome& outcome, std::size_t file_bytes) {
  const bool whole = outcome.opened && outcome.lines.size() == std::size_t(outcome.height);
  EXPECT_TRUE(whole || (outcome.error > IMG_ERR_NONE && outcome.error <= IMG_ERR_SIZE))
      << outcome.error;
  // a line of conversion, the buffers of readers up to the size of the file, tables and maps
  EXPECT_LE(outcome.memory, 1'500'000 + 20 * file_bytes);
}

struct Seed {
  std::string name, bytes;
};

std::vector<Seed> seeds() {
  std::vector<Seed> seeds;
  for (const char* const family : kFamilies) {
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(LUMORA_CORPUS "/") + family)) {
      if (entry.path().extension() == ".case") continue;  // those have a test that knows them
      std::string name = std::string(family) + "_" + entry.path().stem().string();
      seeds.push_back({std::move(name), test::read_file(entry.path())});
    }
  }
  std::ranges::sort(seeds, {}, &Seed::name);
  return seeds;
}

// Thousands of files: they stay in memory.
Outcome read(const std::string& bytes, int type = IMG_TYPE_FILE) {
  const test::MessageLog log;  // a file with a byte too many is reported
  const int file = memfd_create("small", MFD_CLOEXEC);
  EXPECT_EQ(write(file, bytes.data(), bytes.size()), ssize_t(bytes.size()));
  Outcome outcome = outcome_of("/proc/self/fd/" + std::to_string(file), type);
  close(file);
  return outcome;
}

class SmallFile : public testing::TestWithParam<Seed> {};

// Numbers in text that are cut off are other numbers: such a line counts as one that failed.
TEST_P(SmallFile, GivesNoMoreThanAPrefixHolds) {
  const std::string& whole = GetParam().bytes;
  const Outcome complete = read(whole);
  expect_sound(complete, whole.size());
  const bool is_text = complete.format == IMG_FORMAT_PPM && whole.substr(0, 2) != "P6";
  for (std::size_t bytes = 0; bytes < whole.size(); ++bytes) {
    SCOPED_TRACE(bytes);
    Outcome part = read(whole.substr(0, bytes));
    expect_sound(part, bytes);
    if (!part.opened || part.format != complete.format || part.height != complete.height) continue;
    if (is_text && !part.lines.empty()) part.lines.pop_back();
    ASSERT_LE(part.lines.size(), complete.lines.size());
    EXPECT_TRUE(std::ranges::equal(part.lines, std::span(complete.lines).first(part.lines.size())));
  }
}

// Read as rgba as well, so that lines are converted.
TEST_P(SmallFile, MayHaveAnyByteInItsHeader) {
  const std::string& whole = GetParam().bytes;
  (void)read(whole, IMG_TYPE_RGBA);  // the thread's tables are laid out
  ka_context_mem(KA_IMG);            // and its settings
  const std::size_t live = ka_mem_getsize();
  for (std::size_t at = 0; at < std::min<std::size_t>(whole.size(), 128); ++at) {
    for (const int value : {0, 127, 128, 255}) {
      SCOPED_TRACE(std::to_string(at) + " is " + std::to_string(value));
      std::string damaged = whole;
      damaged[at] = char(value);
      expect_sound(read(damaged), whole.size());
      expect_sound(read(damaged, IMG_TYPE_RGBA), whole.size());
    }
  }
  EXPECT_EQ(ka_mem_getsize(), live);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SmallFile, testing::ValuesIn(seeds()), test::row_name<Seed>);

}  // namespace
