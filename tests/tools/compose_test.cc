// The difference image and the panel above it, against a pixel-by-pixel reference.
#include "compose.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "support.h"

namespace {

using Bins = ka::Histograms::Bins;
using Pixel = std::array<int, 4>;

Pixel pixel(const img_image* image, int x, int y) {
  Pixel result;
  for (std::size_t c = 0; c < 4; ++c) result[c] = test::plane(image, y, c)[x];
  return result;
}

// The ramp in thirds, written out.
Pixel ramp(double v) {
  v = std::clamp(v, 0.0, 1.0);
  const int third = v < 0.3333333333333333 ? 0 : v < 0.6666666666666666 ? 1 : 2;
  const int a = third == 0 ? int(v * 255.0 * 3.0) : int(255.0 * (3.0 * v - third));
  return third == 0   ? Pixel{0, a, 255 - a, 0}
         : third == 1 ? Pixel{a, 255 - a, 0, 0}
                      : Pixel{255, a, a, 0};
}

// What one pixel becomes, and where it is counted.
Pixel expected(const Pixel& a, const Pixel& b, const ka::ComposeSettings& settings, double scale,
               ka::Histograms& histograms) {
  const bool intensity = settings.measure.signed_intensity;
  const bool with_alpha = !settings.measure.ignore_alpha;
  const auto counted = [&](std::size_t c) {
    const int d = a[c] - b[c];
    return std::abs(d) > settings.measure.tolerance ? d : 0;
  };
  const double weights[] = {0.299, 0.587, 0.114};
  int s = 0;
  for (std::size_t c = 3; c-- > 0;) {
    const int d = counted(c);
    s = intensity ? int(s + d * weights[c]) : s + d * d;
  }
  const int alpha = !with_alpha ? 0 : intensity ? counted(3) : counted(3) * counted(3);
  s += alpha;
  Pixel result{};
  if (s == 0) {
    for (std::size_t c = 0; c < 4; ++c) result[c] = settings.underlay ? a[c] / 10 : 0;
    return result;
  }
  const auto value = [&](int sum) {
    return intensity ? std::abs(sum) / scale : std::sqrt(sum) / 255.0 / scale;
  };
  const auto corrected = [&](double v) {
    return settings.gamma ? std::pow(v, 1 / *settings.gamma) : v;
  };
  const auto full = [](double v) { return int(std::min(v, 255.0)); };
  const auto channel = [&](std::size_t c) {
    return corrected(std::abs(a[c] - b[c]) / 255.0 / scale);
  };
  for (std::size_t c = 0; c < 3; ++c) result[c] = full(255.0 * channel(c));
  if (settings.false_color) result = ramp(corrected(value(s)));
  if (with_alpha)
    result[3] = full((settings.false_color ? 200.0 : 255.0) * channel(3) +
                     (settings.false_color ? 55.0 : 0.0));
  const auto count = [&](int sum, Bins& bins, Bins& negative) {
    const double v = std::min(value(sum), 2.0);
    ++(intensity && sum < 0 ? negative : bins)[std::size_t(std::min(int(255.0 * v), 255))];
  };
  count(s, histograms.main, histograms.negative);
  if (with_alpha) count(alpha, histograms.alpha, histograms.negative_alpha);
  return result;
}

constexpr int kWidth = 150, kHeight = 3;  // two whole blocks of pixels and a piece

// Pictures that differ a little, a lot and, on line 1, not at all.
void fill(img_image* a, img_image* b, unsigned seed) {
  std::mt19937 random(seed);
  for (unsigned i = 0; i < 4 * kWidth * kHeight; ++i) {
    const std::size_t c = i % 4, x = i / 4 % kWidth;
    const int y = int(i / 4 / kWidth), step = int(random() % (random() % 2 ? 12 : 256)) - 6;
    const bool differs = y != 1 && random() % 3 != 0 && (c < 3 || random() % 2);
    test::plane(a, y, c)[x] = std::uint8_t(random());
    test::plane(b, y, c)[x] = std::uint8_t(test::plane(a, y, c)[x] + (differs ? step : 0));
  }
}

void expect_agreement(const ka::ComposeSettings& settings, unsigned seed) {
  const auto a = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight + ka::kPanelLines),
             b = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight);
  fill(a.get(), b.get(), seed);
  const ka::Difference difference = ka::measure(a.get(), b.get(), kHeight, settings.measure);
  std::vector<Pixel> pixels;
  ka::Histograms histograms;
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int x = i % kWidth, y = i / kWidth;
    pixels.push_back(expected(pixel(a.get(), x, y), pixel(b.get(), x, y), settings,
                              difference.scale, histograms));
  }
  const ka::Histograms found =
      ka::compose_difference(a.get(), b.get(), kHeight, settings, difference.scale);
  for (int i = 0; i < kWidth * kHeight; ++i) {
    ASSERT_EQ(pixel(a.get(), i % kWidth, i / kWidth), pixels[std::size_t(i)]) << "at " << i;
  }
  EXPECT_EQ(found.main, histograms.main);
  EXPECT_EQ(found.negative, histograms.negative);
  EXPECT_EQ(found.alpha, histograms.alpha);
  EXPECT_EQ(found.negative_alpha, histograms.negative_alpha);
}

