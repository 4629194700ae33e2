// BMP images: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;

struct Header {
  int bits, width, height;
  int colors = 0, compression = 0;
  int bytes = 40;
};

std::string le16(int value) { return bytes({value & 255, value >> 8 & 255}); }
std::string le32(int value) { return le16(value & 0xffff) + le16(value >> 16 & 0xffff); }

// The offset of the rows is that of nothing: they follow the palette.
std::string file(const Header& h, std::initializer_list<int> rest) {
  return "BM" + le32(77) + le32(0) + le32(1234) + le32(h.bytes) + le32(h.width) + le32(h.height) +
         le16(1) + le16(h.bits) + le32(h.compression) + std::string(12, '\x7f') + le32(h.colors) +
         le32(0) + bytes(rest);
}
std::string core(int bits, int width, int height, std::initializer_list<int> rest) {
  return "BM" + le32(77) + le32(0) + le32(26) + le32(12) + le16(width) + le16(height) + le16(1) +
         le16(bits) + bytes(rest);
}

class BmpPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(BmpPicture, IsRead) { test::expect_picture(GetParam()); }

constexpr int kBmp = IMG_FORMAT_BMP, kRgba = IMG_TYPE_RGBA;

// 16 colours: blue i, green 2 i, red 3 i
std::string sixteen(std::size_t color_bytes) {
  std::string palette;
  for (int i = 0; i < 16; ++i) palette += bytes({i, 2 * i, 3 * i, 99}).substr(0, color_bytes);
  return palette;
}

