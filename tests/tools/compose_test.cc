// The difference image and the panel above it, against a pixel-by-pixel reference.
#include "compose.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "measurekernels.h"
#include "support.h"

namespace {

using ka::ComposeSettings;
using Pixel = std::array<int, 4>;

Pixel pixel(const img_image* image, int x, int y) {
  Pixel result;
  for (std::size_t c = 0; c < 4; ++c) result[c] = test::plane(image, y, c)[x];
  return result;
}

// The ramp in thirds, written out.
Pixel ramp(double v) {
  v = std::min(std::max(v, 0.0), 1.0);
  if (v < 0.3333333333333333) {
    const int a = int(v * 255.0 * 3.0);
    return {0, a, 255 - a, 0};
  }
  if (v < 0.6666666666666666) {
    const int a = int(255.0 * (3.0 * v - 1.0));
    return {a, 255 - a, 0, 0};
  }
  const int a = int(255.0 * (3.0 * v - 2.0));
  return {255, a, a, 0};
}

struct Expected {
  Pixel pixel;
  int bin = -1, alpha_bin = -1;  // -1: not counted
  bool negative = false, negative_alpha = false;
};

int counted(int d, int tolerance) { return std::abs(d) > std::max(tolerance, 0) ? d : 0; }

// What one pixel becomes, and where it is counted.
Expected expected(const Pixel& a, const Pixel& b, const ComposeSettings& settings, double scale) {
  const bool intensity = settings.measure.signed_intensity,
             ignore_alpha = settings.measure.ignore_alpha;
  const int tolerance = settings.measure.tolerance;
  const double weights[] = {0.299, 0.587, 0.114};
  int s = 0;
  for (std::size_t c = 3; c-- > 0;) {
    const int d = counted(a[c] - b[c], tolerance);
    s = intensity ? int(s + d * weights[c]) : s + d * d;
  }
  const int da = ignore_alpha ? 0 : counted(a[3] - b[3], tolerance);
  const int alpha = intensity ? da : da * da;
  s += alpha;
  Expected result{};
  if (s == 0) {
    for (std::size_t c = 0; c < 4; ++c) result.pixel[c] = settings.underlay ? a[c] / 10 : 0;
    return result;
  }
  const auto corrected = [&](double v) {
    return settings.gamma ? std::pow(v, 1 / *settings.gamma) : v;
  };
  const auto full = [](double v) { return int(std::min(v, 255.0)); };
  const double v = intensity ? std::abs(s) / scale : std::sqrt(s) / 255.0 / scale;
  const auto channel = [&](std::size_t c) {
    return corrected(std::abs(a[c] - b[c]) / 255.0 / scale);
  };
  if (settings.false_color) {
    result.pixel = ramp(corrected(v));
  } else {
    for (std::size_t c = 0; c < 3; ++c) result.pixel[c] = full(255.0 * channel(c));
  }
  result.pixel[3] = ignore_alpha           ? 0
                    : settings.false_color ? full(200.0 * channel(3) + 55.0)
                                           : full(255.0 * channel(3));
  result.bin = std::min(int(255.0 * std::min(v, 2.0)), 255);
  const double va = intensity ? std::abs(alpha) / scale : std::sqrt(alpha) / 255.0 / scale;
  if (!ignore_alpha) result.alpha_bin = std::min(int(255.0 * std::min(va, 2.0)), 255);
  result.negative = intensity && s < 0;
  result.negative_alpha = intensity && alpha < 0;
  return result;
}

constexpr int kWidth = 150, kHeight = 3;  // two whole blocks of pixels and a piece

// Pictures that differ a little, a lot and not at all.
std::pair<test::Image, test::Image> random_pair(unsigned seed) {
  auto a = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight + ka::kPanelLines);
  auto b = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight);
  std::mt19937 random(seed);
  for (int y = 0; y < kHeight; ++y) {
    for (std::size_t c = 0; c < 4; ++c) {
      for (int x = 0; x < kWidth; ++x) {
        const auto sample = std::uint8_t(random());
        const bool differs = y != 1 && random() % 3 != 0 && (c < 3 || random() % 2);
        const int step = random() % 2 ? int(random() % 12) - 6 : int(random() % 256);
        test::plane(a.get(), y, c)[x] = sample;
        test::plane(b.get(), y, c)[x] = differs ? std::uint8_t(sample + step) : sample;
      }
    }
  }
  return {std::move(a), std::move(b)};
}

