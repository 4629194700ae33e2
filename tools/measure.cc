#include "measure.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "measurekernels.h"

namespace ka {
namespace {

constexpr double kRangeWithoutAlpha = 441;  // stands for 255 times the square root of 3
constexpr double kRange = 510;              // 255 times the square root of 4
constexpr int kLargestSample = 255;

// Tolerances below 0 count every difference, as 0 does; differences never pass 255.
int sample_tolerance(const MeasureSettings& settings) {
  return std::clamp(settings.tolerance, 0, kLargestSample);
}

LineSums line_sums(const MeasureSettings& settings, const LinePlanes& first,
                   const LinePlanes& second, int width) {
  static const auto colour = best_kernel(colour_kernels);
  static const auto intensity = best_kernel(intensity_kernels);
  LineSums sums{};
  const auto kernel = settings.signed_intensity ? intensity : colour;
  kernel(first, second, std::size_t(width), sample_tolerance(settings),
         settings.ignore_alpha ? 3 : 4, sums);
  return sums;
}

// The intensity of one pixel in pass 1.
int intensity(const LinePlanes& first, const LinePlanes& second, std::size_t x, int tolerance) {
  int sum = 0;
  for (const std::size_t c : {2U, 1U, 0U}) {
    const int d = first[c][x] - second[c][x];
    if (std::abs(d) > tolerance) sum = int(float(sum) + float(d) * kIntensityWeights[c]);
  }
  return sum;
}

// The bin of a value: 0 to 1 fill the histogram, everything above lands in the last bin.
std::uint8_t bin_of(double value) { return std::uint8_t(std::min(255.0 * value, 255.0)); }

}  // namespace

LinePlanes line_planes_of(const img_image* image, int y) {
  const auto* const base = reinterpret_cast<const std::uint8_t*>(image);
  const auto* const table = reinterpret_cast<const img_image_line*>(base + sizeof(img_image));
  LinePlanes planes;
  for (std::size_t c = 0; c < planes.size(); ++c) planes[c] = base + table[y].offset[c];
  return planes;
}

Meter::Meter(const MeasureSettings& settings) : settings_(settings) {}

void Meter::add_line(int y, const LinePlanes& first, const LinePlanes& second, int width) {
  const LineSums sums = line_sums(settings_, first, second, width);
  count_ += sums.count;
  total_ += sums.total;
  const std::int32_t size = std::max(sums.most, -sums.least);
  const std::int32_t known = std::abs(largest_);
  if (size == 0 || size < known || (size == known && y > largest_line_)) return;
  const bool both_signs = sums.most == size && sums.least == -size;
  largest_ = both_signs          ? first_of_size(size, first, second, width)
             : sums.most == size ? size
                                 : -size;
  largest_line_ = y;
}

std::int32_t Meter::first_of_size(std::int32_t size, const LinePlanes& first,
                                  const LinePlanes& second, int width) const {
  for (std::size_t x = 0; x < std::size_t(width); ++x) {
    const int sum = intensity(first, second, x, sample_tolerance(settings_));
    if (std::abs(sum) == size) return sum;
  }
  return size;
}

Difference Meter::result() const {
  Difference result{.count = int(count_), .total = double(total_), .largest = double(largest_)};
  if (settings_.signed_intensity) {
    result.maximum_percent = 100.0 * result.largest / 255.0;
    // Pictures that differ in alpha alone have no intensity to scale by.
    result.scale = settings_.brighten && largest_ != 0 ? std::fabs(result.largest) : 255.0;
    return result;
  }
  const double distance = std::sqrt(result.largest) / 255.0;
  const double range = (settings_.ignore_alpha ? kRangeWithoutAlpha : kRange) / 255.0;
  result.maximum_percent =
      settings_.ignore_alpha ? 100.0 * distance / range : distance * 100.0 * 0.5;
  result.scale = settings_.brighten ? distance / range : 1.0;
  return result;
}

Difference measure(const img_image* first, const img_image* second, int height,
                   const MeasureSettings& settings) {
  Meter meter(settings);
  for (int y = 0; y < height; ++y) {
    meter.add_line(y, line_planes_of(first, y), line_planes_of(second, y), first->width);
  }
  return meter.result();
}

double average_percent(const Difference& difference, const MeasureSettings& settings) {
  const double mean = difference.total / difference.count;
  if (settings.signed_intensity) return 100.0 * mean / difference.scale;
  return 100.0 * std::sqrt(mean) / (settings.ignore_alpha ? kRangeWithoutAlpha : kRange);
}

HistogramPass::HistogramPass(const MeasureSettings& settings, double scale, int width)
    : settings_(settings),
      alpha_bins_(256),
      sums_(std::size_t(width)),
      alphas_(std::size_t(width)) {
  if (settings.signed_intensity) {
    sum_bins_.resize(kLargestIntensitySum + 1);
    fill_by_sum(sum_bins_, 0, kLargestIntensitySum,
                [&](std::size_t s) { return bin_of(double(s) / scale); });
    fill_by_sum(alpha_bins_, 0, 255, [&](std::size_t a) { return bin_of(double(a) / scale); });
  } else {
    sum_bins_.resize(kLargestColourSum + 1);
    fill_by_sum(sum_bins_, 0, kLargestColourSum,
                [&](std::size_t s) { return bin_of(std::sqrt(double(s)) / 255.0 / scale); });
    fill_by_sum(alpha_bins_, 0, 255,
                [&](std::size_t a) { return bin_of(double(a) / 255.0 / scale); });
  }
}

std::span<const std::int32_t> HistogramPass::add_line(const LinePlanes& first,
                                                      const LinePlanes& second) {
  static const auto colour = best_kernel(colour_pixel_kernels);
  static const auto intensity = best_kernel(intensity_pixel_kernels);
  const auto kernel = settings_.signed_intensity ? intensity : colour;
  kernel(first, second, sums_.size(), sample_tolerance(settings_), settings_.ignore_alpha ? 3 : 4,
         sums_.data(), alphas_.data());
  if (settings_.signed_intensity) {
    count_intensity();
  } else {
    count_colour();
  }
  return sums_;
}

template <typename Count>
void HistogramPass::for_differing(Count count) const {
  for (std::size_t from = 0; from < sums_.size(); from += kMeasureBlock) {
    const std::size_t to = std::min(from + kMeasureBlock, sums_.size());
    std::int32_t any = 0;
    for (std::size_t x = from; x < to; ++x) any |= sums_[x];
    if (any == 0) continue;
    for (std::size_t x = from; x < to; ++x) {
      if (sums_[x] != 0) count(x);
    }
  }
}

void HistogramPass::count_colour() {
  for_differing([this](std::size_t x) {
    ++main_.positive[x % kSets][sum_bins_[std::size_t(sums_[x])]];
    ++alpha_.positive[x % kSets][alpha_bins_[std::size_t(std::abs(alphas_[x]))]];
  });
}

void HistogramPass::count_intensity() {
  for_differing([this](std::size_t x) {
    auto& main = sums_[x] < 0 ? main_.negative : main_.positive;
    auto& alpha = alphas_[x] < 0 ? alpha_.negative : alpha_.positive;
    ++main[x % kSets][sum_bins_[std::size_t(std::abs(sums_[x]))]];
    ++alpha[x % kSets][alpha_bins_[std::size_t(std::abs(alphas_[x]))]];
  });
}

Histograms HistogramPass::result() const {
  Histograms histograms;
  const auto add = [](Histograms::Bins& bins, const auto& sets) {
    for (const auto& set : sets) {
      for (std::size_t bin = 0; bin < bins.size(); ++bin) bins[bin] += set[bin];
    }
  };
  add(histograms.main, main_.positive);
  add(histograms.negative, main_.negative);
  if (settings_.ignore_alpha) return histograms;
  add(histograms.alpha, alpha_.positive);
  add(histograms.negative_alpha, alpha_.negative);
  return histograms;
}

Histograms count_histograms(const img_image* first, const img_image* second, int height,
                            const MeasureSettings& settings, double scale) {
  HistogramPass pass(settings, scale, second->width);
  for (int y = 0; y < height; ++y)
    (void)pass.add_line(line_planes_of(first, y), line_planes_of(second, y));
  return pass.result();
}

}  // namespace ka
