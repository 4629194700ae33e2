// Native textures: what each subtype holds, which files are taken for one, the bytes of each
// format.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;
using test::Lines;

// Of two pixels and one line, or square with one pixel.
std::string file(int code, std::initializer_list<int> pixels) {
  return bytes({code, 0, 0, 2, 0, 1, 0, 0}) + bytes(pixels);
}
std::string square(int code, std::initializer_list<int> pixels) {
  return bytes({code, 0, 0, 1}) + bytes(pixels);
}

// A file that is read, and written in the same bytes from what was read.
struct Texture {
  test::Picture picture;
  bool is_written = true;
};

const Lines kRgba = {{{1, 5}, {2, 6}, {3, 7}, {4, 8}}};
const Lines kPairs = {{{0x102, 0x506}, {0x304, 0x708}}};
const Lines kWords = {{{0x01020304, 0x05060708}}};
const Lines kVectors = {
    {{0x01020304, 0x0d0e0f10}, {0x05060708, 0x11121314}, {0x090a0b0c, 0x15161718}}};

const std::vector<Texture> kTextures = {
    {{"Code0", square(0, {1, 2, 3, 4}), IMG_FORMAT_CT, IMG_TYPE_RGBA, {{{1}, {2}, {3}, {4}}}},
     false},
    {{"Code1", square(1, {9}), IMG_FORMAT_ST, IMG_TYPE_S, {{{9}}}}, false},
    {{"Code2", square(2, {1, 2, 3, 4}), IMG_FORMAT_VT, IMG_TYPE_VTA, {{{0x102}, {0x304}}}}, false},
    {{"Code3", file(3, {1, 2, 3, 4, 5, 6, 7, 8}), IMG_FORMAT_CT, IMG_TYPE_RGBA, kRgba}},
    {{"Code4", file(4, {1, 2}), IMG_FORMAT_ST, IMG_TYPE_S, {{{1, 2}}}}},
    {{"Code5", file(5, {1, 2, 3, 4, 5, 6, 7, 8}), IMG_FORMAT_VT, IMG_TYPE_VTA, kPairs}},
    {{"Code6",
      file(6, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 255, 16}),
      IMG_FORMAT_CT,
      IMG_TYPE_RGBA_16,
      {{{0x102, 0x90a}, {0x304, 0xb0c}, {0x506, 0xd0e}, {0x708, 0xff10}}}}},
    {{"Code7", file(7, {1, 2, 3, 4}), IMG_FORMAT_ST, IMG_TYPE_S_16, {{{0x102, 0x304}}}}},
    {{"Code8", file(8, {1, 2, 3, 4, 5, 6, 7, 8}), IMG_FORMAT_ZT, IMG_TYPE_Z, kWords}},
    {{"Code9", file(9, {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                        13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24}),
      IMG_FORMAT_NT, IMG_TYPE_N, kVectors}},
    {{"Code10", file(10, {1, 2, 3, 4, 5, 6, 7, 8}), IMG_FORMAT_TT, IMG_TYPE_TAG, kWords}},
    {{"Code11",  // 1.0, 0.5, 0.0, -2.0, then 3.0 four times
      file(11, {0x3f, 0x80, 0, 0, 0x3f, 0,    0, 0, 0,    0,    0, 0, 0xc0, 0,    0, 0,
                0x40, 0x40, 0, 0, 0x40, 0x40, 0, 0, 0x40, 0x40, 0, 0, 0x40, 0x40, 0, 0}),
      IMG_FORMAT_CT,
      IMG_TYPE_RGBA_FP,
      {{{0x3f800000, 0x40400000},
        {0x3f000000, 0x40400000},
        {0, 0x40400000},
        {0xc0000000, 0x40400000}}}}},
    {{"Code12", file(12, {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                          13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24}),
      IMG_FORMAT_MT, IMG_TYPE_M, kVectors}},
    {{"Code13", file(13, {0x83}), IMG_FORMAT_BIT, IMG_TYPE_BIT, {{{0x83}}}}},
    {{"Code13TakesWholeBytes",
      bytes({13, 0, 0, 9, 0, 2, 0, 0, 1, 2, 3, 4}),
      IMG_FORMAT_BIT,
      IMG_TYPE_BIT,
      {{{1, 2}}, {{3, 4}}}}},
    {{"Code14", file(14, {1, 2, 3, 4, 5, 6, 7, 8}), IMG_FORMAT_CTH, IMG_TYPE_RGBE, kRgba}},
    {{"Code15", file(15, {1, 2, 3, 4, 5, 6, 7, 8}), IMG_FORMAT_STFP, IMG_TYPE_S_FP, kWords}},
    {{"BottomLineFirst",
      bytes({4, 0, 0, 1, 0, 3, 0, 0, 1, 2, 3}),
      IMG_FORMAT_ST,
      IMG_TYPE_S,
      {{{1}}, {{2}}, {{3}}}}},
};

