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

// The base has x + 10 * y everywhere, which no sample but a float can hold.
TEST(Filter, LevelIsTheMeanOfWhatItsPixelsCover) {
  const struct {
    int width, height;
    std::vector<double> columns, lines;  // means of the pixels that a level-1 pixel covers
  } rows[] = {
      {6, 4, {0.5, 2.5, 4.5}, {0.5, 2.5}},
      // 5 pixels on 2: (0 + 1 + 2 / 2) / 2.5 = 0.8 and (2 / 2 + 3 + 4) / 2.5 = 3.2
      {5, 5, {0.8, 3.2}, {0.8, 3.2}},
      // 7 pixels on 3: (0 + 1 + 2 / 3) / (7 / 3) = 5 / 7, (2 * 2 / 3 + 3 + 4 * 2 / 3) / (7 / 3) = 3
      // and (4 / 3 + 5 + 6) / (7 / 3) = 37 / 7; 3 pixels on 1: 1
      {7, 3, {5.0 / 7, 3, 37.0 / 7}, {1}},
      {4, 3, {0.5, 2.5}, {1}},
      {3, 4, {1}, {0.5, 2.5}},
  };
  for (const auto& [width, height, columns, lines] : rows) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    const Image image = make_pyramid(IMG_TYPE_S_FP, width, height);
    fill(image, [](int x, int y) { return Color{float(x + 10 * y), 0, 0, 1}; });
    ka_img_pyramid_filter_levels(image.get());
    const img_image* const half = level(image, 1);
    ASSERT_EQ(half->width, int(columns.size()));
    ASSERT_EQ(half->height, int(lines.size()));
    for (int y = 0; y < half->height; ++y) {
      for (int x = 0; x < half->width; ++x) {
        const double expected = columns[std::size_t(x)] + 10 * lines[std::size_t(y)];
        EXPECT_NEAR(double{value(half, x, y)}, expected, 1e-4) << x << ", " << y;
      }
    }
    if (width != 5) continue;  // the third level is one pixel, 2 + 10 * 2 of 0.8 and 3.2
    EXPECT_NEAR(value(level(image, 2), 0, 0), 22.0F, 1e-4F);
  }
}

// Bytes: (10 + 20 + 30 + 41) / 4 = 25.25, (1 + 2 + 3 + 5) / 4 = 2.75. Words in the same way.
TEST(Filter, SamplesAreRoundedToTheNearest) {
  const std::array<float, 4> given[] = {{10, 20, 30, 41}, {1, 2, 3, 5}};
  for (const auto& [type, largest] : {std::pair{IMG_TYPE_RGB, 255.0F},
                                      {IMG_TYPE_RGB_16, 65535.0F},
                                      {IMG_TYPE_S, 255.0F},
                                      {IMG_TYPE_RGBA_16, 65535.0F}}) {
    for (const auto& [numbers, mean] : {std::pair{given[0], 25.0F}, {given[1], 3.0F}}) {
      const Image image = make_pyramid(type, 2, 2);
      fill(image, [&numbers = numbers, largest = largest](int x, int y) {
        const float color = numbers[std::size_t(x) + 2 * std::size_t(y)] / largest;
        return Color{color, color, color, color};
      });
      ka_img_pyramid_filter_levels(image.get());
      EXPECT_FLOAT_EQ(value(level(image, 1), 0, 0), mean / largest) << type;
    }
  }
}

// Noise of every type, filtered pixel by pixel and plane by plane: clipping to an alpha of 1
// changes nothing but the way.
TEST(Filter, BothWaysOfHalvingGiveTheSame) {
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_S, IMG_TYPE_A_16}) {
    const Image plain = make_pyramid(type, 32, 16), clipped = make_pyramid(type, 32, 16);
    for (const Image* each : {&plain, &clipped}) {
      std::mt19937 random(1);
      std::uniform_real_distribution<float> next(0, 1);
      fill(*each, [&](int, int) { return Color{next(random), next(random), next(random), 1}; });
    }
    ka_img_pyramid_filter_levels(plain.get());
    const Mode mode({.color_clip = IMG_CLIP_TO_ALPHA});
    ka_img_pyramid_filter_levels(clipped.get());
    for (int k = 1; k < plain->levels; ++k) {
      EXPECT_EQ(test::lines_of(level(plain, k)), test::lines_of(level(clipped, k)))
          << type << " " << k;
    }
  }
}

TEST(Filter, OneColorStaysInEveryTypeAndSize) {
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    if (ka_img_ncomp[type] == 2 || type == IMG_TYPE_TAG) continue;
    for (const auto& [width, height] : {std::pair{8, 8}, {11, 7}}) {
      const Image image = make_pyramid(type, width, height);
      fill(image, [](int, int) { return Color{1, 0.5F, 0.25F, 0.75F}; });
      ka_img_pyramid_filter_levels(image.get());
      const Color base = get(image.get(), 0, 0);
      for (int k = 1; k < image->levels; ++k) {
        const img_image* const at = level(image, k);
        for (int i = 0; i < at->width * at->height; ++i) {
          const Color color = get(at, i % at->width, i / at->width);
          for (std::size_t c = 0; c < 4; ++c) EXPECT_NEAR(color[c], base[c], 1e-6) << type << k;
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

// Colours are mixed as they were before gamma: half of 0 and 1 is 0.5, stored as 0.25.
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
