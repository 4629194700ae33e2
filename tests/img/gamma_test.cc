// Gamma: tables, the cache of tables, and colours that pass through them.
#include <gtest/gtest.h>
#include <ka/msg.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "img/mode.h"
#include "imggamma.h"
#include "support.h"

namespace {

using test::Color, test::get, test::Image, test::make_image, test::Mode, test::put;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

img_options with_gamma(float gamma) {
  img_options options = test::kPlain;
  options.gamma = gamma;
  return options;
}

std::vector<std::uint16_t> red(const Image& image, int y = 0) {
  return test::samples<std::uint16_t>(test::plane(image.get(), y, 0), image->width);
}

// The interpolated table: 254.999 * value lies between two entries (i / 255) ^ exponent.
double looked_up(double value, double exponent) {
  const double place = 254.999 * value, i = std::floor(place);
  return std::pow(i / 255, exponent) * (1 - (place - i)) +
         std::pow((i + 1) / 255, exponent) * (place - i);
}

TEST(GammaCurve, InterpolatesBetweenEntriesAndIsDefinedForEveryValue) {
  for (const float exponent : {0.25F, 1.0F, 2.2F, 40.0F}) {
    ka::GammaCurve curve;
    curve.build(exponent);
    for (const float value : {0.0F, 0.001F, 0.25F, 0.5F, 0.75F, 0.999F, 1.0F}) {
      EXPECT_NEAR(curve.at(value), looked_up(double{value}, double{exponent}), 1e-5)
          << exponent << " " << value;
    }
    EXPECT_EQ(curve.at(-3.0F), 0.0F);
    EXPECT_EQ(curve.at(kNan), 0.0F);
    EXPECT_FLOAT_EQ(curve.at(3.0F), std::pow(3.0F, exponent));  // brighter than the table
  }
}

TEST(GammaCache, ANinthGammaTakesThePlaceOfTheOneUnusedForLongest) {
  ka::GammaCache cache;
  for (const int i : {1, 2, 3, 4, 5, 6, 7, 8, 1}) (void)cache.tables(float(i));
  EXPECT_NEAR(cache.tables(9.0F).gamma.at(0.5F), looked_up(0.5, 9), 1e-6);
  EXPECT_NEAR(cache.tables(9.0F).inverse.at(0.5F), looked_up(0.5, 1.0 / 9), 1e-6);
  (void)cache.tables(10.0F);
  for (int i = 1; i <= 10; ++i) EXPECT_EQ(cache.holds(float(i)), i != 2 && i != 3) << i;
}

TEST(GammaCache, ClockThatWrapsKeepsTheOrderOfUse) {
  // Stamps 2^32 - 4 to 2^32 - 1 go to 1, 2, 3 and 1 again; they become 65535, later ones follow
  // from 65536 on.
  ka::GammaCache cache(0xfffffffb);
  // Of 2 and 3 with equal stamps the first entry goes.
  for (const int i : {1, 2, 3, 1, 4, 5, 6, 7, 8, 1, 9, 10}) (void)cache.tables(float(i));
  for (int i = 1; i <= 10; ++i) EXPECT_EQ(cache.holds(float(i)), i != 2 && i != 3) << i;
}

TEST(Gamma, AppliesOnTheWayInAndBackOnTheWayOut) {
  const Mode mode(with_gamma(2.2F));
  const Image image = make_image(IMG_TYPE_RGBA_16, 1, 1);
  const Color given = {0.5F, 0.25F, 1, 0.75F};
  put(image.get(), 0, 0, given);
  const Color color = get(image.get(), 0, 0);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto stored = test::samples<std::uint16_t>(test::plane(image.get(), 0, i), 1)[0];
    EXPECT_NEAR(stored, looked_up(double{given[i]}, 2.2) * 65535, 1) << i;
    EXPECT_NEAR(double{color[i]}, looked_up(stored / 65535.0, 1 / 2.2), 1e-5) << i;
  }
  const Image floats = make_image(IMG_TYPE_RGBA_FP, 1, 1);  // stay as they are
  put(floats.get(), 0, 0, given);
  EXPECT_EQ(get(floats.get(), 0, 0), given);
}

// The table of exponent 1 is a straight line that ends at 254.999 / 255: 0.5 becomes 32767.87 /
// 65535 with the rounding, and without the table 32768.
TEST(Gamma, OneIsOffAndZeroIsATableOfOne) {
  const Image image = make_image(IMG_TYPE_RGB_16, 1, 1);
  for (const auto& [gamma, stored] :
       {std::pair{1.0F, 32768}, {0.0F, 32767}, {-2.0F, 32767}, {kNan, 32767}}) {
    const Mode mode(with_gamma(gamma));
    put(image.get(), 0, 0, {0.5F, 0, 0, 1});
    EXPECT_EQ(red(image)[0], stored) << gamma;
  }
}

// The settings are the thread's own, the tables are shared.
TEST(Gamma, ThreadsHaveTheirOwn) {
  constexpr int kThreads = 4, kPixels = 1000;
  const Image image = make_image(IMG_TYPE_RGB_16, kPixels, kThreads);
  std::vector<std::thread> threads;
  for (int y = 0; y < kThreads; ++y) {
    threads.emplace_back([&image, y] {
      ka_msg_register_thread();
      const img_options options = with_gamma(1.5F + 0.5F * float(y % 2));
      ka_img_mode_options(&options);
      for (int x = 0; x < kPixels; ++x) put(image.get(), x, y, {0.5F, 0, 0, 1});
      ka_msg_unregister_thread();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int y = 0; y < kThreads; ++y) {
    EXPECT_NEAR(red(image, y)[0], looked_up(0.5, 1.5 + 0.5 * (y % 2)) * 65535, 1) << y;
    EXPECT_EQ(red(image, y), std::vector<std::uint16_t>(kPixels, red(image, y)[0])) << y;
  }
}

}  // namespace
