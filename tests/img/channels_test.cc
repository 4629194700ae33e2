// Scalars, vectors, normals, depths and labels of single pixels.
#include <gtest/gtest.h>
#include <ka/imgaccess.h>

#include <algorithm>
#include <array>
#include <limits>

#include "pictures.h"

namespace {

using test::Image, test::make_image;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kLargest = 3.4028235e38F;
using Vector = std::array<float, 3>;
constexpr Vector kOnes = {1, 1, 1};

float scalar(const img_image* image, int x, int y) {
  float result = -7;
  ka_img_get_scalar(image, &result, x, y);
  return result;
}

// What getters give for pixels that are not there; nothing may be stored in them.
void expect_nothing(img_image* image, int x, int y) {
  ka_img_put_vector(image, kOnes.data(), x, y);
  ka_img_put_normal(image, kOnes.data(), x, y);
  ka_img_put_depth(image, 1, x, y);
  ka_img_put_label(image, 1, x, y);
  Vector vector = kOnes, normal = kOnes;
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

TEST(Scalar, IsStoredAndFetched) {
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

TEST(Scalar, SquareRepeatsTheLastPixels) {
  for (const int type : {IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_Z}) {
    const Image image = make_image(type, 2, 2);
    for (int i = 0; i < 4; ++i) ka_img_put_scalar(image.get(), 0.2F * float(i), i % 2, i / 2);
    for (int i = 0; i < 4; ++i) {
      std::array<float, 4> square;
      ka_img_get_scalar_square(image.get(), square.data(), i % 2, i / 2);
      for (int corner = 0; corner < 4; ++corner) {
        const int x = std::min(i % 2 + corner % 2, 1), y = std::min(i / 2 + corner / 2, 1);
        EXPECT_EQ(square[std::size_t(corner)], scalar(image.get(), x, y)) << type << " " << i;
      }
    }
  }
}

TEST(Vector, IsTwoClampedShorts) {
  struct Row {
    float given;
    std::int16_t stored;  // floor(c * 32767 + 0.5)
  };
  for (const auto& [given, stored] :
       {Row{2, 32767}, {-3, -32767}, {0.5F, 16384}, {-0.5F, -16383}, {kNan, 0}}) {
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

// Outside, where planes are narrower than the data, or where there is none in the place.
TEST(Channels, NothingIsStoredWhereThereIsNoRoom) {
  for (const int type : {IMG_TYPE_VTA, IMG_TYPE_N, IMG_TYPE_Z, IMG_TYPE_TAG}) {
    const Image image = make_image(type, 2, 2);
    for (const auto& [x, y] : {std::pair{-1, 0}, {2, 0}, {0, -1}, {0, 2}}) {
      expect_nothing(image.get(), x, y);
      ka_img_put_scalar(image.get(), 1, x, y);
      EXPECT_EQ(scalar(image.get(), x, y), 0);
    }
    EXPECT_EQ(test::lines_of(image.get()), test::lines_of(make_image(type, 2, 2).get())) << type;
  }
  for (const int type : {IMG_TYPE_RGBA, IMG_TYPE_S, IMG_TYPE_S_FP, IMG_TYPE_BIT, IMG_TYPE_S_16}) {
    const Image image = make_image(type, 2, 1);
    expect_nothing(image.get(), 1, 0);
    EXPECT_EQ(test::lines_of(image.get()), test::lines_of(make_image(type, 2, 1).get())) << type;
  }
}

}  // namespace
