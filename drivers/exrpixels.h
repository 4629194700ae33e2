// Samples of OpenEXR files, which are little-endian, and the order of bytes under ZIP compression.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace drivers {

// Each takes `count` samples from bytes without alignment.
void exr_from_half(const std::uint8_t* row, float* plane, std::size_t count);
void exr_from_half_plain(const std::uint8_t* row, float* plane,
                         std::size_t count);  // any processor
void exr_from_float(const std::uint8_t* row, float* plane, std::size_t count);
void exr_from_uint(const std::uint8_t* row, float* plane, std::size_t count);
// And back. Halves are rounded to the nearest, to even ones between two; what passes 65504 becomes
// infinity. NaNs stay NaNs.
void exr_to_half(const float* plane, std::uint8_t* row, std::size_t count);
void exr_to_float(const float* plane, std::uint8_t* row, std::size_t count);

// ZIP stores the bytes with even offsets, then those with odd ones, each byte as its distance from the
// one before, plus 128. `parts` is left as it was before the differences were taken; the two spans are
// of equal size.
void exr_merge_bytes(std::span<std::uint8_t> parts, std::uint8_t* bytes);
void exr_split_bytes(std::span<const std::uint8_t> bytes, std::uint8_t* parts);

}  // namespace drivers
