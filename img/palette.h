// Pixels that are indexes of 1, 4 or 8 bits, into a table of colors or as grey levels.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "palettekernels.h"

namespace ka {

// Gives each index a separate byte. Several indexes share a byte from its highest bits down, and
// `indexes` has room for all that are in the bytes of `count`.
void unpack_indexes(const std::uint8_t* packed, std::size_t index_bits, std::size_t count,
                    std::uint8_t* indexes);

// Calls `use(indexes, at, part)` for pieces of a row of `count` packed indexes: `part` of them from
// number `at` on, each a byte, until it returns false.
template <typename Use>
[[nodiscard]] bool for_indexes(const std::uint8_t* packed, std::size_t index_bits,
                               std::size_t count, Use use) {
  constexpr std::size_t piece = 1024;  // a multiple of 8, and small: it stays in the nearest cache
  std::array<std::uint8_t, piece> unpacked;
  for (std::size_t at = 0; at < count; at += piece) {
    const std::size_t part = std::min(count - at, piece);
    const std::uint8_t* indexes = packed + at * index_bits / 8;
    if (index_bits != 8) {
      unpack_indexes(indexes, index_bits, part, unpacked.data());
      indexes = unpacked.data();
    }
    if (!use(indexes, at, part)) return false;
  }
  return true;
}

// The colors of indexes. Others than those that were set are no colors.
class Palette {
 public:
  // Before: the index is the first, or the one after that of the last call. Indexes that pass a
  // byte are left out.
  void set(std::size_t index, Color color);

  // Looks up the colors of a row of packed indexes; a null plane of alpha is left out. False for
  // an index without a color: what has been stored before it stays.
  [[nodiscard]] bool look_up(const std::uint8_t* packed, std::size_t index_bits, std::size_t count,
                             const std::array<std::uint8_t*, 4>& planes) const;

 private:
  [[nodiscard]] bool has_all(const std::uint8_t* indexes, std::size_t count) const;

  ColorTable table_;
  std::size_t first_ = 0, end_ = 0;  // indexes with a color
};

}  // namespace ka
