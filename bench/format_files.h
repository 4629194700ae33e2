// Files of image formats that are measured: what their pixels are, and the reading of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace bench {

using Bytes = std::vector<std::uint8_t>;

// What the rows of a picture look like to a run-length encoder: noise, or stretches of 1 to 16
// equal samples.
enum class Content { kNoise, kShortRuns };

// The planes of a picture, in lines of kWidth samples.
using Planes = std::array<Bytes, 4>;
const Planes& planes_of(Content content);
std::span<const std::uint8_t> row_of(const Planes& planes, std::size_t channel, std::size_t y);

// Pixels of `depth` bytes, one behind the other.
Bytes interleaved(Content content, std::size_t depth);

void append(Bytes& bytes, std::span<const std::uint8_t> more);

struct Picture {
  const char* name;
  std::size_t pixel_bytes;  // of the image that it is read into
  Bytes (*make)();          // the file
};

// Registers the reading of each, from the page cache into an image that is kept, in the file's own
// pixel type.
void add_readings(std::span<const Picture> pictures);

}  // namespace bench