void check(const ComposeSettings& settings, unsigned seed) {
  auto [a, b] = random_pair(seed);
  const ka::Difference difference = ka::measure(a.get(), b.get(), kHeight, settings.measure);
  std::vector<Expected> pixels;
  ka::Histograms histograms;
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const Expected e =
          expected(pixel(a.get(), x, y), pixel(b.get(), x, y), settings, difference.scale);
      pixels.push_back(e);
      if (e.bin >= 0) ++(e.negative ? histograms.negative : histograms.main)[std::size_t(e.bin)];
      if (e.alpha_bin >= 0) {
        ++(e.negative_alpha ? histograms.negative_alpha
                            : histograms.alpha)[std::size_t(e.alpha_bin)];
      }
    }
  }
  const ka::Histograms found =
      ka::compose_difference(a.get(), b.get(), kHeight, settings, difference.scale);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      ASSERT_EQ(pixel(a.get(), x, y), pixels[std::size_t(y * kWidth + x)].pixel)
          << "at " << x << ", " << y;
    }
  }
  EXPECT_EQ(found.main, histograms.main);
  EXPECT_EQ(found.negative, histograms.negative);
  EXPECT_EQ(found.alpha, histograms.alpha);
  EXPECT_EQ(found.negative_alpha, histograms.negative_alpha);
}

TEST(Compose, EveryCombinationOfOptionsAgreesWithTheReference) {
  for (unsigned bits = 0; bits < 64; ++bits) {
    SCOPED_TRACE(bits);
    ComposeSettings settings{.measure = {.tolerance = int(bits % 5),
                                         .ignore_alpha = (bits & 1) != 0,
                                         .signed_intensity = (bits & 2) != 0,
                                         .brighten = (bits & 4) != 0},
                             .gamma = {},
                             .false_color = (bits & 8) != 0,
                             .underlay = (bits & 16) != 0};
    if (bits & 32) settings.gamma = bits & 1 ? 2.2 : 0.4;
    check(settings, bits);
    if (testing::Test::HasFatalFailure()) return;
  }
}

// One pixel of each pair: options without -s, -g and -f show the plain differences.
TEST(Compose, PlainDifferences) {
  const auto compose = [](const ComposeSettings& settings, const Pixel& first,
                          const Pixel& second) {
    auto a = test::make_image(IMG_TYPE_RGBA, 1, 1), b = test::make_image(IMG_TYPE_RGBA, 1, 1);
    for (std::size_t c = 0; c < 4; ++c) {
      test::plane(a.get(), 0, c)[0] = std::uint8_t(first[c]);
      test::plane(b.get(), 0, c)[0] = std::uint8_t(second[c]);
    }
    (void)ka::compose_difference(a.get(), b.get(), 1, settings, 1.0);
    return pixel(a.get(), 0, 0);
  };
  EXPECT_EQ(compose({}, {110, 80, 5, 255}, {100, 100, 5, 255}), (Pixel{10, 20, 0, 0}));
  EXPECT_EQ(compose({}, {102, 102, 102, 99}, {100, 100, 100, 99}), (Pixel{0, 0, 0, 0}));
  ComposeSettings underlay;
  underlay.underlay = true;
  EXPECT_EQ(compose(underlay, {102, 109, 9, 255}, {100, 109, 9, 255}), (Pixel{10, 10, 0, 25}));
  ComposeSettings color;
  color.false_color = true;
  EXPECT_EQ(compose(color, {255, 0, 0, 7}, {0, 0, 0, 7}), (Pixel{255, 255, 255, 55}));
}

TEST(Compose, TheRampGoesFromBlueToWhite) {
  EXPECT_EQ(ka::false_color(-1), (ka::Rgb{0, 0, 255}));
  EXPECT_EQ(ka::false_color(0), (ka::Rgb{0, 0, 255}));
  EXPECT_EQ(ka::false_color(0.5), (ka::Rgb{127, 128, 0}));
  EXPECT_EQ(ka::false_color(1), (ka::Rgb{255, 255, 255}));
  EXPECT_EQ(ka::false_color(9), (ka::Rgb{255, 255, 255}));
}

// With -s, equal pictures, and with -i those that differ in alpha alone, leave nothing to scale by:
// the scale is the one without -s.
TEST(Compose, AScaleOfNothingIsTheWholeRange) {
  const auto scale_of_equals = [](std::size_t equal_channels, bool intensity) {
    auto [a, b] = random_pair(1);
    for (std::size_t c = 0; c < equal_channels; ++c) {
      for (int y = 0; y < kHeight; ++y)
        std::copy_n(test::plane(a.get(), y, c), kWidth, test::plane(b.get(), y, c));
    }
    const ka::MeasureSettings settings{.signed_intensity = intensity, .brighten = true};
    const ka::Difference difference = ka::measure(a.get(), b.get(), kHeight, settings);
    EXPECT_EQ(difference.count, 0);
    return difference.scale;
  };
  EXPECT_EQ(scale_of_equals(3, true), 255.0);
  EXPECT_EQ(scale_of_equals(4, true), 255.0);
  EXPECT_EQ(scale_of_equals(4, false), 1.0);
}

