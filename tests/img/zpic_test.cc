// Zpic depth images: the bytes that are written, and that nothing reads them.
#include <gtest/gtest.h>

#include <bit>

#include "imgcall.h"
#include "pictures.h"

namespace {

using test::bytes;

constexpr std::uint32_t kInfinity = 0x7f800000, kNotANumber = 0x7fc00001;

std::uint32_t bits(float depth) { return std::bit_cast<std::uint32_t>(depth); }

TEST(Zpic, WritesTheseBytes) {
  const struct {
    const char* name;
    std::uint32_t depth;
    std::string stored;
  } rows[] = {
      // 100000 is 1.52587890625 * 2^16: exponent 16 + 127 = 0x8f, fraction 0x435000
      {"NoDepth", bits(0.0F), bytes({0xc7, 0xc3, 0x50, 0x00})},
      {"NoDepthWithASign", bits(-0.0F), bytes({0xc7, 0xc3, 0x50, 0x00})},
      // 5 is 1.25 * 2^2: exponent 2 + 127 = 0x81, fraction 0x200000
      {"InFront", bits(5.0F), bytes({0xc0, 0xa0, 0x00, 0x00})},
      {"Behind", bits(-5.0F), bytes({0x40, 0xa0, 0x00, 0x00})},
      {"Smallest", 1, bytes({0x80, 0x00, 0x00, 0x01})},
      {"Infinity", kInfinity, bytes({0xff, 0x80, 0x00, 0x00})},
      {"NotANumber", kNotANumber, bytes({0xff, 0xc0, 0x00, 0x01})},
  };
  for (const auto& [name, depth, stored] : rows) {
    SCOPED_TRACE(name);
    const test::Image image = test::make_picture(IMG_TYPE_Z, 2, {{{depth, bits(1.0F)}}});
    EXPECT_EQ(test::written(IMG_FORMAT_ZPIC, image.get()),
              stored + bytes({0xbf, 0x80, 0x00, 0x00}));
  }
}

TEST(Zpic, WritesTheTopLineFirst) {
  const test::Image image = test::make_picture(IMG_TYPE_Z, 1, {{{bits(1.0F)}}, {{bits(2.0F)}}});
  EXPECT_EQ(test::written(IMG_FORMAT_ZPIC, image.get()),
            bytes({0xc0, 0x00, 0x00, 0x00, 0xbf, 0x80, 0x00, 0x00}));
}

// A line that is larger than the buffer of the writer.
TEST(Zpic, WritesLinesOfAnyLength) {
  constexpr std::size_t width = 100'003;
  test::Planes planes(1);
  std::string stored;
  for (std::uint32_t i = 1; i <= width; ++i) {
    planes[0].push_back(i);
    stored += bytes({0x80, int(i >> 16), int(i >> 8 & 255), int(i & 255)});
  }
  const test::Image image = test::make_picture(IMG_TYPE_Z, int(width), {planes});
  EXPECT_TRUE(test::written(IMG_FORMAT_ZPIC, image.get()) == stored);
}

TEST(Zpic, IsNotRecognised) {
  const test::Scratch scratch;
  for (const float depth : {0.0F, 5.0F, -5.0F}) {
    const test::Image image = test::make_picture(IMG_TYPE_Z, 1, {{{bits(depth)}}});
    ASSERT_EQ(test::write_image(scratch.path("a"), IMG_FORMAT_ZPIC, image.get()), IMG_ERR_NONE);
    int error = IMG_ERR_NONE;
    EXPECT_FALSE(test::read_image(scratch.path("a"), IMG_TYPE_Z, &error));
    EXPECT_EQ(error, IMG_ERR_FORMAT);
  }
}

TEST(Zpic, IsNotReadWhereSomebodyAsksItsDriver) {
  const img_driver& driver = img_format_at(IMG_FORMAT_ZPIC).driver;
  const std::uint8_t head[IMG_HEAD_SIZE] = {};
  img_file handle{};
  EXPECT_FALSE(driver.test(&handle, head));
  EXPECT_FALSE(driver.open(&handle, head));
  EXPECT_EQ(handle.error, IMG_ERR_FORMAT);
  img_line line{};
  EXPECT_FALSE(driver.read(&handle, &line));
  EXPECT_EQ(handle.error, IMG_ERR_READ);
  EXPECT_TRUE(driver.close(&handle));
}

}  // namespace
