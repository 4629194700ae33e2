// Run-length packets that format families share. Both ends are bounded: a decoder reads no byte
// past its input and writes no sample past the row, and tells a row that is not exactly filled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "bytes.h"
#include "linekernels.h"

namespace ka {

// How the packets of a row ended.
enum class RowEnd {
  kWhole,    // with the row's last sample
  kShort,    // the input ended before
  kCorrupt,  // a packet reaches past the row's end, or the packets say that the row ends before it
};

// Counted packets: rows of 8- or 16-bit samples. The low 7 bits of a control sample count n
// samples, which follow as they are where bit 7 is set, or as one sample to be repeated. A count of
// 0 ends the row; it may be missing behind a complete row. 16-bit samples and controls are
// big-endian.

// Decodes a row into `line`.
template <typename Sample>
[[nodiscard]] RowEnd expand_counted(std::span<const std::uint8_t> packets, std::span<Sample> line);

// Bytes that the packets of `count` samples can take at most.
[[nodiscard]] constexpr std::size_t counted_bound(std::size_t count, std::size_t sample_bytes) {
  return (2 * count + 1) * sample_bytes;
}

// Encodes a line: stretches up to the next three equal samples as they are, then the samples equal
// to the first of these as a run. Before: `packets` has room for counted_bound. Returns the bytes
// used, the closing 0 included.
template <typename Sample>
[[nodiscard]] std::size_t compact_counted(std::span<const Sample> line,
                                          std::span<std::uint8_t> packets);

// Pixel packets: rows of pixels of 1 to 4 bytes. A control byte c below 128 is followed by c + 1
// pixels as they are, any other by one pixel that is repeated c - 127 times. The row ends with its
// last pixel.

struct PixelRow {
  RowEnd end;
  std::size_t used;  // bytes of the packets, of a whole row
};

// Decodes a row of row.size() / pixel_bytes pixels, left as they are in the packets.
[[nodiscard]] PixelRow expand_pixels(std::span<const std::uint8_t> packets,
                                     std::span<std::uint8_t> row, std::size_t pixel_bytes);

// Bytes that the packets of `count` pixels can take at most.
[[nodiscard]] constexpr std::size_t pixels_bound(std::size_t count, std::size_t pixel_bytes) {
  return count * (1 + pixel_bytes);
}

// Run packets: rows of bytes. A control byte c above 128 is followed by one byte that is repeated
// c - 128 times, any other by c bytes as they are, which may be none. The row ends with its last
// byte.

// Decodes a row.
[[nodiscard]] PixelRow expand_runs(std::span<const std::uint8_t> packets,
                                   std::span<std::uint8_t> row);

// Bytes that the packets of `count` bytes can take at most, when none is empty.
[[nodiscard]] constexpr std::size_t runs_bound(std::size_t count) { return 2 * count; }

// Encodes a row: each byte that equals its successor begins a run, what stands between runs is left
// as it is. Before: `packets` has room for runs_bound. Returns the bytes used.
[[nodiscard]] std::size_t compact_runs(std::span<const std::uint8_t> row,
                                       std::span<std::uint8_t> packets);

}  // namespace ka
