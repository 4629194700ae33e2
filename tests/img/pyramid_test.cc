// Image pyramids: sizes, layout, the box filter, and files read with their levels.
#include <gtest/gtest.h>

#include <random>

#include "imgpyramid.h"
#include "mode.h"
#include "pictures.h"

namespace {

using test::Color, test::get, test::Image, test::Mode, test::put;

img_file shape(int type, int width, int height) {
  img_file file{};
  file.type = type;
  file.width = width;
  file.height = height;
  file.pyramid = 1;
  return file;
}

Image make_pyramid(int type, int width, int height) {
  img_file file = shape(type, width, height);
  return Image(ka_img_image_alloc(&file));
}

img_image* level(const Image& image, int k) {
  img_image* result = image.get();
  ka_img_pyramid_set_level(&result, image.get(), k);
  return result;
}

// Mean of the pixels of an image between two places, by the area that is covered of each.
Color mean(const img_image* image, double left, double right, double low, double high) {
  std::array<double, 4> sum{};
  for (int i = 0; i < image->width * image->height; ++i) {
    const int x = i % image->width, y = i / image->width;
    const double width = std::min(right, x + 1.0) - std::max(left, double(x)),
                 height = std::min(high, y + 1.0) - std::max(low, double(y));
    const Color color = get(image, x, y);
    for (std::size_t c = 0; c < 4 && width > 0 && height > 0; ++c) {
      sum[c] += double{color[c]} * width * height / (right - left) / (high - low);
    }
  }
  return {float(sum[0]), float(sum[1]), float(sum[2]), float(sum[3])};
}

// Noise of every type with colors, halved plane by plane and, where clipping to an alpha of 1 is
// asked for, pixel by pixel. Samples are rounded to the nearest.
TEST(Filter, LevelsAreTheMeansOfWhatTheirPixelsCover) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> next(0, 1);
  constexpr std::pair<int, int> sides[] = {{8, 8}, {16, 4}, {6, 4}, {5, 5}, {7, 3}, {11, 14}};
  for (int i = 0; i < IMG_TYPE_COUNT * 24; ++i) {
    const int type = i / 24, bits = ka_img_nbits[type];
    if (ka_img_ncomp[type] == 2 || type == IMG_TYPE_TAG) continue;
    const auto [width, height] = sides[i % 6];
    const Mode mode({.color_clip = i % 2 ? IMG_CLIP_EACH : IMG_CLIP_TO_ALPHA});
    const Image image = make_pyramid(type, width, height);
    for (int p = 0; p < width * height; ++p) {
      put(image.get(), p % width, p / width, {next(random), next(random), next(random), 1});
    }
    ka_img_pyramid_filter_levels(image.get());
    const double step = type == IMG_TYPE_RGBE ? 1 / 128.0
                        : bits == 32          ? 1e-6
                                              : 0.5 / ((1 << bits) - 1) + 1e-6;
    for (int k = 1; k < image->levels; ++k) {
      const img_image *const above = level(image, k - 1), *const at = level(image, k);
      const double across = double(above->width) / at->width,
                   down = double(above->height) / at->height;
      for (int p = 0; p < at->width * at->height; ++p) {
        const int x = p % at->width, y = p / at->width;
        const Color expected = mean(above, x * across, (x + 1) * across, y * down, (y + 1) * down);
        for (std::size_t c = 0; c < 4; ++c) {
          ASSERT_NEAR(get(at, x, y)[c], expected[c], step) << type << ", " << k << ", " << x;
        }
      }
    }
  }
}

// Vectors have no colors to mix. Colors are mixed as they were before gamma: half of 0 and 1 is 0.5,
// stored as 0.25.
TEST(Filter, ColorsAreMixedWithoutGamma) {
  const Mode mode({.gamma = 2});
  constexpr std::pair<int, std::uint16_t> rows[] = {{IMG_TYPE_VTS, 0}, {IMG_TYPE_RGB_16, 16384}};
  for (const auto& [type, expected] : rows) {
    const Image image = make_pyramid(type, 2, 2);
    const Color ones = {1, 1, 1, 1};
    for (const int y : {0, 1}) {
      if (type == IMG_TYPE_VTS) ka_img_put_vector(image.get(), ones.data(), y, y);
      put(image.get(), y, y, ones);  // does nothing to vectors
    }
    ka_img_pyramid_filter_levels(image.get());
    EXPECT_NEAR(test::planes_of(level(image, 1), 0)[0][0], expected, 2);
  }
}

// A picture of 4 x 2 pixels, top line first, whole, without its last pixel, and without any. Its
// levels have what came; those of no line are not filtered.
TEST(PyramidFile, IsFilteredAfterTheLastLine) {
  const std::string picture =
      "P6 4 2 255\n" + test::bytes({10, 10, 10, 20, 20, 20, 30, 30, 30, 40, 40, 40,
                                    50, 50, 50, 60, 60, 60, 70, 70, 70, 80, 80, 84});
  struct Row {
    std::size_t missing;
    test::Planes level;
  };
  for (const auto& [missing, expected] :
       {Row{0, {{35, 55}, {35, 55}, {35, 56}}},  // (10 + 20 + 50 + 60) / 4, ..., (... + 84) / 4
        Row{3, {{8, 18}, {8, 18}, {8, 18}}}, Row{13, {{0, 0}, {0, 0}, {0, 0}}}}) {
    test::OpenFile file(picture.substr(0, picture.size() - missing), IMG_TYPE_RGB);
    file->pyramid = 1;
    const Image image(ka_img_image_alloc(file));
    EXPECT_EQ(ka_img_image_read(file, image.get()), missing == 0);
    EXPECT_EQ(file->error, missing ? IMG_ERR_READ : IMG_ERR_NONE);
    EXPECT_EQ(test::planes_of(level(image, 1), 0), expected);
  }
}

}  // namespace
