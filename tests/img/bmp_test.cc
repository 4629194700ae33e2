// BMP images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;
using test::flat;
using test::le;

constexpr int kBmp = IMG_FORMAT_BMP, kRgba = IMG_TYPE_RGBA;

// The offset of the rows is that of nothing: they follow the palette.
std::string header(int bits, int width, int height, int colors, int compression, int size = 40) {
  return "BM" + le(4, 77) + le(4, 0) + le(4, 1234) + le(4, size) + le(4, width) + le(4, height) +
         le(2, 1) + le(2, bits) + le(4, compression) + std::string(12, '\x7f') + le(4, colors) +
         le(4, 0);
}
std::string file(int bits, int width, int height, int colors, std::initializer_list<int> rest) {
  return header(bits, width, height, colors, 0) + bytes(rest);
}
std::string core(int bits, int width, int height, std::initializer_list<int> rest) {
  return "BM" + le(4, 77) + le(4, 0) + le(4, 26) + le(4, 12) + le(2, width) + le(2, height) +
         le(2, 1) + le(2, bits) + bytes(rest);
}

// 16 colours: blue i, green 2 i, red 3 i; and a row of the indexes 15, 0 and 1
std::string sixteen(std::size_t color_bytes) {
  std::string palette;
  for (int i = 0; i < 16; ++i) palette += bytes({i, 2 * i, 3 * i, 99}).substr(0, color_bytes);
  return palette + bytes({0xf0, 0x10, 0, 0});
}
const test::Lines kOfSixteen = {{{45, 0, 3}, {30, 0, 2}, {15, 0, 1}, {255, 255, 255}}};
const test::Lines kTwoLines = {{{3}, {2}, {1}, {255}}, {{6}, {5}, {4}, {255}}};

const std::vector<test::Shown> kPictures = {
    {"Bits24", file(24, 1, 2, 0, {1, 2, 3, 0, 4, 5, 6, 0}), kTwoLines},
    {"Bits32", file(32, 2, 1, 0, {1, 2, 3, 4, 5, 6, 7, 0}), {{{3, 7}, {2, 6}, {1, 5}, {4, 0}}}},
    {"Bits1WithMoreColorsThanIndexes",
     file(1, 1, 1, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 9, 9, 0x80, 0, 0, 0}),
     {{{7}, {6}, {5}, {255}}}},
    {"Bits4", file(4, 3, 1, 0, {}) + sixteen(4), kOfSixteen},
    // padding is no index
    {"Bits8WithFewColors",
     file(8, 3, 1, 2, {1, 2, 3, 4, 5, 6, 7, 8, 1, 0, 1, 200}),
     {{{7, 3, 7}, {6, 2, 6}, {5, 1, 5}, {255, 255, 255}}}},
    {"Core24", core(24, 1, 2, {1, 2, 3, 0, 4, 5, 6, 0}), kTwoLines},
    {"Core4", core(4, 3, 1, {}) + sixteen(3), kOfSixteen},
    // a row that no buffer of the reader holds, of 300003 bytes
    {"LongRows",
     file(24, 100'001, 1, 0, {}) + std::string(300'004, '\7'),
     {flat(100'001, {7, 7, 7, 255})}},
};
TEST(Bmp, PicturesAreRead) { test::expect_pictures(kBmp, kRgba, kPictures); }

const std::vector<test::Refusal> kRefusals = {
    {"OtherMagic", "BA" + std::string(60, 0), IMG_ERR_FORMAT},
    {"Compressed", header(8, 1, 1, 1, 1), IMG_ERR_SUBTYPE},
    {"Bits16", file(16, 1, 1, 0, {1, 2, 3, 4}), IMG_ERR_SUBTYPE},
    {"NoWidth", file(24, 0, 1, 0, {}), IMG_ERR_SUBTYPE},
    {"TopLineFirst", file(24, 1, -1, 0, {1, 2, 3, 4}), IMG_ERR_SUBTYPE},
    {"HeaderEnds", file(24, 1, 1, 0, {}).substr(0, 53), IMG_ERR_READ},
    {"PaletteEnds", file(1, 1, 1, 0, {1, 2, 3, 4, 5, 6, 7}), IMG_ERR_READ},
    {"PaletteOfMoreThanTheFile", file(8, 1, 1, -1, {1, 2, 3, 4, 0, 0, 0, 0}), IMG_ERR_READ},
    {"SecondLineEnds", file(24, 1, 2, 0, {1, 2, 3, 0, 4, 5, 6}), IMG_ERR_READ, 1},
    {"IndexOutside", file(8, 2, 1, 1, {1, 2, 3, 4, 0, 1, 0, 0}), IMG_ERR_CORRUPT, 0},
    {"BitOutside", file(1, 2, 1, 1, {1, 2, 3, 4, 0x40, 0, 0, 0}), IMG_ERR_CORRUPT, 0},
};
TEST(Bmp, RefusalsAreTold) { test::expect_refusals(kRefusals); }

TEST(Bmp, WritesTheseBytes) {
  const test::Lines colors = {{{1, 4, 7}, {2, 5, 8}, {3, 6, 9}}, {{1, 0, 0}, {2, 0, 0}, {3, 0, 0}}};
  EXPECT_EQ(test::written(kBmp, IMG_TYPE_RGB, colors),
            "BM" + le(4, 78) + le(4, 0) + le(4, 54) + le(4, 40) + le(4, 3) + le(4, 2) + le(2, 1) +
                le(2, 24) + le(4, 0) + le(4, 24) + std::string(16, 0) +
                bytes({3, 2, 1, 6, 5, 4, 9, 8, 7, 0, 0, 0, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGBE}) {
    EXPECT_EQ(test::written(kBmp, type, {{{1, 2}, {3, 4}, {5, 6}, {7, 8}}}),
              "BM" + le(4, 62) + le(4, 0) + le(4, 54) + le(4, 40) + le(4, 2) + le(4, 1) + le(2, 1) +
                  le(2, 32) + le(4, 0) + le(4, 8) + std::string(16, 0) +
                  bytes({5, 3, 1, 7, 6, 4, 2, 8}));
  }
}

}  // namespace
