#include "measure.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include <ka/imgload.h>

#include "measurehistograms.h"
#include "measurekernels.h"

namespace ka {
namespace {

constexpr double kRangeWithoutAlpha = 441;  // short for 255 times the square root of 3
constexpr double kRange = 510;              // 255 times the square root of 4
constexpr int kLargestSample = 255;

// Tolerances below 0 count every difference, as 0 does; differences never pass 255.
int sample_tolerance(const MeasureSettings& settings) {
  return std::clamp(settings.tolerance, 0, kLargestSample);
}

LineSums line_sums(const MeasureSettings& settings, const LinePlanes& first,
                   const LinePlanes& second, int width) {
  static const auto color = best_kernel(color_kernels);
  static const auto intensity = best_kernel(intensity_kernels);
  LineSums sums{};
  const auto kernel = settings.signed_intensity ? intensity : color;
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
std::uint32_t bin_of(double value) { return std::uint32_t(std::min(255.0 * value, 255.0)); }

}  // namespace

LinePlanes line_planes_of(const img_image* image, int y) {
  LinePlanes planes;
  for (int c = 0; c < IMG_SLOTS; ++c) {
    planes[std::size_t(c)] = static_cast<const std::uint8_t*>(ka_img_plane(image, y, c));
  }
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
  // Equal pictures, and by intensity those that differ in alpha alone, have nothing to scale by.
  const bool brighten = settings_.brighten && largest_ != 0;
  if (settings_.signed_intensity) {
    result.maximum_percent = 100.0 * result.largest / 255.0;
    result.scale = brighten ? std::fabs(result.largest) : 255.0;
    return result;
  }
  const double distance = std::sqrt(result.largest) / 255.0;
  const double range = (settings_.ignore_alpha ? kRangeWithoutAlpha : kRange) / 255.0;
  result.maximum_percent =
      settings_.ignore_alpha ? 100.0 * distance / range : distance * 100.0 * 0.5;
  result.scale = brighten ? distance / range : 1.0;
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
    : settings_(settings), scale_(scale) {
  row_.sums.resize(std::size_t(width));
  row_.alphas.resize(std::size_t(width));
  row_.entries.resize(std::size_t(width));
  if (settings.signed_intensity) {
    table_.resize(kLargestIntensitySum + 1);
    fill_by_sum(table_, [&](std::size_t s) { return bin_of(double(s) / scale); });
  } else {
    table_.resize(kLargestColorSum + 1);
    fill_by_sum(table_,
                [&](std::size_t s) { return bin_of(std::sqrt(double(s)) / 255.0 / scale); });
  }
}

const PixelRow& HistogramPass::add_line(const LinePlanes& first, const LinePlanes& second) {
  static const auto color = best_kernel(color_pixel_kernels);
  static const auto intensity = best_kernel(intensity_pixel_kernels);
  static const auto count = best_kernel(count_kernels);
  const auto sum = settings_.signed_intensity ? intensity : color;
  const std::size_t width = row_.sums.size();
  sum(first, second, width, sample_tolerance(settings_), settings_.ignore_alpha ? 3 : 4,
      row_.sums.data(), row_.alphas.data());
  count({row_.sums.data(), row_.alphas.data(), table_.data(), settings_.signed_intensity}, width,
        row_.entries.data(), main_, alpha_);
  return row_;
}

// A color distance has no sign: only intensities fill the negative histograms.
Histograms HistogramPass::result() const {
  Histograms histograms;
  const bool is_signed = settings_.signed_intensity;
  const double range = is_signed ? scale_ : 255.0 * scale_;
  const auto bin_of_alpha = [range](int d) { return bin_of(std::abs(d) / range); };
  for (std::size_t set = 0; set < kCounterSets; ++set) {
    for (std::size_t bin = 0; bin < kCounterMiddle; ++bin) {
      histograms.main[bin] += main_[set][bin];
      histograms.negative[bin] += main_[set][kCounterMiddle + bin];
    }
    if (settings_.ignore_alpha) continue;
    for (int d = -kLargestSample; d <= kLargestSample; ++d) {
      auto& bins = is_signed && d < 0 ? histograms.negative_alpha : histograms.alpha;
      const int place = int{kCounterMiddle} + d;
      bins[bin_of_alpha(d)] += alpha_[set][std::size_t(place)];
    }
  }
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
