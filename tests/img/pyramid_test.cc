// Image pyramids: sizes, layout, the box filter, and files read with their levels.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "img/mode.h"
#include "imgpyramid.h"
#include "support.h"

namespace {

using test::Color, test::get, test::Image, test::put;

Image make_pyramid(int type, int width, int height) {
  img_file file{};
  file.type = type;
  file.width = width;
  file.height = height;
  file.pyramid = 1;
  return Image(ka_img_image_alloc(&file));
}

img_image* level(const Image& image, int k) {
  img_image* result = image.get();
  ka_img_pyramid_set_level(&result, image.get(), k);
  return result;
}

float value(const img_image* image, int x, int y) { return get(image, x, y)[0]; }

// A level takes height * (components * component bytes * width + 16) + 120 bytes, in whole words.
TEST(Pyramid, SizeIsTheSumOfItsLevels) {
  const struct {
    int width, height, bits, components;
    bool pyramid;
    std::optional<std::uint64_t> bytes;
  } rows[] = {{4, 4, 8, 4, false, 248},
              {4, 4, 8, 4, true, 248 + 168 + 140},
              {7, 3, 8, 1, true, 192 + 140},  // 3 * (7 + 16) + 120 = 189, 1 * (3 + 16) + 120 = 139
              {9, 2, 1, 1, true, 172 + 140},  // 170 and 140: a byte for each bit
              {1000, 1, 16, 1, true, 2000 + 16 + 120},
              {0, 0, 8, 4, true, 120},
              // 65000 * 65552 + 120 fits, 32500 * 32784 + 120 more does not.
              {65536, 65000, 8, 1, false, 4260880120},
              {65536, 65000, 8, 1, true, std::nullopt},
              {1 << 20, 1 << 20, 8, 1, true, std::nullopt},  // 21 levels
              {4, -1, 8, 1, true, std::nullopt}};
  for (const auto& [width, height, bits, components, pyramid, bytes] : rows) {
    EXPECT_EQ(img_pyramid_size(width, height, bits, components, pyramid), bytes) << width;
  }
}

TEST(Pyramid, LevelsEndWhenTheSmallerSideDoes) {
  for (const auto& [width, height, levels] :
       {std::array{512, 256, 9}, {256, 512, 9}, {1000, 1, 1}, {5, 5, 3}, {0, 9, 0}}) {
    img_file file{};
    file.width = width;
    file.height = height;
    EXPECT_EQ(img_pyramid_levels(&file), levels) << width << "x" << height;
  }
  const Image image = make_pyramid(IMG_TYPE_S, 512, 256);
  EXPECT_EQ(level(image, 8)->width, 2);
  EXPECT_EQ(level(image, 8)->height, 1);
  EXPECT_EQ(level(image, 0), image.get());
  EXPECT_EQ(level(image, 9), nullptr);
  EXPECT_EQ(level(image, -1), nullptr);
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

struct FilterRow {
  int width, height;
  std::vector<double> columns, lines;  // means of the pixels that a level-1 pixel covers
};

// 5 pixels on 2: (0 + 1 + 2 / 2) / 2.5 = 0.8 and (2 / 2 + 3 + 4) / 2.5 = 3.2. 7 pixels on 3:
// (0 + 1 + 2 / 3) / (7 / 3) = 5 / 7, (2 * 2 / 3 + 3 + 4 * 2 / 3) / (7 / 3) = 3 and
// (4 / 3 + 5 + 6) / (7 / 3) = 37 / 7. 3 pixels on 1: 1.
const std::vector<FilterRow> kFilterRows = {{6, 4, {0.5, 2.5, 4.5}, {0.5, 2.5}},
                                            {5, 5, {0.8, 3.2}, {0.8, 3.2}},
                                            {7, 3, {5.0 / 7, 3, 37.0 / 7}, {1}},
                                            {4, 3, {0.5, 2.5}, {1}},
                                            {3, 4, {1}, {0.5, 2.5}}};

TEST(Filter, LevelIsTheMeanOfWhatItsPixelsCover) {
  for (const auto& [width, height, columns, lines] : kFilterRows) {
    const Image image = make_pyramid(IMG_TYPE_S_FP, width, height);
    for (int i = 0; i < width * height; ++i) {  // a ramp, which no sample but a float can hold
      const int x = i % width, y = i / width;
      const auto ramp = float(x + 10 * y);
      put(image.get(), x, y, {ramp, ramp, ramp, 1});
    }
    ka_img_pyramid_filter_levels(image.get());
    const img_image* const half = level(image, 1);
    ASSERT_EQ(half->width, int(columns.size()));
    ASSERT_EQ(half->height, int(lines.size()));
    for (int i = 0; i < half->width * half->height; ++i) {
      const int x = i % half->width, y = i / half->width;
      const double expected = columns[std::size_t(x)] + 10 * lines[std::size_t(y)];
      EXPECT_NEAR(double{value(half, x, y)}, expected, 1e-4) << width << ": " << x << ", " << y;
    }
    if (width != 5) continue;
    EXPECT_NEAR(value(level(image, 2), 0, 0), 22.0F, 1e-4F);  // 2 + 10 * 2, of 0.8 and 3.2
  }
}

TEST(Filter, SamplesAreRoundedToTheNearest) {
  std::mt19937 random(1);
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_S, IMG_TYPE_A_16}) {
    const Image image = make_pyramid(type, 32, 16);
    const double largest = image->bits == 8 ? 255 : 65535;
    std::array<std::array<int, 32>, 16> red{};
    for (int i = 0; i < 32 * 16; ++i) {
      int& number = red[std::size_t(i / 32)][std::size_t(i % 32)];
      number = int(random() % (unsigned(largest) + 1));
      put(image.get(), i % 32, i / 32, {float(number / largest), 0, 0, 1});
    }
    ka_img_pyramid_filter_levels(image.get());
    for (std::size_t i = 0; i < 16 * 8; ++i) {
      const std::size_t x = i % 16, y = i / 16;
      const int sum = red[2 * y][2 * x] + red[2 * y][2 * x + 1] + red[2 * y + 1][2 * x] +
                      red[2 * y + 1][2 * x + 1];
      const double mean = value(level(image, 1), int(x), int(y)) * largest;
      EXPECT_NEAR(mean, sum / 4.0, 0.51) << type << ": " << x << ", " << y;
    }
  }
}

