// The hot loops over one line of both pictures.
#pragma once

#include <ka/detail/targets.h>

#include "measure.h"

namespace ka {

// `tolerance` is 0 to 255. Alpha takes part in color sums with `channels` 4, not with 3.
using MeasureKernel = void (*)(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                               int tolerance, int channels, LineSums& sums);

// Color: the sum of the squares of the differences beyond the tolerance.
extern const KernelTable<MeasureKernel> colour_kernels;
// Intensity: the weighted differences, cut to a whole number after each channel in the order B, G,
// R.
extern const KernelTable<MeasureKernel> intensity_kernels;

// The sums of a line's pixels in pass 2, where alpha counts in both modes (with `channels` 4), and
// their signed differences of alpha beyond the tolerance. `sums` and `alphas` have room for `width`
// values.
using PixelKernel = void (*)(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                             int tolerance, int channels, std::int32_t* sums, std::int16_t* alphas);
extern const KernelTable<PixelKernel> colour_pixel_kernels;
extern const KernelTable<PixelKernel> intensity_pixel_kernels;

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
