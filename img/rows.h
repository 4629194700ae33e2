// Rows of interleaved samples between a file and the planes of a line, piece by piece where a row
// is larger than the buffer.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include "linekernels.h"
#include "stream.h"

namespace ka {

// Calls `move(planes, count)` for the pieces of a row of `count` pixels until it returns false.
template <typename Sample, std::size_t Components, typename Move>
[[nodiscard]] bool move_row(std::array<Sample*, Components> planes, std::size_t count,
                            std::size_t buffer_size, Move move) {
  const std::size_t piece = buffer_size / (Components * sizeof(Sample));
  while (count > 0) {
    const std::size_t part = std::min(count, piece);
    if (!move(planes, part)) return false;
    for (Sample*& plane : planes) plane += part;
    count -= part;
  }
  return true;
}

// Reads a row of `count` pixels, whose samples follow the order of `planes`. False at the end of
// the file and when the system failed; errno says which, as FileReader::take does.
template <typename Sample, std::size_t Components>
[[nodiscard]] bool read_row(FileReader& in, const std::array<Sample*, Components>& planes,
                            std::size_t count, std::endian order = std::endian::native) {
  return move_row(planes, count, FileReader::kBufferSize,
                  [&](const auto& part, std::size_t pixels) {
                    const auto packed = in.take(pixels * Components * sizeof(Sample));
                    if (packed.empty()) return false;
                    split<Sample, Components>(packed.data(), part, pixels, order);
                    return true;
                  });
}

// Reads a table of numbers that the file stores as `Stored`, through a buffer of at least 4 KiB.
// False as read_row is.
template <typename Stored>
[[nodiscard]] bool read_numbers(FileReader& in, std::span<std::uint32_t> numbers,
                                std::endian order) {
  std::array<Stored, 1024> part;
  while (!numbers.empty()) {
    const std::size_t count = std::min(numbers.size(), part.size());
    const auto bytes = in.take(count * sizeof(Stored));
    if (bytes.empty()) return false;
    split<Stored, 1>(bytes.data(), {part.data()}, count, order);
    std::copy_n(part.begin(), count, numbers.begin());
    numbers = numbers.subspan(count);
  }
  return true;
}

// Writes a row of `count` pixels. False when the system failed, see out.error().
template <typename Sample, std::size_t Components>
[[nodiscard]] bool write_row(FileWriter& out, const std::array<Sample*, Components>& planes,
                             std::size_t count, std::endian order = std::endian::native) {
  return move_row(planes, count, FileWriter::kBufferSize,
                  [&](const auto& part, std::size_t pixels) {
                    pack<Sample, Components>(out.put(pixels * Components * sizeof(Sample)).data(),
                                             part, pixels, order);
                    return out.error() == 0;
                  });
}

// Writes a table of numbers of 32 bits. A failure of the system is out.error().
inline void write_numbers(FileWriter& out, std::span<const std::uint32_t> numbers,
                          std::endian order) {
  (void)write_row<const std::uint32_t, 1>(out, {numbers.data()}, numbers.size(), order);
}

}  // namespace ka
