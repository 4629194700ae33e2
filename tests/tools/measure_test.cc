// Measuring two pictures: the sums of pass 1, the percents, the histograms of pass 2.
#include "measure.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <random>

#include "measurekernels.h"
#include "support.h"

namespace {

using ka::Difference;
using ka::LineSums;
using ka::MeasureSettings;
using Pixel = std::array<int, 4>;  // R, G, B, A
using Pixels = std::vector<Pixel>;

// An image whose lines follow each other from the bottom.
test::Image image_of(const Pixels& pixels, int width) {
  test::Image image = test::make_image(IMG_TYPE_RGBA, width, int(pixels.size()) / width);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    for (std::size_t slot = 0; slot < 4; ++slot) {
      test::plane(image.get(), int(i) / width, slot)[i % std::size_t(width)] =
          std::uint8_t(pixels[i][slot]);
    }
  }
  return image;
}

// Two pictures whose difference, first minus second, is the given one.
struct Pair {
  test::Image first, second;
};
Pair pair_of(const Pixels& differences, int width) {
  Pixels first, second;
  for (const Pixel& difference : differences) {
    Pixel& a = first.emplace_back();
    Pixel& b = second.emplace_back();
    for (std::size_t slot = 0; slot < 4; ++slot) {
      a[slot] = std::max(difference[slot], 0);
      b[slot] = std::max(-difference[slot], 0);
    }
  }
  return {image_of(first, width), image_of(second, width)};
}

constexpr MeasureSettings colour(int tolerance = 3) { return {.tolerance = tolerance}; }
constexpr MeasureSettings opaque = {.ignore_alpha = true};
constexpr MeasureSettings intensity(int tolerance = 3) {
  return {.tolerance = tolerance, .signed_intensity = true};
}

struct MeasureCase {
  const char* name;
  MeasureSettings settings;
  Pixels differences;  // one line
  int count;
  double total, largest, maximum_percent;
};

class Measured : public testing::TestWithParam<MeasureCase> {};

TEST_P(Measured, GivesTheSumsAndTheMaximum) {
  const MeasureCase& row = GetParam();
  const Pair pair = pair_of(row.differences, int(row.differences.size()));
  const Difference found = ka::measure(pair.first.get(), pair.second.get(), 1, row.settings);
  EXPECT_EQ(found.count, row.count);
  EXPECT_EQ(found.total, row.total);
  EXPECT_EQ(found.largest, row.largest);
  EXPECT_NEAR(found.maximum_percent, row.maximum_percent, 0.0005);
}

// Colour percents are 100 * sqrt(largest) / 255 / 2, without alpha 100 * sqrt(largest) / 441.
const std::vector<MeasureCase> kColour = {
    {"EqualPixels", colour(), {{0, 0, 0, 0}}, 0, 0, 0, 0},
    {"ThreeIsWithinTheTolerance", colour(), {{3, -3, 3, -3}}, 0, 0, 0, 0},
    {"FourIsBeyondIt", colour(), {{4, 0, 0, 0}, {0, -4, 0, 0}}, 2, 32, 16, 0.784},
    {"ChannelsWithinItAddNothing", colour(), {{4, 3, -3, 2}}, 1, 16, 16, 0.784},
    {"ToleranceNoneCountsOne", colour(0), {{0, 0, 0, 1}}, 1, 1, 1, 0.196},
    {"NegativeToleranceIsNone", colour(INT_MIN), {{0, 0, 0, 0}, {0, 1, 0, 0}}, 1, 1, 1, 0.196},
    {"ToleranceBelowTheLargest", colour(254), {{254, 255, 0, 0}}, 1, 65025, 65025, 50},
    {"ToleranceOfAllCountsNone", colour(255), {{255, -255, 255, 255}}, 0, 0, 0, 0},
    {"ToleranceAboveAllCountsNone", colour(INT_MAX), {{255, 255, 255, -255}}, 0, 0, 0, 0},
    {"FullRedIsHalfTheRange", colour(), {{255, 0, 0, 0}}, 1, 65025, 65025, 50},
    {"AllFourAreTheWholeRange", colour(), {{255, 255, -255, 255}}, 1, 260100, 260100, 100},
    {"FullRedWithoutAlpha", opaque, {{255, 0, 0, 0}}, 1, 65025, 65025, 57.823},
    {"AlphaIsLeftOut", opaque, {{0, 0, 0, 255}, {0, 0, 5, 255}}, 1, 25, 25, 1.134},
    {"LargestOfSeveral", colour(), {{4, 0, 0, 0}, {0, 6, 8, 0}, {0, 0, 0, 9}}, 3, 197, 100, 1.961},
};
INSTANTIATE_TEST_SUITE_P(Colour, Measured, testing::ValuesIn(kColour), test::row_name<MeasureCase>);

