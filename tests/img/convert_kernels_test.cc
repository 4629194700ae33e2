// The loops of conversions, one for each instruction set: all give what the plain one gives.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "convertline.h"

namespace {

constexpr std::size_t kVector = 64;  // bytes of the widest vectors

template <typename Sample>
std::vector<Sample> noise(std::size_t count) {
  std::mt19937 random(17);
  std::vector<Sample> samples(count);
  for (Sample& sample : samples) {
    if constexpr (std::is_same_v<Sample, float>) {
      sample = float(random() % 4096) / 2048 - 0.5F;
    } else {
      sample = Sample(random());
    }
  }
  return samples;
}

template <typename From, typename To>
struct Pair {
  using Source = From;
  using Destination = To;
};
template <typename Pair>
class Kernels : public testing::Test {};
using Pairs =
    testing::Types<Pair<std::uint8_t, std::uint8_t>, Pair<std::uint8_t, std::uint16_t>,
                   Pair<std::uint8_t, float>, Pair<std::uint16_t, std::uint8_t>,
                   Pair<std::uint16_t, std::uint16_t>, Pair<std::uint16_t, float>,
                   Pair<float, std::uint8_t>, Pair<float, std::uint16_t>, Pair<float, float>>;
TYPED_TEST_SUITE(Kernels, Pairs);

// Runs every kernel of a table for every length, `run`(kernel, first sample, count).
template <typename To, typename Kernel, typename Run>
void compare(const ka::KernelTable<Kernel>& table, Run run) {
  const std::size_t longest = 3 * kVector + 1;
  const std::vector<To> old = noise<To>(longest + 1);
  for (const Kernel kernel : ka::usable_kernels(table)) {
    for (std::size_t count = 0; count <= longest; ++count) {
      for (const std::size_t first : {std::size_t{0}, std::size_t{1}}) {  // planes are anywhere
        std::vector<To> expected(old.begin(), old.begin() + std::ptrdiff_t(count + 1)),
            actual = expected;
        run(table.base, expected.data(), first, count);
        run(kernel, actual.data(), first, count);
        ASSERT_EQ(actual, expected) << count;
        ASSERT_EQ(actual.back(), old[count]) << "behind the last of " << count;
      }
    }
  }
}

TYPED_TEST(Kernels, AgreeOnDepthAndLuminance) {
  using From = typename TypeParam::Source;
  using To = typename TypeParam::Destination;
  const std::size_t plane = 3 * kVector + 2;
  const std::vector<From> from = noise<From>(3 * plane);
  if constexpr (!std::is_same_v<From, To>) {
    compare<To>(ka::DepthLoop<From, To>::kernels(),
                [&](auto kernel, To* to, std::size_t first, std::size_t count) {
                  kernel(from.data() + first, to, count);
                });
  }
  for (const auto& weights : {std::array{0.299F, 0.587F, 0.114F}, std::array{0.1F, -2.0F, 9.0F}}) {
    compare<To>(ka::LuminanceLoop<From, To>::kernels(),
                [&](auto kernel, To* to, std::size_t first, std::size_t count) {
                  const From* const red = from.data() + first;
                  kernel(red, red + plane, red + 2 * plane, to, weights.data(), count);
                });
  }
}

TEST(SharedExponentKernels, Agree) {
  constexpr std::size_t kPixels = ka::FloatBlock::kPixels;
  const std::vector<std::uint8_t> codes = noise<std::uint8_t>(4 * kPixels);
  std::array<const std::uint8_t*, 4> from;
  for (std::size_t slot = 0; slot < 4; ++slot) from[slot] = codes.data() + slot * kPixels;
  const auto decoders = ka::usable_kernels(ka::decode_kernels);
  const auto encoders = ka::usable_kernels(ka::encode_kernels);
  for (std::size_t i = 0; i < decoders.size(); ++i) {
    for (std::size_t count = 0; count <= kPixels; ++count) {
      ka::FloatBlock::Samples expected{}, actual{};
      decoders[0](from, expected, count);
      decoders[i](from, actual, count);
      ASSERT_EQ(actual, expected) << count;
      std::vector<std::uint8_t> plain(4 * kPixels), coded(4 * kPixels);
      const auto planes = [](std::vector<std::uint8_t>& bytes) {
        std::array<std::uint8_t*, 4> to;
        for (std::size_t slot = 0; slot < 4; ++slot) to[slot] = bytes.data() + slot * kPixels;
        return to;
      };
      encoders[0](expected, planes(plain), count);
      encoders[i](actual, planes(coded), count);
      ASSERT_EQ(coded, plain) << count;
    }
  }
}

// All pairs of a mantissa and an exponent, from different codes on.
TEST(SharedExponentKernels, GiveEveryCodeItsByte) {
  constexpr std::size_t kCodes = 65536;
  std::vector<std::uint8_t> mantissas(kCodes), exponents(kCodes), expected(kCodes);
  for (std::size_t x = 0; x < kCodes; ++x) {
    const int m = mantissas[x] = std::uint8_t(x), e = exponents[x] = std::uint8_t(x >> 8);
    expected[x] = e == 0 ? 0 : std::uint8_t(std::min(std::ldexp(m + 0.5, e - 136), 1.0) * 255);
  }
  for (const auto kernel : ka::usable_kernels(ka::decode_bytes_kernels)) {
    for (std::size_t first = 0, count = 0; first + count <= kCodes; first += count++) {
      const std::uint8_t *const m = &mantissas[first], *const e = &exponents[first];
      std::vector<std::uint8_t> r(count + 1, 0x5a), g = r, b = r;
      kernel({m, e, m, e}, {r.data(), g.data(), b.data()}, count);
      ASSERT_TRUE(std::equal(r.begin(), r.end() - 1, expected.begin() + long(first))) << count;
      for (std::size_t x = 0; x < count; ++x) ASSERT_EQ(g[x], expected[e[x] * 257U]) << count;
      ASSERT_EQ(b, r);
      ASSERT_EQ(g.back(), 0x5a);
      ASSERT_EQ(b.back(), 0x5a);
    }
  }
}

}  // namespace
