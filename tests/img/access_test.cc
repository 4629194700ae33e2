// Single pixels: colors, scalars, vectors, normals, depths and labels of every pixel type,
// premultiplication, dithering, squares.
#include <gtest/gtest.h>
#include <ka/random.h>
#include <ka/trans.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

#include "img/mode.h"
#include "pictures.h"

namespace {

using Vector = std::array<float, 3>;
using test::Color, test::get, test::Image, test::make_image, test::Mode, test::put;

constexpr float kLargest = 3.4028235e38F;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// Sample x of a plane, as a number.
double sample(const img_image* image, int x, int y, std::size_t slot) {
  const std::uint8_t* const plane = test::plane(image, y, slot);
  switch (image->bits) {
    case 1:
      return plane[x / 8] >> (x % 8) & 1;
    case 8:
      return plane[x];
    case 16:
      return reinterpret_cast<const std::uint16_t*>(plane)[x];
    default:
      return double{reinterpret_cast<const float*>(plane)[x]};
  }
}

struct Row {
  int type;
  Color given;
  std::vector<double> samples;
  Color fetched;
};

// Bytes are trunc(c * 255 + 0.5): 0.2 gives 51, 0.4 102, 0.6 153, 0.8 204; words are
// trunc(c * 65535 + 0.5): 13107, 26214, 39321, 52428.
constexpr Color kColor = {0.2F, 0.4F, 0.6F, 0.8F}, kOpaque = {0.2F, 0.4F, 0.6F, 1},
                kGrey = {0.2F, 0.2F, 0.2F, 1}, kBright = {-4, 7, 0.5F, 3};
const std::vector<Row> kRows = {
    {IMG_TYPE_RGBA, kColor, {51, 102, 153, 204}, kColor},
    {IMG_TYPE_RGBA_16, kColor, {13107, 26214, 39321, 52428}, kColor},
    {IMG_TYPE_RGB, kColor, {51, 102, 153}, kOpaque},
    {IMG_TYPE_A, kColor, {51}, kGrey},
    {IMG_TYPE_S_16, kColor, {13107}, kGrey},
    {IMG_TYPE_Z, kBright, {-4}, {-4, -4, -4, 1}},
    {IMG_TYPE_N, kBright, {-4, 7, 0.5}, {-4, 7, 0.5F, 1}},
    {IMG_TYPE_RGBA_FP, kBright, {-4, 7, 0.5, 3}, kBright},
    {IMG_TYPE_BIT, {0.5F, 0, 0, 0}, {1}, {1, 1, 1, 1}},
    {IMG_TYPE_BIT, {0.4F, 1, 1, 1}, {0}, {0, 0, 0, 1}},
    // 4 is half of 2^3: mantissas are 32 * c, and are fetched as (mantissa + 0.5) / 32.
    {IMG_TYPE_RGBE, {4, 2, 0.5F, 0}, {128, 64, 16, 131}, {4.015625F, 2.015625F, 0.515625F, 1}},
    {IMG_TYPE_S_FP, kBright, {-4}, {-4, -4, -4, 1}},
    // Samples end at their range, and what is not a number is 0.
    {IMG_TYPE_RGBA, kBright, {0, 255, 128, 255}, {0, 1, 128 / 255.0F, 1}},
    {IMG_TYPE_RGBA_16, {kNan, 7, 0, kNan}, {0, 65535, 0, 0}, {0, 1, 0, 0}}};

float scalar(const img_image* image, int x, int y) {
  float result = -7;
  ka_img_get_scalar(image, &result, x, y);
  return result;
}

TEST(ColorAccess, SamplesAreStoredAndFetched) {
  for (const auto& [type, given, samples, fetched] : kRows) {
    SCOPED_TRACE(ka_img_type_name(type));
    const Image image = make_image(type, 11, 2);
    const std::size_t first = test::plane(image.get(), 0, 0) ? 0 : 3;
    put(image.get(), 10, 1, given);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      EXPECT_EQ(sample(image.get(), 10, 1, first + i), samples[i]) << i;
      EXPECT_EQ(sample(image.get(), 9, 1, first + i), 0) << i;
      EXPECT_EQ(sample(image.get(), 10, 0, first + i), 0) << i;
    }
    const Color color = get(image.get(), 10, 1);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(color[i], fetched[i]) << i;
  }
}

