// Single pixels: colors, scalars, vectors, normals, depths and labels of every pixel type,
// premultiplication, squares.
#include <gtest/gtest.h>

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
  if (image->bits == 1) return plane[x / 8] >> (x % 8) & 1;
  if (image->bits == 8) return plane[x];
  if (image->bits == 16) return test::samples<std::uint16_t>(plane, x + 1).back();
  return double{test::samples<float>(plane, x + 1).back()};
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

// What a pixel can be other than a color.
struct Data {
  Vector vector, normal;
  float depth;
  std::uint32_t label;
  bool operator==(const Data&) const = default;
};
constexpr Vector kOnes = {1, 1, 1};
constexpr Data kAllOnes = {kOnes, kOnes, 1, 1}, kNothing = {{}, {}, kLargest, 0};

void put_data(img_image* image, const Data& data, int x, int y) {
  ka_img_put_vector(image, data.vector.data(), x, y);
  ka_img_put_normal(image, data.normal.data(), x, y);
  ka_img_put_depth(image, data.depth, x, y);
  ka_img_put_label(image, data.label, x, y);
}
Data data_at(const img_image* image, int x, int y) {
  Data data = kAllOnes;
  ka_img_get_vector(image, data.vector.data(), x, y);
  ka_img_get_normal(image, data.normal.data(), x, y);
  ka_img_get_depth(image, &data.depth, x, y);
  ka_img_get_label(image, &data.label, x, y);
  return data;
}

// Vectors are two shorts, floor(c * 32767 + 0.5).
TEST(DataAccess, IsStoredAndFetched) {
  const Data given = {{2, -0.5F, 5}, {-1, 1e9F, 0.25F}, -1e30F, 0xfedcba98};
  const auto stored = [](int type, auto put_in, const auto& value) {
    const Image image = make_image(type, 3, 2);
    put_in(image.get(), value, 2, 1);
    return data_at(image.get(), 2, 1);
  };
  EXPECT_EQ(stored(IMG_TYPE_VTA, ka_img_put_vector, given.vector.data()).vector,
            (Vector{1, -16383 / 32767.0F, 0}));
  EXPECT_EQ(stored(IMG_TYPE_N, ka_img_put_normal, given.normal.data()).normal, given.normal);
  EXPECT_EQ(stored(IMG_TYPE_Z, ka_img_put_depth, given.depth).depth, given.depth);
  EXPECT_EQ(stored(IMG_TYPE_TAG, ka_img_put_label, given.label).label, given.label);
  const Image vectors = make_image(IMG_TYPE_VTA, 1, 1);
  put_data(vectors.get(), {{-3, kNan, 0}, {}, 0, 0}, 0, 0);
  EXPECT_EQ(test::planes_of(vectors.get(), 0), (test::Planes{{0x8001}, {0}}));
}

// Outside of every type, and inside where planes are narrower than the data, or where there is
// none in the place.
TEST(Access, NothingIsStoredWhereThereIsNoRoom) {
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    SCOPED_TRACE(ka_img_type_name(type));
    const Image image = make_image(type, 3, 2), fresh = make_image(type, 3, 2);
    const bool is_vector = type == IMG_TYPE_VTA || type == IMG_TYPE_VTS;
    constexpr std::pair<int, int> outside[] = {{-1, 0}, {3, 0},       {0, -1},
                                               {0, 2},  {INT_MAX, 0}, {0, INT_MIN}};
    for (const auto& [x, y] : outside) {
      put_data(image.get(), kAllOnes, x, y);
      EXPECT_EQ(data_at(image.get(), x, y), kNothing);
      put(image.get(), x, y, {1, 1, 1, 1});
      ka_img_put_scalar(image.get(), 1, x, y);
      EXPECT_EQ(scalar(image.get(), x, y), 0);
      EXPECT_TRUE(is_vector || get(image.get(), x, y) == Color{});
    }
    constexpr int without[] = {IMG_TYPE_RGBA, IMG_TYPE_S, IMG_TYPE_S_FP, IMG_TYPE_BIT,
                               IMG_TYPE_S_16};
    if (std::ranges::count(without, type)) {
      put_data(image.get(), kAllOnes, 1, 0);
      EXPECT_EQ(data_at(image.get(), 1, 0), kNothing);
    }
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
