// CATIA pictures: what is read of which file, what is refused, the bytes that are written.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "pictures.h"

namespace {

using test::bytes;
using test::flat;
using test::le;

constexpr int kPicture = IMG_FORMAT_PICTURE, kRgb = IMG_TYPE_RGB;
constexpr std::size_t kRecord = 80, kHeader = 1200;

std::string header(std::int64_t width, std::int64_t height, std::int64_t samples = 262144) {
  std::string header(kHeader, '\0');
  header.replace(96, 8, "PIXEL   ").replace(114, 1, "2").replace(152, 8, "PICTURE ");
  header.replace(968, 4, le(4, samples)).replace(1120, 8, le(4, width) + le(4, height));
  return header.replace(1128, 8, le(4, 1) + le(4, 10407));
}
// A header with other bytes from `at` on.
std::string changed(std::size_t at, const std::string& text) {
  return header(4, 1).replace(at, text.size(), text);
}

std::string block(std::size_t length, const std::string& data) {
  std::string block = le(4, std::int64_t(length)) + std::string(kRecord - 4, '\0') + data;
  block.resize((block.size() + kRecord - 1) / kRecord * kRecord);
  return block;
}
std::string block(const std::string& data) { return block(data.size(), data); }
std::string block(std::initializer_list<int> data) { return block(bytes(data)); }

// Sub-blocks of `count` samples of one value as pairs.
std::string runs(std::size_t count, std::initializer_list<int> values) {
  std::string blocks;
  for (const int value : values) {
    std::string pairs;
    for (std::size_t left = count; left > 0; left -= std::min<std::size_t>(left, 255)) {
      pairs += bytes({int(std::min<std::size_t>(left, 255)), value});
    }
    blocks += block(pairs);
  }
  return blocks;
}

// More than half the samples of a sub-block: one line in each.
constexpr std::size_t kWide = 131073;

const std::vector<test::Shown> kPictures = {
    {"Plain",
     header(2, 2) + block({1, 2, 3, 4}) + block({5, 6, 7, 8}) + block({9, 8, 7, 6}),
     {{{3, 4}, {7, 8}, {7, 6}}, {{1, 2}, {5, 6}, {9, 8}}}},
    {"PairsOverTwoLines",
     header(3, 2) + block({5, 1, 1, 2}) + block({6, 5}) + block({6, 6}),
     {{{1, 1, 2}, {5, 5, 5}, {6, 6, 6}}, flat(3, {1, 5, 6})}},
    {"PairsOfNothing",
     header(7, 1) + block({0, 9, 7, 1}) + block({3, 2, 0, 9, 4, 2}) + block({7, 3, 0, 9}),
     {flat(7, {1, 2, 3})}},
    {"SubBlocksOfOneLine",
     header(kWide, 2, 1) + runs(kWide, {1, 2, 3, 4, 5, 6}),
     {flat(kWide, {2, 4, 6}), flat(kWide, {1, 3, 5})}},
    {"OtherFields",
     header(4, 1, 0).replace(1144, 1, "\1") + runs(4, {1, 2, 3}) + "more",
     {flat(4, {1, 2, 3})}},
};
TEST(Catia, PicturesAreRead) { test::expect_pictures(kPicture, kRgb, kPictures); }

// Pictures of one line of four samples, whose red is damaged.
std::string damaged(const std::string& red) { return header(4, 1) + red + runs(4, {1, 2}); }

const std::string kSecondIsDamaged =
    header(kWide, 3) + runs(kWide, {1}) + block({1, 1}) + runs(kWide, {3, 4, 5, 6, 7, 8, 9});

const std::vector<test::Refusal> kRefusals = {
    {"OtherName", changed(152, "PICTUREX"), IMG_ERR_FORMAT},
    {"OtherClass", changed(114, "3"), IMG_ERR_SUBTYPE},
    {"NoZero", changed(1152, le(4, 1)), IMG_ERR_SUBTYPE},
    {"WiderThanASubBlock", header(262145, 1), IMG_ERR_SUBTYPE},
    {"HeightBelowZero", header(1, 0x80000000), IMG_ERR_SUBTYPE},
    {"HugeWithoutAny", header(262144, 0x7fffffff), IMG_ERR_READ, 0},
    {"LastOneIsMissing", header(4, 1) + runs(4, {1, 2}), IMG_ERR_READ, 0},
    {"PaddingEnds", damaged(runs(4, {1})).substr(0, kHeader + 6 * kRecord - 1), IMG_ERR_READ, 0},
    {"TooManyRecords", damaged(block(262081, bytes({4, 1}))), IMG_ERR_CORRUPT, 0},
    {"NoData", damaged(block(0, "")), IMG_ERR_CORRUPT, 0},
    {"PairPastTheEnd", damaged(block({5, 1})), IMG_ERR_CORRUPT, 0},
    {"PairsEndEarly", damaged(block({3, 1})), IMG_ERR_CORRUPT, 0},
    {"PairBehindTheEnd", header(6, 1) + block({6, 1, 1, 1}) + runs(6, {1, 1}), IMG_ERR_CORRUPT, 0},
    {"NoLineBehindTheLast", header(4, 1) + runs(4, {1, 2, 3}), IMG_ERR_READ, 1},
};
TEST(Catia, RefusalsAreTold) { test::expect_refusals(kRefusals); }

TEST(Catia, GivesNoLineBehindADamagedOne) {
  EXPECT_EQ(test::line_errors(kSecondIsDamaged),
            (std::vector<int>{IMG_ERR_NONE, IMG_ERR_CORRUPT, IMG_ERR_CORRUPT}));
}

// Full sub-blocks of 87381 lines of 3 samples are 262143 samples.
TEST(Catia, WritesTheseBytes) {
  const test::Lines lines = {{{9, 9, 9}, {4, 5, 6}, {7, 7, 7}}, {{8, 9, 9}, {1, 2, 3}, {7, 7, 7}}};
  EXPECT_EQ(test::written(kPicture, kRgb, lines),
            header(3, 2, 262143).replace(160, 16, "SMS     3 X    2") + block({1, 8, 5, 9}) +
                block({1, 2, 3, 4, 5, 6}) + block({6, 7}));
  EXPECT_EQ(test::written(kPicture, kRgb, {flat(600, {1, 2, 3})}).substr(kHeader),
            runs(600, {1, 2, 3}));
  // only pairs that are shorter than the samples are told from them
  const test::Lines mixed = {{{1, 1, 2, 2}, {3, 3, 3, 4}, {5, 5, 5, 5}}};
  EXPECT_EQ(test::written(kPicture, kRgb, mixed).substr(kHeader),
            block({1, 1, 2, 2}) + block({3, 3, 3, 4}) + block({4, 5}));
}

// Noise, in blue, does not fit the records of a sub-block of the full size: 512 lines of 512 samples
// are one, 511 what is one without pairs. The header tells.
TEST(Catia, SubBlocksAreOfEitherSize) {
  constexpr struct {
    int width, height, mask, samples;  // of a full sub-block
  } kSizes[] = {{512, 512, 255, 511 * 512}, {512, 512, 0, 512 * 512},   {512, 511, 255, 512 * 512},
                {640, 410, 255, 409 * 640}, {64, 4096, 255, 4095 * 64}, {262080, 2, 255, 262080}};
  for (const auto& [width, height, mask, samples] : kSizes) {
    std::mt19937 random(1);
    test::Lines lines(std::size_t(height), flat(std::size_t(width), {1, 2, 3}));
    for (test::Planes& planes : lines) {
      for (std::uint32_t& sample : planes[2]) sample = std::uint32_t(random()) & unsigned(mask);
    }
    const std::string file = test::written(kPicture, kRgb, lines);
    EXPECT_EQ(file.substr(968, 4), le(4, samples)) << width << " " << height;
    test::expect_picture({"", file, kPicture, kRgb, lines});
  }
}

// Lines that were never written are black; there is no room for one too many.
TEST(Catia, HoldsAsManyLinesAsItsHeightSays) {
  for (const int lines : {1, 3}) {
    const test::Scratch scratch;
    test::Handle file;
    ASSERT_TRUE(ka_img_create(file, scratch.path("a").c_str(), kRgb, kPicture, 1, 2));
    const test::Line line(ka_img_line_alloc(file));
    for (std::size_t slot = 0; slot < 3; ++slot) *test::plane(line.get(), slot) = 9;
    for (int y = 0; y < lines; ++y) EXPECT_EQ(ka_img_line_write(file, line.get()), y < 2);
    EXPECT_EQ(file->error, lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_EQ(ka_img_close(file), 1);
    EXPECT_EQ(test::exists(scratch.path("a")), lines == 1);
    if (lines > 1) continue;
    const test::Lines shown = {flat(1, {0, 0, 0}), flat(1, {9, 9, 9})};
    test::expect_picture({"", test::read_file(scratch.path("a")), kPicture, kRgb, shown});
  }
}

}  // namespace