// Intensity percents are 100 * largest / 255.
const std::vector<MeasureCase> kIntensity = {
    // trunc(-100 * 0.299) = -29
    {"SecondBrighterIsNegative", intensity(), {{-100, 0, 0, 0}}, 1, -29, -29, -11.373},
    {"AlphaHasNoWeight", intensity(), {{0, 0, 0, 255}}, 0, 0, 0, 0},
    // 4 * 0.114 = 0.456, cut to 0
    {"CutToNothingDoesNotDiffer", intensity(), {{0, 0, 4, 0}}, 0, 0, 0, 0},
    // B 3.42 -> 3, G 3 - 2.348 -> 0, R 1.196 -> 1; in the order R, G, B it were 2
    {"CutAfterBlueThenGreenThenRed", intensity(), {{4, -4, 30, 0}}, 1, 1, 1, 0.392},
    // 29.07 -> 29, 29 + 149.685 -> 178, 178 + 76.245 -> 254
    {"WhiteAgainstBlack", intensity(), {{255, 255, 255, 0}}, 1, 254, 254, 99.608},
    {"TotalKeepsSigns", intensity(), {{100, 0, 0, 0}, {-200, 0, 0, 0}}, 2, 29 - 59, -59, -23.137},
    {"LeftPixelWinsATie", intensity(), {{-100, 0, 0, 0}, {100, 0, 0, 0}}, 2, 0, -29, -11.373},
    {"LaterPixelLosesATie", intensity(), {{100, 0, 0, 0}, {-100, 0, 0, 0}}, 2, 0, 29, 11.373},
    {"ToleranceNoneCountsSmallOnes", intensity(0), {{0, 2, 0, 0}, {0, 1, 0, 0}}, 1, 1, 1, 0.392},
};
INSTANTIATE_TEST_SUITE_P(Intensity, Measured, testing::ValuesIn(kIntensity),
                         test::row_name<MeasureCase>);

TEST(Measure, LowerLineWinsATieInAnyOrderOfLines) {
  const Pair pair = pair_of({{100, 0, 0, 0}, {0, 0, 0, 0}, {-100, 0, 0, 0}}, 1);
  for (const std::array<int, 3>& order : {std::array{0, 1, 2}, {2, 1, 0}, {1, 2, 0}}) {
    ka::Meter meter(intensity());
    for (const int y : order) {
      ka::LinePlanes a, b;
      for (std::size_t slot = 0; slot < 4; ++slot) {
        a[slot] = test::plane(pair.first.get(), y, slot);
        b[slot] = test::plane(pair.second.get(), y, slot);
      }
      meter.add_line(y, a, b, 1);
    }
    EXPECT_EQ(meter.result().largest, 29) << order[0];
  }
}

TEST(Measure, OnlyTheAskedLinesCount) {
  const Pair pair = pair_of({{0, 0, 0, 0}, {9, 0, 0, 0}, {99, 0, 0, 0}}, 1);
  EXPECT_EQ(ka::measure(pair.first.get(), pair.second.get(), 2, colour()).total, 81);
}

TEST(Measure, SumsOfLargePicturesDoNotOverflow) {
  const Pair pair = pair_of(Pixels(200 * 200, {255, 255, 255, 255}), 200);
  const Difference found = ka::measure(pair.first.get(), pair.second.get(), 200, colour());
  EXPECT_EQ(found.count, 40000);
  EXPECT_EQ(found.total, 40000 * 260100.0);
  EXPECT_DOUBLE_EQ(ka::average_percent(found, colour()), 100);
}