TEST(Filter, OneColorStaysInEveryTypeAndSize) {
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    if (ka_img_ncomp[type] == 2 || type == IMG_TYPE_TAG) continue;
    for (const auto& [width, height] : {std::pair{8, 8}, {11, 7}}) {
      const Image image = make_pyramid(type, width, height);
      for (int i = 0; i < width * height; ++i) {
        put(image.get(), i % width, i / width, {1, 0.5F, 0.25F, 0.75F});
      }
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

// A picture of 4 x 2 pixels, top line first: its grey values are those of the bytes.
const std::string kPicture =
    "P6 4 2 255\n" + test::bytes({10, 10, 10, 20, 20, 20, 30, 30, 30, 40, 40, 40,
                                  50, 50, 50, 60, 60, 60, 70, 70, 70, 80, 80, 84});

TEST(PyramidFile, IsFilteredAfterTheLastLine) {
  const test::Scratch scratch;
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, scratch.write("ramp.ppm", kPicture).c_str(), IMG_TYPE_RGBA));
  file->pyramid = 1;
  const Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(image && ka_img_image_read(file, image.get()));
  EXPECT_EQ(image->levels, 2);
  const img_image* const half = level(image, 1);
  EXPECT_FLOAT_EQ(value(half, 0, 0), 35 / 255.0F);  // (10 + 20 + 50 + 60) / 4
  EXPECT_FLOAT_EQ(value(half, 1, 0), 55 / 255.0F);
  EXPECT_FLOAT_EQ(get(half, 1, 0)[2], 56 / 255.0F);  // (30 + 40 + 70 + 84) / 4
  EXPECT_EQ(get(half, 1, 0)[3], 1.0F);
}

}  // namespace
