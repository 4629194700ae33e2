// Quantel frames: how pictures lie in the frame, the fractions that are carried
// along a line.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "pictures.h"

namespace {

using test::bytes, test::repeated;

constexpr int kPal = IMG_FORMAT_QNTPAL, kNtsc = IMG_FORMAT_QNTNTSC, kRgb = IMG_TYPE_RGB;
constexpr int kWidth = 720, kPalLines = 576, kNtscLines = 486;
constexpr std::size_t kRowBytes = 1440;

using Color = std::array<int, 3>;

// A frame of one pair over and over.
std::string frame(int lines, const std::string& pair) {
  return repeated(std::size_t(lines) * kWidth / 2, pair);
}

test::Lines random_lines(std::size_t width, std::size_t height) {
  std::mt19937 random(7);
  test::Lines lines(height, test::flat(width, {0, 0, 0}));
  for (test::Planes& planes : lines) {
    for (auto& plane : planes) std::ranges::generate(plane, [&] { return random() & 255; });
  }
  return lines;
}

// Frames have no magic: their size is what they are found by, and their name when the bytes are those of a picture.
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

// White fills exactly the columns and lines that it should.
TEST(Quantel, PicturesLieInTheMiddle) {
  const struct {
    int format, width, height;
    int x, y, columns, lines;  // of the frame that are not black
  } rows[] = {
      {kPal, 640, 480, 40, 48, 640, 480},
      {kNtsc, 640, 480, 40, 2, 640, 480},  // (486 - 480) / 2 = 3, down to 2
      {kNtsc, 800, 486, 0, 0, 720, 486},
      {kPal, 1000, 10, 0, 282, 720, 10},  // (576 - 10) / 2 = 283, down to 282
      // half of 719 and of 485, down; the column is a pair
      {kNtsc, 1, 1, 358, 242, 2, 1},
      {kPal, 719, 2, 0, 286, 720, 2},
      {kPal, 721, 577, 0, 0, 720, 576},
  };
  for (const auto& [format, width, height, x, y, columns, lines] : rows) {
    SCOPED_TRACE(width);
    const test::Planes white = test::flat(std::size_t(width), {255, 255, 255});
    const std::string file = test::written(format, kRgb, test::Lines(std::size_t(height), white));
    const int frame_lines = format == kPal ? kPalLines : kNtscLines;
    ASSERT_EQ(file.size(), kRowBytes * std::size_t(frame_lines));
    for (int i = 0; i < frame_lines * kWidth; ++i) {
      const int row = i / kWidth, column = i % kWidth;
      const bool is_shown = row >= y && row < y + lines && column >= x && column < x + columns;
      const int luma = std::uint8_t(file[2 * std::size_t(i) + 1]);
      // 255 * 56284 is 218.998 * 65536: with a fraction before it 219 as well
      ASSERT_TRUE(is_shown ? luma == 234 || luma == 235 : luma == 16) << column << " " << row;
    }
  }
}

TEST(Quantel, LargePicturesAreCroppedToTheirMiddle) {
  const struct {
    int format;
    std::size_t width, height, x;
    int line;
  } crops[] = {{kNtsc, 800, 486, 40, 0}, {kNtsc, 722, 487, 0, 0}, {kPal, 1440, 1152, 360, 288}};
  for (const auto& [format, width, height, x, line] : crops) {
    SCOPED_TRACE(width);
    const test::Lines whole = random_lines(width, height);
    const auto end = whole.end() - line, begin = end - (format == kPal ? kPalLines : kNtscLines);
    test::Lines middle(begin, end);
    for (test::Planes& planes : middle) {
      for (auto& plane : planes) {
        plane = {plane.begin() + long(x), plane.begin() + long(x) + kWidth};
      }
    }
    EXPECT_TRUE(test::written(format, kRgb, whole) == test::written(format, kRgb, middle));
  }
}

// An odd last column pairs with itself.
TEST(Quantel, OddColumnsPairWithThemselves) {
  EXPECT_TRUE(test::written(kPal, kRgb, {{{1, 4, 70}, {2, 5, 80}, {3, 6, 90}}}) ==
              test::written(kPal, kRgb, {{{1, 4, 70, 70}, {2, 5, 80, 80}, {3, 6, 90, 90}}}));
}

// What is carried on is never lost: all samples up to one together are the whole part of all sums
// up to it together, in 65536ths.
struct Carried {
  std::int64_t sums = 0, samples = 0;
  void expect(int sum, int sample) {
    sums += sum;
    samples += sample;
    ASSERT_EQ(samples, sums >> 16);
  }
};

TEST(Quantel, CarriesFractionsAlongTheLine) {
  constexpr std::size_t height = 8;
  const test::Lines lines = random_lines(kWidth, height);
  const std::string file = test::written(kNtsc, kRgb, lines);
  for (std::size_t y = 0; y < height; ++y) {
    SCOPED_TRACE(y);
    const auto color_at = [&](int x) {
      const auto sample = [&](std::size_t c) { return int(lines[y][c][std::size_t(x)]); };
      return Color{sample(0), sample(1), sample(2)};
    };
    const std::size_t row = (kNtscLines / 2 + height / 2 - 1 - y - 1) * kRowBytes;
    Carried luma, cb, cr;
    Color before{0, 0, 0};
    for (int x = 0; x < kWidth; x += 2) {
      const Color c = color_at(x), d = color_at(x + 1);
      const auto byte = [&](int at) { return std::uint8_t(file[row + std::size_t(2 * x + at)]); };
      luma.expect(16829 * c[0] + 33039 * c[1] + 6416 * c[2], byte(1) - 16);
      luma.expect(16829 * d[0] + 33039 * d[1] + 6416 * d[2], byte(3) - 16);
      for (std::size_t i = 0; i < 3; ++i) before[i] += d[i];
      cb.expect(-4853 * c[0] - 9530 * c[1] + 14383 * c[2] - 2426 * before[0] - 4765 * before[1] +
                    7191 * before[2],
                byte(0) - 128);
      cr.expect(14386 * c[0] - 12046 * c[1] - 2340 * c[2] + 7193 * before[0] - 6023 * before[1] -
                    1170 * before[2],
                byte(2) - 128);
      before = d;
    }
  }
}

// A file holds a whole frame however many lines came: those that are missing are black, those that
// the frame has no room for are left out.
TEST(Quantel, FramesAreWhole) {
  for (const int lines : {1, 17, 575, 576, 600}) {
    SCOPED_TRACE(lines);
    test::NewFile out(kPal, kRgb, kWidth, std::max(lines, int(kPalLines)));
    test::set_samples(test::plane(out.line(), 1), std::vector<std::uint8_t>(kWidth, 255));
    for (int y = 0; y < lines; ++y) ASSERT_TRUE(out.write_line());
    ASSERT_TRUE(out.close());
    test::OpenFile in(out.contents());
    for (int y = 0; y < kPalLines; ++y) {
      ASSERT_TRUE(in.read_line());
      ASSERT_EQ(in.planes()[1][100] > 128, y < lines) << y;
    }
  }
}

}  // namespace
