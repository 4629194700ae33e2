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

LinePlanes image_line(const img_image* image, int y) {
  const auto* const base = reinterpret_cast<const std::uint8_t*>(image);
  const auto* const table = reinterpret_cast<const img_image_line*>(base + sizeof(img_image));
  LinePlanes planes;
  for (std::size_t c = 0; c < planes.size(); ++c) planes[c] = base + table[y].offset[c];
  return planes;
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

// One pixel of pass 2.
struct PixelSums {
  int sum;    // with the alpha part
  int alpha;  // the alpha part alone
};

int counted(const MeasureSettings& settings, std::uint8_t a, std::uint8_t b) {
  const int d = a - b;
  return std::abs(d) > sample_tolerance(settings) ? d : 0;
}

PixelSums pixel_sums(const MeasureSettings& settings, const LinePlanes& first,
                     const LinePlanes& second, std::size_t x) {
  int sum = 0;
  for (const std::size_t c : {2U, 1U, 0U}) {
    const int d = counted(settings, first[c][x], second[c][x]);
    sum =
        settings.signed_intensity ? int(float(sum) + float(d) * kIntensityWeights[c]) : sum + d * d;
  }
  if (settings.ignore_alpha) return {sum, 0};
  const int d = counted(settings, first[3][x], second[3][x]);
  const int alpha = settings.signed_intensity ? d : d * d;
  return {sum + alpha, alpha};
}

void count(Histograms::Bins& bins, double value) {
  ++bins[std::size_t(std::min(255.0 * value, 255.0))];
}

void count_colour(Histograms& histograms, const PixelSums& pixel, const MeasureSettings& settings,
                  double scale) {
  count(histograms.main, std::sqrt(pixel.sum) / 255.0 / scale);
  if (!settings.ignore_alpha) count(histograms.alpha, std::sqrt(pixel.alpha) / 255.0 / scale);
}

void count_intensity(Histograms& histograms, const PixelSums& pixel,
                     const MeasureSettings& settings, double scale) {
  count(pixel.sum < 0 ? histograms.negative : histograms.main, std::abs(pixel.sum) / scale);
  if (settings.ignore_alpha) return;
  count(pixel.alpha < 0 ? histograms.negative_alpha : histograms.alpha,
        std::abs(pixel.alpha) / scale);
}

}  // namespace

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
  MeasureSettings opaque = settings_;
  opaque.ignore_alpha = true;  // alpha has weight 0 in this pass
  for (std::size_t x = 0; x < std::size_t(width); ++x) {
    const int sum = pixel_sums(opaque, first, second, x).sum;
    if (std::abs(sum) == size) return sum;
  }
  return size;
}

Difference Meter::result() const {
  Difference result{.count = int(count_), .total = double(total_), .largest = double(largest_)};
  if (settings_.signed_intensity) {
    result.maximum_percent = 100.0 * result.largest / 255.0;
    result.scale = settings_.brighten ? std::fabs(result.largest) : 255.0;
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
    meter.add_line(y, image_line(first, y), image_line(second, y), first->width);
  }
  return meter.result();
}

double average_percent(const Difference& difference, const MeasureSettings& settings) {
  const double mean = difference.total / difference.count;
  if (settings.signed_intensity) return 100.0 * mean / difference.scale;
  return 100.0 * std::sqrt(mean) / (settings.ignore_alpha ? kRangeWithoutAlpha : kRange);
}

Histograms count_histograms(const img_image* first, const img_image* second, int height,
                            const MeasureSettings& settings, double scale) {
  Histograms histograms;
  for (int y = 0; y < height; ++y) {
    const LinePlanes a = image_line(first, y), b = image_line(second, y);
    for (std::size_t x = 0; x < std::size_t(first->width); ++x) {
      const PixelSums pixel = pixel_sums(settings, a, b, x);
      if (pixel.sum == 0) continue;
      if (settings.signed_intensity) {
        count_intensity(histograms, pixel, settings, scale);
      } else {
        count_colour(histograms, pixel, settings, scale);
      }
    }
  }
  return histograms;
}

}  // namespace ka
