// Deterministic contents of the pictures that are measured with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace bench {

inline constexpr int kWidth = 3840;
inline constexpr int kHeight = 2160;
inline constexpr std::size_t kPixels = std::size_t{kWidth} * kHeight;
inline constexpr std::size_t kAltered = 300;  // places of an altered picture

inline void fill_noise(std::span<std::uint8_t> samples) {
  std::uint32_t state = 1;
  for (std::uint8_t& sample : samples) {
    state = state * 1664525 + 1013904223;
    sample = static_cast<std::uint8_t>(state >> 24);
  }
}

// Changes kAltered samples, spread evenly, by 128.
inline void alter_some(std::span<std::uint8_t> samples) {
  for (std::size_t i = 0; i < kAltered; ++i) samples[i * (samples.size() / kAltered)] ^= 0x80;
}

// Changes every sample by 43 to 85.
inline void alter_all(std::span<std::uint8_t> samples) {
  for (std::uint8_t& sample : samples) sample ^= 0x55;
}

}  // namespace bench