TEST(Measure, ScaleAndAverageFollowTheSettings) {
  struct Row {
    MeasureSettings settings;
    double scale, average;
  };
  // Two pixels: R by 100 and R by -200. Colour: the root of (10000 + 40000) / 2 is 158.114.
  // Intensity: 29 and -59, -15 in the mean.
  const Row rows[] = {{{}, 1, 100 * 158.114 / 510},
                      {{.ignore_alpha = true}, 1, 100 * 158.114 / 441},
                      {{.brighten = true}, 200.0 / 255 / 2, 100 * 158.114 / 510},
                      {{.ignore_alpha = true, .brighten = true}, 200.0 / 441, 100 * 158.114 / 441},
                      {{.signed_intensity = true}, 255, -100 * 15.0 / 255},
                      {{.signed_intensity = true, .brighten = true}, 59, -100 * 15.0 / 59}};
  const Pair pair = pair_of({{100, 0, 0, 0}, {-200, 0, 0, 0}}, 2);
  for (const Row& row : rows) {
    const Difference found = ka::measure(pair.first.get(), pair.second.get(), 1, row.settings);
    EXPECT_NEAR(found.scale, row.scale, 1e-9);
    EXPECT_NEAR(ka::average_percent(found, row.settings), row.average, 0.0005);
  }
}

// The bins that hold something, as "name bin:pixels".
std::string filled(const ka::Histograms& histograms) {
  std::string result;
  const auto add = [&](const char* name, const ka::Histograms::Bins& bins) {
    for (std::size_t bin = 0; bin < bins.size(); ++bin) {
      if (bins[bin] == 0) continue;
      result += std::string(result.empty() ? "" : ", ") + name + " " + std::to_string(bin) + ":" +
                std::to_string(bins[bin]);
    }
  };
  add("main", histograms.main);
  add("negative", histograms.negative);
  add("alpha", histograms.alpha);
  add("negative alpha", histograms.negative_alpha);
  return result;
}

TEST(Histograms, CountTheDifferingPixels) {
  constexpr MeasureSettings opaque_intensity = {.ignore_alpha = true, .signed_intensity = true};
  const struct {
    MeasureSettings settings;
    double scale;
    Pixels differences;  // one line
    const char* filled;
  } rows[] = {
      {colour(), 1, {{0, 3, 0, -3}}, ""},
      // the root of 100 * 100 + 10 * 10 is 100.5; no alpha difference is bin 0
      {colour(), 1, {{100, 10, 0, 0}, {-10, -100, 0, 2}}, "main 100:2, alpha 0:2"},
      // 40 / 0.97 = 41.2; with R the root of 41 * 41 + 40 * 40 is 57.3, and 57.3 / 0.97 = 59.1
      {colour(), 0.97, {{0, 0, 0, 40}, {41, 0, 0, -40}}, "main 41:1, main 59:1, alpha 41:2"},
      {colour(), 0.25, {{100, 10, 0, 100}}, "main 255:1, alpha 255:1"},  // the last bin takes more
      {opaque, 1, {{100, 10, 0, 50}, {0, 0, 0, 50}}, "main 100:1"},
      // 29 / 100.5 * 255 = 73.6 and 59 / 100.5 * 255 = 149.7
      {intensity(),
       100.5,
       {{100, 0, 0, 0}, {-200, 0, 0, 0}},
       "main 73:1, negative 149:1, alpha 0:2"},
      // alpha counts in full here: 29 - 50 = -21, 21 / 100.5 * 255 = 53.3 and 50 gives 126.9
      {intensity(),
       100.5,
       {{100, 0, 0, -50}, {0, 0, 0, 50}},
       "main 126:1, negative 53:1, alpha 126:1, negative alpha 126:1"},
      {opaque_intensity, 100.5, {{100, 0, 0, -50}, {0, 0, 0, 50}}, "main 73:1"},
      {intensity(), 20, {{100, 0, 0, 100}}, "main 255:1, alpha 255:1"}};
  for (const auto& [settings, scale, differences, expected] : rows) {
    const Pair pair = pair_of(differences, int(differences.size()));
    EXPECT_EQ(filled(ka::count_histograms(pair.first.get(), pair.second.get(), 1, settings, scale)),
              expected);
  }
}

