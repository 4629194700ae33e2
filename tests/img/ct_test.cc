// Native textures: what each subtype holds, which files are taken for one, the bytes of each
// format.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;
using test::Lines;

// Of two pixels and one line, or square with one pixel.
std::string file(int code, const std::string& pixels) {
  return bytes({code, 0, 0, 2, 0, 1, 0, 0}) + pixels;
}
std::string square(int code, std::initializer_list<int> pixels) {
  return bytes({code, 0, 0, 1}) + bytes(pixels);
}
// The bytes 1, 2, 3, ...
std::string counted(int count) { return count == 0 ? "" : counted(count - 1) + char(count); }

const Lines kRgba = {{{1, 5}, {2, 6}, {3, 7}, {4, 8}}};
const Lines kBits = {{{1, 2}}, {{3, 0x84}}};  // the bottom line first
const Lines kPairs = {{{0x102, 0x506}, {0x304, 0x708}}};
const Lines kFours = {{{0x102, 0x90a}, {0x304, 0xb0c}, {0x506, 0xd0e}, {0x708, 0xf10}}};
const Lines kWords = {{{0x01020304, 0x05060708}}};
const Lines kVectors = {
    {{0x01020304, 0x0d0e0f10}, {0x05060708, 0x11121314}, {0x090a0b0c, 0x15161718}}};
const Lines kFloats = {test::flat(1, {0x01020304, 0x05060708, 0x090a0b0c, 0x0d0e0f10})};
const Lines kWide(2, test::flat(20'000, {0x07070707, 0x07070707, 0x07070707, 0x07070707}));

// Files that are read only, and those that are written in the same bytes from what was read.
const std::vector<test::Picture> kSquares = {
    {"Code0", square(0, {1, 2, 3, 4}), IMG_FORMAT_CT, IMG_TYPE_RGBA, {{{1}, {2}, {3}, {4}}}},
    {"Code1", square(1, {9}), IMG_FORMAT_ST, IMG_TYPE_S, {{{9}}}},
    {"Code2", square(2, {1, 2, 3, 4}), IMG_FORMAT_VT, IMG_TYPE_VTA, {{{0x102}, {0x304}}}},
};
const std::vector<test::Picture> kTextures = {
    {"Code3", file(3, counted(8)), IMG_FORMAT_CT, IMG_TYPE_RGBA, kRgba},
    {"Code4", file(4, counted(2)), IMG_FORMAT_ST, IMG_TYPE_S, {{{1, 2}}}},
    {"Code5", file(5, counted(8)), IMG_FORMAT_VT, IMG_TYPE_VTA, kPairs},
    {"Code6", file(6, counted(16)), IMG_FORMAT_CT, IMG_TYPE_RGBA_16, kFours},
    {"Code7", file(7, counted(4)), IMG_FORMAT_ST, IMG_TYPE_S_16, {{{0x102, 0x304}}}},
    {"Code8", file(8, counted(8)), IMG_FORMAT_ZT, IMG_TYPE_Z, kWords},
    {"Code9", file(9, counted(24)), IMG_FORMAT_NT, IMG_TYPE_N, kVectors},
    {"Code10", file(10, counted(8)), IMG_FORMAT_TT, IMG_TYPE_TAG, kWords},
    {"Code11", bytes({11, 0, 0, 1, 0, 1, 0, 0}) + counted(16), IMG_FORMAT_CT, IMG_TYPE_RGBA_FP,
     kFloats},
    {"Code12", file(12, counted(24)), IMG_FORMAT_MT, IMG_TYPE_M, kVectors},
    {"Code13TakesWholeBytes", bytes({13, 0, 0, 9, 0, 2, 0, 0, 1, 2, 3, 0x84}), IMG_FORMAT_BIT,
     IMG_TYPE_BIT, kBits},
    {"Code14", file(14, counted(8)), IMG_FORMAT_CTH, IMG_TYPE_RGBE, kRgba},
    {"Code15", file(15, counted(8)), IMG_FORMAT_STFP, IMG_TYPE_S_FP, kWords},
    // a line is more than any buffer
    {"WideLines", bytes({11, 0, 0x4e, 0x20, 0, 2, 0, 0}) + std::string(640'000, '\7'),
     IMG_FORMAT_CT, IMG_TYPE_RGBA_FP, kWide},
};

TEST(Native, TexturesAreReadAndWritten) {
  for (const test::Picture& picture : kSquares) test::expect_picture(picture);
  for (const test::Picture& picture : kTextures) {
    SCOPED_TRACE(picture.name);
    test::expect_picture(picture);
    const int width = std::uint8_t(picture.file[2]) << 8 | std::uint8_t(picture.file[3]);
    const test::Image image = test::make_picture(picture.type, width, picture.lines);
    EXPECT_EQ(test::written(picture.format, image.get()), picture.file);
  }
}

// The subtype that a format stores a pixel type as.
TEST(Native, FormatAndTypeGiveTheSubtype) {
  constexpr struct {
    int format, type;
    char code;
  } kRows[] = {{IMG_FORMAT_CT, IMG_TYPE_RGBE, 3},       {IMG_FORMAT_CT16, IMG_TYPE_RGBA_16, 6},
               {IMG_FORMAT_ST, IMG_TYPE_S_FP, 15},      {IMG_FORMAT_ST16, IMG_TYPE_S_16, 7},
               {IMG_FORMAT_ST16, IMG_TYPE_S_FP, 15},    {IMG_FORMAT_WT, IMG_TYPE_VTS, 5},
               {IMG_FORMAT_CTFP, IMG_TYPE_RGBA_FP, 11}, {IMG_FORMAT_STFP, IMG_TYPE_S_FP, 15}};
  for (const auto& [format, type, code] : kRows) {
    const auto pixel_bytes = std::size_t(ka_img_ncomp[type] * ka_img_nbits[type] / 8);
    EXPECT_EQ(test::written(format, test::make_image(type, 2, 1).get()),
              file(code, std::string(2 * pixel_bytes, '\0')))
        << format << " " << type;
  }
}

const std::vector<test::Refusal> kRefusals = {
    {"NoSuchCode", file(16, counted(2)), IMG_ERR_FORMAT},
    {"SecondByte", bytes({4, 1, 0, 1, 0, 1, 0, 0, 9}), IMG_ERR_FORMAT},
    {"OneByteTooFew", file(4, counted(1)), IMG_ERR_FORMAT},
    {"SquareWithAByteTooMany", square(0, {1, 2, 3, 4, 5}), IMG_ERR_FORMAT},
    {"BitsWithoutTheirLastByte", bytes({13, 0, 0, 9, 0, 1, 0, 0, 1}), IMG_ERR_FORMAT},
    {"NoLineBehindTheLast", file(4, counted(2)), IMG_ERR_READ, 1},
};
TEST(Native, RefusalsAreTold) { test::expect_refusals(kRefusals); }

}  // namespace
