// Run-length packets that format families share. Both ends are bounded: a decoder reads no byte
// past its input and writes no sample past the line, and tells a line that is not exactly filled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "bytes.h"
#include "linekernels.h"

namespace ka {

// Rows of 8- or 16-bit samples in packets: a control sample whose low 7 bits count n samples, which
// follow as they are where bit 7 is set, or as one sample to be repeated. A count of 0 ends the
// row; it may be missing behind a complete row. 16-bit samples and controls are big-endian.

// Decodes a row into `line`. False when the packets give more or fewer samples than the line has.
template <typename Sample>
[[nodiscard]] bool expand_counted(std::span<const std::uint8_t> packets, std::span<Sample> line);

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

}  // namespace ka
