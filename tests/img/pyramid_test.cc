// Image pyramids: sizes, layout, the box filter, and files read with their levels.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/message.h>

#include <cmath>
#include <cstdlib>
#include <random>

#include "img/mode.h"
#include "imgpyramid.h"
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

float value(const img_image* image, int x, int y) { return get(image, x, y)[0]; }

// Puts color(x, y) everywhere.
template <typename Function>
void fill(const Image& image, Function color) {
  for (int i = 0; i < image->width * image->height; ++i) {
    put(image.get(), i % image->width, i / image->width, color(i % image->width, i / image->width));
  }
}

// A level takes height * (components * component bytes * width + 16) + 120 bytes, in whole words.
TEST(Pyramid, SizeIsTheSumOfItsLevels) {
  const struct {
    int width, height, bits, components;
    bool pyramid;
    std::optional<std::uint64_t> bytes;
  } rows[] = {
      {4, 4, 8, 4, false, 248},
      {4, 4, 8, 4, true, 248 + 168 + 140},
      // 3 * (7 + 16) + 120 = 189 and 1 * (3 + 16) + 120 = 139
      {7, 3, 8, 1, true, 192 + 140},
      // 2 * (9 + 16) + 120 = 170 and 1 * (4 + 16) + 120: a byte for each bit
      {9, 2, 1, 1, true, 172 + 140},
      {1000, 1, 16, 1, true, 2000 + 16 + 120},  // thin ones have no levels
      {0, 0, 8, 4, true, 120},
      // 65000 * 65552 + 120 fits, 32500 * 32784 + 120 more does not
      {65536, 65000, 8, 1, false, 4260880120},
      {65536, 65000, 8, 1, true, std::nullopt},
      {1 << 20, 1 << 20, 8, 1, true, std::nullopt},  // 21 levels
      {4, -1, 8, 1, true, std::nullopt},
  };
  for (const auto& [width, height, bits, components, pyramid, bytes] : rows) {
    EXPECT_EQ(ka::img_pyramid_size(width, height, bits, components, pyramid), bytes)
        << width << " x " << height;
  }
  img_file file = shape(IMG_TYPE_S, 65536, 65000);
  EXPECT_EQ(ka_img_image_alloc(&file), nullptr);
  EXPECT_EQ(file.error, IMG_ERR_SUBTYPE);
  EXPECT_EQ(file.os_error, EFBIG);
  file.pyramid = 0;
  EXPECT_EQ(ka_img_image_size(&file), 4260880120U);
}

TEST(Pyramid, LevelsEndWhenTheSmallerSideDoes) {
  const struct {
    int width, height, levels;
  } rows[] = {{512, 512, 10}, {512, 256, 9}, {256, 512, 9}, {1, 1, 1},
              {1000, 1, 1},   {5, 5, 3},     {0, 9, 0}};
  for (const auto& [width, height, levels] : rows) {
    const img_file file = shape(IMG_TYPE_RGBA, width, height);
    EXPECT_EQ(ka::img_pyramid_levels(&file), levels) << width << "x" << height;
  }
  const Image image = make_pyramid(IMG_TYPE_S, 512, 256);
  EXPECT_EQ(image->levels, 9);
  EXPECT_EQ(level(image, 8)->width, 2);
  EXPECT_EQ(level(image, 8)->height, 1);
}

TEST(Pyramid, DirectoryAndHeadersOfEveryLevel) {
  const Image image = make_pyramid(IMG_TYPE_RGBA, 4, 4);
  const std::array<std::uint32_t, 3> places = {0, 248, 248 + 168};
  for (int k = 0; k < 3; ++k) {
    const img_image* const at = level(image, k);
    EXPECT_EQ(reinterpret_cast<const char*>(at) - reinterpret_cast<const char*>(image.get()),
              places[std::size_t(k)]);
    EXPECT_EQ(at->levels, 3 - k);
    for (std::size_t j = 0; j < 20; ++j) {
      const std::size_t below = j + std::size_t(k);
      const std::uint32_t distance = below < 3 ? places[below] - places[std::size_t(k)] : 0;
      EXPECT_EQ(at->level_offset[j], distance) << k << ", " << j;
    }
    EXPECT_EQ(at->filter, 1.0F);  // as the handle asked
    EXPECT_EQ(at->width, 4 >> k);
    EXPECT_EQ(at->height, 4 >> k);
    EXPECT_EQ(at->bits, 8);
    EXPECT_EQ(at->components, 4);
    EXPECT_EQ(at->type, IMG_TYPE_RGBA);
    EXPECT_EQ(at->flags[2], 0);
    std::uint32_t next = 120 + 16 * std::uint32_t(at->height);
    const auto* const table = reinterpret_cast<const img_image_line*>(at + 1);
    for (int y = 0; y < at->height; ++y) {
      for (const std::uint32_t offset : table[y].offset) {
        EXPECT_EQ(offset, next);
        next += std::uint32_t(at->width);
      }
    }
  }
}

