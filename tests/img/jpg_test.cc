// JPEG files: the codec's own messages, the order of lines, what is written with which quality.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>

#include "pictures.h"

namespace {

using test::bytes;

constexpr int kJpg = IMG_FORMAT_JPG, kRgb = IMG_TYPE_RGB;

// What it has to say are debug messages.
TEST(Jpg, TheCodecWritesNothingToStandardError) {
  testing::internal::CaptureStderr();
  (void)test::read_image(LUMORA_CORPUS "/jpg/bytes_between_segments.case", IMG_TYPE_FILE);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// What is written with a quality; 0 is what a caller leaves who sets none.
std::string written(img_image* image, float quality) {
  test::NewFile file(kJpg, kRgb, image->width, image->height);
  file->parameters[0] = std::bit_cast<std::uint32_t>(quality);
  EXPECT_TRUE(ka_img_image_write(file, image) && file.close());
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
      bytes({0xff, 0xd8, 0xff, 0xe0, 0, 16}) + std::string("JFIF\0", 5) +
      bytes({1, 1, 0, 0, 1, 0, 1, 0, 0}) + bytes({0xff, 0xdb, 0, 67, 0}) + bytes(kLuminanceSteps) +
      bytes({0xff, 0xdb, 0, 67, 1}) + bytes(kChrominanceSteps) + std::string(50, '\x63') +
      // baseline, luminance with twice the samples in both directions
      bytes({0xff, 0xc0, 0, 17, 8, 0, 1, 0, 1, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1}) +
      bytes({0xff, 0xc4, 0, 31, 0})));
  // Six blocks without any difference or coefficient: with the tables K.3 to K.6 of the standard 00
  // and 1010 for each of luminance, 00 and 00 for each of chrominance.
  EXPECT_TRUE(file.ends_with(bytes({0xff, 0xda, 0, 12, 3, 1, 0, 2, 0x11, 3, 0x11, 0, 63, 0}) +
                             bytes({0x28, 0xa2, 0x8a, 0x00, 0xff, 0xd9})));
}

constexpr int kWidth = 41, kHeight = 39;

test::Image gradient() {
  test::Lines lines(kHeight, test::flat(kWidth, {0, 0, 128}));
  for (unsigned i = 0; i < kWidth * kHeight; ++i) {
    const unsigned x = i % kWidth, y = i / kWidth;
    lines[y][0][x] = 255 * x / kWidth;
    lines[y][1][x] = 255 * y / kHeight;
  }
  return test::make_picture(kRgb, kWidth, lines);
}

TEST(Jpg, QualitiesOutOfRangeAreTold) {
  const test::Image image = gradient();
  const std::string usual = written(image.get(), 0);
  EXPECT_EQ(written(image.get(), 75), usual);
  EXPECT_LT(written(image.get(), 1).size(), usual.size());
  for (const auto& [quality, shown] : {std::pair{101.0F, "101"},
                                       {-1.0F, "-1"},
                                       {1e30F, "2147483647"},
                                       {std::nanf(""), "-2147483648"}}) {
    const test::MessageLog log;
    EXPECT_EQ(written(image.get(), quality), usual) << shown;
    const std::string told = std::string("IMG   .0  warn   102001: JPEG: bad quality ") + shown +
                             " ignored, default quality 75 used";
    EXPECT_EQ(log.lines(), std::vector<std::string>{told});
  }
}

}  // namespace
