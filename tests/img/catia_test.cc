// CATIA pictures: sub-blocks of all sizes, files that lack lines.
#include <gtest/gtest.h>

#include <random>

#include "pictures.h"

namespace {

using test::flat;

constexpr int kPicture = IMG_FORMAT_PICTURE, kRgb = IMG_TYPE_RGB;

// Noise does not fit the records of a sub-block of the full size.
TEST(Catia, PicturesOfAllSizesComeBack) {
  const struct {
    int width, height;
    bool is_noise;              // in blue alone
    std::size_t block_samples;  // of a full sub-block
  } sizes
      [] =
          {
              {512, 512, true, 511 * 512}, {512, 512, false, 512 * 512},
              {512, 511, true, 512 * 512}, {1024, 300, true, 255 * 1024},
              {640, 410, true, 409 * 640},  // 262144 / 640 is 409 and so is 262080 / 640
              {64, 4096, true, 4095 * 64}, {262080, 2, true, 262080},
          };
  for (const auto& [width, height, is_noise, block_samples] : sizes) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    std::mt19937 random(1);
    test::Lines lines(std::size_t(height), flat(std::size_t(width), {1, 2, 3}));
    for (test::Planes& planes : lines) {
      for (std::uint32_t& sample : planes[2]) {
        if (is_noise) sample = std::uint32_t(random()) & 255;
      }
    }
    const std::string file = test::written(kPicture, kRgb, lines);
    EXPECT_EQ(file.substr(968, 4), test::le(4, std::int64_t(block_samples)));
    test::expect_picture({"", file, kPicture, kRgb, lines});
  }
}

// Lines that were never written are black; there is no room for one too many.
TEST(Catia, HoldsAsManyLinesAsItsHeightSays) {
  for (const int lines : {1, 2, 3}) {
    test::NewFile file(kPicture, kRgb, 1, 2);
    for (std::size_t slot = 0; slot < 3; ++slot) *test::plane(file.line(), slot) = 9;
    for (int y = 0; y < lines; ++y) EXPECT_EQ(file.write_line(), y < 2);
    EXPECT_EQ(file->error, lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_TRUE(file.close());
    EXPECT_EQ(test::exists(file.path()), lines <= 2);
    if (lines > 2) continue;
    const std::uint32_t bottom = lines > 1 ? 9 : 0;
    const test::Lines expected = {flat(1, {bottom, bottom, bottom}), flat(1, {9, 9, 9})};
    test::expect_picture({"", file.contents(), kPicture, kRgb, expected});
  }
}

}  // namespace
