// The hot loops over one line of both pictures, and what they work on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <ka/detail/targets.h>

#include "measure.h"

namespace ka {

// Pixels examined together: most blocks of most pairs do not differ.
inline constexpr std::size_t kMeasureBlock = 64;

// Largest pixel sums: four squares of 255; intensity: brightness and alpha together.
inline constexpr std::size_t kLargestColorSum = 4 * 255 * 255;
inline constexpr std::size_t kLargestIntensitySum = 2 * 255;

// What a kernel finds in one line.
struct LineSums {
  std::uint32_t count;  // pixels whose sum is not 0
  std::int64_t total;   // of the sums of these pixels
  std::int32_t most;    // largest sum, at least 0
  std::int32_t least;   // smallest sum, at most 0
};

// `tolerance` is 0 to 255. Alpha takes part in color sums with `channels` 4, not with 3.
using MeasureKernel = void (*)(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                               int tolerance, int channels, LineSums& sums);

// Color: the sum of the squares of the differences beyond the tolerance.
extern const KernelTable<MeasureKernel> color_kernels;
// Intensity: the weighted differences, cut to a whole number after each channel in the order B, G,
// R.
extern const KernelTable<MeasureKernel> intensity_kernels;

// The sums of a line's pixels in pass 2, where alpha counts in both modes (with `channels` 4), and
// their signed differences of alpha beyond the tolerance. `sums` and `alphas` have room for `width`
// values.
using PixelKernel = void (*)(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                             int tolerance, int channels, std::int32_t* sums, std::int16_t* alphas);
extern const KernelTable<PixelKernel> color_pixel_kernels;
extern const KernelTable<PixelKernel> intensity_pixel_kernels;

// Pixels by bin, those of negative sums kCounterMiddle further on; or by difference of alpha around
// kCounterMiddle, those that do not differ at 0. They are in several sets, so that pixels that
// count alike do not wait for each other, and sets do not start a power of two apart, as the
// processor would take their addresses for the same.
inline constexpr std::size_t kCounterSets = 8, kCounterMiddle = 256;
using Counters = std::array<std::array<int, 2 * kCounterMiddle + 16>, kCounterSets>;

// What a line's pixels are counted by: see PixelRow and HistogramPass.
struct CountInput {
  const std::int32_t* sums;
  const std::int16_t* alphas;
  const std::uint32_t* table;
  bool is_signed;  // sums may be below 0
};
using CountKernel = void (*)(const CountInput& input, std::size_t width, std::uint32_t* entries,
                             Counters& main, Counters& alpha);
extern const KernelTable<CountKernel> count_kernels;

// Weights of R, G, B and A in the intensity.
inline constexpr std::array<float, 4> kIntensityWeights = {0.299F, 0.587F, 0.114F, 0.0F};

}  // namespace ka
