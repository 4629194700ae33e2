// Zpic depth images: the bytes that are written, and that nothing reads them.
#include <gtest/gtest.h>

#include <bit>

#include "pictures.h"

namespace {

using test::bytes;

constexpr std::uint32_t kInfinity = 0x7f800000, kNotANumber = 0x7fc00001;

std::uint32_t bits(float depth) { return std::bit_cast<std::uint32_t>(depth); }

// The top line first, negated; no depth is 100000 = 1.52587890625 * 2^16: exponent 16 + 127 = 0x8f,
// fraction 0x435000. 5 is 1.25 * 2^2: exponent 2 + 127 = 0x81, fraction 0x200000.
TEST(Zpic, WritesTheseBytes) {
  const test::Lines lines = {{{bits(0.0F), bits(-0.0F), bits(5.0F), bits(-5.0F)}},
                             {{1, kInfinity, kNotANumber, 0}}};
  EXPECT_EQ(
      test::written(IMG_FORMAT_ZPIC, IMG_TYPE_Z, lines),
      bytes({0x80, 0, 0, 1, 0xff, 0x80, 0, 0, 0xff, 0xc0, 0, 1, 0xc7, 0xc3, 0x50, 0}) +
          bytes({0xc7, 0xc3, 0x50, 0, 0xc7, 0xc3, 0x50, 0, 0xc0, 0xa0, 0, 0, 0x40, 0xa0, 0, 0}));
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
  EXPECT_TRUE(test::written(IMG_FORMAT_ZPIC, IMG_TYPE_Z, {planes}) == stored);
}

TEST(Zpic, IsNotRecognised) {
  for (const float depth : {0.0F, 5.0F, -5.0F}) {
    const std::string file = test::written(IMG_FORMAT_ZPIC, IMG_TYPE_Z, {{{bits(depth)}}});
    test::expect_refusal({"", file, IMG_ERR_FORMAT});
  }
}

}  // namespace
