// TIFF images: what is read of which file.
#include <gtest/gtest.h>

#include "tiff_files.h"

namespace {

using test::bytes;
using test::colors;
using test::kBlackIsZero;
using test::kLong;
using test::kPackBits;
using test::kPalette;
using test::kShort;
using test::kWhiteIsZero;
using test::one;
using test::tiff;

constexpr int kTif = IMG_FORMAT_TIF, kType = IMG_TYPE_RGB;

class TiffPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(TiffPicture, IsRead) { test::expect_picture(GetParam()); }

test::Planes grey(const std::vector<std::uint32_t>& levels) { return {levels, levels, levels}; }

// A line of one pixel: directory at 10, BitsPerSample at 100, pixels at 106.
const std::string kSpelledOut =
    bytes({'M', 'M', 0, 42, 0, 0, 0, 10, 0, 0, 0, 7}) +
    bytes({1, 0, 0, 3, 0, 0, 0, 1, 0, 1, 0, 0}) +       // 256 ImageWidth 1
    bytes({1, 1, 0, 4, 0, 0, 0, 1, 0, 0, 0, 1}) +       // 257 ImageLength 1
    bytes({1, 2, 0, 3, 0, 0, 0, 3, 0, 0, 0, 100}) +     // 258 BitsPerSample
    bytes({1, 3, 0, 3, 0, 0, 0, 1, 0, 1, 0, 0}) +       // 259 Compression: none
    bytes({1, 6, 0, 3, 0, 0, 0, 1, 0, 2, 0, 0}) +       // 262 PhotometricInterpretation: RGB
    bytes({1, 17, 0, 4, 0, 0, 0, 1, 0, 0, 0, 106}) +    // 273 StripOffsets
    bytes({1, 21, 0, 3, 0, 0, 0, 1, 0, 3, 0, 0}) +      // 277 SamplesPerPixel
    bytes({0, 0, 0, 0, 0, 8, 0, 8, 0, 8, 70, 80, 90});  // no further directory; values; pixel

const std::vector<test::Picture> kColors = {
    {"SpelledOut", kSpelledOut, kTif, kType, {{{70}, {80}, {90}}}},
    {"MagicOfTheOtherByteOrder",
     bytes({'M', 'M', 42, 0}) + kSpelledOut.substr(4),
     kTif,
     kType,
     {{{70}, {80}, {90}}}},
    {"LittleEndian",
     tiff({colors(2, 2, 3, 8), {bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})}}),
     kTif,
     kType,
     {{{7, 10}, {8, 11}, {9, 12}}, {{1, 4}, {2, 5}, {3, 6}}}},
    {"BigEndian",
     tiff({colors(2, 2, 3, 8), {bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})}, true}),
     kTif,
     kType,
     {{{7, 10}, {8, 11}, {9, 12}}, {{1, 4}, {2, 5}, {3, 6}}}},
    {"Alpha",
     tiff({colors(1, 1, 4, 8), {bytes({1, 2, 3, 4})}}),
     kTif,
     IMG_TYPE_RGBA,
     {{{1}, {2}, {3}, {4}}}},
    {"Bits16",
     tiff({colors(1, 1, 3, 16), {bytes({1, 2, 3, 4, 5, 6})}}),
     kTif,
     IMG_TYPE_RGB_16,
     {{{0x201}, {0x403}, {0x605}}}},
    {"Bits16BigEndian",
     tiff({colors(1, 1, 4, 16), {bytes({1, 2, 3, 4, 5, 6, 7, 8})}, true}),
     kTif,
     IMG_TYPE_RGBA_16,
     {{{0x102}, {0x304}, {0x506}, {0x708}}}},
    // 1, -2, 0.5
    {"Floats",
     tiff({colors(1, 1, 3, 32), {bytes({0, 0, 128, 63, 0, 0, 0, 192, 0, 0, 0, 63})}}),
     kTif,
     IMG_TYPE_RGB_FP,
     {{{0x3f800000}, {0xc0000000}, {0x3f000000}}}},
    {"FloatsBigEndian",
     tiff({colors(1, 1, 4, 32),
           {bytes({63, 128, 0, 0, 192, 0, 0, 0, 63, 0, 0, 0, 0, 0, 0, 1})},
           true}),
     kTif,
     IMG_TYPE_RGBA_FP,
     {{{0x3f800000}, {0xc0000000}, {0x3f000000}, {1}}}},
    {"OneValueForAllBits",
     tiff({{{256, kShort, {1}}, {257, kShort, {1}}, {258, kShort, {8}}, {277, kShort, {3}}},
           {bytes({1, 2, 3})}}),  // and no PhotometricInterpretation
     kTif,
     kType,
     {{{1}, {2}, {3}}}},
    {"EntriesOfNoMeaningHere",
     tiff({colors(1, 1, 3, 8,
                  {{254, kLong, {9}}, {266, kShort, {2}}, {282, 5, {9}}, {400, kShort, {7, 7, 7}}}),
           {bytes({1, 2, 3})}}),
     kTif,
     kType,
     {{{1}, {2}, {3}}}},
    {"BottomLineFirst",
     tiff({colors(1, 2, 3, 8, {{274, kShort, {4}}}), {bytes({1, 2, 3, 4, 5, 6})}}),
     kTif,
     kType,
     {{{1}, {2}, {3}}, {{4}, {5}, {6}}}},
    {"TopLineFirst",
     tiff({colors(1, 2, 3, 8, {{274, kShort, {1}}}), {bytes({1, 2, 3, 4, 5, 6})}}),
     kTif,
     kType,
     {{{4}, {5}, {6}}, {{1}, {2}, {3}}}},
};
INSTANTIATE_TEST_SUITE_P(Colors, TiffPicture, testing::ValuesIn(kColors),
                         test::row_name<test::Picture>);

