#include "measurekernels.h"

#include <algorithm>

namespace ka {
namespace {

constexpr std::size_t kBlock =
    64;  // pixels looked at together: most blocks of most pairs do not differ

KA_KERNEL std::uint8_t distance(std::uint8_t a, std::uint8_t b) {
  return std::uint8_t(a > b ? a - b : b - a);
}

// Whether any sample of a block differs by more than the tolerance.
KA_KERNEL bool block_differs(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                             int from, int to, std::uint8_t tolerance) {
  std::uint8_t beyond = 0;
  for (int c = from; c < to; ++c) {
    const std::uint8_t* __restrict a = first[std::size_t(c)] + at;
    const std::uint8_t* __restrict b = second[std::size_t(c)] + at;
    for (std::size_t i = 0; i < kBlock; ++i) {
      const std::uint8_t d = distance(a[i], b[i]);
      beyond = std::uint8_t(beyond | (d > tolerance ? d : 0));
    }
  }
  return beyond != 0;
}

KA_KERNEL std::uint32_t square(std::uint8_t a, std::uint8_t b, std::uint8_t tolerance) {
  const std::uint8_t d = distance(a, b);
  const std::uint32_t counted = d > tolerance ? d : 0;
  return counted * counted;
}

template <int Channels>
KA_KERNEL void colour_block(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                            std::size_t size, std::uint8_t tolerance, LineSums& sums) {
  std::uint32_t count = 0, total = 0, most = 0;
  for (std::size_t i = at; i < at + size; ++i) {
    std::uint32_t s = 0;
    for (std::size_t c = 0; c < Channels; ++c) s += square(first[c][i], second[c][i], tolerance);
    count += s != 0;
    total += s;
    most = std::max(most, s);
  }
  sums.count += count;
  sums.total += total;
  sums.most = std::max(sums.most, std::int32_t(most));
}

template <int Channels>
KA_KERNEL void colour_line(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                           std::uint8_t tolerance, LineSums& sums) {
  std::size_t at = 0;
  for (; at + kBlock <= width; at += kBlock) {
    if (block_differs(first, second, at, 0, Channels, tolerance)) {
      colour_block<Channels>(first, second, at, kBlock, tolerance, sums);
    }
  }
  colour_block<Channels>(first, second, at, width - at, tolerance, sums);
}

KA_KERNEL void colour_body(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                           int tolerance, int channels, LineSums& sums) {
  if (channels == 4) {
    colour_line<4>(first, second, width, std::uint8_t(tolerance), sums);
  } else {
    colour_line<3>(first, second, width, std::uint8_t(tolerance), sums);
  }
}

// Floats are exact here: for differences of -255 to 255 no product comes nearer than a thousandth
// to a whole number, so that every way of rounding it cuts to the same one.
KA_KERNEL std::int32_t add_weighted(std::int32_t s, std::uint8_t a, std::uint8_t b,
                                    std::uint8_t tolerance, float weight) {
  const std::int32_t d = distance(a, b) > tolerance ? a - b : 0;
  return std::int32_t(float(s) + float(d) * weight);
}

KA_KERNEL void intensity_block(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                               std::size_t size, std::uint8_t tolerance, LineSums& sums) {
  std::uint32_t count = 0;
  std::int32_t total = 0, most = 0, least = 0;
  for (std::size_t i = at; i < at + size; ++i) {
    std::int32_t s = add_weighted(0, first[2][i], second[2][i], tolerance, kIntensityWeights[2]);
    s = add_weighted(s, first[1][i], second[1][i], tolerance, kIntensityWeights[1]);
    s = add_weighted(s, first[0][i], second[0][i], tolerance, kIntensityWeights[0]);
    count += s != 0;
    total += s;
    most = std::max(most, s);
    least = std::min(least, s);
  }
  sums.count += count;
  sums.total += total;
  sums.most = std::max(sums.most, most);
  sums.least = std::min(sums.least, least);
}

KA_KERNEL void intensity_body(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                              int tolerance, int /*channels*/, LineSums& sums) {
  const auto limit = std::uint8_t(tolerance);
  std::size_t at = 0;
  for (; at + kBlock <= width; at += kBlock) {
    if (block_differs(first, second, at, 0, 3, limit))
      intensity_block(first, second, at, kBlock, limit, sums);
  }
  intensity_block(first, second, at, width - at, limit, sums);
}

KA_KERNEL std::int16_t counted(std::uint8_t a, std::uint8_t b, std::uint8_t tolerance) {
  return std::int16_t(distance(a, b) > tolerance ? a - b : 0);
}

template <bool Intensity>
KA_KERNEL void pixels_body(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                           int tolerance, int channels, std::int32_t* __restrict sums,
                           std::int16_t* __restrict alphas) {
  const auto limit = std::uint8_t(tolerance);
  const bool has_alpha = channels == 4;
  for (std::size_t i = 0; i < width; ++i) {
    const std::int16_t alpha =
        has_alpha ? counted(first[3][i], second[3][i], limit) : std::int16_t{0};
    std::int32_t s = 0;
    if constexpr (Intensity) {
      s = add_weighted(0, first[2][i], second[2][i], limit, kIntensityWeights[2]);
      s = add_weighted(s, first[1][i], second[1][i], limit, kIntensityWeights[1]);
      s = add_weighted(s, first[0][i], second[0][i], limit, kIntensityWeights[0]) + alpha;
    } else {
      for (std::size_t c = 0; c < 3; ++c)
        s += std::int32_t(square(first[c][i], second[c][i], limit));
      s += alpha * alpha;
    }
    sums[i] = s;
    alphas[i] = alpha;
  }
}

KA_DEFINE_KERNELS(colour_sums, colour_body,
                  (const LinePlanes& first, const LinePlanes& second, std::size_t width,
                   int tolerance, int channels, LineSums& sums),
                  (first, second, width, tolerance, channels, sums));
KA_DEFINE_KERNELS(intensity_sums, intensity_body,
                  (const LinePlanes& first, const LinePlanes& second, std::size_t width,
                   int tolerance, int channels, LineSums& sums),
                  (first, second, width, tolerance, channels, sums));

KA_DEFINE_KERNELS(colour_pixels, pixels_body<false>,
                  (const LinePlanes& first, const LinePlanes& second, std::size_t width,
                   int tolerance, int channels, std::int32_t* sums, std::int16_t* alphas),
                  (first, second, width, tolerance, channels, sums, alphas));
KA_DEFINE_KERNELS(intensity_pixels, pixels_body<true>,
                  (const LinePlanes& first, const LinePlanes& second, std::size_t width,
                   int tolerance, int channels, std::int32_t* sums, std::int16_t* alphas),
                  (first, second, width, tolerance, channels, sums, alphas));

}  // namespace

constinit const KernelTable<PixelKernel> colour_pixel_kernels = colour_pixels_kernels;
constinit const KernelTable<PixelKernel> intensity_pixel_kernels = intensity_pixels_kernels;
constinit const KernelTable<MeasureKernel> colour_kernels = colour_sums_kernels;
constinit const KernelTable<MeasureKernel> intensity_kernels = intensity_sums_kernels;

}  // namespace ka
