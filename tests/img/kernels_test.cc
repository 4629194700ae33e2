// Loops for several instruction sets, each against a plain one: planes and interleaved samples, bytes
// of shared exponents, colors of indexes.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "convertline.h"
#include "linekernels.h"
#include "palette.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kVector = 64;  // bytes of the widest vectors
constexpr std::size_t kLongest = 3 * kVector + 1;
constexpr std::uint8_t kGuard = 0x5a;

Bytes noise(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  Bytes samples(count);
  for (std::uint8_t& sample : samples) sample = std::uint8_t(random());
  return samples;
}

template <typename Sample>
std::vector<Sample*> addresses(std::vector<Bytes>& planes) {
  std::vector<Sample*> result;
  for (Bytes& plane : planes) result.push_back(plane.data());
  return result;
}

// Planes are aligned, packed rows are not; a guard is after each of them.
TEST(LineKernels, SplitAndPackAsAPlainLoop) {
  for (std::size_t i = 0; i < 4 * 3 * 2; ++i) {
    const std::size_t components = 1 + i % 4, size = std::size_t{1} << i / 4 % 3;
    const bool swap = i >= 12;
    const auto splits = ka::split_kernels(components, size, swap);
    const auto packs = ka::pack_kernels(components, size, swap);
    for (std::size_t count = 0; count <= kLongest; ++count) {
      SCOPED_TRACE(testing::Message() << count << " of kind " << i);
      const std::vector<Bytes> blank(components, Bytes(count * size + 1, kGuard));
      std::vector<Bytes> planes = blank;
      Bytes packed(count * size * components + 2, kGuard);
      for (std::size_t c = 0; c < components; ++c) {
        const Bytes samples = noise(count * size, unsigned(c));
        std::ranges::copy(samples, planes[c].begin());
        for (std::size_t b = 0; b < samples.size(); ++b) {
          const std::size_t byte = swap ? size - 1 - b % size : b % size;
          packed[1 + (b / size * components + c) * size + byte] = samples[b];
        }
      }
      for (const auto kernel : ka::usable_kernels(splits)) {
        std::vector<Bytes> found = blank;
        kernel(packed.data() + 1, addresses<void>(found).data(), count);
        ASSERT_EQ(found, planes);
      }
      for (const auto kernel : ka::usable_kernels(packs)) {
        Bytes found(packed.size(), kGuard);
        kernel(found.data() + 1, addresses<const void>(planes).data(), count);
        ASSERT_EQ(found, packed);
      }
    }
  }
}

// All pairs of a mantissa and an exponent, from different codes on.
TEST(SharedExponentKernels, GiveEveryCodeItsByte) {
  constexpr std::size_t kCodes = 65536;
  Bytes mantissas(kCodes), exponents(kCodes), expected(kCodes);
  for (std::size_t x = 0; x < kCodes; ++x) {
    const int m = mantissas[x] = std::uint8_t(x), e = exponents[x] = std::uint8_t(x >> 8);
    expected[x] = e == 0 ? 0 : std::uint8_t(std::min(std::ldexp(m + 0.5, e - 136), 1.0) * 255);
  }
  for (const auto kernel : ka::usable_kernels(ka::decode_bytes_kernels)) {
    for (std::size_t first = 0, count = 0; first + count <= kCodes; first += count++) {
      const std::uint8_t *const m = &mantissas[first], *const e = &exponents[first];
      Bytes r(count + 1, kGuard), g = r, b = r;
      kernel({m, e, m, e}, {r.data(), g.data(), b.data()}, count);
      ASSERT_TRUE(std::equal(r.begin(), r.end() - 1, expected.begin() + long(first))) << count;
      for (std::size_t x = 0; x < count; ++x) ASSERT_EQ(g[x], expected[e[x] * 257U]) << count;
      ASSERT_EQ(b, r);
      ASSERT_EQ(g.back(), kGuard);
      ASSERT_EQ(b.back(), kGuard);
    }
  }
}

// Every loop, for lengths up to eight vectors, which is two pieces of the plain one, and some.
TEST(PaletteKernels, LookUpEveryIndex) {
  ka::ColorTable table;
  for (std::size_t i = 0; i < 256; ++i) {
    table.colors[i] = {std::uint8_t(i * 7), std::uint8_t(~(i * 7)), std::uint8_t(i), 9};
    for (std::size_t c = 0; c < 4; ++c) {
      table.planes[c][i] = reinterpret_cast<const std::uint8_t*>(&table.colors[i])[c];
    }
  }
  for (std::size_t count = 0; count <= 520; ++count) {
    const Bytes row = noise(count, unsigned(count));
    Bytes expected(count + 1, kGuard), nines(count + 1, 9);
    for (std::size_t i = 0; i < count; ++i) expected[i] = std::uint8_t(~(row[i] * 7));
    nines.back() = kGuard;
    for (const auto kernel : ka::usable_kernels(ka::look_up_kernels)) {
      Bytes g(count + 1, kGuard), a = g;
      kernel(table, row.data(), count, {nullptr, g.data(), nullptr, a.data()});
      ASSERT_EQ(g, expected);
      ASSERT_EQ(a, nines);
    }
  }
}

}  // namespace