// Entry i of a map of 16 colours is 256 * i; of 256 colours its high byte is i for red, 255 - i for
// green, and 7 for blue. The low bytes do not count.
std::vector<unsigned> map_of_16() {
  std::vector<unsigned> map;
  for (unsigned i = 0; i < 48; ++i) map.push_back(i << 8 | 0xee);
  return map;
}
std::vector<unsigned> map_of_256() {
  std::vector<unsigned> map(3 * 256, 7 << 8);
  for (unsigned i = 0; i < 256; ++i) {
    map[i] = i << 8;
    map[256 + i] = (255 - i) << 8 | 0xff;
  }
  return map;
}

const std::vector<test::Picture> kOneComponent = {
    {"Bits1WhiteIsZero",
     tiff({one(10, 2, 1, kWhiteIsZero), {bytes({0xa0, 0x7f, 0x01, 0x80})}}),
     kTif,
     kType,
     {grey({255, 255, 255, 255, 255, 255, 255, 0, 0, 255}),
      grey({0, 255, 0, 255, 255, 255, 255, 255, 255, 0})}},
    {"Bits1BlackIsZero",
     tiff({one(9, 1, 1, kBlackIsZero), {bytes({0xa0, 0x80})}}),
     kTif,
     kType,
     {grey({255, 0, 255, 0, 0, 0, 0, 0, 255})}},
    {"Bits4WhiteIsZero",
     tiff({one(3, 1, 4, kWhiteIsZero), {bytes({0x0f, 0x1f})}}),
     kTif,
     kType,
     {grey({255, 255 - 240, 255 - 16})}},
    {"Bits4BlackIsZero",
     tiff({one(3, 1, 4, kBlackIsZero), {bytes({0x0f, 0x1f})}}),
     kTif,
     kType,
     {grey({0, 240, 16})}},
    {"Bits8WhiteIsZero",
     tiff({one(3, 1, 8, kWhiteIsZero), {bytes({0, 1, 255})}}),
     kTif,
     kType,
     {grey({255, 254, 0})}},
    {"Bits8BlackIsZero",
     tiff({one(3, 1, 8, kBlackIsZero), {bytes({0, 1, 255})}}),
     kTif,
     kType,
     {grey({0, 1, 255})}},
    {"OneBitWhereNoneAreTold",
     tiff({{{256, kShort, {2}}, {257, kShort, {1}}, {262, kShort, {1}}}, {bytes({0x40})}}),
     kTif,
     kType,
     {grey({0, 255})}},
    {"Palette4",
     tiff({one(3, 1, 4, kPalette, {{320, kShort, map_of_16()}}), {bytes({0xf0, 0x10})}}),
     kTif,
     kType,
     {{{15, 0, 1}, {31, 16, 17}, {47, 32, 33}}}},
    {"Palette8BigEndian",
     tiff({one(3, 1, 8, kPalette, {{320, kShort, map_of_256()}}), {bytes({0, 200, 255})}, true}),
     kTif,
     kType,
     {{{0, 200, 255}, {255, 55, 0}, {7, 7, 7}}}},
};
INSTANTIATE_TEST_SUITE_P(OneComponent, TiffPicture, testing::ValuesIn(kOneComponent),
                         test::row_name<test::Picture>);

