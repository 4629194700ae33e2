// Colors on their way to an image and back: clipping, desaturation and gamma, with its tables and
// their cache.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "img/mode.h"
#include "imggamma.h"
#include "support.h"

namespace {

using test::Color, test::get, test::Image, test::make_image, test::Mode, test::put;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Shares: (2, 0, 0) has the grey 0.598 and keeps 0.402 / 1.402 of its distance; (1, 0, 0) with
// alpha 0.5 has 0.299 and keeps 0.201 / 0.701, and so has (-0.5, 0.5, 0.5), whose grey is 0.201.
TEST(Clip, ColorIsWhatTheModeSays) {
  const struct {
    int mode;
    bool desaturate;
    Color given, expected;
  } rows[] = {{2, false, {-1, 0.5F, 3, 2}, {0, 0.5F, 1, 1}},
              {2, false, {1, 0.5F, 0, 0.25F}, {1, 0.5F, 0, 0.25F}},  // colors may pass alpha
              {0, false, {2, 0.5F, 0.5F, 0.2F}, {1, 0.5F, 0.5F, 1}},
              {0, false, {0, 0.5F, 0.75F, 0}, {0, 0.5F, 0.75F, 0.75F}},
              {0, false, {-3, -2, -1, -4}, {0, 0, 0, 0}},
              {1, false, {2, 0.75F, 0.25F, 0.5F}, {0.5F, 0.5F, 0.25F, 0.5F}},
              {1, false, {2, 0.75F, -1, 3}, {1, 0.75F, 0, 1}},
              {3, false, {2, 0.5F, -1, 0.25F}, {1, 0.5F, 0, 0.25F}},  // unknown modes clip each
              {0, false, {kNan, 0.5F, kNan, kNan}, {0, 0.5F, 0, 0.5F}},
              {2, false, {kInfinity, -kInfinity, 1, kInfinity}, {1, 0, 1, 1}},
              {2, true, {2, 0, 0, 1}, {1, 0.426534F, 0.426534F, 1}},
              {1, true, {1, 0, 0, 0.5F}, {0.5F, 0.213267F, 0.213267F, 0.5F}},
              {2, true, {-0.5F, 0.5F, 0.5F, 1}, {0, 0.286733F, 0.286733F, 1}},
              {2, true, {2, 2, 0.5F, 1}, {1, 1, 1, 1}},      // too bright
              {2, true, {-2, 0.5F, 0.5F, 1}, {0, 0, 0, 1}},  // too dark
              {2, true, {kNan, 0.5F, 0.25F, 1}, {0, 0.5F, 0.25F, 1}},
              {2, true, {kInfinity, -kInfinity, 0, 1}, {0, 0, 0, 1}}};
  for (const auto& [clip, desaturate, given, expected] : rows) {
    const Mode mode({.desaturate = desaturate, .color_clip = clip});
    Color color = given;
    ka_img_clip_color(nullptr, color.data());
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_NEAR(color[i], expected[i], 1e-6) << clip << " " << given[0] << " " << i;
    }
  }
}

// The interpolated table: 254.999 * value lies between two entries (i / 255) ^ exponent.
double looked_up(double value, double exponent) {
  const double place = 254.999 * value, i = std::floor(place);
  return std::pow(i / 255, exponent) * (1 - (place - i)) +
         std::pow((i + 1) / 255, exponent) * (place - i);
}

// Also below 0 and above 1, where the table ends, and for what is not a number.
TEST(GammaCurve, InterpolatesBetweenEntries) {
  for (const float exponent : {0.25F, 1.0F, 2.2F, 40.0F}) {
    ka::GammaCurve curve;
    curve.build(exponent);
    for (const float value : {0.0F, 0.001F, 0.25F, 0.5F, 0.999F, 1.0F}) {
      EXPECT_NEAR(curve.at(value), looked_up(double{value}, double{exponent}), 1e-5)
          << exponent << " " << value;
    }
    EXPECT_EQ(curve.at(-3.0F), 0.0F);
    EXPECT_EQ(curve.at(kNan), 0.0F);
    EXPECT_FLOAT_EQ(curve.at(3.0F), std::pow(3.0F, exponent));  // brighter than the table
  }
}

// Which of the gammas 1 to 10 a cache holds.
std::string held(const ka::GammaCache& cache) {
  std::string list;
  for (int i = 1; i <= 10; ++i) list += cache.holds(float(i)) ? std::to_string(i) + " " : "";
  return list;
}

TEST(GammaCache, ANinthGammaTakesThePlaceOfTheOneUnusedForLongest) {
  ka::GammaCache cache;
  for (int i = 1; i <= 8; ++i) (void)cache.tables(float(i));
  EXPECT_EQ(held(cache), "1 2 3 4 5 6 7 8 ");
  (void)cache.tables(1.0F);  // 2 is the oldest now
  EXPECT_NEAR(cache.tables(9.0F).gamma.at(0.5F), looked_up(0.5, 9), 1e-6);
  EXPECT_EQ(held(cache), "1 3 4 5 6 7 8 9 ");
  EXPECT_NEAR(cache.tables(9.0F).inverse.at(0.5F), looked_up(0.5, 1.0 / 9), 1e-6);
  (void)cache.tables(10.0F);
  EXPECT_EQ(held(cache), "1 4 5 6 7 8 9 10 ");
}

// Stamps 2^32 - 4 to 2^32 - 1 go to 1, 2, 3 and 1 again; they become 65535, later ones follow from
// 65536 on. Of 2 and 3 with equal stamps the first entry goes first.
TEST(GammaCache, ClockThatWrapsKeepsTheOrderOfUse) {
  ka::GammaCache cache(0xfffffffb);
  for (const int gamma : {1, 2, 3, 1, 4, 5, 6, 7, 8, 1, 9, 10}) (void)cache.tables(float(gamma));
  EXPECT_EQ(held(cache), "1 4 5 6 7 8 9 10 ");
}

TEST(Gamma, AppliesOnTheWayInAndBackOnTheWayOut) {
  const Mode mode({.gamma = 2.2F});
  const Image image = make_image(IMG_TYPE_RGBA_16, 1, 1), rgb = make_image(IMG_TYPE_RGB, 1, 1);
  const Color given = {0.5F, 0.25F, 1, 0.75F};
  put(image.get(), 0, 0, given);
  const Color color = get(image.get(), 0, 0);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto stored = test::samples<std::uint16_t>(test::plane(image.get(), 0, i), 1)[0];
    EXPECT_NEAR(stored, looked_up(double{given[i]}, 2.2) * 65535, 1) << i;
    EXPECT_NEAR(double{color[i]}, looked_up(stored / 65535.0, 1 / 2.2), 1e-5) << i;
    EXPECT_NEAR(color[i], given[i], 1e-3F) << i;
  }
  EXPECT_FLOAT_EQ(get(rgb.get(), 0, 0)[3], float(looked_up(1, 1 / 2.2)));  // absent alpha
}

}  // namespace
