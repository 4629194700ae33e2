// Gamma: tables, the cache of tables, and colors that pass through them.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <vector>

#include "img/mode.h"
#include "imggamma.h"
#include "support.h"

namespace {

using test::Color, test::get, test::Image, test::make_image, test::Mode, test::put;

std::vector<std::uint16_t> red(const Image& image) {
  return test::samples<std::uint16_t>(test::plane(image.get(), 0, 0), image->width);
}

// The interpolated table: 254.999 * value lies between two entries (i / 255) ^ exponent.
double looked_up(double value, double exponent) {
  const double place = 254.999 * value, i = std::floor(place);
  return std::pow(i / 255, exponent) * (1 - (place - i)) +
         std::pow((i + 1) / 255, exponent) * (place - i);
}

// Also below 0 and above 1, where the table ends, and for what is not a number.
TEST(GammaCurve, InterpolatesBetweenEntries) {
  for (const float exponent : {0.25F, 1.0F, 2.0F, 2.2F, 40.0F}) {
    ka::GammaCurve curve;
    curve.build(exponent);
    for (const float value : {0.0F, 0.001F, 0.25F, 0.5F, 0.75F, 0.999F, 1.0F}) {
      EXPECT_NEAR(curve.at(value), looked_up(double{value}, double{exponent}), 1e-5)
          << exponent << " " << value;
    }
    EXPECT_EQ(curve.at(-3.0F), 0.0F);
    EXPECT_EQ(curve.at(std::numeric_limits<float>::quiet_NaN()), 0.0F);
    EXPECT_FLOAT_EQ(curve.at(3.0F), std::pow(3.0F, exponent));  // brighter than the table
  }
}

TEST(GammaCache, ANinthGammaTakesThePlaceOfTheOneUnusedForLongest) {
  ka::GammaCache cache;
  for (int i = 1; i <= 8; ++i) (void)cache.tables(float(i));
  for (int i = 1; i <= 8; ++i) EXPECT_TRUE(cache.holds(float(i))) << i;
  (void)cache.tables(1.0F);  // 2 is the oldest now
  EXPECT_NEAR(cache.tables(9.0F).gamma.at(0.5F), looked_up(0.5, 9), 1e-6);
  EXPECT_TRUE(cache.holds(1.0F));
  EXPECT_FALSE(cache.holds(2.0F));
  EXPECT_NEAR(cache.tables(9.0F).inverse.at(0.5F), looked_up(0.5, 1.0 / 9), 1e-6);
  (void)cache.tables(10.0F);
  EXPECT_FALSE(cache.holds(3.0F));
  EXPECT_TRUE(cache.holds(9.0F));
}

TEST(GammaCache, ClockThatWrapsKeepsTheOrderOfUse) {
  // Stamps 2^32 - 4 to 2^32 - 1 go to 1, 2, 3 and 1 again; they become 65535, later ones follow
  // from 65536 on.
  ka::GammaCache cache(0xfffffffb);
  for (const float gamma : {1.0F, 2.0F, 3.0F, 1.0F}) (void)cache.tables(gamma);
  for (int i = 4; i <= 8; ++i) (void)cache.tables(float(i));
  (void)cache.tables(1.0F);
  (void)cache.tables(9.0F);  // of 2 and 3 with equal stamps the first entry
  (void)cache.tables(10.0F);
  for (const float gone : {2.0F, 3.0F}) EXPECT_FALSE(cache.holds(gone)) << gone;
  for (const float kept : {1.0F, 4.0F, 8.0F, 9.0F, 10.0F}) EXPECT_TRUE(cache.holds(kept)) << kept;
}

TEST(Gamma, AppliesOnTheWayInAndBackOnTheWayOut) {
  const Mode mode({.gamma = 2.2F});
  const Image image = make_image(IMG_TYPE_RGBA_16, 1, 1);
  put(image.get(), 0, 0, {0.5F, 0.25F, 1, 0.75F});
  const Color color = get(image.get(), 0, 0);
  const std::array<double, 4> given = {0.5, 0.25, 1, 0.75};
  for (std::size_t i = 0; i < 4; ++i) {
    const auto stored = test::samples<std::uint16_t>(test::plane(image.get(), 0, i), 1)[0];
    EXPECT_NEAR(stored, looked_up(given[i], 2.2) * 65535, 1) << i;
    EXPECT_NEAR(double{color[i]}, looked_up(stored / 65535.0, 1 / 2.2), 1e-5) << i;
    EXPECT_NEAR(double{color[i]}, given[i], 1e-3) << i;
  }
}

TEST(Gamma, FloatsStayAsTheyAreAndAbsentAlphaDoesNot) {
  const Mode mode({.gamma = 2.2F});
  const Image floats = make_image(IMG_TYPE_RGBA_FP, 1, 1), rgb = make_image(IMG_TYPE_RGB, 1, 1);
  const Color color = {-1, 0.5F, 2, 0.25F};
  put(floats.get(), 0, 0, color);
  EXPECT_EQ(get(floats.get(), 0, 0), color);
  EXPECT_FLOAT_EQ(get(rgb.get(), 0, 0)[3], float(looked_up(1, 1 / 2.2)));
}

TEST(Gamma, SharedExponentsKeepTheirLight) {
  const Mode mode({.gamma = 2.0F});
  const Image image = make_image(IMG_TYPE_RGBE, 1, 1);
  put(image.get(), 0, 0, {8, 4, 0.5F, 1});
  // 64, 16 and 0.25 in steps of a half: mantissas 128, 32 and 0, fetched half a step higher.
  const Color color = get(image.get(), 0, 0);
  EXPECT_NEAR(double{color[0]}, std::sqrt(64.25), 1e-4);
  EXPECT_NEAR(double{color[1]}, std::sqrt(16.25), 1e-4);
  EXPECT_NEAR(double{color[2]}, looked_up(0.25, 0.5), 1e-5);
}

// The table of exponent 1 is a straight line that ends at 254.999 / 255: 0.5 becomes 32767.87 /
// 65535 with the rounding, and without the table 32768.
TEST(Gamma, OneIsOffAndZeroIsATableOfOne) {
  const Image image = make_image(IMG_TYPE_RGB_16, 1, 1);
  const float not_a_number = std::numeric_limits<float>::quiet_NaN();
  for (const auto& [gamma, stored] :
       {std::pair{1.0F, 32768}, {0.0F, 32767}, {-2.0F, 32767}, {not_a_number, 32767}}) {
    const Mode mode({.gamma = gamma});
    put(image.get(), 0, 0, {0.5F, 0, 0, 1});
    EXPECT_EQ(red(image)[0], stored) << gamma;
  }
}

TEST(Gamma, ExtremesAreDefined) {
  const Image image = make_image(IMG_TYPE_RGB_16, 1, 1);
  for (const float gamma : {1e-45F, 1e-3F, 1e38F, std::numeric_limits<float>::infinity()}) {
    const Mode mode({.gamma = gamma});
    for (const float value : {0.0F, 0.5F, 1.0F}) {
      put(image.get(), 0, 0, {value, 0, 0, 1});
      const float fetched = get(image.get(), 0, 0)[0];
      EXPECT_TRUE(fetched >= 0 && fetched <= 1) << gamma << " " << value;
    }
  }
}

// What the cache has dropped is built again: every gamma of ten gives the same at its second turn.
TEST(Gamma, ManyGammasOneAfterTheOther) {
  const Image image = make_image(IMG_TYPE_RGB_16, 1, 1);
  for (int i = 0; i < 20; ++i) {
    const float gamma = 1.5F + 0.25F * float(i % 10);
    const Mode mode({.gamma = gamma});
    put(image.get(), 0, 0, {0.5F, 0, 0, 1});
    EXPECT_NEAR(red(image)[0], looked_up(0.5, double{gamma}) * 65535, 1) << gamma;
  }
}

TEST(Gamma, ThreadsOfOneTransactionShareTheTables) {
  constexpr int kThreads = 4, kPixels = 1000;
  const Image image = make_image(IMG_TYPE_RGB_16, kPixels, kThreads);
  std::atomic<int> line{0};
  test::in_threads(kThreads, [&] {
    const int y = line++;
    Mode::set({.gamma = 1.7F});
    for (int x = 0; x < kPixels; ++x) put(image.get(), x, y, {0.5F, 0, 0, 1});
  });
  const auto first = red(image);
  EXPECT_NEAR(first[0], looked_up(0.5, 1.7) * 65535, 1);
  for (int y = 0; y < kThreads; ++y) {
    const auto values = test::samples<std::uint16_t>(test::plane(image.get(), y, 0), kPixels);
    EXPECT_EQ(values, std::vector<std::uint16_t>(kPixels, first[0])) << y;
  }
}

}  // namespace