TEST(Compose, EveryCombinationOfOptionsAgreesWithTheReference) {
  for (unsigned bits = 0; bits < 64 && !HasFatalFailure(); ++bits) {
    SCOPED_TRACE(bits);
    ka::ComposeSettings settings{.measure = {.tolerance = int(bits % 5),
                                             .ignore_alpha = (bits & 1) != 0,
                                             .signed_intensity = (bits & 2) != 0,
                                             .brighten = (bits & 4) != 0},
                                 .gamma = {},
                                 .false_color = (bits & 8) != 0,
                                 .underlay = (bits & 16) != 0};
    if (bits & 32) settings.gamma = bits & 1 ? 2.2 : 0.4;
    expect_agreement(settings, bits);
  }
}

// Whether a bar of the histogram, the negative one hanging below the ramp, covers a pixel.
bool is_bar(const Bins& bins, const Bins& negative, bool intensity, int width, int x, int line) {
  const bool hangs = intensity && line <= 53;
  const int height = intensity ? 50 : 100;
  const int y = hangs ? 53 - line : line - (intensity ? 64 : 14);
  if (y < 0 || y >= height) return false;
  int most = std::ranges::max(bins), m = 0;
  if (intensity) most = std::max(most, std::ranges::max(negative));
  const int high = 255 * x / (width - 7), low = x == 0 ? 0 : (255 * x - 255) / (width - 7);
  for (int bin = low; bin <= high; ++bin) m = std::max(m, (hangs ? negative : bins)[unsigned(bin)]);
  return m != 0 && (y == 0 || y < m * height / most);
}

// A pixel of the panel from its description.
Pixel panel_pixel(const ka::Histograms& histograms, const ka::ComposeSettings& settings, int width,
                  int x, int line) {
  const bool intensity = settings.measure.signed_intensity;
  const int from = intensity ? 54 : 4;
  Pixel p{};
  if (x < 3 || x > width - 4) return p;
  if (line >= from && line < from + 9) {
    p.fill((256 * (x - 3)) / width);
    if (settings.false_color) {
      p = ramp(double(x - 3) / (width - 1));
      p[3] = 56 + (200 * (x - 3)) / width;
    }
    for (int tick = 1; tick <= 9; ++tick) {
      if (x == (tick * (width - 6)) / 10 + 3) p = {0, 0, 0, p[3]};
    }
  }
  if (width < 8) return p;
  if (is_bar(histograms.main, histograms.negative, intensity, width, x - 3, line)) {
    p = {200, 200, 200, p[3]};
  }
  if (!settings.measure.ignore_alpha &&
      is_bar(histograms.alpha, histograms.negative_alpha, intensity, width, x - 3, line)) {
    p[3] = 200;
  }
  return p;
}

TEST(Panel, ShowsTheHistogramsOverTheRamp) {
  std::mt19937 random(5);
  for (unsigned bits = 0; bits < 8; ++bits) {
    ka::Histograms histograms;
    for (auto* bins :
         {&histograms.main, &histograms.negative, &histograms.alpha, &histograms.negative_alpha}) {
      if (bits == 4 || random() % 4 == 0) continue;  // nothing to show
      for (int& bin : *bins) bin = random() % 4 == 0 ? int(random() % 1000) : 0;
    }
    ka::ComposeSettings settings;
    settings.measure.ignore_alpha = (bits & 1) != 0;
    settings.measure.signed_intensity = (bits & 2) != 0;
    settings.false_color = (bits & 4) != 0;
    for (const int width : {1, 6, 7, 8, 9, 30, 262, 300}) {
      const auto image = test::make_image(IMG_TYPE_RGBA, width, 2 + ka::kPanelLines);
      for (int y = 0; y < 2 + ka::kPanelLines; ++y) {
        for (std::size_t c = 0; c < 4; ++c) std::fill_n(test::plane(image.get(), y, c), width, 77);
      }
      ka::draw_panel(image.get(), 2, histograms, settings);
      EXPECT_EQ(pixel(image.get(), 0, 1), (Pixel{77, 77, 77, 77}));  // the picture stays
      for (int i = 0; i < width * ka::kPanelLines; ++i) {
        ASSERT_EQ(pixel(image.get(), i % width, 2 + i / width),
                  panel_pixel(histograms, settings, width, i % width, i / width))
            << "width " << width << ", options " << bits << ", at " << i;
      }
    }
  }
}

}  // namespace