TEST(ScalarAccess, IsStoredAndFetched) {
  const struct {
    int type;
    float given, fetched;
  } rows[] = {{IMG_TYPE_S, 0.25F, 64 / 255.0F},  // 63.75 + 0.5
              {IMG_TYPE_S, -1, 0},
              {IMG_TYPE_S, kNan, 0},
              {IMG_TYPE_S_16, 0.25F, 16384 / 65535.0F},
              {IMG_TYPE_S_FP, -2.5F, -2.5F},
              {IMG_TYPE_BIT, 0.5F, 1},
              {IMG_TYPE_BIT, 0.4F, 0},
              {IMG_TYPE_RGBA, 0.25F, 64 / 255.0F},  // their alpha
              {IMG_TYPE_RGB, 1, 0},                 // with two or three components there is none
              {IMG_TYPE_VTA, 1, 0}};
  for (const auto& [type, given, fetched] : rows) {
    SCOPED_TRACE(ka_img_type_name(type));
    const Image image = make_image(type, 10, 2);
    ka_img_put_scalar(image.get(), given, 9, 1);
    EXPECT_EQ(scalar(image.get(), 9, 1), fetched);
    EXPECT_EQ(scalar(image.get(), 8, 1), 0);
    EXPECT_EQ(scalar(image.get(), 9, 0), 0);
  }
}

TEST(Vector, IsTwoClampedShorts) {
  struct Short {
    float given;
    std::int16_t stored;  // floor(c * 32767 + 0.5)
  };
  for (const auto& [given, stored] :
       {Short{2, 32767}, {-3, -32767}, {0.5F, 16384}, {-0.5F, -16383}, {kNan, 0}}) {
    const Image image = make_image(IMG_TYPE_VTA, 2, 1);
    const Vector both = {given, -1, 5};
    ka_img_put_vector(image.get(), both.data(), 1, 0);
    EXPECT_EQ(test::samples<std::int16_t>(test::plane(image.get(), 0, 0), 2)[1], stored);
    Vector fetched;
    ka_img_get_vector(image.get(), fetched.data(), 1, 0);
    EXPECT_EQ(fetched, (Vector{float(stored) / 32767.0F, -1, 0}));
  }
}

TEST(DepthNormalAndLabel, AreStoredAsTheyAre) {
  const Image depths = make_image(IMG_TYPE_Z, 3, 2), labels = make_image(IMG_TYPE_TAG, 3, 2),
              normals = make_image(IMG_TYPE_N, 3, 2);
  const Vector given = {-1, 1e9F, 0.25F};
  ka_img_put_depth(depths.get(), -1e30F, 2, 1);
  ka_img_put_label(labels.get(), 0xfedcba98, 2, 1);
  ka_img_put_normal(normals.get(), given.data(), 2, 1);
  float depth;
  std::uint32_t label;
  Vector normal;
  ka_img_get_depth(depths.get(), &depth, 2, 1);
  ka_img_get_label(labels.get(), &label, 2, 1);
  ka_img_get_normal(normals.get(), normal.data(), 2, 1);
  EXPECT_EQ(depth, -1e30F);
  EXPECT_EQ(label, 0xfedcba98);
  EXPECT_EQ(normal, given);
}

// What getters give for pixels that are not there; nothing may be stored in them.
void expect_nothing(img_image* image, int x, int y) {
  constexpr Vector ones = {1, 1, 1};
  ka_img_put_vector(image, ones.data(), x, y);
  ka_img_put_normal(image, ones.data(), x, y);
  ka_img_put_depth(image, 1, x, y);
  ka_img_put_label(image, 1, x, y);
  Vector vector = ones, normal = ones;
  float depth = 1;
  std::uint32_t label = 1;
  ka_img_get_vector(image, vector.data(), x, y);
  ka_img_get_normal(image, normal.data(), x, y);
  ka_img_get_depth(image, &depth, x, y);
  ka_img_get_label(image, &label, x, y);
  EXPECT_EQ(vector, Vector{});
  EXPECT_EQ(normal, Vector{});
  EXPECT_EQ(depth, kLargest);
  EXPECT_EQ(label, 0U);
}