const std::vector<test::Picture> kPictures = {
    {"Bits24",
     file({.bits = 24, .width = 1, .height = 2}, {1, 2, 3, 0, 4, 5, 6, 0}),
     kBmp,
     kRgba,
     {{{3}, {2}, {1}, {255}}, {{6}, {5}, {4}, {255}}}},
    {"Bits24HaveNoPalette",
     file({.bits = 24, .width = 1, .height = 1, .colors = 100}, {1, 2, 3, 0}),
     kBmp,
     kRgba,
     {{{3}, {2}, {1}, {255}}}},
    {"Bits32",
     file({.bits = 32, .width = 2, .height = 1}, {1, 2, 3, 4, 5, 6, 7, 0}),
     kBmp,
     kRgba,
     {{{3, 7}, {2, 6}, {1, 5}, {4, 0}}}},
    {"Bits1",
     file({.bits = 1, .width = 3, .height = 1}, {0, 0, 0, 9, 255, 255, 255, 9, 0xa0, 0, 0, 0}),
     kBmp,
     kRgba,
     {{{255, 0, 255}, {255, 0, 255}, {255, 0, 255}, {255, 255, 255}}}},
    {"Bits1OfTwoWords",
     file({.bits = 1, .width = 33, .height = 2, .colors = 1},
          {7, 8, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
     kBmp, kRgba,
     test::Lines(2, {std::vector<std::uint32_t>(33, 9), std::vector<std::uint32_t>(33, 8),
                     std::vector<std::uint32_t>(33, 7), std::vector<std::uint32_t>(33, 255)})},
    {"Bits4",
     file({.bits = 4, .width = 3, .height = 1}, {}) + sixteen(4) + bytes({0xf0, 0x10, 0, 0}),
     kBmp,
     kRgba,
     {{{45, 0, 3}, {30, 0, 2}, {15, 0, 1}, {255, 255, 255}}}},
    {"Bits8WithFewColors",
     file({.bits = 8, .width = 3, .height = 1, .colors = 2},
          {1, 2, 3, 4, 5, 6, 7, 8, 1, 0, 1, 200}),  // padding is no index
     kBmp,
     kRgba,
     {{{7, 3, 7}, {6, 2, 6}, {5, 1, 5}, {255, 255, 255}}}},
    {"Bits1WithMoreColorsThanIndexes",
     file({.bits = 1, .width = 1, .height = 1, .colors = 3},
          {1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 9, 9, 0x80, 0, 0, 0}),
     kBmp,
     kRgba,
     {{{7}, {6}, {5}, {255}}}},
    {"Core24",
     core(24, 1, 2, {1, 2, 3, 0, 4, 5, 6, 0}),
     kBmp,
     kRgba,
     {{{3}, {2}, {1}, {255}}, {{6}, {5}, {4}, {255}}}},
    {"Core4",
     core(4, 3, 1, {}) + sixteen(3) + bytes({0xf0, 0x10, 0, 0}),
     kBmp,
     kRgba,
     {{{45, 0, 3}, {30, 0, 2}, {15, 0, 1}, {255, 255, 255}}}},
};
INSTANTIATE_TEST_SUITE_P(Files, BmpPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

// A row that no buffer of the reader holds.
TEST(Bmp, RowsMayBeLong) {
  constexpr int width = 100'001;
  std::string rows;
  test::Planes planes(4);
  for (int x = 0; x < width; ++x) {
    const std::uint8_t b = std::uint8_t(x * 5 >> 3), g = std::uint8_t(x), r = std::uint8_t(x >> 8);
    rows += bytes({b, g, r});
    planes[0].push_back(r);
    planes[1].push_back(g);
    planes[2].push_back(b);
    planes[3].push_back(255);
  }
  rows += bytes({0});  // 300003 bytes
  test::expect_picture({"",
                        file({.bits = 24, .width = width, .height = 2}, {}) + rows + rows,
                        kBmp,
                        kRgba,
                        {planes, planes}});
}

class BmpRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(BmpRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kRefusals = {
    {"OtherMagic", "BA" + std::string(60, 0), IMG_ERR_FORMAT},
    {"HeaderOf64Bytes", file({.bits = 24, .width = 1, .height = 1, .bytes = 64}, {1, 2, 3, 4}),
     IMG_ERR_SUBTYPE},
    {"Compressed", file({.bits = 8, .width = 1, .height = 1, .colors = 1, .compression = 1}, {}),
     IMG_ERR_SUBTYPE},
    {"BitMasks", file({.bits = 32, .width = 1, .height = 1, .compression = 3}, {1, 2, 3, 4}),
     IMG_ERR_SUBTYPE},
    {"Bits2", file({.bits = 2, .width = 1, .height = 1}, {}), IMG_ERR_SUBTYPE},
    {"Bits16", file({.bits = 16, .width = 1, .height = 1}, {1, 2, 3, 4}), IMG_ERR_SUBTYPE},
    {"Bits0", file({.bits = 0, .width = 1, .height = 1}, {}), IMG_ERR_SUBTYPE},
    {"Bits64", file({.bits = 64, .width = 1, .height = 1}, {}), IMG_ERR_SUBTYPE},
    {"NoWidth", file({.bits = 24, .width = 0, .height = 1}, {}), IMG_ERR_SUBTYPE},
    {"NoHeight", core(24, 1, 0, {}), IMG_ERR_SUBTYPE},
    {"TopLineFirst", file({.bits = 24, .width = 1, .height = -1}, {1, 2, 3, 4}), IMG_ERR_SUBTYPE},
    {"NegativeWidth", file({.bits = 24, .width = -1, .height = 1}, {1, 2, 3, 4}), IMG_ERR_SUBTYPE},
    {"HeaderSizeEnds", "BM" + std::string(15, 0), IMG_ERR_READ},
    {"HeaderEnds", file({.bits = 24, .width = 1, .height = 1}, {}).substr(0, 53), IMG_ERR_READ},
    {"CoreHeaderEnds", core(24, 1, 1, {}).substr(0, 25), IMG_ERR_READ},
    {"PaletteEnds", file({.bits = 1, .width = 1, .height = 1}, {1, 2, 3, 4, 5, 6, 7}),
     IMG_ERR_READ},
    {"PaletteOfMoreThanTheFile",
     file({.bits = 8, .width = 1, .height = 1, .colors = -1}, {1, 2, 3, 4, 0, 0, 0, 0}),
     IMG_ERR_READ},
    {"PaddingEnds", file({.bits = 24, .width = 1, .height = 1}, {1, 2, 3}), IMG_ERR_READ, 0},
    {"SecondLineEnds", file({.bits = 24, .width = 1, .height = 2}, {1, 2, 3, 0, 4, 5, 6}),
     IMG_ERR_READ, 1},
    {"LineBehindTheLast", file({.bits = 32, .width = 1, .height = 1}, {1, 2, 3, 4, 5, 6, 7, 8}),
     IMG_ERR_READ, 1},
    {"IndexOutsideThePalette",
     file({.bits = 8, .width = 2, .height = 1, .colors = 2}, {1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 0, 0}),
     IMG_ERR_CORRUPT, 0},
    {"BitOutsideThePalette",
     file({.bits = 1, .width = 2, .height = 1, .colors = 1}, {1, 2, 3, 4, 0x40, 0, 0, 0}),
     IMG_ERR_CORRUPT, 0},
};
INSTANTIATE_TEST_SUITE_P(Files, BmpRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

TEST(Bmp, Writes24Bits) {
  const test::Image image = test::make_picture(
      IMG_TYPE_RGB, 3,
      {{{1, 4, 7}, {2, 5, 8}, {3, 6, 9}}, {{11, 14, 17}, {12, 15, 18}, {13, 16, 19}}});
  EXPECT_EQ(test::written(kBmp, image.get()),
            bytes({'B', 'M', 78, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0}) +
                bytes({40, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 1, 0, 24, 0}) +
                bytes({0, 0, 0, 0, 24, 0, 0, 0}) + std::string(16, 0) +
                bytes({3, 2, 1, 6, 5, 4, 9, 8, 7, 0, 0, 0}) +
                bytes({13, 12, 11, 16, 15, 14, 19, 18, 17, 0, 0, 0}));
}

TEST(Bmp, Writes32Bits) {
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGBE}) {
    const test::Image image = test::make_picture(type, 2, {{{1, 2}, {3, 4}, {5, 6}, {7, 8}}});
    EXPECT_EQ(test::written(kBmp, image.get()),
              bytes({'B', 'M', 62, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0}) +
                  bytes({40, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 32, 0}) +
                  bytes({0, 0, 0, 0, 8, 0, 0, 0}) + std::string(16, 0) +
                  bytes({5, 3, 1, 7, 6, 4, 2, 8}))
        << type;
  }
}

}  // namespace
