// Conversions worked out by hand, and colours with a shared exponent.
#include <gtest/gtest.h>

#include <limits>

#include "convert_reference.h"
#include "imgcall.h"

namespace {

using test::Pixel;
using test::PlanarLine;

constexpr float kWeights[4] = {0.299F, 0.587F, 0.114F, 0.0F};
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// Samples by slot: R, G, B, A.
TEST(Convert, GivesWhatIsWorkedOut) {
  const struct {
    int src, dst;
    Pixel source, expected;
  } rows[] = {
      {IMG_TYPE_RGBA_FP, IMG_TYPE_RGBA, {-0.5, 0.5, 1, 2}, {0, 127, 255, 255}},
      {IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, {255, 1, 0, 128}, {0xff00, 0x100, 0, 0x8000}},
      {IMG_TYPE_RGB, IMG_TYPE_RGBA_16, {1, 0, 0, 0}, {256, 0, 0, 65535}},
      {IMG_TYPE_RGB, IMG_TYPE_RGBA_FP, {255, 0, 51, 0}, {1, 0, 0.2F, 1}},
      {IMG_TYPE_S, IMG_TYPE_RGBA, {0, 0, 0, 9}, {9, 9, 9, 9}},
      {IMG_TYPE_RGB, IMG_TYPE_S_16, {255, 255, 255, 0}, {0, 0, 0, 65025}},  // 255 * 255
      {IMG_TYPE_RGB, IMG_TYPE_S_FP, {255, 255, 255, 0}, {0, 0, 0, 255}},
      // 0.299 * 0x8000 + 0.587 * 0x4000 + 0.114 * 0x2000 = 20348.9 = 0x4f7c
      {IMG_TYPE_RGB_16, IMG_TYPE_S, {0x8000, 0x4000, 0x2000, 0}, {0, 0, 0, 0x4f}},
      {IMG_TYPE_RGB_FP, IMG_TYPE_S, {2, 2, 2, 0}, {0, 0, 0, 510 - 256}},
      {IMG_TYPE_RGBA, IMG_TYPE_A, {9, 9, 9, 77}, {0, 0, 0, 77}},
      {IMG_TYPE_VTS, IMG_TYPE_RGB, {32767, 65536 - 32767, 0, 0}, {254, 1, 128, 0}},
      {IMG_TYPE_VTA, IMG_TYPE_S, {32767, 65536 - 32767, 0, 0}, {0, 0, 0, 128}},
      {IMG_TYPE_N, IMG_TYPE_RGB, {1, -1, 2, 0}, {255, 1, 382 - 256, 0}},  // 2 * 127 + 128 = 382
      {IMG_TYPE_Z, IMG_TYPE_RGB, {60, 0, 0, 0}, {102, 102, 102, 0}},
      {IMG_TYPE_Z, IMG_TYPE_RGB, {100, 0, 0, 0}, {0, 0, 0, 0}},
      {IMG_TYPE_TAG, IMG_TYPE_RGB, {7, 0, 0, 0}, {128, 128, 128, 0}},
      {IMG_TYPE_TAG, IMG_TYPE_S_16, {1, 0, 0, 0}, {0, 0, 0, 0x8080}},
      {IMG_TYPE_COVERAGE, IMG_TYPE_RGBA, {0.5, 0, 0, 0}, {128, 128, 128, 255}},
      {IMG_TYPE_BIT, IMG_TYPE_RGBA_16, {0, 0, 0, 1}, {0xff00, 0xff00, 0xff00, 0xff00}},
      {IMG_TYPE_RGBE, IMG_TYPE_RGB_FP, {128, 64, 32, 129}, {1.00390625, 0.50390625, 0.25390625}},
      {IMG_TYPE_RGB_FP, IMG_TYPE_RGBE, {1, 0.5, 0.25, 0}, {128, 64, 32, 129}},
      // trunc(0.999 * 255) = 254; 254 / 255 * 256 = 254.99
      {IMG_TYPE_S_FP, IMG_TYPE_RGBE, {0, 0, 0, 0.999}, {254, 254, 254, 128}}};
  for (const auto& [src, dst, given, expected] : rows) {
    PlanarLine source(src, 9, true), line(dst, 9, true);
    line.fill(0);
    for (int x = 0; x < 9; ++x) source.set(x, given);
    img_convert(line.record(), source.record(), dst, src, kWeights, 9);
    EXPECT_EQ(line.at(8), expected) << ka_img_type_name(src) << " to " << ka_img_type_name(dst);
  }
}

TEST(SharedExponent, CodesTheEndsOfTheRange) {
  const struct {
    float colour[3];
    Pixel expected;
  } rows[] = {{{0.9e-32F, 0, 0}, {0, 0, 0, 0}},
              {{-1, -2, -3}, {0, 0, 0, 0}},
              {{kNan, 1, kNan}, {0, 128, 0, 129}},
              {{kInfinity, 0, 0}, {255, 0, 0, 255}},
              {{0x1.fffffep0F, 1, 0}, {255, 128, 0, 129}},  // rounded down
              {{1, -0x1p-7F, 0}, {128, 255, 0, 129}},       // floor(-1) = -1, its low byte
              {{0x1p127F, 0, 0}, {128, 0, 0, 0}}};  // 128 + 128 is one too many for the exponent
  for (const auto& [colour, expected] : rows) {
    std::uint8_t r, g, b, e;
    ka_img_rgb_to_hdr(&r, &g, &b, &e, colour[0], colour[1], colour[2]);
    EXPECT_EQ((Pixel{double(r), double(g), double(b), double(e)}), expected) << colour[0];
  }
}

}  // namespace
