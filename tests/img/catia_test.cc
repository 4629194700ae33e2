// CATIA pictures: what is read of which file, what is refused, the bytes that are written.
#include <errno.h>
#include <gtest/gtest.h>

#include <random>

#include "pictures.h"

namespace {

using test::bytes;

constexpr int kPicture = IMG_FORMAT_PICTURE, kRgb = IMG_TYPE_RGB;
constexpr std::size_t kRecord = 80, kHeader = 1200;

std::string le32(std::uint32_t value) {
  return bytes({int(value & 255), int(value >> 8 & 255), int(value >> 16 & 255), int(value >> 24)});
}

std::string header(std::uint32_t width, std::uint32_t height,
                   std::uint32_t block_samples = 262144) {
  std::string header(kHeader, '\0');
  header.replace(96, 8, "PIXEL   ");
  header.replace(114, 1, "2");
  header.replace(152, 8, "PICTURE ");
  header.replace(968, 4, le32(block_samples));
  header.replace(1120, 4, le32(width));
  header.replace(1124, 4, le32(height));
  header.replace(1128, 4, le32(1));
  header.replace(1132, 4, le32(10407));
  return header;
}
// A header with other bytes from `at` on.
std::string changed(std::size_t at, const std::string& text) {
  return header(4, 1).replace(at, text.size(), text);
}

std::string sub_block(std::uint32_t length, const std::string& data) {
  std::string block = le32(length);
  block.resize(kRecord);
  block += data;
  block.resize((block.size() + kRecord - 1) / kRecord * kRecord);
  return block;
}
std::string sub_block(const std::string& data) {
  return sub_block(std::uint32_t(data.size()), data);
}
std::string sub_block(std::initializer_list<int> data) { return sub_block(bytes(data)); }

// `count` samples of one value as pairs.
std::string run(std::size_t count, int value) {
  std::string pairs;
  for (; count > 255; count -= 255) pairs += bytes({255, value});
  return pairs + bytes({int(count), value});
}

test::Planes flat(std::size_t width, std::uint32_t r, std::uint32_t g, std::uint32_t b) {
  test::Planes planes;
  for (const std::uint32_t value : {r, g, b}) planes.emplace_back(width, value);
  return planes;
}

class CatiaPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(CatiaPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr std::size_t kWide =
    131073;  // more than half the samples of a sub-block: one line in each

std::string wide_lines(std::initializer_list<int> values) {
  std::string blocks;
  for (const int value : values) blocks += sub_block(run(kWide, value));
  return blocks;
}

const std::vector<test::Picture> kPictures = {
    {"Plain",
     header(2, 2) + sub_block({1, 2, 3, 4}) + sub_block({5, 6, 7, 8}) + sub_block({9, 10, 11, 12}),
     kPicture,
     kRgb,
     {{{3, 4}, {7, 8}, {11, 12}}, {{1, 2}, {5, 6}, {9, 10}}}},
    {"PairsOverTwoLines",
     header(3, 2) + sub_block({5, 1, 1, 2}) + sub_block({1, 2, 3, 4, 5, 6}) + sub_block({6, 7}),
     kPicture,
     kRgb,
     {{{1, 1, 2}, {4, 5, 6}, {7, 7, 7}}, {{1, 1, 1}, {1, 2, 3}, {7, 7, 7}}}},
    {"PairsOfNothing",
     header(7, 1) + sub_block({0, 9, 7, 1}) + sub_block({3, 2, 0, 9, 4, 2}) +
         sub_block({7, 3, 0, 9}),
     kPicture,
     kRgb,
     {flat(7, 1, 2, 3)}},
    // 81 bytes take two records
    {"SamplesAndMoreBehindThem",
     header(2, 1) + sub_block({1, 2, 3}) + sub_block(bytes({3, 4}) + std::string(79, 'x')) +
         sub_block(3, bytes({2, 5})),
     kPicture,
     kRgb,
     {{{1, 2}, {3, 4}, {2, 5}}}},
    {"PairsOfSeveralRecords",
     header(30000, 1) + sub_block(run(30000, 1)) + sub_block(run(30000, 2)) +
         sub_block(run(30000, 3)),
     kPicture,
     kRgb,
     {flat(30000, 1, 2, 3)}},
    {"SubBlocksOfOneLine",
     header(kWide, 2, 1) + wide_lines({1, 2, 3, 4, 5, 6}),
     kPicture,
     kRgb,
     {flat(kWide, 2, 4, 6), flat(kWide, 1, 3, 5)}},
    {"BytesBehindTheLastLine",
     header(1, 1) + sub_block({1}) + sub_block({2}) + sub_block({3}) + "more",
     kPicture,
     kRgb,
     {flat(1, 1, 2, 3)}},
    {"OtherFieldsMayHaveOtherValues",
     header(1, 1, 0).replace(1144, 1, "\1") + sub_block({1}) + sub_block({2}) + sub_block({3}),
     kPicture,
     kRgb,
     {flat(1, 1, 2, 3)}},
};
INSTANTIATE_TEST_SUITE_P(Files, CatiaPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

// 512 lines of 512 samples are a full sub-block, 511 what is one without pairs: the header tells.
TEST(Catia, ReadsFullSubBlocksOfEitherSize) {
  std::string one = header(512, 512, 512 * 512), two = header(512, 512, 511 * 512);
  for (int component = 1; component <= 3; ++component) {
    one += sub_block(run(512 * 512, component));
    two += sub_block(std::string(511 * 512, char(component))) + sub_block(run(512, component));
  }
  const test::Lines lines(512, flat(512, 1, 2, 3));
  test::expect_picture({"", one, kPicture, kRgb, lines});
  test::expect_picture({"", two, kPicture, kRgb, lines});
}

class CatiaRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(CatiaRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kHeaders = {
    {"OtherKind", changed(96, "PIXEL  X"), IMG_ERR_FORMAT},
    {"OtherName", changed(152, "PICTUREX"), IMG_ERR_FORMAT},
    {"Ends", header(4, 1).substr(0, kHeader - 1), IMG_ERR_READ},
    {"OtherClass", changed(114, "3"), IMG_ERR_SUBTYPE},
    {"LargeSubBlocks", changed(968, le32(262145)), IMG_ERR_SUBTYPE},
    {"SubBlocksBelowZero", changed(968, le32(0xffffffff)), IMG_ERR_SUBTYPE},
    {"NoOne", changed(1128, le32(2)), IMG_ERR_SUBTYPE},
    {"OtherCode", changed(1132, le32(10408)), IMG_ERR_SUBTYPE},
    {"LargeFlag", changed(1144, le32(2)), IMG_ERR_SUBTYPE},
    {"NoZero", changed(1152, le32(1)), IMG_ERR_SUBTYPE},
    {"NoWidth", header(0, 1), IMG_ERR_SUBTYPE},
    {"WiderThanASubBlock", header(262145, 1), IMG_ERR_SUBTYPE},
    {"WidthBelowZero", header(0x80000001, 1), IMG_ERR_SUBTYPE},
    {"HeightBelowZero", header(1, 0x80000000), IMG_ERR_SUBTYPE},
};
INSTANTIATE_TEST_SUITE_P(Headers, CatiaRefusal, testing::ValuesIn(kHeaders),
                         test::row_name<test::Refusal>);

// Pictures of one line of four samples, whose red is damaged.
std::string damaged(const std::string& red) {
  return header(4, 1) + red + sub_block({1, 2, 3, 4}) + sub_block({1, 2, 3, 4});
}

const std::vector<test::Refusal> kSubBlocks = {
    {"None", header(4, 1), IMG_ERR_READ, 0},
    {"HugeWithoutAny", header(262144, 0x7fffffff), IMG_ERR_READ, 0},
    {"LengthEnds", header(4, 1) + le32(4), IMG_ERR_READ, 0},
    {"LastOneIsMissing", header(4, 1) + sub_block({4, 1}) + sub_block({4, 1}), IMG_ERR_READ, 0},
    {"PaddingEnds", damaged(sub_block({4, 1})).substr(0, kHeader + 6 * kRecord - 1), IMG_ERR_READ,
     0},
    {"LengthPastTheFile", damaged(sub_block(262080, bytes({4, 1}))), IMG_ERR_READ, 0},
    {"TooManyRecords", damaged(sub_block(262081, bytes({4, 1}))), IMG_ERR_CORRUPT, 0},
    {"LengthBelowZero", damaged(sub_block(0xffffffff, bytes({4, 1}))), IMG_ERR_CORRUPT, 0},
    {"NoData", damaged(sub_block(0, "")), IMG_ERR_CORRUPT, 0},
    {"PairPastTheEnd", damaged(sub_block({5, 1})), IMG_ERR_CORRUPT, 0},
    {"PairsEndEarly", damaged(sub_block({3, 1})), IMG_ERR_CORRUPT, 0},
    {"HalfAPair", damaged(sub_block({4, 1, 0})), IMG_ERR_CORRUPT, 0},
    {"PairBehindTheEnd",
     header(6, 1) + sub_block({6, 1, 1, 1}) + sub_block({6, 1}) + sub_block({6, 1}),
     IMG_ERR_CORRUPT, 0},
    {"SecondLineIsMissing", header(kWide, 2) + wide_lines({1, 2, 3, 4, 5}), IMG_ERR_READ, 1},
    {"SecondLineIsDamaged",
     header(kWide, 2) + wide_lines({1}) + sub_block({1, 1}) + wide_lines({3, 4, 5, 6}),
     IMG_ERR_CORRUPT, 1},
};
INSTANTIATE_TEST_SUITE_P(SubBlocks, CatiaRefusal, testing::ValuesIn(kSubBlocks),
                         test::row_name<test::Refusal>);

TEST(Catia, GivesNoLineBehindADamagedOne) {
  const test::Scratch scratch;
  const std::string red = wide_lines({1}) + sub_block({1, 1}) + wide_lines({3});
  const std::string path =
      scratch.write("a", header(kWide, 3) + red + wide_lines({4, 5, 6, 7, 8, 9}));
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  for (int y = 1; y < 3; ++y) {
    EXPECT_FALSE(ka_img_line_read(file, line.get()));
    EXPECT_EQ(file->error, IMG_ERR_CORRUPT);
  }
}

TEST(Catia, HasNoLineBehindTheLast) {
  const test::Scratch scratch;
  const std::string path =
      scratch.write("a", header(1, 1) + sub_block({1}) + sub_block({2}) + sub_block({3}));
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_FALSE(ka_img_line_read(file, line.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
}

// Full sub-blocks of 87381 lines of 3 samples are 262143 samples.
TEST(Catia, WritesTheseBytes) {
  const std::string start = header(3, 2, 262143).replace(160, 16, "SMS     3 X    2");
  const test::Image image = test::make_picture(
      kRgb, 3, {{{9, 9, 9}, {4, 5, 6}, {7, 7, 7}}, {{8, 9, 9}, {1, 2, 3}, {7, 7, 7}}});
  EXPECT_EQ(test::written(kPicture, image.get()),
            start + sub_block({1, 8, 5, 9}) + sub_block({1, 2, 3, 4, 5, 6}) + sub_block({6, 7}));
}

TEST(Catia, WritesRunsOf255) {
  const test::Image image = test::make_picture(kRgb, 600, {flat(600, 1, 2, 3)});
  EXPECT_EQ(test::written(kPicture, image.get()).substr(kHeader),
            sub_block({255, 1, 255, 1, 90, 1}) + sub_block({255, 2, 255, 2, 90, 2}) +
                sub_block({255, 3, 255, 3, 90, 3}));
}

// Only pairs that are shorter than the samples are told from them.
TEST(Catia, WritesSamplesAsTheyAreWherePairsAreNotShorter) {
  const test::Image image =
      test::make_picture(kRgb, 4, {{{1, 1, 2, 2}, {3, 3, 3, 4}, {5, 5, 5, 5}}});
  EXPECT_EQ(test::written(kPicture, image.get()).substr(kHeader),
            sub_block({1, 1, 2, 2}) + sub_block({3, 3, 3, 4}) + sub_block({4, 5}));
}

struct Size {
  const char* name;
  int width, height;
  bool is_noise;
  std::size_t block_samples;  // of a full sub-block
};

// Noise does not fit the records of a sub-block of the full size. `is_noise` is said of blue alone.
class CatiaSize : public testing::TestWithParam<Size> {};
TEST_P(CatiaSize, ComesBack) {
  const auto& [name, width, height, is_noise, block_samples] = GetParam();
  std::mt19937 random(1);
  test::Lines lines(std::size_t(height), flat(std::size_t(width), 1, 2, 3));
  for (test::Planes& planes : lines) {
    for (std::uint32_t& sample : planes[2]) {
      if (is_noise) sample = std::uint32_t(random()) & 255;
    }
  }
  const test::Image image = test::make_picture(kRgb, width, lines);
  const std::string file = test::written(kPicture, image.get());
  EXPECT_EQ(file.substr(968, 4), le32(std::uint32_t(block_samples)));
  test::expect_picture({"", file, kPicture, kRgb, lines});
}

const std::vector<Size> kSizes = {
    {"Noise512", 512, 512, true, 511 * 512},
    {"Flat512", 512, 512, false, 512 * 512},
    {"NoiseOfOneSubBlock", 512, 511, true, 512 * 512},
    {"NoiseOf1024Columns", 1024, 300, true, 255 * 1024},
    // 262144 / 640 is 409 and so is 262080 / 640
    {"NoiseOf640Columns", 640, 410, true, 409 * 640},
    {"NoiseOf64Columns", 64, 4096, true, 4095 * 64},
    {"WidestNoise", 262080, 2, true, 262080},
};
INSTANTIATE_TEST_SUITE_P(Sizes, CatiaSize, testing::ValuesIn(kSizes), test::row_name<Size>);

TEST(Catia, RefusesSidesThatItCannotHold) {
  constexpr int most = 0x7fffffff;
  // with the third size the samples pass 4 GiB
  for (const auto& [width, height] : {std::pair{262081, 1}, {0, 1}, {262080, most}}) {
    const test::Scratch scratch;
    test::Handle file;
    file->file_type = IMG_TYPE_RGB;
    ASSERT_TRUE(ka_img_create(file, scratch.path("a").c_str(), kRgb, kPicture, width, height));
    const test::Line line(ka_img_line_alloc(file));
    EXPECT_FALSE(ka_img_line_write(file, line.get()));
    EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
    EXPECT_EQ(file->os_error, EFBIG);
    EXPECT_EQ(ka_img_close(file), 1);
  }
}

// Lines that were never written are black; there is no room for one too many.
TEST(Catia, HoldsAsManyLinesAsItsHeightSays) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a");
  for (const int lines : {1, 2, 3}) {
    test::Handle file;
    file->file_type = IMG_TYPE_RGB;
    ASSERT_TRUE(ka_img_create(file, path.c_str(), kRgb, kPicture, 1, 2));
    const test::Line line(ka_img_line_alloc(file));
    for (std::size_t slot = 0; slot < 3; ++slot) *test::plane(line.get(), slot) = 9;
    for (int y = 0; y < lines; ++y) {
      EXPECT_EQ(ka_img_line_write(file, line.get()) != 0, y < 2);
    }
    EXPECT_EQ(file->error, lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_EQ(ka_img_close(file), 1);
    EXPECT_EQ(test::exists(path), lines <= 2);
    if (lines > 2) continue;
    const std::uint32_t bottom = lines > 1 ? 9 : 0;
    test::expect_picture({"",
                          test::read_file(path),
                          kPicture,
                          kRgb,
                          {flat(1, bottom, bottom, bottom), flat(1, 9, 9, 9)}});
  }
}

TEST(Catia, KeepsAPictureWithoutLines) {
  const test::Image image = test::make_image(kRgb, 5, 0);
  const std::string file = test::written(kPicture, image.get());
  EXPECT_EQ(file.size(), kHeader);
  test::expect_picture({"", file, kPicture, kRgb, {}});
}

}  // namespace
