#include "compose.h"

#include <cmath>
#include <cstring>

#include <ka/detail/targets.h>

#include "measurehistograms.h"

namespace ka {
namespace {

using MutablePlanes = std::array<std::uint8_t*, 4>;

MutablePlanes mutable_planes(const LinePlanes& planes) {
  MutablePlanes result;
  for (std::size_t c = 0; c < planes.size(); ++c) result[c] = const_cast<std::uint8_t*>(planes[c]);
  return result;
}

// Cut to a whole number. Differences can pass what the scale calls full: they show as full.
std::uint8_t to_sample(double value) { return std::uint8_t(std::min(value, 255.0)); }

// What single channel differences become. Everything that costs a root or a power is in tables.
struct ChannelTables {
  std::array<std::uint8_t, 256> color;  // by absolute difference
  std::array<std::uint8_t, 256> alpha;
};

double corrected(const ComposeSettings& settings, double v) {
  return settings.gamma ? std::pow(v, 1.0 / *settings.gamma) : v;
}

ChannelTables make_channel_tables(const ComposeSettings& settings, double scale) {
  ChannelTables tables;
  for (std::size_t d = 0; d < tables.color.size(); ++d) {
    const double v = corrected(settings, double(d) / 255.0 / scale);
    tables.color[d] = to_sample(255.0 * v);
    tables.alpha[d] = settings.measure.ignore_alpha ? 0
                      : settings.false_color        ? to_sample(200.0 * v + 55.0)
                                                    : tables.color[d];
  }
  return tables;
}

// The false color of a pixel sum, R in the low byte.
std::uint32_t color_of_sum(const ComposeSettings& settings, double scale, std::size_t sum) {
  const double v = settings.measure.signed_intensity ? double(sum) / scale
                                                     : std::sqrt(double(sum)) / 255.0 / scale;
  const Rgb color = false_color(corrected(settings, v));
  return std::uint32_t{color.r} | std::uint32_t{color.g} << 8 | std::uint32_t{color.b} << 16;
}

// Everything that a block of pixels is painted from.
struct PaintInput {
  const std::int32_t* sums;
  const std::uint32_t* entries;
  const ChannelTables* tables;
  bool false_color, underlay;
};

// `out` may be `a`.
KA_KERNEL void look_up(const std::uint8_t* a, const std::uint8_t* b,
                       const std::array<std::uint8_t, 256>& table, std::size_t size,
                       std::uint8_t* out) {
  std::uint8_t distances[kMeasureBlock];
  for (std::size_t i = 0; i < size; ++i)
    distances[i] = std::uint8_t(a[i] > b[i] ? a[i] - b[i] : b[i] - a[i]);
#pragma GCC unroll 8
  for (std::size_t i = 0; i < size; ++i) out[i] = table[distances[i]];
}

// Paints every pixel as one that differs.
KA_KERNEL void paint_differences(const PaintInput& input, const MutablePlanes& pixels,
                                 const LinePlanes& second, std::size_t at, std::size_t size,
                                 const MutablePlanes& out) {
  look_up(pixels[3] + at, second[3] + at, input.tables->alpha, size, out[3]);
  if (!input.false_color) {
    for (std::size_t c = 0; c < 3; ++c)
      look_up(pixels[c] + at, second[c] + at, input.tables->color, size, out[c]);
    return;
  }
  const std::uint32_t* __restrict entries = input.entries + at;
  std::uint8_t* __restrict red = out[0];
  std::uint8_t* __restrict green = out[1];
  std::uint8_t* __restrict blue = out[2];
  for (std::size_t i = 0; i < size; ++i) red[i] = std::uint8_t(entries[i] >> 8);
  for (std::size_t i = 0; i < size; ++i) green[i] = std::uint8_t(entries[i] >> 16);
  for (std::size_t i = 0; i < size; ++i) blue[i] = std::uint8_t(entries[i] >> 24);
}

// The pixels that do not differ get their background.
KA_KERNEL void paint_mixed(const PaintInput& input, const MutablePlanes& pixels,
                           const LinePlanes& second, std::size_t at, std::size_t size) {
  std::uint8_t samples[4][kMeasureBlock];
  paint_differences(input, pixels, second, at, size,
                    {samples[0], samples[1], samples[2], samples[3]});
  const std::int32_t* __restrict sums = input.sums + at;
  std::uint8_t differs[kMeasureBlock];
  for (std::size_t i = 0; i < size; ++i) differs[i] = std::uint8_t(0 - (sums[i] != 0));
  const std::uint8_t underlay = input.underlay ? 255 : 0;
  for (std::size_t c = 0; c < 4; ++c) {
    std::uint8_t* __restrict plane = pixels[c] + at;
    for (std::size_t i = 0; i < size; ++i) {
      const auto background = std::uint8_t(plane[i] / 10 & underlay);
      plane[i] = std::uint8_t((samples[c][i] & differs[i]) | (background & ~differs[i]));
    }
  }
}

KA_KERNEL void paint_background(const MutablePlanes& pixels, std::size_t at, std::size_t size,
                                bool underlay) {
  for (std::uint8_t* const plane : pixels) {
    if (!underlay) {
      std::memset(plane + at, 0, size);
      continue;
    }
    for (std::size_t i = at; i < at + size; ++i) plane[i] = plane[i] / 10;
  }
}

KA_KERNEL void paint_block(const PaintInput& input, const MutablePlanes& pixels,
                           const LinePlanes& second, std::size_t at, std::size_t size) {
  std::size_t differing = 0;
  for (std::size_t i = at; i < at + size; ++i) differing += input.sums[i] != 0;
  if (differing == 0) {
    paint_background(pixels, at, size, input.underlay);
  } else if (differing == size) {
    paint_differences(input, pixels, second, at, size,
                      {pixels[0] + at, pixels[1] + at, pixels[2] + at, pixels[3] + at});
  } else {
    paint_mixed(input, pixels, second, at, size);
  }
}

KA_KERNEL void paint_body(const PaintInput& input, const MutablePlanes& pixels,
                          const LinePlanes& second, std::size_t width) {
  std::size_t at = 0;
  for (; at + kMeasureBlock <= width; at += kMeasureBlock)
    paint_block(input, pixels, second, at, kMeasureBlock);
  paint_block(input, pixels, second, at, width - at);
}

constexpr auto& paint_kernels = kernels_of<paint_body>;

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
  static const auto paint = best_kernel(paint_kernels);
  const ChannelTables tables = make_channel_tables(settings, scale);
  const auto color = [&](std::size_t sum) {
    return settings.false_color ? color_of_sum(settings, scale, sum) : 0;
  };
  HistogramPass pass(settings.measure, scale, second->width, color);
  for (int y = 0; y < height; ++y) {
    const LinePlanes a = line_planes_of(first, y), b = line_planes_of(second, y);
    const PixelRow& row = pass.add_line(a, b);
    paint({row.sums.data(), row.entries.data(), &tables, settings.false_color, settings.underlay},
          mutable_planes(a), b, row.sums.size());
  }
  return pass.result();
}

}  // namespace ka
