#include "palette.h"

#include <cstring>

namespace ka {
namespace {

// The eight bits of a byte, the highest first.
constexpr auto kBits = [] {
  std::array<std::array<std::uint8_t, 8>, 256> bits{};
  for (unsigned byte = 0; byte < bits.size(); ++byte) {
    for (unsigned i = 0; i < 8; ++i) bits[byte][i] = byte >> (7 - i) & 1;
  }
  return bits;
}();

}  // namespace

void unpack_indexes(const std::uint8_t* packed, std::size_t index_bits, std::size_t count,
                    std::uint8_t* indexes) {
  const std::size_t bytes = (index_bits * count + 7) / 8;
  if (index_bits == 1) {
    for (std::size_t i = 0; i < bytes; ++i)
      std::memcpy(indexes + 8 * i, kBits[packed[i]].data(), 8);
  } else if (index_bits == 4) {
    for (std::size_t i = 0; i < bytes; ++i) {
      indexes[2 * i] = packed[i] >> 4;
      indexes[2 * i + 1] = packed[i] & 15;
    }
  } else {
    std::memcpy(indexes, packed, count);
  }
}

void Palette::set(std::size_t index, Color color) {
  if (index >= table_.colors.size()) return;
  if (end_ == 0) first_ = index;
  end_ = index + 1;
  table_.colors[index] = color;
  table_.planes[0][index] = color.r;
  table_.planes[1][index] = color.g;
  table_.planes[2][index] = color.b;
  table_.planes[3][index] = color.a;
}

bool Palette::has_all(const std::uint8_t* indexes, std::size_t count) const {
  if (first_ == 0 && end_ == table_.colors.size()) return true;
  std::uint8_t least = 255, most = 0;
  for (std::size_t i = 0; i < count; ++i) {
    least = indexes[i] < least ? indexes[i] : least;
    most = indexes[i] > most ? indexes[i] : most;
  }
  return least >= first_ && most < end_;
}

bool Palette::look_up(const std::uint8_t* packed, std::size_t index_bits, std::size_t count,
                      const std::array<std::uint8_t*, 4>& planes) const {
  static const auto kernel = best_kernel(look_up_kernels);
  const auto store = [&](const std::uint8_t* indexes, std::size_t at, std::size_t part) {
    if (!has_all(indexes, part)) return false;
    std::array<std::uint8_t*, 4> to = planes;
    for (std::uint8_t*& plane : to) {
      if (plane) plane += at;
    }
    kernel(table_, indexes, part, to);
    return true;
  };
  return for_indexes(packed, index_bits, count, store);
}

}  // namespace ka
