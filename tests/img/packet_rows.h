// Rows for the tests of run-length packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes repeated(std::size_t count, std::uint8_t value) { return Bytes(count, value); }

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Samples of which no three are equal.
inline Bytes different(std::size_t count) {
  Bytes samples(count);
  for (std::size_t i = 0; i < count; ++i) samples[i] = std::uint8_t(i / 2);
  return samples;
}

// Stretches of equal samples up to twice the longest packet, and of others.
template <typename Sample>
std::vector<Sample> random_line(std::mt19937& random) {
  std::vector<Sample> line;
  for (std::size_t stretches = random() % 12; stretches > 0; --stretches) {
    const std::size_t length = random() % (random() % 4 == 0 ? 260 : 12);
    const bool is_run = random() % 2 == 0;
    const auto value = Sample(random());
    for (std::size_t i = 0; i < length; ++i) line.push_back(is_run ? value : Sample(random()));
  }
  return line;
}

}  // namespace test
