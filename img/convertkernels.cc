#include "convertkernels.h"

#include <algorithm>
#include <array>
#include <type_traits>

namespace ka {
namespace {

// Division rounds to the float nearest to the quotient, as the product with a double 1/255 does.
template <typename To, typename From>
KA_KERNEL To to_depth(From value, [[maybe_unused]] To old) {
  if constexpr (std::is_same_v<To, float>) {
    return float(value) / float(kFull<From>);
  } else if constexpr (std::is_same_v<From, float>) {
    const float clamped = std::max(0.0F, std::min(value, 1.0F));  // in this order NaN becomes 0
    return static_cast<To>(std::int32_t(clamped * float(kFull<To>)));
  } else if constexpr (sizeof(From) < sizeof(To)) {
    return with_high_byte(old, value);
  } else {
    return static_cast<To>(value >> 8);
  }
}

template <typename From, typename To>
struct DepthBody {
  KA_KERNEL static void run(const From* __restrict from, To* __restrict to, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) to[i] = to_depth<To>(from[i], to[i]);
  }
};

// What the luminance is multiplied with before it is stored. Deeper samples from 8-bit colors
// reach 255 * 255 only, and a float keeps the range of its source.
template <typename From, typename To>
constexpr double kLuminanceScale = std::is_same_v<To, float>     ? 1.0
                                   : std::is_same_v<From, float> ? double(kFull<To>)
                                   : sizeof(From) < sizeof(To)   ? 255.0
                                                                 : 1.0;

template <typename To, typename From>
KA_KERNEL To store_luminance(double luminance) {
  const double scaled = luminance * kLuminanceScale<From, To>;
  if constexpr (std::is_same_v<To, float>) {
    return float(scaled);
  } else {
    constexpr int dropped_bits = sizeof(From) == 2 && sizeof(To) == 1 ? 8 : 0;
    return static_cast<To>(cut(scaled) >> dropped_bits);
  }
}

// Weights of 8-bit samples as whole numbers, cut in two so that all sums fit 32 bits. This takes
// half the time of doubles, and the result is the same.
class FixedWeights {
 public:
  KA_KERNEL explicit FixedWeights(const float* weights) {
    for (std::size_t i = 0; i < 3; ++i) {
      const bool in_range = weights[i] >= 0.0F && weights[i] <= 1.0F;
      const float units = in_range ? weights[i] * 0x1p27F : 0.5F;
      const auto whole = std::uint32_t(units);
      exact_ = exact_ && float(whole) == units;
      high_[i] = whole >> kLowBits;
      low_[i] = whole & ((1U << kLowBits) - 1);
    }
  }
  // Whether the weights are these numbers exactly, as the usual ones are.
  KA_KERNEL bool exact() const { return exact_; }
  // trunc(Scale * L); with a scale of 255 the largest sum is 255 * 255 * 3 * 2^14, below 2^32.
  template <std::uint32_t Scale>
  KA_KERNEL std::uint32_t cut_luminance(std::uint32_t red, std::uint32_t green,
                                        std::uint32_t blue) const {
    const std::uint32_t low = low_[0] * red + low_[1] * green + low_[2] * blue;
    const std::uint32_t high = high_[0] * red + high_[1] * green + high_[2] * blue;
    return (Scale * high + (Scale * low >> kLowBits)) >> kHighBits;
  }

 private:
  static constexpr int kLowBits = 13, kHighBits = 14;
  std::array<std::uint32_t, 3> high_, low_;
  bool exact_ = true;
};

template <typename From, typename To>
struct LuminanceBody {
  KA_KERNEL static void run(const From* __restrict red, const From* __restrict green,
                            const From* __restrict blue, To* __restrict to, const float* weights,
                            std::size_t count) {
    if constexpr (sizeof(From) == 1 && !std::is_same_v<To, float>) {
      constexpr auto scale = std::uint32_t(kLuminanceScale<From, To>);
      const FixedWeights fixed(weights);
      if (fixed.exact()) {
        for (std::size_t i = 0; i < count; ++i) {
          to[i] = static_cast<To>(fixed.cut_luminance<scale>(red[i], green[i], blue[i]));
        }
        return;
      }
    }
    const double exact[3] = {weights[0], weights[1], weights[2]};
    for (std::size_t i = 0; i < count; ++i) {
      to[i] = store_luminance<To, From>(luminance_of(red[i], green[i], blue[i], exact));
    }
  }
};

}  // namespace

template <typename From, typename To>
KernelTable<DepthKernel<From, To>> DepthLoop<From, To>::kernels() {
  return kernels_of<DepthBody<From, To>::run>;
}

template <typename From, typename To>
KernelTable<LuminanceKernel<From, To>> LuminanceLoop<From, To>::kernels() {
  return kernels_of<LuminanceBody<From, To>::run>;
}

template struct DepthLoop<std::uint8_t, std::uint16_t>;
template struct DepthLoop<std::uint8_t, float>;
template struct DepthLoop<std::uint16_t, std::uint8_t>;
template struct DepthLoop<std::uint16_t, float>;
template struct DepthLoop<float, std::uint8_t>;
template struct DepthLoop<float, std::uint16_t>;
template struct LuminanceLoop<std::uint8_t, std::uint8_t>;
template struct LuminanceLoop<std::uint8_t, std::uint16_t>;
template struct LuminanceLoop<std::uint8_t, float>;
template struct LuminanceLoop<std::uint16_t, std::uint8_t>;
template struct LuminanceLoop<std::uint16_t, std::uint16_t>;
template struct LuminanceLoop<std::uint16_t, float>;
template struct LuminanceLoop<float, std::uint8_t>;
template struct LuminanceLoop<float, std::uint16_t>;
template struct LuminanceLoop<float, float>;

}  // namespace ka