// Outside of every type, and inside where planes are narrower than the data, or where there is
// none in the place.
TEST(Access, NothingIsStoredWhereThereIsNoRoom) {
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    SCOPED_TRACE(ka_img_type_name(type));
    const Image image = make_image(type, 3, 2), fresh = make_image(type, 3, 2);
    const bool is_vector = type == IMG_TYPE_VTA || type == IMG_TYPE_VTS;
    for (const auto& [x, y] :
         {std::pair{-1, 0}, {3, 0}, {0, -1}, {0, 2}, {INT_MAX, 0}, {0, INT_MIN}}) {
      expect_nothing(image.get(), x, y);
      put(image.get(), x, y, {1, 1, 1, 1});
      ka_img_put_scalar(image.get(), 1, x, y);
      EXPECT_EQ(scalar(image.get(), x, y), 0);
      EXPECT_TRUE(is_vector || get(image.get(), x, y) == Color{});
    }
    constexpr int without[] = {IMG_TYPE_RGBA, IMG_TYPE_S, IMG_TYPE_S_FP, IMG_TYPE_BIT,
                               IMG_TYPE_S_16};
    if (std::ranges::count(without, type)) expect_nothing(image.get(), 1, 0);
    if (is_vector) put(image.get(), 0, 0, kColor);
    EXPECT_TRUE(!is_vector || get(image.get(), 0, 0) == (Color{-7, -7, -7, -7}));
    EXPECT_EQ(test::lines_of(image.get()), test::lines_of(fresh.get()));
  }
}

TEST(ColorAccess, ColorsAreDividedByAlphaInImages) {
  const Mode mode({.premultiply = 1, .color_clip = IMG_CLIP_TO_ALPHA});
  const Image image = make_image(IMG_TYPE_RGBA, 1, 1);
  // 0.25 / 0.5 * 255 = 127.5, 0.1 / 0.5 * 255 = 51, 0.075 / 0.5 * 255 = 38.25.
  put(image.get(), 0, 0, {0.25F, 0.1F, 0.075F, 0.5F});
  const std::array<double, 4> stored = {128, 51, 38, 128};
  const Color color = get(image.get(), 0, 0);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(sample(image.get(), 0, 0, i), stored[i]) << i;
    EXPECT_FLOAT_EQ(color[i], float(stored[i] / 255 * (i < 3 ? 128 / 255.0 : 1))) << i;
  }
  // The reciprocal of this alpha is infinite: 0 times it is no number, and counts as 0.
  put(image.get(), 0, 0, {0, 1e-40F, 0, 1e-40F});
  EXPECT_EQ(sample(image.get(), 0, 0, 0), 0);
  EXPECT_EQ(sample(image.get(), 0, 0, 1), 255);
  const Mode clipped_each({.premultiply = 1});  // not divided
  put(image.get(), 0, 0, kColor);
  EXPECT_EQ(sample(image.get(), 0, 0, 0), 51);
}

TEST(Dither, OneNumberPerPixelMovesEveryComponent) {
  const Mode mode({.dither = 1});
  const Image image = make_image(IMG_TYPE_RGBA, 1, 1);
  const int state = ka_thread_get();
  for (int i = 0; i < 100; ++i) {
    ka_taskrandom_seed(640, 480, 0, i, 1);
    const double offset = double{ka_taskrandom(state)} - 0.5;
    ka_taskrandom_seed(640, 480, 0, i, 1);
    put(image.get(), 0, 0, {0, 0.3F, 0.7F, 1});
    const std::array<double, 4> scaled = {0, 76.5, 178.5, 255};
    for (std::size_t slot = 0; slot < 4; ++slot) {
      EXPECT_EQ(sample(image.get(), 0, 0, slot), std::trunc(scaled[slot] + offset + 0.5)) << i;
    }
  }
}

TEST(Square, IsTheFourPixelsAndRepeatsTheLastOnes) {
  const Mode mode({.premultiply = 1, .color_clip = IMG_CLIP_RAISE_ALPHA, .gamma = 1.8F});
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_RGB_16, IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_RGBE,
                         IMG_TYPE_RGBA_FP, IMG_TYPE_Z, IMG_TYPE_BIT}) {
    const Image image = make_image(type, 3, 2);
    for (int i = 0; i < 6; ++i) {
      put(image.get(), i % 3, i / 3, {0.1F * float(i), 1 - 0.2F * float(i), 0.5F, 0.25F});
    }
    for (int i = 0; i < 24; ++i) {
      float colors[4][4], scalars[4] = {-7, -7, -7, -7};
      const int pixel = i / 4, corner = i % 4;
      ka_img_get_color_square(image.get(), colors, pixel % 3, pixel / 3);
      ka_img_get_scalar_square(image.get(), scalars, pixel % 3, pixel / 3);
      const int x = std::min(pixel % 3 + corner % 2, 2), y = std::min(pixel / 3 + corner / 2, 1);
      EXPECT_TRUE(std::ranges::equal(get(image.get(), x, y), colors[corner])) << type << " " << i;
      EXPECT_EQ(image->components > 1 ? -7 : scalar(image.get(), x, y), scalars[corner]) << i;
    }
  }
}

}  // namespace
