// JPEG files: the codec's own messages, qualities.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "cached.h"
#include "pictures.h"

namespace {

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

TEST(Jpg, QualitiesOutOfRangeAreTold) {
  const test::Image image = test::random_image(kRgb, 41, 39);
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
