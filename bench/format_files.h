// Files of image formats that are measured: what their pixels are, and the reading of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "pictures.h"

namespace bench {

using Bytes = std::vector<std::uint8_t>;

// What the rows of a picture look like to a run-length encoder: noise, or stretches of 1 to 16
// equal samples.
enum class Content { kNoise, kShortRuns };

// The planes of a picture, in lines of kWidth samples.
using Planes = std::array<Bytes, 4>;
const Planes& planes_of(Content content);
std::span<const std::uint8_t> row_of(const Planes& planes, std::size_t channel, std::size_t y);

// Pixels of `depth` bytes, one after the other.
Bytes interleaved(Content content, std::size_t depth);

void append(Bytes& bytes, std::span<const std::uint8_t> more);
void append_text(Bytes& bytes, std::string_view text);

// Big-endian numbers, over others and after them.
void put_be16(Bytes& bytes, std::size_t at, std::size_t value);
void put_be32(Bytes& bytes, std::size_t at, std::size_t value);
void append_be16(Bytes& bytes, std::size_t value);
void append_be32(Bytes& bytes, std::size_t value);

// Runs of equal elements and stretches of others, up to 127 elements each: put(first, count,
// is_run).
template <typename Equal, typename Put>
void for_packets(std::size_t count, Equal equal, Put put) {
  constexpr std::size_t longest = 127;
  for (std::size_t i = 0, end; i < count; i = end) {
    const bool is_run = i + 1 < count && equal(i, i + 1);
    end = i + 1;
    while (end < count && end - i < longest && equal(end - 1, end) == is_run) ++end;
    if (!is_run && end < count && end - i > 1 && equal(end - 1, end)) --end;
    put(i, end - i, is_run);
  }
}

// Appends packets of a count and a pixel, in which one plane represents all three.
void append_runs(Bytes& bytes, Content content);

struct Picture {
  const char* name;
  std::size_t pixel_bytes;  // of the image that it is read into
  Bytes (*make)();          // the file
  std::size_t pixels = kPixels;
};

// Registers the reading of each, from the page cache into an image that is kept, in the file's own
// pixel type.
void add_readings(std::span<const Picture> pictures);

}  // namespace bench
