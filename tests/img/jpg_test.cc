// JPEG files: what is read of which file, the bytes that are written, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/version.h>

#include <algorithm>
#include <bit>
#include <cmath>

#include "pictures.h"

namespace {

using test::be, test::bytes, test::repeated;

constexpr int kJpg = IMG_FORMAT_JPG, kRgb = IMG_TYPE_RGB;

// A grey picture, 8 pixels wide, from blocks of one level each. All steps of quantization are 8, so
// that the first coefficient is the level above 128. Its code is 00 for the same as in the block
// before, 01 and three bits for a difference of 4 to 7 or -7 to -4, 10 and eight bits for larger
// ones; the code of the end of a block is 0.
const std::string kStart = bytes({0xff, 0xd8});
const std::string kEnd = bytes({0xff, 0xd9});
const std::string kApp = bytes({0xff, 0xe1, 0, 4, 1, 2});
const std::string kTables = bytes({0xff, 0xdb, 0, 67, 0}) + std::string(64, '\x08') +
                            bytes({0xff, 0xc4, 0, 22, 0, 0, 3}) + std::string(14, '\0') +
                            bytes({0, 3, 8, 0xff, 0xc4, 0, 20, 0x10, 1}) + std::string(16, '\0');

std::string frame(int height, int kind = 0xc0) {
  return bytes({0xff, kind, 0, 11, 8}) + be(2, height) + bytes({0, 8, 1, 1, 0x11, 0});
}
// A scan of the coefficients from `first` to `last`.
std::string scan(int first, int last, std::initializer_list<int> data) {
  return bytes({0xff, 0xda, 0, 8, 1, 1, 0, first, last, 0}) + bytes(data);
}

// 01 101 0, 01 010 0 and ones: levels 128 + 5 and 133 - 5.
const std::string kHeader = kStart + kApp + kTables + frame(16);
const std::string kTwoBlocks = kHeader + scan(0, 63, {0x69, 0x4f}) + kEnd;
const std::string kBytesBetweenSegments = kStart + kApp + "??" + kTwoBlocks.substr(8);
const std::string kMarkerInTheSecondBlock = kHeader + scan(0, 63, {0x69}) + kEnd;

test::Lines flat_lines(std::initializer_list<std::uint32_t> levels) {
  test::Lines lines;
  for (const std::uint32_t level : levels) {
    lines.insert(lines.end(), 8, test::Planes(3, std::vector<std::uint32_t>(8, level)));
  }
  return lines;
}
const test::Lines kTwoLevels = flat_lines({128, 133});  // the bottom line first

// The same as a progressive picture, in so many scans: first the levels, then nothing.
std::string progressive(std::size_t scans) {
  // 01 101, 01 010 and ones; in the other scans 0, 0 and ones
  return kStart + kApp + kTables + frame(16, 0xc2) + scan(0, 0, {0x6a, 0xbf}) +
         repeated(scans - 1, scan(1, 63, {0x3f})) + kEnd;
}

// The start of a grey picture of a million blocks that has no tables.
std::string large(int kind) {
  std::string head = kStart + kApp + kTables + frame(8192, kind);
  return head.replace(head.size() - 6, 2, be(2, kind == 0xc9 ? 9000 : 8192));
}
// A scan of nothing, in runs of 16384 blocks of 15 bits each.
std::string empty_scans(std::size_t scans) {
  const std::string table = bytes({0xff, 0xc4, 0, 20, 0x10, 1}) + std::string(15, '\0') + "\xe0";
  std::string text = large(0xc2) + table;
  text += repeated(scans, scan(1, 63, {}) + std::string((64 * 15 + 7) / 8, '\0')) + kEnd;
  return text + std::string(150'000, '\0');
}

// A marker behind each block.
const std::string kRestarting =
    kStart + kApp + kTables + bytes({0xff, 0xdd, 0, 4, 0, 1}) + frame(16);

const std::vector<test::Shown> kPictures = {
    {"Grey", kTwoBlocks, kTwoLevels},
    {"AnyApplicationMarker", kStart + bytes({0xff, 0xef, 0, 2}) + kTwoBlocks.substr(8), kTwoLevels},
    {"BytesBetweenSegments", kBytesBetweenSegments, kTwoLevels},
    {"BytesBehindTheEnd", kTwoBlocks + "more", kTwoLevels},
    {"NoEndOfImage", kTwoBlocks.substr(0, kTwoBlocks.size() - 2), kTwoLevels},
    {"Progressive", progressive(2), kTwoLevels},
    {"ProgressiveOfManyScans", progressive(100), kTwoLevels},
    // each block with ones behind it and a marker, where levels start again from 128
    {"Restarts", kRestarting + scan(0, 63, {0x6b, 0xff, 0xd0, 0x53}) + kEnd,
     flat_lines({123, 133})},
};
TEST(Jpg, PicturesAreRead) { test::expect_pictures(kJpg, kRgb, kPictures); }

std::string seed(const char* name) {
  return test::read_file(std::string(LUMORA_CORPUS "/jpg/") + name);
}

const std::vector<test::Refusal> kRefusals = {
    {"NoApplicationMarker", kStart + kTwoBlocks.substr(8), IMG_ERR_FORMAT},
    {"CommentFirst", kStart + bytes({0xff, 0xfe, 0, 2}) + kTwoBlocks.substr(2), IMG_ERR_FORMAT},
    {"HeaderEnds", kStart + kApp + kTables + frame(16), IMG_ERR_SUBTYPE},
    {"SegmentPastTheEnd", kStart + bytes({0xff, 0xe0, 0xff, 0xff}), IMG_ERR_SUBTYPE},
    {"NoPicture", kStart + kApp + kEnd, IMG_ERR_SUBTYPE},
    {"NoHeight", kStart + kApp + kTables + frame(0) + scan(0, 63, {0x69, 0x4f}) + kEnd,
     IMG_ERR_SUBTYPE},
    {"FourInks", seed("cmyk.jpg"), IMG_ERR_SUBTYPE},
    {"Lossless", kStart + kApp + kTables + frame(16, 0xc3) + scan(1, 0, {0x69, 0x4f}) + kEnd,
     IMG_ERR_SUBTYPE},
    {"FirstBlockEnds", kHeader + scan(0, 63, {}), IMG_ERR_READ, 0},
    {"SecondBlockEnds", kHeader + scan(0, 63, {0x69}), IMG_ERR_READ, 8},
    {"MarkerInTheSecondBlock", kMarkerInTheSecondBlock, IMG_ERR_CORRUPT, 8},
    {"NoSuchCode", kHeader + scan(0, 63, {0x6b, 0xff, 0}) + kEnd, IMG_ERR_CORRUPT, 8},
    {"NoRestart", kRestarting + scan(0, 63, {0x69, 0x4f, 0x4f, 0x4f}) + kEnd, IMG_ERR_CORRUPT, 8},
    {"OtherRestart", kRestarting + scan(0, 63, {0x6b, 0xff, 0xd3, 0x53}) + kEnd, IMG_ERR_CORRUPT,
     8},
    {"ProgressiveEndsInAScan", kStart + kApp + kTables + frame(16, 0xc2) + scan(0, 0, {0x6a}),
     IMG_ERR_READ},
    {"ProgressiveEndsBeforeItsEnd", progressive(2).substr(0, progressive(2).size() - 2),
     IMG_ERR_READ},
    {"ProgressiveOfTooManyScans", progressive(101), IMG_ERR_SUBTYPE},
    {"ProgressiveLargerThanItsFile", seed("progressive_huge.jpg"), IMG_ERR_SUBTYPE},
    {"ProgressivePassesOverTooManyBlocks", empty_scans(60), IMG_ERR_SUBTYPE},
    {"ArithmeticLargerThanItsFile", large(0xc9) + scan(0, 63, {}) + kEnd, IMG_ERR_SUBTYPE},
    {"ArithmeticEnds", seed("arithmetic.jpg").substr(0, 220), IMG_ERR_READ, 0},
};
TEST(Jpg, RefusalsAreTold) { test::expect_refusals(kRefusals); }

TEST(Jpg, TheCodecTalksInDebugMessagesOnly) {
  const test::MessageLog log(KA_DEBUG);
  testing::internal::CaptureStderr();
  test::expect_picture({"", kBytesBetweenSegments, kJpg, kRgb, kTwoLevels});
  test::expect_refusal({"", kMarkerInTheSecondBlock, IMG_ERR_CORRUPT, 8});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  for (const char* const told :
       {"JPG   .0  debug: Corrupt JPEG data: 2 extraneous bytes before marker 0xdb",
        "JPG   .0  debug: Corrupt JPEG data: premature end of data segment"}) {
    EXPECT_EQ(std::ranges::count(log.lines(), told), 1) << told;
  }
}

TEST(Jpg, LinesComeInTheirOrderOnly) {
  test::OpenFile file(kTwoBlocks);
  file->line_count = 5;
  EXPECT_FALSE(file.read_line());
  EXPECT_EQ(file->error, IMG_ERR_NONE);
  file->line_count = 0;
  for (int y = 0; y < 5; ++y) EXPECT_TRUE(file.read_line());
  EXPECT_EQ(ka_img_close(file), 1);
  EXPECT_EQ(file->error, IMG_ERR_NONE);
}

TEST(Jpg, NothingIsReadBehindADamagedLine) {
  std::vector<int> errors(16, IMG_ERR_CORRUPT);
  std::fill_n(errors.begin(), 8, IMG_ERR_NONE);
  EXPECT_EQ(test::line_errors(kMarkerInTheSecondBlock), errors);
}

// What is written with a quality; 0 is what a caller leaves who sets none.
std::string written(img_image* image, float quality) {
  test::NewFile file(kJpg, kRgb, image->width, image->height);
  file->parameters[0] = std::bit_cast<std::uint32_t>(quality);
  EXPECT_TRUE(ka_img_image_write(file, image));
  EXPECT_TRUE(file.close());
  return file.contents();
}

// Of quality 50 are the quantization tables K.1 and K.2 of the standard, here in zigzag order.
constexpr std::initializer_list<int> kLuminanceSteps = {
    16, 11, 12,  14,  12,  10, 16, 14,  13,  14,  18,  17,  16, 19,  24,  40,
    26, 24, 22,  22,  24,  49, 35, 37,  29,  40,  58,  51,  61, 60,  57,  51,
    56, 55, 64,  72,  92,  78, 64, 68,  87,  69,  55,  56,  80, 109, 81,  87,
    95, 98, 103, 104, 103, 62, 77, 113, 121, 112, 100, 120, 92, 101, 103, 99};
constexpr std::initializer_list<int> kChrominanceSteps = {17, 18, 18, 24, 21, 24, 47,
                                                          26, 26, 47, 99, 66, 56, 66};

TEST(Jpg, WritesTheseBytes) {
  const test::Image image = test::make_picture(kRgb, 1, {test::flat(1, {128, 128, 128})});
  const std::string file = written(image.get(), 50.9F);  // the whole part counts
  EXPECT_TRUE(file.starts_with(
      kStart + bytes({0xff, 0xe0, 0, 16}) + std::string("JFIF\0", 5) +
      bytes({1, 1, 0, 0, 1, 0, 1, 0, 0}) + bytes({0xff, 0xdb, 0, 67, 0}) + bytes(kLuminanceSteps) +
      bytes({0xff, 0xdb, 0, 67, 1}) + bytes(kChrominanceSteps) + std::string(50, '\x63') +
      // baseline, luminance with twice the samples in both directions
      bytes({0xff, 0xc0, 0, 17, 8, 0, 1, 0, 1, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1}) +
      bytes({0xff, 0xc4, 0, 31, 0})));
  // Six blocks without any difference or coefficient: with the tables K.3 to K.6 of the standard 00
  // and 1010 for each of luminance, 00 and 00 for each of chrominance.
  EXPECT_TRUE(file.ends_with(bytes({0xff, 0xda, 0, 12, 3, 1, 0, 2, 0x11, 3, 0x11, 0, 63, 0}) +
                             bytes({0x28, 0xa2, 0x8a, 0x00}) + kEnd));
}

test::Image gradient(int width, int height) {
  test::Image image = test::make_image(kRgb, width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      test::plane(image.get(), y, test::kR)[x] = std::uint8_t(255 * x / width);
      test::plane(image.get(), y, test::kG)[x] = std::uint8_t(255 * y / height);
      test::plane(image.get(), y, test::kB)[x] = 128;
    }
  }
  return image;
}

TEST(Jpg, QualitiesOutOfRangeAreTold) {
  const test::Image image = gradient(40, 30);
  const std::string usual = written(image.get(), 0);
  EXPECT_EQ(written(image.get(), 75), usual);
  EXPECT_EQ(written(image.get(), -0.9F), usual);
  EXPECT_LT(written(image.get(), 1).size(), usual.size());
  EXPECT_GT(written(image.get(), 100).size(), usual.size());
  const std::vector<std::pair<float, const char*>> qualities = {{101, "101"},
                                                                {-1, "-1"},
                                                                {1e30F, "2147483647"},
                                                                {-1e30F, "-2147483648"},
                                                                {std::nanf(""), "-2147483648"}};
  for (const auto& [quality, shown] : qualities) {
    const test::MessageLog log;
    EXPECT_EQ(written(image.get(), quality), usual) << shown;
    const std::string told = std::string("IMG   .0  warn   102001: JPEG: bad quality ") + shown +
                             " ignored, default quality 75 used";
    EXPECT_EQ(log.lines(), std::vector<std::string>{told});
  }
}

// A coefficient is off by half a step of 1 at most, and few of them are not 0; colours are taken
// from two pixels by two, of which the next is 7 away at most.
TEST(Jpg, LosesLittle) {
  const test::Image image = gradient(41, 39);
  test::OpenFile file(written(image.get(), 100));
  int most = 0;
  for (int y = 38; y >= 0; --y) {
    ASSERT_TRUE(file.read_line());
    const test::Planes a = test::planes_of(image.get(), y), b = file.planes();
    for (std::size_t i = 0; i < 3 * 41; ++i) {
      most = std::max(most, std::abs(int(a[i % 3][i / 3]) - int(b[i % 3][i / 3])));
    }
  }
  EXPECT_LE(most, 8);
}

TEST(Jpg, AFileWithoutItsLastLinesIsRemoved) {
  test::NewFile file(kJpg, kRgb, 8, 8);
  EXPECT_TRUE(file.write_line());
  EXPECT_FALSE(file.close());
  EXPECT_EQ(file->error, IMG_ERR_CLOSE);
  EXPECT_FALSE(test::exists(file.path()));
}

TEST(Jpg, TheCodecHasAVersion) { EXPECT_EQ(ka_jpg_mod_version(), 62); }

}  // namespace
