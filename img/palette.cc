#include "palette.h"

#include <cstring>

#include "linekernels.h"

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

constexpr std::size_t kPiece =
    256;  // pixels whose colours are looked up before they are distributed

// Eight colours at a time: what a loop costs is as much as a look-up.
void fetch(const std::array<Color, 256>& table, const std::uint8_t* indexes, std::size_t count,
           std::array<Color, kPiece>& colors) {
  constexpr std::size_t together = 8;
  std::size_t i = 0;
  for (; i + together <= count; i += together) {
    for (std::size_t k = 0; k < together; ++k) colors[i + k] = table[indexes[i + k]];
  }
  for (; i < count; ++i) colors[i] = table[indexes[i]];
}

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
  if (index >= colors_.size()) return;
  if (end_ == 0) first_ = index;
  end_ = index + 1;
  colors_[index] = color;
}

bool Palette::has_all(const std::uint8_t* indexes, std::size_t count) const {
  if (first_ == 0 && end_ == colors_.size()) return true;
  std::uint8_t least = 255, most = 0;
  for (std::size_t i = 0; i < count; ++i) {
    least = indexes[i] < least ? indexes[i] : least;
    most = indexes[i] > most ? indexes[i] : most;
  }
  return least >= first_ && most < end_;
}

// Whole colours are looked up and then distributed: a load and a store for each pixel instead of
// four.
bool Palette::look_up(const std::uint8_t* packed, std::size_t index_bits, std::size_t count,
                      const std::array<std::uint8_t*, 4>& planes) const {
  std::array<Color, kPiece> colors;
  std::array<std::uint8_t, kPiece> unwanted;
  const auto store = [&](const std::uint8_t* indexes, std::size_t at, std::size_t part) {
    if (!has_all(indexes, part)) return false;
    for (std::size_t done = 0; done < part; done += kPiece) {
      const std::size_t pixels = std::min(part - done, kPiece);
      fetch(colors_, indexes + done, pixels, colors);
      std::array<std::uint8_t*, 4> to;
      for (std::size_t c = 0; c < to.size(); ++c) {
        to[c] = planes[c] ? planes[c] + at + done : unwanted.data();
      }
      split<std::uint8_t, 4>(reinterpret_cast<const std::uint8_t*>(colors.data()), to, pixels);
    }
    return true;
  };
  return for_indexes(packed, index_bits, count, store);
}

}  // namespace ka
