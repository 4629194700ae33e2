#include "compose.h"

#include <cmath>
#include <cstdlib>

namespace ka {
namespace {

using MutablePlanes = std::array<std::uint8_t*, 4>;

MutablePlanes mutable_planes(const LinePlanes& planes) {
  MutablePlanes result;
  for (std::size_t c = 0; c < planes.size(); ++c) result[c] = const_cast<std::uint8_t*>(planes[c]);
  return result;
}

// Paints one line after the other. What a pixel becomes depends on its sum and on single channel
// differences only, so everything that costs a root or a power stands in tables.
class Painter {
 public:
  Painter(const ComposeSettings& settings, double scale);

  // Paints a line of `first`. Before: `sums` are its pixels' sums.
  void paint(const LinePlanes& first, const LinePlanes& second,
             std::span<const std::int32_t> sums) const;

 private:
  static constexpr std::size_t kBlock = 64;  // pixels without a difference are painted together

  [[nodiscard]] double corrected(double v) const {
    return inverse_gamma_ ? std::pow(v, *inverse_gamma_) : v;
  }
  void make_channel_tables(double scale);
  void make_color_table(double scale);
  void paint_background(const MutablePlanes& pixels, std::size_t from, std::size_t to) const;
  void paint_pixel(const MutablePlanes& pixels, const LinePlanes& second, std::size_t x,
                   std::int32_t sum) const;

  ComposeSettings settings_;
  std::optional<double> inverse_gamma_;
  std::array<std::uint8_t, 256> channel_;  // of R, G and B, by absolute difference
  std::array<std::uint8_t, 256> alpha_;    // by absolute difference
  std::vector<Rgb> color_;                 // by absolute sum
};

// Cut to a whole number. Differences can pass what the scale calls full: they show as full.
std::uint8_t to_sample(double value) { return std::uint8_t(std::min(value, 255.0)); }

Painter::Painter(const ComposeSettings& settings, double scale) : settings_(settings) {
  if (settings.gamma) inverse_gamma_ = 1.0 / *settings.gamma;
  make_channel_tables(scale);
  if (settings.false_color) make_color_table(scale);
}

void Painter::make_channel_tables(double scale) {
  for (std::size_t d = 0; d < channel_.size(); ++d) {
    const double v = corrected(double(d) / 255.0 / scale);
    channel_[d] = to_sample(255.0 * v);
    alpha_[d] = settings_.measure.ignore_alpha ? 0
                : settings_.false_color        ? to_sample(200.0 * v + 55.0)
                                               : channel_[d];
  }
}

void Painter::make_color_table(double scale) {
  if (settings_.measure.signed_intensity) {
    color_.resize(kLargestIntensitySum + 1);
    fill_by_sum(color_, 0, kLargestIntensitySum,
                [&](std::size_t s) { return false_color(corrected(double(s) / scale)); });
  } else {
    color_.resize(kLargestColourSum + 1);
    fill_by_sum(color_, 0, kLargestColourSum, [&](std::size_t s) {
      return false_color(corrected(std::sqrt(double(s)) / 255.0 / scale));
    });
  }
}

void Painter::paint(const LinePlanes& first, const LinePlanes& second,
                    std::span<const std::int32_t> sums) const {
  const MutablePlanes pixels = mutable_planes(first);
  for (std::size_t from = 0; from < sums.size(); from += kBlock) {
    const std::size_t to = std::min(from + kBlock, sums.size());
    std::int32_t any = 0;
    for (std::size_t x = from; x < to; ++x) any |= sums[x];
    if (any == 0) {
      paint_background(pixels, from, to);
      continue;
    }
    for (std::size_t x = from; x < to; ++x) paint_pixel(pixels, second, x, sums[x]);
  }
}

void Painter::paint_background(const MutablePlanes& pixels, std::size_t from,
                               std::size_t to) const {
  for (std::uint8_t* const plane : pixels) {
    for (std::size_t x = from; x < to; ++x) plane[x] = settings_.underlay ? plane[x] / 10 : 0;
  }
}

void Painter::paint_pixel(const MutablePlanes& pixels, const LinePlanes& second, std::size_t x,
                          std::int32_t sum) const {
  if (sum == 0) return paint_background(pixels, x, x + 1);
  const auto difference = [&](std::size_t c) {
    return std::size_t(std::abs(pixels[c][x] - second[c][x]));
  };
  pixels[3][x] = alpha_[difference(3)];
  if (settings_.false_color) {
    const Rgb color = color_[std::size_t(std::abs(sum))];
    pixels[0][x] = color.r;
    pixels[1][x] = color.g;
    pixels[2][x] = color.b;
  } else {
    for (std::size_t c = 0; c < 3; ++c) pixels[c][x] = channel_[difference(c)];
  }
}

}  // namespace

Rgb false_color(double v) {
  constexpr double third = 0.3333333333333333, two_thirds = 0.6666666666666666;
  v = std::clamp(v, 0.0, 1.0);
  const auto byte = [](double value) { return std::uint8_t(value); };
  if (v < third) {
    const std::uint8_t a = byte(v * 255.0 * 3.0);
    return {0, a, std::uint8_t(~a)};
  }
  if (v < two_thirds) {
    const std::uint8_t a = byte(255.0 * (3.0 * v - 1.0));
    return {a, std::uint8_t(~a), 0};
  }
  const std::uint8_t a = byte(255.0 * (3.0 * v - 2.0));
  return {255, a, a};
}

Histograms compose_difference(img_image* first, const img_image* second, int height,
                              const ComposeSettings& settings, double scale) {
  HistogramPass pass(settings.measure, scale, second->width);
  const Painter painter(settings, scale);
  for (int y = 0; y < height; ++y) {
    const LinePlanes a = line_planes_of(first, y), b = line_planes_of(second, y);
    painter.paint(a, b, pass.add_line(a, b));
  }
  return pass.result();
}

}  // namespace ka
