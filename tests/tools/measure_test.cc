// Measuring two pictures: the sums of pass 1, the percents, the kernels of both passes.
#include "measure.h"

#include <gtest/gtest.h>

#include <random>

#include "measurekernels.h"
#include "support.h"

namespace {

using ka::Difference;
using ka::MeasureSettings;
using Pixels = std::vector<std::array<int, 4>>;  // R, G, B, A

// Two pictures whose difference, first minus second, is the given one, from the bottom line on.
struct Pair {
  Pair(const Pixels& differences, int width)
      : first(test::make_image(IMG_TYPE_RGBA, width, int(differences.size()) / width)),
        second(test::make_image(IMG_TYPE_RGBA, width, int(differences.size()) / width)) {
    for (int i = 0; i < int(differences.size()); ++i) {
      for (std::size_t slot = 0; slot < 4; ++slot) {
        const int d = differences[std::size_t(i)][slot];
        test::plane(first.get(), i / width, slot)[i % width] = std::uint8_t(std::max(d, 0));
        test::plane(second.get(), i / width, slot)[i % width] = std::uint8_t(std::max(-d, 0));
      }
    }
  }
  test::Image first, second;
};

TEST(Measure, GivesSumsPercentsAndScale) {
  constexpr MeasureSettings opaque = {.ignore_alpha = true}, bright = {.brighten = true};
  constexpr MeasureSettings opaque_bright = {.ignore_alpha = true, .brighten = true};
  constexpr MeasureSettings intensity = {.signed_intensity = true};
  constexpr MeasureSettings bright_intensity = {.signed_intensity = true, .brighten = true};
  // Color: the root of (10000 + 40000) / 2 is 158.114; the range is 2 * 255, without alpha 441.
  // Intensity: trunc(100 * 0.299) = 29 and -59, -15 in the mean; the range is 255.
  const Pixels reds = {{100, 0, 0, 0}, {-200, 3, 0, -3}}, equals(2), alphas(2, {0, 0, 0, 99});
  const struct {
    MeasureSettings settings;
    Pixels differences;  // one line
    Difference expected;
    double average;
  } rows[] = {
      {{}, reds, {2, 50000, 40000, 100 * 200 / 510.0, 1}, 100 * 158.114 / 510},
      {opaque, reds, {2, 50000, 40000, 100 * 200 / 441.0, 1}, 100 * 158.114 / 441},
      {bright, reds, {2, 50000, 40000, 100 * 200 / 510.0, 200 / 510.0}, 100 * 158.114 / 510},
      {opaque_bright, reds, {2, 50000, 40000, 20000 / 441.0, 200 / 441.0}, 15811.4 / 441},
      {intensity, reds, {2, -30, -59, -100 * 59 / 255.0, 255}, -100 * 15 / 255.0},
      {bright_intensity, reds, {2, -30, -59, -100 * 59 / 255.0, 59}, -100 * 15 / 59.0},
      // nothing to scale by: the whole range
      {bright, equals, {0, 0, 0, 0, 1}, 0},
      {bright_intensity, equals, {0, 0, 0, 0, 255}, 0},
      {bright_intensity, alphas, {0, 0, 0, 0, 255}, 0},
      // B 3.42 -> 3, G 3 - 2.348 -> 0, R 1.196 -> 1; in the order R, G, B it were 2
      {intensity, {{4, -4, 30, 0}}, {1, 1, 1, 100 / 255.0, 255}, 100 / 255.0},
      // of a tie the left one
      {intensity, {{-100, 0, 0, 0}, {100, 0, 0, 0}}, {2, 0, -29, -2900 / 255.0, 255}, 0},
      // more than 32 bits hold
      {{}, Pixels(40000, {255, -255, 255, 255}), {40000, 40000 * 260100.0, 260100, 100, 1}, 100}};
  for (const auto& [settings, differences, expected, average] : rows) {
    const Pair pair(differences, int(differences.size()));
    const Difference found = ka::measure(pair.first.get(), pair.second.get(), 1, settings);
    EXPECT_EQ(found.count, expected.count);
    EXPECT_EQ(found.total, expected.total);
    EXPECT_EQ(found.largest, expected.largest);
    EXPECT_NEAR(found.maximum_percent, expected.maximum_percent, 0.0005);
    EXPECT_NEAR(found.scale, expected.scale, 1e-9);
    if (found.count == 0) continue;  // no average
    EXPECT_NEAR(ka::average_percent(found, settings), average, 0.0005);
  }
}

TEST(Measure, LowerLineWinsATieInAnyOrderOfLines) {
  const Pair pair({{100, 0, 0, 0}, {0, 0, 0, 0}, {-100, 0, 0, 0}}, 1);
  for (const std::array<int, 3>& order : {std::array{0, 1, 2}, {2, 1, 0}, {1, 2, 0}}) {
    ka::Meter meter({.signed_intensity = true});
    for (const int y : order) {
      meter.add_line(y, ka::line_planes_of(pair.first.get(), y),
                     ka::line_planes_of(pair.second.get(), y), 1);
    }
    EXPECT_EQ(meter.result().largest, 29) << order[0];
  }
}

// The rules for one pixel, in whole numbers: the weights are thousandths, and division of integers
// cuts towards 0 as the rule does.
struct PlainPixel {
  PlainPixel(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t x,
             int tolerance, bool is_signed) {
    constexpr std::array weights = {299, 587, 114};
    const auto counted = [&](std::size_t c) {
      const int d = first[c][x] - second[c][x];
      return std::abs(d) > tolerance ? d : 0;
    };
    for (std::size_t c = 3; c-- > 0;) {
      const int d = counted(c);
      sum = is_signed ? (1000 * sum + d * weights[c]) / 1000 : sum + d * d;
    }
    alpha = counted(3);
  }
  int sum = 0, alpha = 0;  // sum without alpha
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

void expect_agreement(const ka::LinePlanes& first, const ka::LinePlanes& second, std::size_t width,
                      int tolerance) {
  for (const bool is_signed : {false, true}) {
    for (const int channels : {3, 4}) {
      ka::LineSums expected{};
      for (std::size_t x = 0; x < width; ++x) {
        const PlainPixel p(first, second, x, tolerance, is_signed);
        const int sum = p.sum + (is_signed || channels == 3 ? 0 : p.alpha * p.alpha);
        expected.count += sum != 0;
        expected.total += sum;
        expected.most = std::max(expected.most, sum);
        expected.least = std::min(expected.least, sum);
      }
      const auto& table = is_signed ? ka::intensity_kernels : ka::color_kernels;
      for (const ka::MeasureKernel kernel : ka::usable_kernels(table)) {
        ka::LineSums sums{};
        kernel(first, second, width, tolerance, channels, sums);
        EXPECT_EQ(std::tie(sums.count, sums.total, sums.most, sums.least),
                  std::tie(expected.count, expected.total, expected.most, expected.least))
            << "width " << width << ", tolerance " << tolerance << ", channels " << channels
            << ", signed " << is_signed;
      }
    }
  }
}

TEST(MeasureKernels, AgreeWithThePlainRulesForEveryWidthAndDifference) {
  std::mt19937 random(1);
  for (std::size_t width = 0; width <= 200; ++width) {
    for (const int tolerance : {0, 3, int(random() % 256)}) {
      const RandomLines lines(random, width);
      expect_agreement(lines.first, lines.second, width, tolerance);
    }
  }
  std::vector<std::uint8_t> fast, slow;
  for (int i = 0; i < 256 * 256; ++i) {
    fast.push_back(std::uint8_t(i));
    slow.push_back(std::uint8_t(i >> 8));
  }
  expect_agreement({fast.data(), slow.data(), fast.data(), slow.data()},
                   {slow.data(), fast.data(), slow.data(), slow.data()}, fast.size(), 3);
}

std::vector<int> added_up(const ka::Counters& counters) {
  std::vector<int> result(counters[0].size());
  for (const auto& set : counters) {
    for (std::size_t i = 0; i < set.size(); ++i) result[i] += set[i];
  }
  return result;
}

TEST(MeasureKernels, OfPass2AgreeWithThePlainRulesForEveryWidth) {
  std::vector<std::uint32_t> table(ka::kLargestColorSum + 1);
  for (std::size_t s = 0; s < table.size(); ++s) table[s] = std::uint32_t(s * 2654435761U);
  std::mt19937 random(3);
  for (std::size_t round = 0; round <= 400; ++round) {
    const std::size_t width = round / 2;
    const bool is_signed = round % 2 != 0;
    const int tolerance = int(random() % 8);
    const RandomLines lines(random, width);
    const auto sum_kernels =
        ka::usable_kernels(is_signed ? ka::intensity_pixel_kernels : ka::color_pixel_kernels);
    const auto count_kernels = ka::usable_kernels(ka::count_kernels);
    for (std::size_t set = 0; set < sum_kernels.size(); ++set) {
      SCOPED_TRACE(testing::Message() << "width " << width << ", kernel " << set);
      std::vector<std::int32_t> sums(width + 1);  // lines of no pixels have addresses, too
      std::vector<std::int16_t> differences(width + 1);
      std::vector<std::uint32_t> entries(width + 1);
      ka::Counters main{}, alpha{};
      sum_kernels[set](lines.first, lines.second, width, tolerance, 4, sums.data(),
                       differences.data());
      count_kernels[set]({sums.data(), differences.data(), table.data(), is_signed}, width,
                         entries.data(), main, alpha);
      std::vector<int> bins(main[0].size()), alphas(main[0].size()), found = added_up(alpha);
      for (std::size_t x = 0; x < width; ++x) {
        const PlainPixel p(lines.first, lines.second, x, tolerance, is_signed);
        const int sum = p.sum + (is_signed ? p.alpha : p.alpha * p.alpha);
        ASSERT_EQ(sums[x], sum) << x;
        if (sum == 0) continue;
        const std::uint32_t entry = table[std::size_t(std::abs(sum))];
        ASSERT_EQ(entries[x], entry) << x;
        ++bins[(sum < 0 ? ka::kCounterMiddle : 0) + (entry & 0xff)];
        ++alphas[unsigned(int(ka::kCounterMiddle) + p.alpha)];
      }
      found[0] = 0;  // of the pixels that do not differ
      EXPECT_EQ(found, alphas);
      EXPECT_EQ(added_up(main), bins);
    }
  }
}

}  // namespace