// The panel from its description, pixel by pixel.
class PanelReference {
 public:
  PanelReference(int width, const ka::Histograms& histograms, const ComposeSettings& settings)
      : width_(width), settings_(settings), pixels_(std::size_t(width) * ka::kPanelLines) {
    const bool intensity = settings.measure.signed_intensity;
    if (width >= 7) draw_ramp(intensity ? 54 : 4);
    if (width < 8) return;
    draw_bars(histograms.main, histograms.negative, false);
    if (!settings.measure.ignore_alpha)
      draw_bars(histograms.alpha, histograms.negative_alpha, true);
  }
  Pixel& at(int x, int line) { return pixels_[std::size_t(line * width_ + x)]; }

 private:
  void draw_ramp(int from) {
    for (int line = from; line < from + 9; ++line) {
      for (int x = 3; x <= width_ - 4; ++x) {
        if (settings_.false_color) {
          at(x, line) = ramp(double(x - 3) / (width_ - 1));
          at(x, line)[3] = 56 + (200 * (x - 3)) / width_;
        } else {
          at(x, line).fill((256 * (x - 3)) / width_);
        }
      }
      for (int k = 1; k <= 9; ++k) {
        Pixel& tick = at((k * (width_ - 6)) / 10 + 3, line);
        tick = {0, 0, 0, tick[3]};
      }
    }
  }
  void draw_bars(const ka::Histograms::Bins& main, const ka::Histograms::Bins& negative,
                 bool alpha) {
    const bool intensity = settings_.measure.signed_intensity;
    const int height = intensity ? 50 : 100;
    int most = std::ranges::max(main);
    if (intensity) most = std::max(most, std::ranges::max(negative));
    for (int x = 0; x <= width_ - 7; ++x) {
      const auto reaches = [&](const ka::Histograms::Bins& bins, int y) {
        const int high = 255 * x / (width_ - 7), low = x == 0 ? 0 : (255 * x - 255) / (width_ - 7);
        int m = 0;
        for (int bin = low; bin <= high; ++bin) m = std::max(m, bins[std::size_t(bin)]);
        return (m != 0 && y == 0) || (most != 0 && y < m * height / most);
      };
      const auto mark = [&](int line) {
        Pixel& p = at(x + 3, line);
        p = alpha ? Pixel{p[0], p[1], p[2], 200} : Pixel{200, 200, 200, p[3]};
      };
      for (int y = 0; y < height; ++y) {
        if (reaches(main, y)) mark((intensity ? 64 : 14) + y);
        if (intensity && reaches(negative, y)) mark(53 - y);
      }
    }
  }

  int width_;
  const ComposeSettings& settings_;
  std::vector<Pixel> pixels_;
};

TEST(Panel, ShowsTheHistogramsOverTheRamp) {
  std::mt19937 random(5);
  ka::Histograms histograms;
  for (auto* bins :
       {&histograms.main, &histograms.negative, &histograms.alpha, &histograms.negative_alpha}) {
    for (int& bin : *bins) bin = random() % 4 == 0 ? int(random() % 1000) : 0;
  }
  for (const int width : {1, 6, 7, 8, 9, 30, 262, 300}) {
    for (unsigned bits = 0; bits < 8; ++bits) {
      ComposeSettings settings;
      settings.measure.ignore_alpha = (bits & 1) != 0;
      settings.measure.signed_intensity = (bits & 2) != 0;
      settings.false_color = (bits & 4) != 0;
      auto image = test::make_image(IMG_TYPE_RGBA, width, 2 + ka::kPanelLines);
      for (int y = 0; y < 2 + ka::kPanelLines; ++y) {
        for (std::size_t c = 0; c < 4; ++c)
          std::fill_n(test::plane(image.get(), y, c), width, std::uint8_t{77});
      }
      ka::draw_panel(image.get(), 2, histograms, settings);
      EXPECT_EQ(pixel(image.get(), 0, 1), (Pixel{77, 77, 77, 77}));  // the picture stays
      PanelReference reference(width, histograms, settings);
      for (int line = 0; line < ka::kPanelLines; ++line) {
        for (int x = 0; x < width; ++x) {
          ASSERT_EQ(pixel(image.get(), x, 2 + line), reference.at(x, line))
              << "width " << width << ", options " << bits << ", at " << x << ", " << line;
        }
      }
    }
  }
}

TEST(Panel, OfNoDifferencesHasNoBars) {
  auto image = test::make_image(IMG_TYPE_RGBA, 20, ka::kPanelLines);
  ka::draw_panel(image.get(), 0, {}, {});
  for (int line = 14; line < ka::kPanelLines; ++line)
    EXPECT_EQ(pixel(image.get(), 9, line), Pixel{});
}

}  // namespace