TEST(Pyramid, SinglePlanesOfLevelsStandInTheAlphaSlot) {
  for (const int type : {IMG_TYPE_A, IMG_TYPE_S_16, IMG_TYPE_S_FP, IMG_TYPE_BIT}) {
    const Image image = make_pyramid(type, 2, 2);
    EXPECT_EQ(test::plane(level(image, 1), 0, test::kR), nullptr) << type;
    EXPECT_NE(test::plane(level(image, 1), 0, test::kA), nullptr) << type;
  }
  EXPECT_NE(test::plane(level(make_pyramid(IMG_TYPE_Z, 2, 2), 1), 0, test::kR), nullptr);
}

TEST(Pyramid, LevelsAreFoundAndFiltersSet) {
  const Image image = make_pyramid(IMG_TYPE_S, 4, 4);
  EXPECT_EQ(level(image, 0), image.get());
  EXPECT_EQ(level(image, 3), nullptr);
  EXPECT_EQ(level(image, -1), nullptr);
  ka_img_pyramid_set_filter(image.get(), 0.75F);
  EXPECT_EQ(image->filter, 0.75F);
  const Image plain = test::make_image(IMG_TYPE_S, 4, 4);
  EXPECT_EQ(plain->levels, 0);
  EXPECT_EQ(level(plain, 0), plain.get());
  EXPECT_EQ(level(plain, 1), nullptr);
}

TEST(PyramidDeathTest, ANullHandleIsFatal) {
  setenv("KA_LOGFILE", "/dev/null", 1);
  EXPECT_DEATH(ka::img_pyramid_levels(nullptr), "ASSERTION FAILED: ifp: ");
  EXPECT_DEATH(ka::img_pyramid_create_directory(nullptr, nullptr), "ASSERTION FAILED: ifp: ");
  unsetenv("KA_LOGFILE");
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
    fill(image, [&](int, int) { return Color{next(random), next(random), next(random), 1}; });
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

TEST(Filter, VectorsHaveNoColorsToMix) {
  const Image image = make_pyramid(IMG_TYPE_VTS, 4, 4);
  const std::array<float, 3> vector = {1, 1, 0};
  for (int i = 0; i < 16; ++i) ka_img_put_vector(image.get(), vector.data(), i % 4, i / 4);
  ka_img_pyramid_filter_levels(image.get());
  EXPECT_EQ(test::samples<std::uint16_t>(test::plane(level(image, 1), 0, 0), 2),
            (std::vector<std::uint16_t>{0, 0}));
}

// Colors are mixed as they were before gamma: half of 0 and 1 is 0.5, stored as 0.25.
TEST(Filter, GammaOfTheThreadApplies) {
  const Mode mode({.gamma = 2});
  const Image image = make_pyramid(IMG_TYPE_RGB_16, 2, 2);
  for (const int y : {0, 1}) put(image.get(), y, y, {1, 1, 1, 1});
  ka_img_pyramid_filter_levels(image.get());
  EXPECT_NEAR(test::samples<std::uint16_t>(test::plane(level(image, 1), 0, 0), 1)[0], 16384, 2);
}

TEST(Filter, TellsWhenItStartsAndEnds) {
  const Image image = test::make_image(IMG_TYPE_S, 1, 1);
  const test::MessageLog log(KA_DEBUG);
  ka_img_pyramid_filter_levels(image.get());
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_NE(log.lines()[0].find("IMG"), std::string::npos);
  EXPECT_NE(log.lines()[0].find(": starting to filter image pyramid"), std::string::npos);
  EXPECT_NE(log.lines()[1].find(": image pyramid finished"), std::string::npos);
}

// A picture of 4 x 2 pixels, top line first: its grey values are those of the bytes.
const std::string kPicture =
    "P6 4 2 255\n" + test::bytes({10, 10, 10, 20, 20, 20, 30, 30, 30, 40, 40, 40,
                                  50, 50, 50, 60, 60, 60, 70, 70, 70, 80, 80, 84});

TEST(PyramidFile, IsFilteredAfterTheLastLine) {
  test::OpenFile file(kPicture, IMG_TYPE_RGBA);
  file->pyramid = 1;
  const Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(image && ka_img_image_read(file, image.get()));
  EXPECT_EQ(image->levels, 2);
  const img_image* const half = level(image, 1);
  EXPECT_EQ(half->type, IMG_TYPE_RGBA);
  EXPECT_FLOAT_EQ(value(half, 0, 0), 35 / 255.0F);  // (10 + 20 + 50 + 60) / 4
  EXPECT_FLOAT_EQ(value(half, 1, 0), 55 / 255.0F);
  EXPECT_FLOAT_EQ(get(half, 1, 0)[2], 56 / 255.0F);  // (30 + 40 + 70 + 84) / 4
  EXPECT_EQ(get(half, 1, 0)[3], 1.0F);
}

TEST(PyramidFile, ThatEndsEarlyKeepsWhatCameInEveryLevel) {
  test::OpenFile file(kPicture.substr(0, kPicture.size() - 3), IMG_TYPE_RGB);
  file->pyramid = 1;
  const Image image(ka_img_image_alloc(file));
  EXPECT_FALSE(ka_img_image_read(file, image.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
  EXPECT_NEAR(value(level(image, 1), 0, 0), 7.5F / 255, 0.6F / 255);  // (10 + 20) / 4
}

}  // namespace
