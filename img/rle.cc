#include "rle.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ka {
namespace {

constexpr unsigned kLiteral = 0x80;          // bit of a control sample
constexpr unsigned kCount = 0x7f;            // its other bits
constexpr std::size_t kLongestPacket = 126;  // samples, as written

// Samples in the order of the file's bytes.
template <typename Sample>
Sample from_file(const std::uint8_t* bytes) {
  if constexpr (sizeof(Sample) == 1) {
    return *bytes;
  } else {
    return static_cast<Sample>(bytes[0] << 8 | bytes[1]);
  }
}

template <typename Sample>
std::uint8_t* to_file(std::uint8_t* bytes, Sample value) {
  if constexpr (sizeof(Sample) == 2) *bytes++ = static_cast<std::uint8_t>(value >> 8);
  *bytes++ = static_cast<std::uint8_t>(value);
  return bytes;
}

// Where the next three equal samples begin. Without any the last two samples stay behind the end of
// the stretch.
template <typename Sample>
std::size_t literal_end(std::span<const Sample> line, std::size_t from) {
  if (line.size() - from < 3) return from;
  for (std::size_t i = from; i + 2 < line.size(); ++i) {
    if (line[i] == line[i + 1] && line[i] == line[i + 2]) return i;
  }
  return line.size() - 2;
}

template <typename Sample>
std::size_t run_end(std::span<const Sample> line, std::size_t from) {
  std::size_t end = from + 1;
  while (end < line.size() && line[end] == line[from]) ++end;
  return end;
}

}  // namespace

template <typename Sample>
bool expand_counted(std::span<const std::uint8_t> packets, std::span<Sample> line) {
  constexpr std::size_t size = sizeof(Sample);
  while (packets.size() >= size) {
    const Sample control = from_file<Sample>(packets.data());
    packets = packets.subspan(size);
    const std::size_t count = control & kCount;
    if (count == 0) return line.empty();
    const bool literal = (control & kLiteral) != 0;
    const std::size_t bytes = (literal ? count : 1) * size;
    if (count > line.size() || bytes > packets.size()) return false;
    if (literal) {
      split<Sample, 1>(packets.data(), {line.data()}, count, std::endian::big);
      drop_front(line, count);
    } else {
      fill_front(line, count, from_file<Sample>(packets.data()));
    }
    packets = packets.subspan(bytes);
  }
  return line.empty();
}

template <typename Sample>
std::size_t compact_counted(std::span<const Sample> line, std::span<std::uint8_t> packets) {
  std::uint8_t* out = packets.data();
  for (std::size_t at = 0; at < line.size();) {
    for (const std::size_t end = literal_end(line, at); at < end;) {
      const std::size_t count = std::min(end - at, kLongestPacket);
      out = to_file(out, static_cast<Sample>(kLiteral + count));
      pack<const Sample, 1>(out, {line.data() + at}, count, std::endian::big);
      out += count * sizeof(Sample);
      at += count;
    }
    const Sample value = line[at];
    for (const std::size_t end = run_end(line, at); at < end;) {
      const std::size_t count = std::min(end - at, kLongestPacket);
      out = to_file(to_file(out, static_cast<Sample>(count)), value);
      at += count;
    }
  }
  return static_cast<std::size_t>(to_file(out, Sample{0}) - packets.data());
}

template bool expand_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template bool expand_counted(std::span<const std::uint8_t>, std::span<std::uint16_t>);
template std::size_t compact_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template std::size_t compact_counted(std::span<const std::uint16_t>, std::span<std::uint8_t>);

}  // namespace ka
