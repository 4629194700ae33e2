// CATIA pictures: what is read of which file, what is refused, the bytes that are written.
#include <gtest/gtest.h>

#include <random>

#include "pictures.h"

namespace {

using test::bytes, test::flat, test::le;

constexpr int kPicture = IMG_FORMAT_PICTURE, kRgb = IMG_TYPE_RGB;
constexpr std::size_t kRecord = 80, kHeader = 1200;

std::string header(std::uint32_t width, std::uint32_t height,
                   std::uint32_t block_samples = 262144) {
  std::string header(kHeader, '\0');
  header.replace(96, 8, "PIXEL   ");
  header.replace(114, 1, "2");
  header.replace(152, 8, "PICTURE ");
  header.replace(968, 4, le(4, block_samples));
  header.replace(1120, 4, le(4, width));
  header.replace(1124, 4, le(4, height));
  header.replace(1128, 4, le(4, 1));
  header.replace(1132, 4, le(4, 10407));
  return header;
}
// A header with other bytes from `at` on.
std::string changed(std::size_t at, const std::string& text) {
  return header(4, 1).replace(at, text.size(), text);
}

std::string sub_block(std::uint32_t length, const std::string& data) {
  std::string block = le(4, length);
  block.resize(kRecord);
  block += data;
  block.resize((block.size() + kRecord - 1) / kRecord * kRecord);
  return block;
}
std::string sub_block(const std::string& data) {
  return sub_block(std::uint32_t(data.size()), data);
}
std::string sub_block(std::initializer_list<int> data) { return sub_block(bytes(data)); }

// One sub-block for each component.
std::string sub_blocks(std::initializer_list<int> red, std::initializer_list<int> green,
                       std::initializer_list<int> blue) {
  return sub_block(red) + sub_block(green) + sub_block(blue);
}

// `count` samples of one value as pairs.
std::string run(std::size_t count, int value) {
  std::string pairs;
  for (; count > 255; count -= 255) pairs += bytes({255, value});
  return pairs + bytes({int(count), value});
}

// More than half the samples of a sub-block: one line in each.
constexpr std::size_t kWide = 131073;

std::string wide_lines(std::initializer_list<int> values) {
  std::string blocks;
  for (const int value : values) blocks += sub_block(run(kWide, value));
  return blocks;
}

// 512 lines of 512 samples are a full sub-block, 511 what is one without pairs: the header tells.
std::string full_sub_blocks(bool in_pairs) {
  std::string file = header(512, 512, in_pairs ? 512 * 512 : 511 * 512);
  for (int component = 1; component <= 3; ++component) {
    if (!in_pairs) file += sub_block(std::string(511 * 512, char(component)));
    file += sub_block(run(in_pairs ? 512 * 512 : 512, component));
  }
  return file;
}
test::Shown shown(const char* name, const std::string& file, const test::Lines& lines) {
  return {name, file, lines};
}
const test::Lines kSquare(512, flat(512, {1, 2, 3}));

const std::vector<test::Shown> kPictures = {
    shown("Plain", header(2, 2) + sub_blocks({1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}),
          {{{3, 4}, {7, 8}, {11, 12}}, {{1, 2}, {5, 6}, {9, 10}}}),
    shown("PairsOverTwoLines", header(3, 2) + sub_blocks({5, 1, 1, 2}, {1, 2, 3, 4, 5, 6}, {6, 7}),
          {{{1, 1, 2}, {4, 5, 6}, {7, 7, 7}}, {{1, 1, 1}, {1, 2, 3}, {7, 7, 7}}}),
    shown("PairsOfNothing",
          header(7, 1) + sub_blocks({0, 9, 7, 1}, {3, 2, 0, 9, 4, 2}, {7, 3, 0, 9}),
          {flat(7, {1, 2, 3})}),
    // 81 bytes take two records
    shown("SamplesAndMoreBehindThem",
          header(2, 1) + sub_block({1, 2, 3}) + sub_block(bytes({3, 4}) + std::string(79, 'x')) +
              sub_block(3, bytes({2, 5})),
          {{{1, 2}, {3, 4}, {2, 5}}}),
    shown("PairsOfSeveralRecords",
          header(30000, 1) + sub_block(run(30000, 1)) + sub_block(run(30000, 2)) +
              sub_block(run(30000, 3)),
          {flat(30000, {1, 2, 3})}),
    shown("SubBlocksOfOneLine", header(kWide, 2, 1) + wide_lines({1, 2, 3, 4, 5, 6}),
          {flat(kWide, {2, 4, 6}), flat(kWide, {1, 3, 5})}),
    shown("BytesBehindTheLastLine", header(1, 1) + sub_blocks({1}, {2}, {3}) + "more",
          {flat(1, {1, 2, 3})}),
    shown("OtherFieldsMayHaveOtherValues",
          header(1, 1, 0).replace(1144, 1, "\1") + sub_blocks({1}, {2}, {3}), {flat(1, {1, 2, 3})}),
    shown("FullSubBlocks", full_sub_blocks(true), kSquare),
    shown("FullSubBlocksWithoutPairs", full_sub_blocks(false), kSquare),
};
TEST(Catia, PicturesAreRead) { test::expect_pictures(kPicture, kRgb, kPictures); }

const std::vector<test::Refusal> kHeaders = {
    {"OtherKind", changed(96, "PIXEL  X"), IMG_ERR_FORMAT},
    {"OtherName", changed(152, "PICTUREX"), IMG_ERR_FORMAT},
    {"Ends", header(4, 1).substr(0, kHeader - 1), IMG_ERR_READ},
    {"OtherClass", changed(114, "3"), IMG_ERR_SUBTYPE},
    {"LargeSubBlocks", changed(968, le(4, 262145)), IMG_ERR_SUBTYPE},
    {"SubBlocksBelowZero", changed(968, le(4, 0xffffffff)), IMG_ERR_SUBTYPE},
    {"NoOne", changed(1128, le(4, 2)), IMG_ERR_SUBTYPE},
    {"OtherCode", changed(1132, le(4, 10408)), IMG_ERR_SUBTYPE},
    {"LargeFlag", changed(1144, le(4, 2)), IMG_ERR_SUBTYPE},
    {"NoZero", changed(1152, le(4, 1)), IMG_ERR_SUBTYPE},
    {"NoWidth", header(0, 1), IMG_ERR_SUBTYPE},
    {"WiderThanASubBlock", header(262145, 1), IMG_ERR_SUBTYPE},
    {"WidthBelowZero", header(0x80000001, 1), IMG_ERR_SUBTYPE},
    {"HeightBelowZero", header(1, 0x80000000), IMG_ERR_SUBTYPE},
};
// Pictures of one line of four samples, whose red is damaged.
std::string damaged(const std::string& red) {
  return header(4, 1) + red + sub_block({1, 2, 3, 4}) + sub_block({1, 2, 3, 4});
}

const std::vector<test::Refusal> kSubBlocks = {
    {"None", header(4, 1), IMG_ERR_READ, 0},
    {"HugeWithoutAny", header(262144, 0x7fffffff), IMG_ERR_READ, 0},
    {"LengthEnds", header(4, 1) + le(4, 4), IMG_ERR_READ, 0},
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
    {"PairBehindTheEnd", header(6, 1) + sub_blocks({6, 1, 1, 1}, {6, 1}, {6, 1}), IMG_ERR_CORRUPT,
     0},
    {"SecondLineIsMissing", header(kWide, 2) + wide_lines({1, 2, 3, 4, 5}), IMG_ERR_READ, 1},
    {"SecondLineIsDamaged",
     header(kWide, 2) + wide_lines({1}) + sub_block({1, 1}) + wide_lines({3, 4, 5, 6}),
     IMG_ERR_CORRUPT, 1},
    {"NoLineBehindTheLast", header(1, 1) + sub_blocks({1}, {2}, {3}), IMG_ERR_READ, 1},
};
TEST(Catia, RefusalsAreTold) {
  for (const auto& refusals : {kHeaders, kSubBlocks}) test::expect_refusals(refusals);
}

TEST(Catia, GivesNoLineBehindADamagedOne) {
  const std::string red = wide_lines({1}) + sub_block({1, 1}) + wide_lines({3});
  EXPECT_EQ(test::line_errors(header(kWide, 3) + red + wide_lines({4, 5, 6, 7, 8, 9})),
            (std::vector<int>{IMG_ERR_NONE, IMG_ERR_CORRUPT, IMG_ERR_CORRUPT}));
}

TEST(Catia, WritesTheseBytes) {
  // full sub-blocks of 87381 lines of 3 samples are 262143 samples
  const std::string start = header(3, 2, 262143).replace(160, 16, "SMS     3 X    2");
  EXPECT_EQ(test::written(kPicture, kRgb,
                          {{{9, 9, 9}, {4, 5, 6}, {7, 7, 7}}, {{8, 9, 9}, {1, 2, 3}, {7, 7, 7}}}),
            start + sub_blocks({1, 8, 5, 9}, {1, 2, 3, 4, 5, 6}, {6, 7}));
  // runs of 255 at most
  EXPECT_EQ(test::written(kPicture, kRgb, {flat(600, {1, 2, 3})}).substr(kHeader),
            sub_blocks({255, 1, 255, 1, 90, 1}, {255, 2, 255, 2, 90, 2}, {255, 3, 255, 3, 90, 3}));
  // only pairs that are shorter than the samples are told from them
  EXPECT_EQ(
      test::written(kPicture, kRgb, {{{1, 1, 2, 2}, {3, 3, 3, 4}, {5, 5, 5, 5}}}).substr(kHeader),
      sub_blocks({1, 1, 2, 2}, {3, 3, 3, 4}, {4, 5}));
  const std::string empty = test::written(kPicture, test::make_image(kRgb, 5, 0).get());
  EXPECT_EQ(empty.size(), kHeader);
  test::expect_picture({"", empty, kPicture, kRgb, {}});
}

// Noise does not fit the records of a sub-block of the full size.
TEST(Catia, PicturesOfAllSizesComeBack) {
  const struct {
    int width, height;
    bool is_noise;              // in blue alone
    std::size_t block_samples;  // of a full sub-block
  } sizes
      [] =
          {
              {512, 512, true, 511 * 512}, {512, 512, false, 512 * 512},
              {512, 511, true, 512 * 512}, {1024, 300, true, 255 * 1024},
              {640, 410, true, 409 * 640},  // 262144 / 640 is 409 and so is 262080 / 640
              {64, 4096, true, 4095 * 64}, {262080, 2, true, 262080},
          };
  for (const auto& [width, height, is_noise, block_samples] : sizes) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    std::mt19937 random(1);
    test::Lines lines(std::size_t(height), flat(std::size_t(width), {1, 2, 3}));
    for (test::Planes& planes : lines) {
      for (std::uint32_t& sample : planes[2]) {
        if (is_noise) sample = std::uint32_t(random()) & 255;
      }
    }
    const std::string file = test::written(kPicture, kRgb, lines);
    EXPECT_EQ(file.substr(968, 4), le(4, std::int64_t(block_samples)));
    test::expect_picture({"", file, kPicture, kRgb, lines});
  }
}

// Lines that were never written are black; there is no room for one too many.
TEST(Catia, HoldsAsManyLinesAsItsHeightSays) {
  for (const int lines : {1, 2, 3}) {
    test::NewFile file(kPicture, kRgb, 1, 2);
    for (std::size_t slot = 0; slot < 3; ++slot) *test::plane(file.line(), slot) = 9;
    for (int y = 0; y < lines; ++y) EXPECT_EQ(file.write_line(), y < 2);
    EXPECT_EQ(file->error, lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_TRUE(file.close());
    EXPECT_EQ(test::exists(file.path()), lines <= 2);
    if (lines > 2) continue;
    const std::uint32_t bottom = lines > 1 ? 9 : 0;
    const test::Lines expected = {flat(1, {bottom, bottom, bottom}), flat(1, {9, 9, 9})};
    test::expect_picture({"", file.contents(), kPicture, kRgb, expected});
  }
}

}  // namespace
