// LWI images: what is read of which file and what is refused. These and the null format take lines
// and leave nothing.
#include <gtest/gtest.h>

#include "imgcall.h"
#include "pictures.h"

namespace {

using test::be;
using test::bytes;

constexpr int kLwi = IMG_FORMAT_LWI, kRgb = IMG_TYPE_RGB;

// The records in front of the size record, of 2, 0, 1 and 0 bytes.
const std::string kOthers = bytes({21, 2, 1, 2, 22, 0, 23, 1, 19, 24, 0});

// A size record up to byte 14, which says where the pixels begin.
std::string size_record(std::int64_t width, std::int64_t height, int byte14 = 17) {
  return bytes({19, 12, 0, 0, 0, 0}) + be(4, width) + be(4, height) + bytes({byte14});
}
std::string filled(std::size_t count) { return std::string(count, '\xee'); }

std::string file(std::int64_t width, std::int64_t height, std::initializer_list<int> packets) {
  return kOthers + size_record(width, height) + filled(27 - 15) + bytes(packets);
}

const std::string kPixel = bytes({1, 1, 2, 3});
const std::string kFile = file(1, 1, {1, 1, 2, 3});
const std::string kLongSize = kOthers + size_record(1, 1, 16) + filled(16);
const test::Lines kOnePixel = {{{1}, {2}, {3}}};

// 255 is the last byte that is looked at for a type: 11 + 2 + 242
std::string behind(int count) {
  return kOthers + bytes({1, count}) + filled(std::size_t(count)) + size_record(1, 1) + filled(12) +
         kPixel;
}

const std::vector<test::Shown> kPictures = {
    {"PixelsAfter27Bytes", kFile, kOnePixel},
    {"PixelsAfter44Bytes", kLongSize + bytes({17}) + filled(44 - 32) + kPixel, kOnePixel},
    {"TopLineFirst",
     file(2, 2, {1, 1, 2, 3, 1, 4, 5, 6, 2, 7, 8, 9}),
     {{{7, 7}, {8, 8}, {9, 9}}, {{1, 4}, {2, 5}, {3, 6}}}},
    {"EmptyPackets", file(1, 1, {0, 9, 9, 9, 1, 1, 2, 3, 0, 9, 9, 9}), kOnePixel},
    {"OtherRecords", bytes({0, 21, 31, 40, 20, 1, 77, 31, 0}) + kFile, kOnePixel},
    {"SizeRecordBehindTheHead", behind(242), kOnePixel},
    // packets that do not fit the buffer of the reader, 40000 of nothing
    {"LongLine", file(1, 1, {}) + std::string(160'000, '\0') + kPixel, kOnePixel},
};
TEST(Lwi, PicturesAreRead) { test::expect_pictures(kLwi, kRgb, kPictures); }

const std::vector<test::Refusal> kRefusals = {
    {"Without21", kFile.substr(4), IMG_ERR_FORMAT},
    {"Without24", bytes({21, 0, 22, 0, 23, 0}) + kFile.substr(11), IMG_ERR_FORMAT},
    {"SizeRecordFarBehindTheHead", behind(243), IMG_ERR_FORMAT},
    {"LastPartEnds", kLongSize, IMG_ERR_READ},
    {"WidthBelowZero", file(0x80000000, 1, {1, 1, 2, 3}), IMG_ERR_CORRUPT},
    {"LineEnds", file(3, 1, {2, 1, 2, 3}), IMG_ERR_READ, 0},
    {"SecondLineIsMissing", file(2, 2, {2, 1, 2, 3}), IMG_ERR_READ, 1},
    {"OnlyEmptyPackets", file(1, 1, {0, 1, 2, 3, 0, 1, 2, 3}), IMG_ERR_READ, 0},
    {"PacketPastTheLine", file(2, 2, {4, 1, 2, 3}), IMG_ERR_CORRUPT, 0},
};
TEST(Lwi, RefusalsAreTold) { test::expect_refusals(kRefusals); }

// Packets of which one passes the end of a line do not tell where the next line starts.
TEST(Lwi, GivesNoLineBehindADamagedOne) {
  EXPECT_EQ(test::line_errors(file(2, 2, {1, 1, 2, 3, 2, 1, 2, 3})),
            std::vector<int>(2, IMG_ERR_CORRUPT));
}

TEST(Lwi, TakesLinesAndWritesNothing) {
  EXPECT_EQ(test::written(kLwi, kRgb, {test::flat(2, {1, 3, 5})}), "");
}

TEST(Null, TakesLinesOfEveryTypeAndLeavesNoFile) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", "something");
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    const test::MessageLog log;
    const test::Image image = test::make_image(type, 3, 2);
    EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE) << type;
    EXPECT_EQ(log.lines(), std::vector<std::string>{}) << type;  // no type has to be replaced
    EXPECT_FALSE(test::exists(path));
  }
}

TEST(Null, LeavesLinksAndDevices) {
  const test::Scratch scratch;
  std::filesystem::create_symlink(scratch.write("target", "something"), scratch.path("link"));
  const test::Image image = test::make_image(IMG_TYPE_RGBA, 1, 1);
  for (const std::string& path : {scratch.path("link"), std::string("/dev/null")}) {
    EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE);
    EXPECT_TRUE(test::exists(path));
  }
}

// It accepts whatever it is asked about, and yet no file is one of its own.
TEST(Null, OpensNothing) {
  test::expect_refusal({"", "anything", IMG_ERR_FORMAT});
  const ka::img_driver& driver = ka::img_format_at(IMG_FORMAT_NULL).driver;
  const std::uint8_t head[IMG_HEAD_SIZE] = {};
  img_file handle{};
  EXPECT_TRUE(driver.test(&handle, head));
  EXPECT_FALSE(driver.open(&handle, head));
  EXPECT_EQ(handle.error, IMG_ERR_OPEN);
}

}  // namespace
