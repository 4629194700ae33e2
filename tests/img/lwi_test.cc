// LWI images: what is read of which file, what is refused, and that nothing is written.
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

using test::bytes;

constexpr int kLwi = IMG_FORMAT_LWI, kRgb = IMG_TYPE_RGB;

std::string be32(std::uint32_t value) {
  return bytes({int(value >> 24), int(value >> 16 & 255), int(value >> 8 & 255), int(value & 255)});
}

// The records in front of the size record, of 2, 0, 1 and 0 bytes.
const std::string kOthers = bytes({21, 2, 1, 2, 22, 0, 23, 1, 19, 24, 0});

// A size record up to byte 14, which says where the pixels begin.
std::string size_record(std::uint32_t width, std::uint32_t height, int byte14 = 17) {
  return bytes({19, 12, 0, 0, 0, 0}) + be32(width) + be32(height) + bytes({byte14});
}

std::string filled(std::size_t count) { return std::string(count, '\xee'); }

std::string file(std::uint32_t width, std::uint32_t height, std::initializer_list<int> packets) {
  return kOthers + size_record(width, height) + filled(27 - 15) + bytes(packets);
}

// One pixel of the colour 1, 2, 3.
const std::string kPixel = bytes({1, 1, 2, 3});
const test::Lines kOnePixel = {{{1}, {2}, {3}}};

class LwiPicture : public testing::TestWithParam<test::Picture> {};
TEST_P(LwiPicture, IsRead) { test::expect_picture(GetParam()); }

const std::vector<test::Picture> kPictures = {
    {"PixelsAfter27Bytes", file(1, 1, {1, 1, 2, 3}), kLwi, kRgb, kOnePixel},
    {"PixelsAfter44Bytes",
     kOthers + size_record(1, 1, 16) + filled(16) + bytes({17}) + filled(44 - 32) + kPixel, kLwi,
     kRgb, kOnePixel},
    {"PixelsAfter45Bytes",
     kOthers + size_record(1, 1, 16) + filled(16) + bytes({16}) + filled(45 - 32) + kPixel, kLwi,
     kRgb, kOnePixel},
    {"TopLineFirst",
     file(3, 2, {2, 1, 2, 3, 1, 4, 5, 6, 3, 7, 8, 9}),
     kLwi,
     kRgb,
     {{{7, 7, 7}, {8, 8, 8}, {9, 9, 9}}, {{1, 1, 4}, {2, 2, 5}, {3, 3, 6}}}},
    {"EmptyPackets",
     file(2, 1, {0, 9, 9, 9, 1, 1, 2, 3, 0, 9, 9, 9, 1, 4, 5, 6}),
     kLwi,
     kRgb,
     {{{1, 4}, {2, 5}, {3, 6}}}},
    {"BytesBehindTheLastLine", file(1, 1, {1, 1, 2, 3, 200, 9, 9}), kLwi, kRgb, kOnePixel},
    {"PaddingAndOtherRecords", bytes({0, 21, 31, 40, 20, 1, 77, 31, 0}) + file(1, 1, {1, 1, 2, 3}),
     kLwi, kRgb, kOnePixel},
    // one that stands in front of the others is not the last record
    {"AnotherSizeRecord", bytes({19, 1, 50}) + file(1, 1, {1, 1, 2, 3}), kLwi, kRgb, kOnePixel},
    // 255 is the last byte that is looked at for a type: 11 + 2 + 242
    {"SizeRecordBehindTheHead",
     kOthers + bytes({1, 242}) + filled(242) + size_record(1, 1) + filled(12) + kPixel, kLwi, kRgb,
     kOnePixel},
};
INSTANTIATE_TEST_SUITE_P(Files, LwiPicture, testing::ValuesIn(kPictures),
                         test::row_name<test::Picture>);

class LwiRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(LwiRefusal, IsTold) { test::expect_refusal(GetParam()); }

std::string without(int type) {
  std::string others;
  for (const int other : {21, 22, 23, 24}) {
    if (other != type) others += bytes({other, 0});
  }
  return others + size_record(1, 1) + filled(12) + kPixel;
}