class NativeTexture : public testing::TestWithParam<Texture> {};

TEST_P(NativeTexture, IsReadAndWritten) {
  const auto& [picture, is_written] = GetParam();
  test::expect_picture(picture);
  if (!is_written) return;
  const int width = std::uint8_t(picture.file[3]);
  const test::Image image = test::make_picture(picture.type, width, picture.lines);
  EXPECT_EQ(test::written(picture.format, image.get()), picture.file);
}
INSTANTIATE_TEST_SUITE_P(Codes, NativeTexture, testing::ValuesIn(kTextures),
                         [](const auto& row) { return std::string(row.param.picture.name); });

// The subtype that a format stores a pixel type as.
TEST(Native, FormatAndTypeGiveTheSubtype) {
  struct Row {
    int format, type;
    char code;
  };
  constexpr Row rows[] = {
      {IMG_FORMAT_CT, IMG_TYPE_RGBE, 3},       {IMG_FORMAT_CT16, IMG_TYPE_RGBA_16, 6},
      {IMG_FORMAT_ST, IMG_TYPE_S_FP, 15},      {IMG_FORMAT_ST16, IMG_TYPE_S_16, 7},
      {IMG_FORMAT_ST16, IMG_TYPE_S_FP, 15},    {IMG_FORMAT_WT, IMG_TYPE_VTS, 5},
      {IMG_FORMAT_CTFP, IMG_TYPE_RGBA_FP, 11}, {IMG_FORMAT_STFP, IMG_TYPE_S_FP, 15}};
  for (const auto& [format, type, code] : rows) {
    const test::Image image = test::make_image(type, 3, 1);
    const std::string file = test::written(format, image.get());
    EXPECT_EQ(file.substr(0, 8), bytes({code, 0, 0, 3, 0, 1, 0, 0})) << format << " " << type;
    const int pixel_bytes = ka_img_ncomp[type] * ka_img_nbits[type] / 8;
    EXPECT_EQ(file.size(), std::size_t(8 + 3 * pixel_bytes)) << format << " " << type;
  }
}

class NativeRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(NativeRefusal, IsTold) { test::expect_refusal(GetParam()); }

const std::vector<test::Refusal> kRefusals = {
    {"NoSuchCode", file(16, {1, 2}), IMG_ERR_FORMAT},
    {"SecondByte", bytes({4, 1, 0, 1, 0, 1, 0, 0, 9}), IMG_ERR_FORMAT},
    {"OneByteTooMany", file(4, {1, 2, 3}), IMG_ERR_FORMAT},
    {"OneByteTooFew", file(4, {1}), IMG_ERR_FORMAT},
    {"SquareWithAByteTooMany", square(0, {1, 2, 3, 4, 5}), IMG_ERR_FORMAT},
    {"HeaderEnds", bytes({4, 0, 0, 0, 0, 0, 0}), IMG_ERR_FORMAT},
    {"BitsWithoutTheirLastByte", bytes({13, 0, 0, 9, 0, 1, 0, 0, 1}), IMG_ERR_FORMAT},
    {"NoLineBehindTheLast", file(4, {1, 2}), IMG_ERR_READ, 1},
};
INSTANTIATE_TEST_SUITE_P(Files, NativeRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

TEST(Native, FileThatShrinksWhileItIsOpenIsIncomplete) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", bytes({4, 0, 0, 1, 0, 2, 0, 0, 1, 2}));
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  std::filesystem::resize_file(path, 9);
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_FALSE(ka_img_line_read(file, line.get()) && ka_img_line_read(file, line.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
}

// A line is 320000 bytes: more than any buffer.
TEST(Native, WideLinesAreWrittenAndRead) {
  const test::Scratch scratch;
  const test::Image image = test::make_image(IMG_TYPE_RGBA_FP, 20000, 2);
  std::uint32_t number = 1;
  for (int y = 0; y < 2; ++y) {
    for (std::size_t slot = 0; slot < 4; ++slot) {
      std::vector<std::uint32_t> samples(20000);
      for (std::uint32_t& sample : samples) sample = number++;
      test::set_samples(test::plane(image.get(), y, slot), samples);
    }
  }
  ASSERT_EQ(test::write_image(scratch.path("a"), IMG_FORMAT_CTFP, image.get()), IMG_ERR_NONE);
  const test::Image read = test::read_image(scratch.path("a"), IMG_TYPE_FILE);
  ASSERT_TRUE(read);
  EXPECT_EQ(test::lines_of(read.get()), test::lines_of(image.get()));
}

}  // namespace