// The rules of pass 1 for one line, in whole numbers: the weights are thousandths, and division of
// integers cuts towards 0 as the rule does.
LineSums plain_sums(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t width,
                    int tolerance, bool signed_intensity, bool with_alpha) {
  constexpr std::array weights = {299, 587, 114, 0};
  LineSums sums{};
  for (std::size_t x = 0; x < width; ++x) {
    int s = 0;
    for (std::size_t c = 4; c-- > 0;) {
      const int d = first[c][x] - second[c][x];
      if ((c == 3 && !with_alpha) || (d <= tolerance && d >= -tolerance)) continue;
      s = signed_intensity ? (1000 * s + d * weights[c]) / 1000 : s + d * d;
    }
    sums.count += s != 0;
    sums.total += s;
    sums.most = std::max(sums.most, s);
    sums.least = std::min(sums.least, s);
  }
  return sums;
}

bool operator==(const LineSums& a, const LineSums& b) {
  return a.count == b.count && a.total == b.total && a.most == b.most && a.least == b.least;
}

// Two lines, mostly alike, at addresses that are not aligned.
struct RandomLines {
  RandomLines(std::mt19937& random, std::size_t width) {
    const std::size_t shift = random() % 8;
    const std::uint32_t wild = random() % 4 * 20,
                        near = random() % 2 * 5;  // wild ones in a hundred
    for (std::size_t c = 0; c < 4; ++c) {
      for (std::size_t i = 0; i < width + shift; ++i) {
        a[c].push_back(std::uint8_t(random()));
        const bool is_wild = random() % 100 < wild;
        b[c].push_back(std::uint8_t(is_wild ? random() : a[c][i] + random() % (near + 1)));
      }
      a[c].push_back(0);  // a line of no pixels has an address too
      b[c].push_back(0);
      first[c] = a[c].data() + shift;
      second[c] = b[c].data() + shift;
    }
  }

  std::array<std::vector<std::uint8_t>, 4> a, b;
  ka::LinePlanes first, second;
};

void expect_agreement(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t width,
                      int tolerance) {
  for (const bool signed_intensity : {false, true}) {
    const auto& table = signed_intensity ? ka::intensity_kernels : ka::colour_kernels;
    for (const int channels : {3, 4}) {
      const LineSums expected =
          plain_sums(first, second, width, tolerance, signed_intensity, channels == 4);
      for (const ka::MeasureKernel kernel : ka::usable_kernels(table)) {
        LineSums sums{};
        kernel(first, second, width, tolerance, channels, sums);
        EXPECT_TRUE(sums == expected)
            << "width " << width << ", tolerance " << tolerance << ", channels " << channels
            << (signed_intensity ? ", intensity" : ", colour");
      }
    }
  }
}

TEST(MeasureKernels, AgreeWithThePlainRulesForEveryWidth) {
  std::mt19937 random(1);
  for (std::size_t width = 0; width <= 200; ++width) {
    for (const int tolerance : {0, 3, int(random() % 256)}) {
      const RandomLines lines(random, width);
      expect_agreement(lines.first, lines.second, width, tolerance);
    }
  }
}

TEST(MeasureKernels, AgreeWithThePlainRulesForEveryDifferenceOfTwoSamples) {
  constexpr std::size_t width = 256 * 256;
  std::vector<std::uint8_t> fast, slow;
  for (std::size_t i = 0; i < width; ++i) {
    fast.push_back(std::uint8_t(i));
    slow.push_back(std::uint8_t(i >> 8));
  }
  const ka::LinePlanes first = {fast.data(), slow.data(), fast.data(), slow.data()};
  const ka::LinePlanes second = {slow.data(), fast.data(), slow.data(), slow.data()};
  expect_agreement(first, second, width, 3);
}

// The rules of pass 2 for one pixel: alpha counts in full in both modes.
struct PixelSum {
  int sum, alpha;
};
PixelSum plain_pixel(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t x,
                     int tolerance, bool signed_intensity) {
  const LineSums colours = plain_sums({&first[0][x], &first[1][x], &first[2][x], &first[3][x]},
                                      {&second[0][x], &second[1][x], &second[2][x], &second[3][x]},
                                      1, tolerance, signed_intensity, false);
  const int d = first[3][x] - second[3][x];
  const int alpha = std::abs(d) > tolerance ? d : 0;
  return {int(colours.total) + (signed_intensity ? alpha : alpha * alpha), alpha};
}

// Adds up the sets of counters.
std::vector<int> added_up(const ka::Counters& counters) {
  std::vector<int> result(counters[0].size());
  for (const auto& set : counters) {
    std::transform(set.begin(), set.end(), result.begin(), result.begin(), std::plus<>());
  }
  return result;
}