using Entries = std::vector<test::TiffEntry>;
const Entries kTwoRows = {{278, kShort, {2}}}, kOneRow = {{278, kLong, {1}}};
const test::Lines kThreeLines = {grey({5, 6}), grey({3, 4}), grey({1, 2})};

const std::vector<test::Picture> kStrips = {
    {"TwoShortsInTheEntry",
     tiff({one(2, 3, 8, kBlackIsZero, kTwoRows),
           {bytes({1, 2, 3, 4}), bytes({5, 6})},
           false,
           kShort}),
     kTif, kType, kThreeLines},
    {"TwoShortsInTheEntryBigEndian",
     tiff({one(2, 3, 8, kBlackIsZero, kTwoRows),
           {bytes({1, 2, 3, 4}), bytes({5, 6})},
           true,
           kShort}),
     kTif, kType, kThreeLines},
    {"TwoLongs", tiff({one(2, 3, 8, kBlackIsZero, kTwoRows), {bytes({1, 2, 3, 4}), bytes({5, 6})}}),
     kTif, kType, kThreeLines},
    {"ThreeShorts",
     tiff({one(2, 3, 8, kBlackIsZero, kOneRow),
           {bytes({1, 2}), bytes({3, 4}), bytes({5, 6})},
           true,
           kShort}),
     kTif, kType, kThreeLines},
    {"MoreStripsThanRows",
     tiff({one(2, 3, 8, kBlackIsZero, kTwoRows), {bytes({1, 2, 3, 4}), bytes({5, 6}), ""}}), kTif,
     kType, kThreeLines},
    {"OneStripHasAllRows",
     tiff({one(2, 3, 8, kBlackIsZero, kOneRow), {bytes({1, 2, 3, 4, 5, 6})}, false, kShort}), kTif,
     kType, kThreeLines},
    // two runs; one literal for each row; nothing, a run, nothing
    {"Packed",
     tiff({one(4, 3, 8, kBlackIsZero, {{259, kShort, {kPackBits}}}),
           {bytes({255, 1, 255, 2, 3, 3, 4, 5, 6, 128, 253, 9, 128})}}),
     kTif,
     kType,
     {grey({9, 9, 9, 9}), grey({3, 4, 5, 6}), grey({1, 1, 2, 2})}},
    {"PackedStrips",
     tiff({one(2, 3, 8, kBlackIsZero, {{259, kShort, {kPackBits}}, {278, kShort, {2}}}),
           {bytes({1, 1, 2, 1, 3, 4, 200}), bytes({1, 5, 6})}}),
     kTif, kType, kThreeLines},
    {"PackedColors16",
     tiff({colors(2, 1, 3, 16, {{259, kShort, {kPackBits}}}), {bytes({245, 8})}}),
     kTif,
     IMG_TYPE_RGB_16,
     {{{0x808, 0x808}, {0x808, 0x808}, {0x808, 0x808}}}},
};
INSTANTIATE_TEST_SUITE_P(Strips, TiffPicture, testing::ValuesIn(kStrips),
                         test::row_name<test::Picture>);

const Entries kPlanes = {{284, kShort, {2}}};
const test::Lines kPlanarLines = {{{3, 4}, {7, 8}, {11, 12}}, {{1, 2}, {5, 6}, {9, 10}}};

