// Scalars, vectors, normals, depths and labels of single pixels.
#include <gtest/gtest.h>
#include <ka/imgaccess.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

#include "support.h"

namespace {

using test::Image, test::make_image;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kLargest = 3.4028235e38F;
using Vector = std::array<float, 3>;

float scalar(const img_image* image, int x, int y) {
  float result = -7;
  ka_img_get_scalar(image, &result, x, y);
  return result;
}

Vector vector(const img_image* image, int x, int y) {
  Vector result = {-7, -7, -7};
  ka_img_get_vector(image, result.data(), x, y);
  return result;
}

Vector normal(const img_image* image, int x, int y) {
  Vector result = {-7, -7, -7};
  ka_img_get_normal(image, result.data(), x, y);
  return result;
}

float depth(const img_image* image, int x, int y) {
  float result = -7;
  ka_img_get_depth(image, &result, x, y);
  return result;
}

std::uint32_t label(const img_image* image, int x, int y) {
  std::uint32_t result = 7;
  ka_img_get_label(image, &result, x, y);
  return result;
}

// A pixel that no operation of this file may change.
bool is_untouched(const img_image* image) {
  const auto* const bytes = reinterpret_cast<const char*>(image + 1);
  img_file shape{};
  shape.type = image->type;
  shape.width = image->width;
  shape.height = image->height;
  const Image fresh(ka_img_image_alloc(&shape));
  return std::equal(bytes, bytes + ka_img_image_size(&shape) - sizeof *image,
                    reinterpret_cast<const char*>(fresh.get() + 1));
}

struct ScalarRow {
  int type;
  float given, fetched;
};

class Scalar : public testing::TestWithParam<ScalarRow> {};

TEST_P(Scalar, IsStoredAndFetched) {
  const ScalarRow& row = GetParam();
  const Image image = make_image(row.type, 10, 2);
  ka_img_put_scalar(image.get(), row.given, 9, 1);
  EXPECT_EQ(scalar(image.get(), 9, 1), row.fetched);
  EXPECT_EQ(scalar(image.get(), 8, 1), 0);
  EXPECT_EQ(scalar(image.get(), 9, 0), 0);
}

// 0.3 * 255 + 0.5 = 77, 0.3 * 65535 + 0.5 = 19661: both exact, up to single precision.
INSTANTIATE_TEST_SUITE_P(
    Rows, Scalar,
    testing::Values(ScalarRow{IMG_TYPE_S, 0.25F, 64 / 255.0F},
                    ScalarRow{IMG_TYPE_A, 0.75F, 191 / 255.0F}, ScalarRow{IMG_TYPE_S, 2, 1},
                    ScalarRow{IMG_TYPE_S, -1, 0}, ScalarRow{IMG_TYPE_S, kNan, 0},
                    ScalarRow{IMG_TYPE_S_16, 0.25F, 16384 / 65535.0F},
                    ScalarRow{IMG_TYPE_A_16, 3, 1}, ScalarRow{IMG_TYPE_A_16, kNan, 0},
                    ScalarRow{IMG_TYPE_S_FP, -2.5F, -2.5F}, ScalarRow{IMG_TYPE_A_FP, 9, 9},
                    ScalarRow{IMG_TYPE_Z, 100, 100}, ScalarRow{IMG_TYPE_COVERAGE, 0.5F, 0.5F},
                    ScalarRow{IMG_TYPE_BIT, 0.5F, 1}, ScalarRow{IMG_TYPE_BIT, 0.4F, 0},
                    ScalarRow{IMG_TYPE_RGBA, 0.25F, 64 / 255.0F}, ScalarRow{IMG_TYPE_RGBA_16, 1, 1},
                    ScalarRow{IMG_TYPE_RGBA_FP, 4, 4},
                    // Images with two or three components hold none.
                    ScalarRow{IMG_TYPE_RGB, 1, 0}, ScalarRow{IMG_TYPE_RGB_FP, 1, 0},
                    ScalarRow{IMG_TYPE_VTA, 1, 0}, ScalarRow{IMG_TYPE_N, 1, 0}),
    [](const auto& row) {
      return std::string(ka_img_type_name(row.param.type)) + "_" + std::to_string(row.index);
    });

TEST(Scalar, OfColorsIsTheirAlpha) {
  const Image image = make_image(IMG_TYPE_RGBA, 1, 1);
  ka_img_put_scalar(image.get(), 1, 0, 0);
  for (const std::size_t slot : {test::kR, test::kG, test::kB}) {
    EXPECT_EQ(*test::plane(image.get(), 0, slot), 0);
  }
  EXPECT_EQ(*test::plane(image.get(), 0, test::kA), 255);
}

TEST(Scalar, SquareRepeatsTheLastPixels) {
  for (const int type : {IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_Z}) {
    const Image image = make_image(type, 2, 2);
    const std::array<float, 4> values = {0, 0.2F, 0.4F, 1};  // lower left, lower right, ...
    for (int i = 0; i < 4; ++i)
      ka_img_put_scalar(image.get(), values[std::size_t(i)], i % 2, i / 2);
    const auto square = [&image](int x, int y) {
      std::array<float, 4> result;
      ka_img_get_scalar_square(image.get(), result.data(), x, y);
      return result;
    };
    const auto at = [&image](int i) { return scalar(image.get(), i % 2, i / 2); };
    EXPECT_EQ(square(0, 0), (std::array{at(0), at(1), at(2), at(3)}));
    EXPECT_EQ(square(1, 0), (std::array{at(1), at(1), at(3), at(3)}));
    EXPECT_EQ(square(0, 1), (std::array{at(2), at(3), at(2), at(3)}));
    EXPECT_EQ(square(1, 1), (std::array{at(3), at(3), at(3), at(3)}));
  }
  const Image colors = make_image(IMG_TYPE_RGBA, 2, 2);
  std::array<float, 4> left = {5, 6, 7, 8};
  ka_img_get_scalar_square(colors.get(), left.data(), 0, 0);
  EXPECT_EQ(left, (std::array<float, 4>{5, 6, 7, 8}));
}

TEST(Vector, IsTwoClampedShorts) {
  struct Row {
    float given;
    std::int16_t stored;  // floor(c * 32767 + 0.5)
  };
  for (const auto& [given, stored] : {Row{1, 32767},
                                      {-1, -32767},
                                      {2, 32767},
                                      {-3, -32767},
                                      {0.5F, 16384},
                                      {-0.5F, -16383},
                                      {0, 0},
                                      {kNan, 0}}) {
    for (const int type : {IMG_TYPE_VTA, IMG_TYPE_VTS, IMG_TYPE_RGB_16}) {
      const Image image = make_image(type, 2, 1);
      const Vector both = {given, -1, 5};
      ka_img_put_vector(image.get(), both.data(), 1, 0);
      EXPECT_EQ(test::samples<std::int16_t>(test::plane(image.get(), 0, 0), 2)[1], stored);
      EXPECT_EQ(test::samples<std::int16_t>(test::plane(image.get(), 0, 1), 2)[1], -32767);
      EXPECT_EQ(vector(image.get(), 1, 0), (Vector{float(stored) / 32767.0F, -1, 0}));
    }
  }
}

TEST(Normal, IsThreeFloats) {
  for (const int type : {IMG_TYPE_N, IMG_TYPE_M, IMG_TYPE_RGB_FP, IMG_TYPE_RGBA_FP}) {
    const Image image = make_image(type, 2, 2);
    const Vector given = {-1, 1e9F, 0.25F};
    ka_img_put_normal(image.get(), given.data(), 1, 1);
    EXPECT_EQ(normal(image.get(), 1, 1), given);
    EXPECT_EQ(normal(image.get(), 0, 1), Vector{});
  }
}

TEST(DepthAndLabel, StandInTheFirstPlane) {
  const Image depths = make_image(IMG_TYPE_Z, 3, 2), labels = make_image(IMG_TYPE_TAG, 3, 2);
  ka_img_put_depth(depths.get(), -1e30F, 2, 1);
  ka_img_put_label(labels.get(), 0xfedcba98, 2, 1);
  EXPECT_EQ(depth(depths.get(), 2, 1), -1e30F);
  EXPECT_EQ(label(labels.get(), 2, 1), 0xfedcba98);
  EXPECT_EQ(depth(depths.get(), 1, 1), 0);
  EXPECT_EQ(label(labels.get(), 1, 1), 0U);
}

TEST(Outside, NothingIsStoredAndGettersSayWhatIsThere) {
  for (const int type : {IMG_TYPE_S, IMG_TYPE_VTA, IMG_TYPE_N, IMG_TYPE_Z, IMG_TYPE_TAG}) {
    const Image image = make_image(type, 2, 2);
    const Vector ones = {1, 1, 1};
    for (const auto& [x, y] : {std::pair{-1, 0}, {2, 0}, {0, -1}, {0, 2}}) {
      for (img_image* const each : {image.get(), static_cast<img_image*>(nullptr)}) {
        ka_img_put_scalar(each, 1, x, y);
        ka_img_put_vector(each, ones.data(), x, y);
        ka_img_put_normal(each, ones.data(), x, y);
        ka_img_put_depth(each, 1, x, y);
        ka_img_put_label(each, 1, x, y);
        EXPECT_EQ(scalar(each, x, y), 0);
        EXPECT_EQ(vector(each, x, y), Vector{});
        EXPECT_EQ(normal(each, x, y), Vector{});
        EXPECT_EQ(depth(each, x, y), kLargest);
        EXPECT_EQ(label(each, x, y), 0U);
      }
    }
    EXPECT_TRUE(is_untouched(image.get())) << type;
  }
}

// Where planes are narrower than the data, or there is none in the place, nothing may be written.
TEST(Outside, ImagesOfAnotherShapeHoldNone) {
  const Vector ones = {1, 1, 1};
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_S, IMG_TYPE_S_FP, IMG_TYPE_BIT, IMG_TYPE_S_16}) {
    const Image image = make_image(type, 2, 1);
    ka_img_put_vector(image.get(), ones.data(), 1, 0);
    ka_img_put_normal(image.get(), ones.data(), 1, 0);
    ka_img_put_depth(image.get(), 1, 1, 0);
    ka_img_put_label(image.get(), 1, 1, 0);
    EXPECT_TRUE(is_untouched(image.get())) << type;
    EXPECT_EQ(vector(image.get(), 1, 0), Vector{});
    EXPECT_EQ(normal(image.get(), 1, 0), Vector{});
    EXPECT_EQ(depth(image.get(), 1, 0), kLargest);
    EXPECT_EQ(label(image.get(), 1, 0), 0U);
  }
}

}  // namespace
