// Loops for several instruction sets, each against a plain one: conversions, colors of indexes, planes
// and interleaved samples. For every length up to three of the widest vectors and one more.
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

template <typename Sample>
std::vector<Sample> noise(std::size_t count, unsigned seed = 17) {
  std::mt19937 random(seed);
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
        const Bytes samples = noise<std::uint8_t>(count * size, unsigned(c));
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

// Runs every kernel of a table for every length, `run`(kernel, samples, first sample, count).
template <typename To, typename Kernel, typename Run>
void compare(const ka::KernelTable<Kernel>& table, Run run) {
  const std::vector<To> old = noise<To>(kLongest + 1);
  for (const Kernel kernel : ka::usable_kernels(table)) {
    for (std::size_t count = 0; count <= kLongest; ++count) {
      for (const std::size_t first : {std::size_t{0}, std::size_t{1}}) {  // planes are anywhere
        std::vector<To> expected(old.begin(), old.begin() + std::ptrdiff_t(count + 1)),
            actual = expected;
        run(table.base, expected.data(), first, count);
        run(kernel, actual.data(), first, count);
        ASSERT_EQ(actual, expected) << count;
        ASSERT_EQ(actual.back(), old[count]) << "after the last of " << count;
      }
    }
  }
}

template <typename From, typename To>
void compare_pair() {
  const std::size_t plane = kLongest + 1;
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

template <typename From>
void compare_from() {
  compare_pair<From, std::uint8_t>();
  compare_pair<From, std::uint16_t>();
  compare_pair<From, float>();
}

TEST(ConversionKernels, AgreeOnDepthAndLuminance) {
  compare_from<std::uint8_t>();
  compare_from<std::uint16_t>();
  compare_from<float>();
}

TEST(SharedExponentKernels, Agree) {
  constexpr std::size_t kPixels = ka::FloatBlock::kPixels;
  std::vector<Bytes> codes;
  for (unsigned slot = 0; slot < 4; ++slot) codes.push_back(noise<std::uint8_t>(kPixels, slot));
  const auto decoders = ka::usable_kernels(ka::decode_kernels);
  const auto encoders = ka::usable_kernels(ka::encode_kernels);
  const auto planes = [](std::vector<Bytes>& bytes) {
    return std::array{bytes[0].data(), bytes[1].data(), bytes[2].data(), bytes[3].data()};
  };
  for (std::size_t i = 0; i < decoders.size(); ++i) {
    for (std::size_t count = 0; count <= kPixels; ++count) {
      ka::FloatBlock::Samples expected{}, actual{};
      const std::array<const std::uint8_t*, 4> from = {codes[0].data(), codes[1].data(),
                                                       codes[2].data(), codes[3].data()};
      decoders[0](from, expected, count);
      decoders[i](from, actual, count);
      ASSERT_EQ(actual, expected) << count;
      std::vector<Bytes> plain(4, Bytes(kPixels)), coded = plain;
      encoders[0](expected, planes(plain), count);
      encoders[i](actual, planes(coded), count);
      ASSERT_EQ(coded, plain) << count;
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
    const Bytes row = noise<std::uint8_t>(count, unsigned(count));
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

// Indexes of all sizes, the first of a byte in its highest bits.
TEST(Palette, LooksUpIndexesOfAllSizes) {
  for (const std::size_t bits : {1UL, 4UL, 8UL}) {
    ka::Palette palette;
    for (std::size_t i = 0; i < std::size_t{1} << bits; ++i) {
      const auto level = std::uint8_t(i);
      palette.set(i, {level, std::uint8_t(level ^ 0x55), std::uint8_t(~level), 7});
    }
    for (const unsigned count : {1U, 2U, 7U, 8U, 9U, 257U, 1023U, 1024U, 1025U, 3000U}) {
      const Bytes row = noise<std::uint8_t>((count * bits + 7) / 8);
      Bytes r(count + 1, kGuard), g = r, b = r, a = r;
      ASSERT_TRUE(palette.look_up(row.data(), bits, count,
                                  {r.data(), g.data(), b.data(), count % 2 ? a.data() : nullptr}));
      for (std::size_t i = 0; i < count; ++i) {
        const int level = row[i * bits / 8] >> (8 - bits - i * bits % 8) & ((1 << bits) - 1);
        ASSERT_EQ(r[i], level) << bits << " bits, " << i << " of " << count;
        ASSERT_EQ(g[i], level ^ 0x55);
        ASSERT_EQ(b[i], std::uint8_t(~level));
        ASSERT_EQ(a[i], count % 2 ? 7 : kGuard);
      }
      for (const Bytes* const plane : {&r, &g, &b, &a}) EXPECT_EQ(plane->back(), kGuard);
    }
  }
}

}  // namespace