TEST(MeasureKernels, OfPass2AgreeWithThePlainRulesForEveryWidth) {
  std::vector<std::uint32_t> table(ka::kLargestColourSum + 1);
  for (std::size_t s = 0; s < table.size(); ++s) table[s] = std::uint32_t(s * 2654435761U);
  std::mt19937 random(3);
  for (std::size_t width = 0; width <= 400; ++width) {
    const bool is_signed = width % 2 != 0;
    const int tolerance = int(random() % 8);
    const RandomLines lines(random, width / 2);
    std::vector<int> bins(ka::Counters{}[0].size()), alphas(bins.size());
    for (std::size_t x = 0; x < width / 2; ++x) {
      const PixelSum p = plain_pixel(lines.first, lines.second, x, tolerance, is_signed);
      if (p.sum == 0) continue;
      const std::size_t side = p.sum < 0 ? ka::kCounterMiddle : 0;
      ++bins[side + (table[std::size_t(std::abs(p.sum))] & 0xff)];
      ++alphas[std::size_t(int(ka::kCounterMiddle) + p.alpha)];
    }
    const auto sum_kernels =
        ka::usable_kernels(is_signed ? ka::intensity_pixel_kernels : ka::colour_pixel_kernels);
    const auto count_kernels = ka::usable_kernels(ka::count_kernels);
    for (std::size_t set = 0; set < sum_kernels.size(); ++set) {
      SCOPED_TRACE(testing::Message() << "width " << width / 2 << ", kernel " << set);
      std::vector<std::int32_t> sums(width / 2 + 1);  // lines of no pixels have addresses, too
      std::vector<std::int16_t> differences(sums.size());
      std::vector<std::uint32_t> entries(sums.size());
      ka::Counters main{}, alpha{};
      sum_kernels[set](lines.first, lines.second, width / 2, tolerance, 4, sums.data(),
                       differences.data());
      count_kernels[set]({sums.data(), differences.data(), table.data(), is_signed}, width / 2,
                         entries.data(), main, alpha);
      for (std::size_t x = 0; x < width / 2; ++x) {
        const PixelSum p = plain_pixel(lines.first, lines.second, x, tolerance, is_signed);
        ASSERT_EQ(sums[x], p.sum) << x;
        const std::uint32_t entry = table[std::size_t(std::abs(p.sum))];
        ASSERT_TRUE(p.sum == 0 || entries[x] == entry) << x;
      }
      std::vector<int> found = added_up(alpha);
      found[0] = 0;  // of the pixels that do not differ
      EXPECT_EQ(found, alphas);
      EXPECT_EQ(added_up(main), bins);
    }
  }
}

TEST(Measure, WholeRandomPicturesAgreeWithThePlainRules) {
  std::mt19937 random(2);
  for (int round = 0; round < 60; ++round) {
    const int width = int(random() % 150) + 1, height = int(random() % 9);
    const MeasureSettings settings = {.tolerance = int(random() % 6) - 1,
                                      .ignore_alpha = random() % 2 == 0,
                                      .signed_intensity = random() % 2 == 0};
    const Pair pair = {test::make_image(IMG_TYPE_RGBA, width, height),
                       test::make_image(IMG_TYPE_RGBA, width, height)};
    LineSums expected{};
    for (int y = 0; y < height; ++y) {
      const RandomLines lines(random, std::size_t(width));
      for (std::size_t c = 0; c < 4; ++c) {
        std::copy_n(lines.first[c], width, test::plane(pair.first.get(), y, c));
        std::copy_n(lines.second[c], width, test::plane(pair.second.get(), y, c));
      }
      const LineSums line =
          plain_sums(lines.first, lines.second, std::size_t(width), std::max(settings.tolerance, 0),
                     settings.signed_intensity, !settings.ignore_alpha);
      expected.count += line.count;
      expected.total += line.total;
      expected.most = std::max(expected.most, line.most);
      expected.least = std::min(expected.least, line.least);
    }
    const Difference found = ka::measure(pair.first.get(), pair.second.get(), height, settings);
    EXPECT_EQ(found.count, int(expected.count));
    EXPECT_EQ(found.total, double(expected.total));
    EXPECT_EQ(std::abs(found.largest), double(std::max(expected.most, -expected.least)));
  }
}

}  // namespace