const std::vector<test::Picture> kSeparatePlanes = {
    {"OneStripEach",
     tiff({colors(2, 2, 3, 8, kPlanes),
           {bytes({1, 2, 3, 4}), bytes({5, 6, 7, 8}), bytes({9, 10, 11, 12})}}),
     kTif, kType, kPlanarLines},
    {"OneStripForEachRow",
     tiff({colors(2, 2, 3, 8, {{284, kShort, {2}}, {278, kShort, {1}}}),
           {bytes({1, 2}), bytes({3, 4}), bytes({5, 6}), bytes({7, 8}), bytes({9, 10}),
            bytes({11, 12})},
           true,
           kShort}),
     kTif, kType, kPlanarLines},
    {"Packed",
     tiff({colors(2, 2, 3, 8, {{284, kShort, {2}}, {259, kShort, {kPackBits}}}),
           {bytes({1, 1, 2, 1, 3, 4}), bytes({1, 5, 6, 1, 7, 8}), bytes({1, 9, 10, 1, 11, 12})}}),
     kTif, kType, kPlanarLines},
    {"Bits16BigEndian",
     tiff({colors(1, 1, 4, 16, kPlanes),
           {bytes({1, 2}), bytes({3, 4}), bytes({5, 6}), bytes({7, 8})},
           true}),
     kTif,
     IMG_TYPE_RGBA_16,
     {{{0x102}, {0x304}, {0x506}, {0x708}}}},
    {"OfOneComponentTellNothing",
     tiff({one(2, 1, 8, kBlackIsZero, kPlanes), {bytes({1, 2})}}),
     kTif,
     kType,
     {grey({1, 2})}},
};
INSTANTIATE_TEST_SUITE_P(SeparatePlanes, TiffPicture, testing::ValuesIn(kSeparatePlanes),
                         test::row_name<test::Picture>);

// Rows that no buffer of the reader holds, plain and in packets; and more bytes without a meaning
// before a packet than a buffer holds.
TEST(Tiff, RowsMayBeLong) {
  constexpr unsigned width = 300'000;
  std::string row, packets(200'000, char(128));
  for (unsigned x = 0; x < width; ++x) row += char(x * x >> 8);
  for (unsigned x = 0; x < width; x += 100) packets += char(99) + row.substr(x, 100);
  std::vector<std::uint32_t> levels;
  for (const char level : row) levels.push_back(std::uint8_t(level));
  const test::Lines lines = {grey(levels), grey(levels)};
  const Entries packed = {{259, kShort, {kPackBits}}};
  test::expect_picture(
      {"", tiff({one(width, 2, 8, kBlackIsZero), {row + row}}), kTif, kType, lines});
  test::expect_picture({"", tiff({one(width, 2, 8, kBlackIsZero, packed), {packets + packets}}),
                        kTif, kType, lines});
}

// What a file says about different bits is an error that stays with the handle; pixels are read by
// the first of them.
TEST(Tiff, DifferentBitsAreTold) {
  Entries entries = colors(1, 1, 3, 8);
  entries[2].values = {8, 8, 16};
  const test::Scratch scratch;
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, scratch.write("a", tiff({entries, {bytes({1, 2, 3})}})).c_str(),
                          IMG_TYPE_FILE));
  EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
  const test::Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(ka_img_image_read(file, image.get()));
  EXPECT_EQ(test::lines_of(image.get()), (test::Lines{{{1}, {2}, {3}}}));
}

// Lines of a caller who goes on after a failure: the way to their packets is found again.
TEST(Tiff, LinesBehindACorruptOneAreFound) {
  // rows of two bytes: packets of three, of one, and of two
  const std::string packets = bytes({2, 1, 2, 3, 0, 4, 1, 5, 6, 1, 7, 8});
  const test::Scratch scratch;
  test::Handle file;
  const std::string path = scratch.write(
      "a", tiff({one(2, 5, 8, kBlackIsZero, {{259, kShort, {kPackBits}}}), {packets}}));
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(file));
  for (const int error :
       {IMG_ERR_CORRUPT, IMG_ERR_CORRUPT, IMG_ERR_NONE, IMG_ERR_NONE, IMG_ERR_READ, IMG_ERR_READ}) {
    file->error = IMG_ERR_NONE;
    EXPECT_EQ(ka_img_line_read(file, line.get()) != 0, error == IMG_ERR_NONE);
    EXPECT_EQ(file->error, error) << file->line_count;
    if (file->line_count == 3) {
      EXPECT_EQ(test::samples<std::uint8_t>(test::plane(line.get(), 0), 2),
                (std::vector<std::uint8_t>{5, 6}));
    }
  }
}

}  // namespace
