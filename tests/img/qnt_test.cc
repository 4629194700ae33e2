// Quantel frames: how they are found, and what a picture becomes in the frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "pictures.h"

namespace {

using test::bytes;

constexpr int kPal = IMG_FORMAT_QNTPAL, kNtsc = IMG_FORMAT_QNTNTSC, kRgb = IMG_TYPE_RGB;
constexpr int kWidth = 720, kPalLines = 576, kNtscLines = 486;
constexpr std::size_t kRowBytes = 1440;

using Color = std::array<int, 3>;

// A frame of one pair over and over.
std::string frame(int lines, const std::string& pair) {
  return test::repeated(std::size_t(lines) * kWidth / 2, pair);
}

// Frames have no magic: their size is what they are found by, and their name when the bytes are those
// of a picture.
TEST(Quantel, IsFoundByItsNameFirst) {
  const test::Scratch scratch;
  std::string pixmap = "P6 1 1 255\n";
  pixmap.resize(kRowBytes * kPalLines);
  for (const auto& [name, format] : {std::pair{"a.qnt", kPal}, {"a.ppm", int(IMG_FORMAT_PPM)}}) {
    test::Handle handle;
    ASSERT_TRUE(ka_img_open(handle, scratch.write(name, pixmap).c_str(), IMG_TYPE_FILE));
    EXPECT_EQ(handle->format, format);
  }
}

TEST(Quantel, FrameThatShrinksIsShort) {
  test::OpenFile file(frame(kNtscLines, bytes({128, 16, 128, 16})));
  std::filesystem::resize_file(file.path(), kRowBytes * 2 - 1);
  EXPECT_TRUE(file.read_line());
  EXPECT_FALSE(file.read_line());
  EXPECT_EQ(file->error, IMG_ERR_READ);
}

// Fractions are carried on: all samples up to one together are the whole part of all sums up to it
// together, in 65536ths.
struct Carried {
  std::int64_t sums = 0, samples = 0;
  char take(int sum, int base) {
    const std::int64_t before = samples;
    sums += sum;
    samples = sums >> 16;
    return char(base + samples - before);
  }
};

int weighed(const Color& weights, const Color& color) {
  return weights[0] * color[0] + weights[1] * color[1] + weights[2] * color[2];
}

// What one side leaves of another, in front of it: an even number.
int margin(int side, int other) { return std::max(side - other, 0) / 2 & ~1; }

// The picture, or its middle, in the middle of a black frame. Differences of colors are of three
// columns, those in the middle twice; an odd last column pairs with itself.
std::string frame_of(int frame_lines, const test::Lines& lines) {
  constexpr Color luma = {16829, 33039, 6416};
  const int width = int(lines[0][0].size()), height = int(lines.size());
  const int columns = std::min(width, kWidth);
  std::string file = frame(frame_lines, bytes({128, 16, 128, 16}));
  for (int y = 0; y < std::min(height, frame_lines); ++y) {
    const auto& planes = lines[std::size_t(height - 1 - margin(height, frame_lines) - y)];
    const auto color = [&](int x) {
      const auto at = std::size_t(margin(width, kWidth) + std::min(x, columns - 1));
      return Color{int(planes[0][at]), int(planes[1][at]), int(planes[2][at])};
    };
    const int row = margin(frame_lines, height) + y;
    char* pair = &file[std::size_t(2 * (row * kWidth + margin(kWidth, width)))];
    Carried y_sums, cb, cr;
    Color before{};
    for (int x = 0; x < columns; x += 2, pair += 4) {
      const Color c = color(x), d = color(x + 1);
      const Color sides = {before[0] + d[0], before[1] + d[1], before[2] + d[2]};
      pair[0] =
          cb.take(weighed({-4853, -9530, 14383}, c) + weighed({-2426, -4765, 7191}, sides), 128);
      pair[1] = y_sums.take(weighed(luma, c), 16);
      pair[2] =
          cr.take(weighed({14386, -12046, -2340}, c) + weighed({7193, -6023, -1170}, sides), 128);
      pair[3] = y_sums.take(weighed(luma, d), 16);
      before = d;
    }
  }
  return file;
}

TEST(Quantel, PicturesOfAllSizesBecomeTheseFrames) {
  const struct {
    int format;
    std::size_t width, height;
  } rows[] = {{kPal, 640, 480},   {kPal, 1000, 10}, {kPal, 3, 1},      {kPal, 721, 577},
              {kPal, 1440, 1152}, {kNtsc, 1, 1},    {kNtsc, 640, 480}, {kNtsc, 719, 2},
              {kNtsc, 722, 487},  {kNtsc, 800, 486}};
  for (const auto& [format, width, height] : rows) {
    std::mt19937 random(7);
    test::Lines lines(height, test::flat(width, {0, 0, 0}));
    for (test::Planes& planes : lines) {
      for (auto& plane : planes) std::ranges::generate(plane, [&] { return random() & 255; });
    }
    EXPECT_TRUE(test::written(format, kRgb, lines) ==
                frame_of(format == kPal ? kPalLines : kNtscLines, lines))
        << width << " x " << height;
  }
}

}  // namespace
