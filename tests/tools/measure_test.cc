// Measuring, composing and the panel: the library against one reference, pixel by pixel, on every
// instruction set.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "compose.h"
#include "measurekernels.h"
#include "support.h"

namespace {

using Bins = ka::Histograms::Bins;
using Pixel = std::array<int, 4>;

// The rules for one pixel, in whole numbers: the weights are thousandths, and division of integers
// cuts towards 0 as the rule does.
struct PlainPixel {
  PlainPixel(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t x,
             const ka::MeasureSettings& settings) {
    constexpr std::array weights = {299, 587, 114};
    const auto counted = [&](std::size_t c) {
      const int d = first[c][x] - second[c][x];
      return std::abs(d) > settings.tolerance ? d : 0;
    };
    const bool is_signed = settings.signed_intensity;
    for (std::size_t c = 3; c-- > 0;) {
      const int d = counted(c);
      measured = is_signed ? (1000 * measured + d * weights[c]) / 1000 : measured + d * d;
    }
    alpha = settings.ignore_alpha ? 0 : counted(3);
    shown = measured + (is_signed ? alpha : alpha * alpha);
    if (!is_signed) measured = shown;
  }
  int measured = 0, shown = 0, alpha = 0;  // the sums of pass 1 and pass 2
};

// Two lines, mostly alike, at addresses that are not aligned.
struct RandomLines {
  RandomLines(std::mt19937& random, std::size_t width) {
    const std::size_t shift = random() % 8;
    const std::uint32_t wild = random() % 4 * 20, near = random() % 2 * 5;  // wild: of a hundred
    for (std::size_t c = 0; c < 4; ++c) {
      for (std::size_t i = 0; i <= width + shift; ++i) {  // a line of no pixels has an address too
        a[c].push_back(std::uint8_t(random()));
        const bool is_wild = random() % 100 < wild;
        b[c].push_back(std::uint8_t(is_wild ? random() : a[c][i] + random() % (near + 1)));
      }
      first[c] = a[c].data() + shift;
      second[c] = b[c].data() + shift;
    }
  }
  std::array<std::vector<std::uint8_t>, 4> a, b;
  ka::LinePlanes first, second;
};

std::vector<int> added_up(const ka::Counters& counters) {
  std::vector<int> result(counters[0].size());
  for (const auto& set : counters) {
    for (std::size_t i = 0; i < set.size(); ++i) result[i] += set[i];
  }
  return result;
}

// Runs every kernel of a table: all give what the first one gives.
template <typename Kernel, typename Run>
void expect_agreement(const ka::KernelTable<Kernel>& table, Run run) {
  const auto kernels = ka::usable_kernels(table);
  const auto expected = run(kernels[0]);
  for (const Kernel kernel : kernels) ASSERT_TRUE(run(kernel) == expected);
}

// The kernels of both passes for a line; the sums of the first pass follow the rules. Lines of no
// pixels have addresses, too.
void check_kernels(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t width,
                   const ka::MeasureSettings& settings) {
  const bool is_signed = settings.signed_intensity;
  const int channels = settings.ignore_alpha ? 3 : 4;
  std::tuple<std::uint32_t, std::int64_t, int, int> expected;
  auto& [count, total, most, least] = expected;
  for (std::size_t x = 0; x < width; ++x) {
    const int sum = PlainPixel(first, second, x, settings).measured;
    count += sum != 0;
    total += sum;
    most = std::max(most, sum);
    least = std::min(least, sum);
  }
  const auto kernels = ka::usable_kernels(is_signed ? ka::intensity_kernels : ka::color_kernels);
  for (const auto kernel : kernels) {
    ka::LineSums sums{};
    kernel(first, second, width, settings.tolerance, channels, sums);
    ASSERT_EQ(std::tuple(sums.count, sums.total, sums.most, sums.least), expected);
  }
  std::vector<std::int32_t> sums(width + 1);
  std::vector<std::int16_t> alphas(width + 1);
  expect_agreement(is_signed ? ka::intensity_pixel_kernels : ka::color_pixel_kernels,
                   [&](ka::PixelKernel kernel) {
                     kernel(first, second, width, settings.tolerance, channels, sums.data(),
                            alphas.data());
                     return std::pair(sums, alphas);
                   });
  static const std::vector<std::uint32_t> table = [] {
    std::vector<std::uint32_t> entries(ka::kLargestColorSum + 1);
    for (std::size_t s = 0; s < entries.size(); ++s) entries[s] = std::uint32_t(s * 2654435761U);
    return entries;
  }();
  expect_agreement(ka::count_kernels, [&](ka::CountKernel kernel) {
    std::vector<std::uint32_t> entries(width + 1);
    ka::Counters main{}, alpha{};
    kernel({sums.data(), alphas.data(), table.data(), is_signed}, width, entries.data(), main,
           alpha);
    for (std::size_t x = 0; x < width; ++x) entries[x] *= sums[x] != 0;  // of others: anything
    std::vector<int> found = added_up(alpha);
    found[0] = 0;  // of the pixels that do not differ
    return std::tuple(entries, added_up(main), found);
  });
}

TEST(Measure, KernelsAgreeForEveryWidthAndDifference) {
  std::mt19937 random(1);
  std::vector<std::uint8_t> fast, slow;
  for (int i = 0; i < 2 * 256 * 256; ++i) {  // sums of more than 32 bits
    fast.push_back(std::uint8_t(i));
    slow.push_back(std::uint8_t(i >> 8));
  }
  for (const bool ignore_alpha : {false, true}) {
    for (const bool is_signed : {false, true}) {
      ka::MeasureSettings settings = {.ignore_alpha = ignore_alpha, .signed_intensity = is_signed};
      check_kernels({fast.data(), slow.data(), fast.data(), slow.data()},
                    {slow.data(), fast.data(), slow.data(), fast.data()}, fast.size(), settings);
      for (std::size_t i = 0; i <= 400; ++i) {
        SCOPED_TRACE(testing::Message() << "width " << i / 2 << ", signed " << is_signed);
        const RandomLines lines(random, i / 2);
        settings.tolerance = std::array{0, 3, int(random() % 256)}[i % 3];
        ASSERT_NO_FATAL_FAILURE(check_kernels(lines.first, lines.second, i / 2, settings));
      }
    }
  }
}

// Of two equal ones that further left counts, and that on the lower line.
TEST(Measure, TheFirstOfEqualDifferencesIsTheLargestInAnyOrderOfLines) {
  constexpr std::uint8_t up[] = {100, 0, 100}, down[] = {0, 100, 0}, none[] = {0, 0, 0};
  const ka::LinePlanes zeros = {none, none, none, none}, rise = {up, none, none, none},
                       fall = {down, none, none, none};
  for (const std::array<int, 3>& order : {std::array{0, 1, 2}, {2, 1, 0}, {1, 2, 0}}) {
    ka::Meter meter({.signed_intensity = true});
    for (const int y : order) {
      meter.add_line(y, y == 0 ? fall : y == 1 ? zeros : rise, y == 0 ? rise : zeros, 3);
    }
    EXPECT_EQ(meter.result().largest, -29) << order[0];  // trunc(100 * 0.299)
  }
}

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
Pixel expected(const Pixel& a, const Pixel& b, const PlainPixel& plain,
               const ka::ComposeSettings& settings, double scale, ka::Histograms& histograms) {
  const bool intensity = settings.measure.signed_intensity;
  const bool with_alpha = !settings.measure.ignore_alpha;
  Pixel result{};
  if (plain.shown == 0) {
    for (std::size_t c = 0; c < 4; ++c) result[c] = settings.underlay ? a[c] / 10 : 0;
    return result;
  }
  const auto value = [&](int sum) {
    return intensity ? std::abs(sum) / scale : std::sqrt(sum) / 255.0 / scale;
  };
  const auto corrected = [&](double v) {
    return settings.gamma ? std::pow(v, 1 / *settings.gamma) : v;
  };
  const auto channel = [&](std::size_t c) {
    return corrected(std::abs(a[c] - b[c]) / 255.0 / scale);
  };
  const auto full = [](double v) { return int(std::min(v, 255.0)); };
  for (std::size_t c = 0; c < 3; ++c) result[c] = full(255.0 * channel(c));
  if (settings.false_color) result = ramp(corrected(value(plain.shown)));
  if (with_alpha) {
    result[3] = full(settings.false_color ? 200.0 * channel(3) + 55.0 : 255.0 * channel(3));
  }
  const auto count = [&](int sum, Bins& bins, Bins& negative) {
    const double v = std::min(value(sum), 2.0);
    ++(intensity && sum < 0 ? negative : bins)[std::size_t(std::min(int(255.0 * v), 255))];
  };
  count(plain.shown, histograms.main, histograms.negative);
  const int alpha = intensity ? plain.alpha : plain.alpha * plain.alpha;
  if (with_alpha) count(alpha, histograms.alpha, histograms.negative_alpha);
  return result;
}

// Pass 1: sums, percents of the range, and what a difference is divided by.
ka::Difference plain_difference(const std::vector<PlainPixel>& pixels,
                                const ka::MeasureSettings& settings) {
  ka::Difference d;
  for (const PlainPixel& p : pixels) {
    d.count += p.measured != 0;
    d.total += p.measured;
    if (std::abs(p.measured) > std::abs(d.largest)) d.largest = p.measured;
  }
  const bool is_signed = settings.signed_intensity;
  const double range = is_signed ? 255 : settings.ignore_alpha ? 441 : 510;
  const double largest = is_signed ? d.largest : std::sqrt(d.largest);
  d.maximum_percent = 100 * largest / range;
  const double unscaled = is_signed ? 255 : 1,
               brightest = is_signed ? std::abs(largest) : largest / range;
  d.scale = settings.brighten && largest != 0 ? brightest : unscaled;
  return d;
}

constexpr int kWidth = 150, kHeight = 3;  // two whole blocks of pixels and a piece

// Pictures that differ a little, a lot and, on line 1, not at all; or in alpha alone.
void fill(img_image* a, img_image* b, unsigned seed) {
  std::mt19937 random(seed);
  for (unsigned i = 0; i < 4 * kWidth * kHeight; ++i) {
    const std::size_t c = i % 4, x = i / 4 % kWidth;
    const int y = int(i / 4 / kWidth), step = int(random() % (random() % 2 ? 12 : 256)) - 6;
    const bool differs = y != 1 && random() % 3 != 0 && (c < 3 ? seed % 7 != 0 : random() % 2 != 0);
    test::plane(a, y, c)[x] = std::uint8_t(random());
    test::plane(b, y, c)[x] = std::uint8_t(test::plane(a, y, c)[x] + (differs ? step : 0));
  }
}

void check_pictures(const ka::ComposeSettings& settings, unsigned seed) {
  const auto a = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight),
             b = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight),
             image = test::make_image(IMG_TYPE_RGBA, kWidth, kHeight + ka::kPanelLines);
  fill(image.get(), b.get(), seed);
  fill(a.get(), b.get(), seed);
  std::vector<PlainPixel> plain;
  for (int i = 0; i < kWidth * kHeight; ++i) {
    plain.emplace_back(ka::line_planes_of(a.get(), i / kWidth),
                       ka::line_planes_of(b.get(), i / kWidth), std::size_t(i % kWidth),
                       settings.measure);
  }
  const ka::Difference wanted = plain_difference(plain, settings.measure),
                       difference = ka::measure(a.get(), b.get(), kHeight, settings.measure);
  EXPECT_EQ(std::tie(difference.count, difference.total, difference.largest),
            std::tie(wanted.count, wanted.total, wanted.largest));
  EXPECT_NEAR(difference.maximum_percent, wanted.maximum_percent, 1e-9);
  EXPECT_NEAR(difference.scale, wanted.scale, 1e-9);
  if (wanted.count > 0) {
    const double mean = wanted.total / wanted.count;
    EXPECT_NEAR(ka::average_percent(difference, settings.measure),
                settings.measure.signed_intensity
                    ? 100 * mean / wanted.scale
                    : 100 * std::sqrt(mean) / (settings.measure.ignore_alpha ? 441 : 510),
                1e-9);
  }
  ka::Histograms histograms;
  const ka::Histograms found =
      ka::compose_difference(image.get(), b.get(), kHeight, settings, difference.scale);
  for (int i = 0; i < kWidth * kHeight; ++i) {
    const int x = i % kWidth, y = i / kWidth;
    ASSERT_EQ(pixel(image.get(), x, y),
              expected(pixel(a.get(), x, y), pixel(b.get(), x, y), plain[std::size_t(i)], settings,
                       difference.scale, histograms))
        << "at " << i;
  }
  for (const auto bins : {&ka::Histograms::main, &ka::Histograms::negative, &ka::Histograms::alpha,
                          &ka::Histograms::negative_alpha}) {
    EXPECT_EQ(found.*bins, histograms.*bins);
  }
}

// A tolerance of 255 leaves nothing to scale by.
TEST(Compose, EveryCombinationOfOptionsAgreesWithTheReference) {
  for (unsigned bits = 0; bits < 64 && !HasFatalFailure(); ++bits) {
    SCOPED_TRACE(bits);
    ka::ComposeSettings settings{.measure = {.tolerance = bits % 6 == 5 ? 255 : int(bits % 6),
                                             .ignore_alpha = (bits & 1) != 0,
                                             .signed_intensity = (bits & 2) != 0,
                                             .brighten = (bits & 4) != 0},
                                 .gamma = {},
                                 .false_color = (bits & 8) != 0,
                                 .underlay = (bits & 16) != 0};
    if (bits & 32) settings.gamma = bits & 1 ? 2.2 : 0.4;
    check_pictures(settings, bits);
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
