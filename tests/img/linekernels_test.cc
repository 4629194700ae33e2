// Planes and interleaved samples: every kernel on every instruction set against a plain loop.
#include "linekernels.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kVector = 64;  // bytes of the widest vectors
constexpr std::size_t kLongest = 3 * kVector + 1;
constexpr std::uint8_t kGuard = 0xa5;

struct Kind {
  std::size_t components, sample_bytes;
  bool swap;
};

Bytes noise(std::size_t count) {
  std::mt19937 random(3);
  Bytes bytes(count);
  for (std::uint8_t& byte : bytes) byte = std::uint8_t(random());
  return bytes;
}

// Where byte `b` of sample `i` of a plane is in the packed row.
std::size_t packed_at(const Kind& kind, std::size_t component, std::size_t i, std::size_t b) {
  const std::size_t byte = kind.swap ? kind.sample_bytes - 1 - b : b;
  return (i * kind.components + component) * kind.sample_bytes + byte;
}

// A plane of `count` samples, aligned as planes are, with a guard after it.
struct Plane {
  explicit Plane(std::size_t bytes) : words(bytes / 4 + 2), size(bytes) { data()[bytes] = kGuard; }
  std::uint8_t* data() { return reinterpret_cast<std::uint8_t*>(words.data()); }

  std::vector<std::uint32_t> words;
  std::size_t size;
};

std::vector<Plane> planes_of(const Kind& kind, std::size_t count) {
  return std::vector<Plane>(kind.components, Plane(count * kind.sample_bytes));
}

// At an odd address, with a guard after the row.
void expect_split(const Kind& kind, ka::SplitKernel kernel, std::size_t count) {
  const Bytes packed = noise(1 + count * kind.components * kind.sample_bytes);
  std::vector<Plane> planes = planes_of(kind, count);
  std::vector<void*> addresses;
  for (Plane& plane : planes) addresses.push_back(plane.data());
  kernel(packed.data() + 1, addresses.data(), count);
  for (std::size_t c = 0; c < kind.components; ++c) {
    for (std::size_t i = 0; i < count * kind.sample_bytes; ++i) {
      const std::size_t from = packed_at(kind, c, i / kind.sample_bytes, i % kind.sample_bytes);
      ASSERT_EQ(planes[c].data()[i], packed[1 + from]) << count << " " << i;
    }
    ASSERT_EQ(planes[c].data()[planes[c].size], kGuard) << count;
  }
}

void expect_pack(const Kind& kind, ka::PackKernel kernel, std::size_t count) {
  std::vector<Plane> planes = planes_of(kind, count);
  std::vector<const void*> addresses;
  Bytes expected(count * kind.components * kind.sample_bytes + 2, kGuard);
  for (std::size_t c = 0; c < kind.components; ++c) {
    const Bytes samples = noise((c + 1) * planes[c].size);
    std::copy(samples.end() - long(planes[c].size), samples.end(), planes[c].data());
    addresses.push_back(planes[c].data());
    for (std::size_t i = 0; i < planes[c].size; ++i) {
      expected[1 + packed_at(kind, c, i / kind.sample_bytes, i % kind.sample_bytes)] =
          planes[c].data()[i];
    }
  }
  Bytes packed(expected.size(), kGuard);
  kernel(packed.data() + 1, addresses.data(), count);
  ASSERT_EQ(packed, expected) << count;
}

TEST(LineKernels, SplitAndPackAsAPlainLoop) {
  for (std::size_t i = 0; i < 4 * 3 * 2; ++i) {
    const Kind kind = {1 + i % 4, std::size_t{1} << i / 4 % 3, i >= 12};
    SCOPED_TRACE(i);
    const auto splits = ka::split_kernels(kind.components, kind.sample_bytes, kind.swap);
    const auto packs = ka::pack_kernels(kind.components, kind.sample_bytes, kind.swap);
    for (std::size_t count = 0; count <= kLongest; ++count) {
      for (const auto kernel : ka::usable_kernels(splits)) expect_split(kind, kernel, count);
      for (const auto kernel : ka::usable_kernels(packs)) expect_pack(kind, kernel, count);
    }
  }
}

}  // namespace
