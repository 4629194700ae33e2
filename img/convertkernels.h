// Samples to samples: the hot loops of the conversions between pixel types, one per instruction
// set.
#pragma once

#include <ka/detail/targets.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace ka {

// The value of a sample that is full on.
template <typename Sample>
inline constexpr Sample kFull = Sample(~Sample{});
template <>
inline constexpr float kFull<float> = 1.0F;

// A sample of 8 bits becomes the high byte of one of 16 bits, whose low byte stays.
KA_KERNEL std::uint16_t with_high_byte(std::uint16_t old, std::uint8_t high) {
  return std::uint16_t((old & 0xff) | high << 8);
}

// The low 16 bits of a value cut to a whole number. What 32 bits do not hold gives 0, and so does
// what is not a number.
KA_KERNEL std::uint16_t cut(double value) {
  const double held = std::fabs(value) < 0x1p31 ? value : 0.0;
  return std::uint16_t(std::int32_t(held));
}

// L = w0 R + w1 G + w2 B of samples as they are stored. Products of a weight and a sample are exact
// in double precision, and so are sums of integer samples with weights of ordinary size.
template <typename Sample>
KA_KERNEL double luminance_of(Sample red, Sample green, Sample blue, const double* weights) {
  return weights[0] * double(red) + weights[1] * double(green) + weights[2] * double(blue);
}

template <typename From, typename To>
using DepthKernel = void (*)(const From* from, To* to, std::size_t count);
template <typename From, typename To>
using LuminanceKernel = void (*)(const From* red, const From* green, const From* blue, To* to,
                                 const float* weights, std::size_t count);

// `count` samples of one depth from samples of another: 8, 16 bits and float. Floats are clamped to
// 0 to 1, and what is not a number becomes 0.
template <typename From, typename To>
struct DepthLoop {
  static KernelTable<DepthKernel<From, To>> kernels();
};

// `count` samples of luminance from the three planes of a color.
template <typename From, typename To>
struct LuminanceLoop {
  static KernelTable<LuminanceKernel<From, To>> kernels();
};

template <typename From, typename To>
void convert_plane(const From* from, To* to, std::size_t count) {
  if constexpr (std::is_same_v<From, To>) {
    std::memcpy(to, from, count * sizeof(To));
  } else {
    static const auto kernel = best_kernel(DepthLoop<From, To>::kernels());
    kernel(from, to, count);
  }
}

template <typename From, typename To>
void convert_luminance(const From* red, const From* green, const From* blue, To* to,
                       const float* weights, std::size_t count) {
  static const auto kernel = best_kernel(LuminanceLoop<From, To>::kernels());
  kernel(red, green, blue, to, weights, count);
}

}  // namespace ka
