// Run-length packets that format families share. Both ends are bounded: a decoder reads no byte
// past its input, writes none past the row, and reports a row that is not exactly filled.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <ka/detail/targets.h>

namespace ka {

// How the packets of a row ended.
enum class RowEnd {
  kWhole,    // with the row's last sample
  kShort,    // the input ended before
  kCorrupt,  // a packet reaches past the row's end, or the packets say that the row ends before it
};

// What a decoder made of a row.
struct Expanded {
  RowEnd end;
  std::size_t used;    // bytes of the packets, of whole packets only
  std::size_t filled;  // bytes of the row
};

// Counted packets: rows of 8- or 16-bit samples. The low 7 bits of a control sample count n
// samples, which follow as they are where bit 7 is set, or as one sample to be repeated. A count of
// 0 ends the row; it may be missing after a complete row. 16-bit samples and controls are
// big-endian.

// Decodes a row into `line`.
template <typename Sample>
[[nodiscard]] Expanded expand_counted(std::span<const std::uint8_t> packets,
                                      std::span<Sample> line);

// Bytes that the packets of `count` samples can take at most.
[[nodiscard]] constexpr std::size_t counted_bound(std::size_t count, std::size_t sample_bytes) {
  return (2 * count + 1) * sample_bytes;
}

// Encodes a line: stretches up to the next three equal samples as literals, then the samples
// equal to the first of these as a run. Before: `packets` has room for counted_bound. Returns the bytes
// used, the closing 0 included.
template <typename Sample>
[[nodiscard]] std::size_t compact_counted(std::span<const Sample> line,
                                          std::span<std::uint8_t> packets);

// Pixel packets: rows of pixels of 1 to 4 bytes. A control byte c below 128 is followed by c + 1
// literal pixels, any other by one pixel that is repeated c - 127 times. The row ends with its
// last pixel.

// Decodes a row of row.size() / pixel_bytes pixels, left as they are in the packets.
[[nodiscard]] Expanded expand_pixels(std::span<const std::uint8_t> packets,
                                     std::span<std::uint8_t> row, std::size_t pixel_bytes);

// Bytes that the packets of `count` pixels can take at most.
[[nodiscard]] constexpr std::size_t pixels_bound(std::size_t count, std::size_t pixel_bytes) {
  return count * (1 + pixel_bytes);
}

// The encoders of pixel, signed and mixed packets put three and more equal pixels into a packet of
// their own, as many as it can count; the rest is stored as literals.
// Bytes that their packets of `count` pixels can take at most: one more for each 127 pixels.
[[nodiscard]] constexpr std::size_t compact_bound(std::size_t count, std::size_t pixel_bytes) {
  return count * pixel_bytes + count / 127 + 1;
}

// Encodes a row of bytes. Before: `packets` has room for compact_bound. Returns the bytes used.
[[nodiscard]] std::size_t compact_bytes(std::span<const std::uint8_t> row,
                                        std::span<std::uint8_t> packets);

// Signed packets: rows of bytes. A control byte c from 0 to 127 is followed by one byte that is
// repeated c + 1 times, any other by 256 - c literal bytes.

// Decodes a row, which is whole when the last packet ends with it.
[[nodiscard]] Expanded expand_signed(std::span<const std::uint8_t> packets,
                                     std::span<std::uint8_t> row);
// Encodes a row, up to 127 bytes in a packet. Before, Returns: as compact_bytes.
[[nodiscard]] std::size_t compact_signed(std::span<const std::uint8_t> row,
                                         std::span<std::uint8_t> packets);

// Mixed packets: as pixel packets, but after a control byte of 128 the count is in two bytes,
// big-endian; 0 there is corrupt. Pixels of 1 to 4 bytes.
[[nodiscard]] Expanded expand_mixed(std::span<const std::uint8_t> packets,
                                    std::span<std::uint8_t> row, std::size_t pixel_bytes);
// Encodes a row. Before, Returns: as compact_bytes.
[[nodiscard]] std::size_t compact_mixed(std::span<const std::uint8_t> row,
                                        std::span<std::uint8_t> packets, std::size_t pixel_bytes);

// Repeats: each packet is a count from 1 to 255 and one pixel of 1 to 4 bytes; 0 is corrupt.
[[nodiscard]] Expanded expand_repeats(std::span<const std::uint8_t> packets,
                                      std::span<std::uint8_t> row, std::size_t pixel_bytes);

// PackBits: rows of bytes. A control byte c below 128 is followed by c + 1 literal bytes, one
// above 128 by a byte that is repeated 257 - c times; 128 means nothing. The row ends with its last
// byte.

constexpr std::size_t kLongestPackBits = 129;  // bytes of a packet

// Decodes packets into a row. After kShort the packets from `used` on go on with it from `filled`.
[[nodiscard]] Expanded expand_packbits(std::span<const std::uint8_t> packets,
                                       std::span<std::uint8_t> row);

// Finds where the packets of `count` bytes end.
[[nodiscard]] Expanded skip_packbits(std::span<const std::uint8_t> packets, std::uint64_t count);

// Bytes that the packets of `count` bytes can take at most: only the first literal of a row and one
// after 127 or 128 others take more than their bytes.
[[nodiscard]] constexpr std::size_t packbits_bound(std::size_t count) {
  return count + count / 128 + 3;
}

// Encodes a row: runs of two and more bytes as such, except that a run of two between literals
// joins them. Before: `packets` has room for packbits_bound. Returns the bytes used.
[[nodiscard]] std::size_t compact_packbits(std::span<const std::uint8_t> row,
                                           std::span<std::uint8_t> packets);

// Run packets: rows of pixels of three samples. A packet has four bytes: how often its pixel comes,
// and the pixel. The row ends with its last pixel.
constexpr std::size_t kRunBytes = 4;
using RunPlanes = std::array<std::uint8_t*, 3>;

// Decodes a row of `count` pixels into planes, which are given in the order of a packet's samples;
// `filled` is in pixels. Stops at a packet that it cannot decode: a packet of no pixels is corrupt.
[[nodiscard]] Expanded expand_runs(std::span<const std::uint8_t> packets, const RunPlanes& planes,
                                   std::size_t count);

// The same for each instruction set.
using RunKernel = void (*)(std::span<const std::uint8_t> packets, const RunPlanes& planes,
                           std::size_t count, Expanded& row);
[[nodiscard]] const KernelTable<RunKernel>& run_kernels();

// Pairs: rows of bytes. A pair has two bytes: how often its sample comes, which may be 0 times, and
// the sample. The pairs end with the row.

// Decodes a row.
[[nodiscard]] Expanded expand_pairs(std::span<const std::uint8_t> pairs,
                                    std::span<std::uint8_t> row);

// Scanline packets: rows of bytes. A control byte c above 128 is followed by one byte that is
// repeated c - 128 times, any other by c literal bytes, which may be none. The row ends with
// its last byte.

// Decodes a row.
[[nodiscard]] Expanded expand_scanline(std::span<const std::uint8_t> packets,
                                       std::span<std::uint8_t> row);

// Bytes that the packets of `count` bytes can take at most, when none is empty.
[[nodiscard]] constexpr std::size_t scanline_bound(std::size_t count) { return 2 * count; }

// Encodes a row: each byte that equals its successor begins a run, what stands between runs is left
// as it is. Before: `packets` has room for scanline_bound. Returns the bytes used.
[[nodiscard]] std::size_t compact_scanline(std::span<const std::uint8_t> row,
                                           std::span<std::uint8_t> packets);

}  // namespace ka
