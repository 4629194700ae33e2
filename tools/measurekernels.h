// The hot loops over one line of both pictures.
#pragma once

#include <ka/detail/targets.h>

#include "measure.h"

namespace ka {

// `tolerance` is 0 to 255. Alpha takes part in colour sums with `channels` 4, not with 3.
using MeasureKernel = void (*)(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                               int tolerance, int channels, LineSums& sums);

// Colour: the sum of the squares of the differences beyond the tolerance.
extern const KernelTable<MeasureKernel> colour_kernels;
// Intensity: the weighted differences, cut to a whole number after each channel in the order B, G,
// R.
extern const KernelTable<MeasureKernel> intensity_kernels;

// Pixels looked at together: most blocks of most pairs do not differ.
inline constexpr std::size_t kMeasureBlock = 64;

// Moves `at`, a multiple of kMeasureBlock, on to the next block in which samples of the first
// `channels` channels may differ by more than the tolerance; to `width` or beyond when there is
// none.
using SeekKernel = void (*)(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                            int tolerance, int channels, std::size_t& at);
extern const KernelTable<SeekKernel> difference_seekers;

// Weights of R, G, B and A in the intensity.
inline constexpr std::array<float, 4> kIntensityWeights = {0.299F, 0.587F, 0.114F, 0.0F};

}  // namespace ka
