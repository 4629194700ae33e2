// Clipping and desaturation of colors.
#include <gtest/gtest.h>

#include <limits>

#include "img/mode.h"
#include "support.h"

namespace {

using test::Color;

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
    const test::Mode mode({.desaturate = desaturate, .color_clip = clip});
    Color color = given;
    ka_img_clip_color(nullptr, color.data());
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_NEAR(color[i], expected[i], 1e-6) << clip << " " << given[0] << " " << i;
    }
  }
}

TEST(Clip, ImagesThatHoldAnyColorAreNotClipped) {
  const Color bright = {4, -1, 0.5F, 2};
  for (const int type : {IMG_TYPE_RGBA_FP, IMG_TYPE_RGB_FP, IMG_TYPE_S_FP, IMG_TYPE_RGBE}) {
    const test::Image image = test::make_image(type, 1, 1);
    Color color = bright;
    ka_img_clip_color(image.get(), color.data());
    EXPECT_EQ(color, bright) << ka_img_type_name(type);
  }
}

}  // namespace