const std::vector<test::Refusal> kOtherFiles = {
    {"Without21", without(21), IMG_ERR_FORMAT},
    {"Without22", without(22), IMG_ERR_FORMAT},
    {"Without23", without(23), IMG_ERR_FORMAT},
    {"Without24", without(24), IMG_ERR_FORMAT},
    {"SizeRecordFirst", size_record(1, 1).substr(0, 14) + kOthers, IMG_ERR_FORMAT},
    {"TypeAbove31", bytes({32, 0}) + file(1, 1, {1, 1, 2, 3}), IMG_ERR_FORMAT},
    {"SizeRecordFarBehindTheHead",
     kOthers + bytes({1, 243}) + filled(243) + size_record(1, 1) + filled(12) + kPixel,
     IMG_ERR_FORMAT},
    {"RecordPastTheHead", bytes({1, 255}) + file(1, 1, {1, 1, 2, 3}), IMG_ERR_FORMAT},
};
INSTANTIATE_TEST_SUITE_P(OtherFiles, LwiRefusal, testing::ValuesIn(kOtherFiles),
                         test::row_name<test::Refusal>);

const std::vector<test::Refusal> kRefusals = {
    {"SizeEnds", kOthers + size_record(1, 1).substr(0, 14), IMG_ERR_READ},
    {"LastPartEnds", kOthers + size_record(1, 1, 16) + filled(16), IMG_ERR_READ},
    {"EndsBeforeThePixels", file(1, 1, {}).substr(0, 11 + 26), IMG_ERR_READ},
    {"WidthBelowZero", file(0x80000000, 1, {1, 1, 2, 3}), IMG_ERR_CORRUPT},
    {"HeightBelowZero", file(1, 0xffffffff, {1, 1, 2, 3}), IMG_ERR_CORRUPT},
    {"NoPixels", file(1, 1, {}), IMG_ERR_READ, 0},
    {"PacketEnds", file(1, 1, {1, 1, 2}), IMG_ERR_READ, 0},
    {"LineEnds", file(3, 1, {2, 1, 2, 3}), IMG_ERR_READ, 0},
    {"SecondLineIsMissing", file(2, 2, {2, 1, 2, 3}), IMG_ERR_READ, 1},
    {"OnlyEmptyPackets", file(1, 1, {0, 1, 2, 3, 0, 1, 2, 3}), IMG_ERR_READ, 0},
    {"PacketPastTheLine", file(2, 2, {4, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"SecondPacketPastTheLine", file(2, 2, {1, 1, 2, 3, 2, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
    {"LargestPacketPastTheLine", file(254, 1, {255, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
};
INSTANTIATE_TEST_SUITE_P(Files, LwiRefusal, testing::ValuesIn(kRefusals),
                         test::row_name<test::Refusal>);

// Packets of which one passes the end of a line do not tell where the next line starts.
TEST(Lwi, GivesNoLineBehindADamagedOne) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", file(2, 2, {1, 1, 2, 3, 2, 1, 2, 3}));
  test::Handle handle;
  ASSERT_TRUE(ka_img_open(handle, path.c_str(), IMG_TYPE_FILE));
  const test::Line line(ka_img_line_alloc(handle));
  for (int y = 0; y < 2; ++y) {
    EXPECT_FALSE(ka_img_line_read(handle, line.get()));
    EXPECT_EQ(handle->error, IMG_ERR_CORRUPT);
  }
}

// Lines whose packets do not fit the buffer of the reader.
TEST(Lwi, ReadsLongLines) {
  constexpr std::uint32_t width = 100'000, height = 2;
  std::string packets;
  test::Lines lines(height, test::Planes(3));
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      packets += bytes({1, int(x & 255), int(x >> 8 & 255), int(y)});
      if (x % 1000 == 0) packets += bytes({0, 1, 2, 3});
      test::Planes& planes = lines[height - 1 - y];
      planes[0].push_back(x & 255);
      planes[1].push_back(x >> 8 & 255);
      planes[2].push_back(y);
    }
  }
  test::expect_picture({"", file(width, height, {}) + packets, kLwi, kRgb, lines});
}

TEST(Lwi, TakesLinesAndWritesNothing) {
  const test::Image image = test::make_picture(IMG_TYPE_RGB, 2, {{{1, 2}, {3, 4}, {5, 6}}});
  EXPECT_EQ(test::written(IMG_FORMAT_LWI, image.get()), "");
}

}  // namespace
