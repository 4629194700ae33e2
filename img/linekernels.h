// Planes of a line from interleaved samples of a row, and back: flat loops over whole rows.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace ka {

// Three 8-bit planes of `count` samples from 3 * count interleaved ones, and back. Planes and
// packed samples do not overlap.
void split_3x8(const std::uint8_t* packed, std::uint8_t* first, std::uint8_t* second,
               std::uint8_t* third, std::size_t count);
void pack_3x8(std::uint8_t* packed, const std::uint8_t* first, const std::uint8_t* second,
              const std::uint8_t* third, std::size_t count);

// Drops the first `count` samples of a plane.
template <typename Sample>
void drop_front(std::span<Sample>& plane, std::size_t count) {
  plane = plane.subspan(count);
}

}  // namespace ka
