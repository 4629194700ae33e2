// Encoders of run-length packets.
#include "rle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace ka {
namespace {

constexpr unsigned kLiteral = 0x80;          // bit of a control sample of counted packets
constexpr std::size_t kLongestPacket = 126;  // samples of these
constexpr std::size_t kShortestRun = 3;      // pixels, of the packets below

// How the packets of a form are written: pixels of kSampleBytes, and the most that a packet holds.
template <std::size_t PixelBytes>
struct PacketsOf {
  static constexpr std::size_t kSampleBytes = PixelBytes;
  static constexpr std::size_t kLongestLiteral = 128;
  static constexpr std::size_t kLongestRun = 128;
};

struct BytePackets : PacketsOf<1> {
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = std::uint8_t(literal ? count - 1 : count + 127);
    return out;
  }
};

struct SignedPackets : PacketsOf<1> {
  static constexpr std::size_t kLongestLiteral = 127;
  static constexpr std::size_t kLongestRun = 127;
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = std::uint8_t(literal ? 256 - count : count - 1);
    return out;
  }
};

template <std::size_t PixelBytes>
struct MixedPackets : PacketsOf<PixelBytes> {
  static constexpr std::size_t kLongestRun = 65535;
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    if (literal || count <= 128) return BytePackets::put(out, count, literal);
    *out++ = 128;
    *out++ = std::uint8_t(count >> 8);
    *out++ = std::uint8_t(count);
    return out;
  }
};

template <std::size_t PixelBytes>
bool are_equal(const std::uint8_t* a, const std::uint8_t* b) {
  return std::memcmp(a, b, PixelBytes) == 0;
}

// Encodes a row of whole pixels: stretches of at least three equal pixels as runs, what stands
// between them as it is. The rest of a run that a packet does not hold is examined again.
template <typename Packets>
std::size_t compact(std::span<const std::uint8_t> row, std::span<std::uint8_t> bytes) {
  constexpr std::size_t size = Packets::kSampleBytes;
  const std::uint8_t* const pixels = row.data();
  const std::size_t count = row.size() / size;
  const auto run_at = [&](std::size_t from) {  // pixels, as far as a packet can count them
    const std::size_t most = std::min(count - from, Packets::kLongestRun);
    std::size_t run = 1;
    while (run < most && are_equal<size>(pixels + (from + run) * size, pixels + from * size)) ++run;
    return run;
  };
  const auto starts_run = [&](std::size_t at) {
    const std::uint8_t* const first = pixels + at * size;
    return count - at >= kShortestRun && are_equal<size>(first, first + size) &&
           are_equal<size>(first, first + 2 * size);
  };
  std::uint8_t* out = bytes.data();
  for (std::size_t at = 0; at < count;) {
    std::size_t packet;
    const bool literal = !starts_run(at);
    if (literal) {
      const std::size_t most = std::min(count - at, Packets::kLongestLiteral);
      for (packet = 1; packet < most && !starts_run(at + packet);) ++packet;
    } else {
      packet = run_at(at);
    }
    out = Packets::put(out, packet, literal);
    const std::size_t stored = (literal ? packet : 1) * size;
    std::memcpy(out, pixels + at * size, stored);
    out += stored;
    at += packet;
  }
  return std::size_t(out - bytes.data());
}

template <typename Sample>
std::uint8_t* to_file(std::uint8_t* bytes, Sample value) {
  if constexpr (sizeof(Sample) == 2) *bytes++ = std::uint8_t(value >> 8);
  *bytes++ = std::uint8_t(value);
  return bytes;
}

// Where the next three equal samples begin. Without any the last two samples stay after the end of
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
  return std::size_t(to_file(out, Sample{0}) - packets.data());
}

std::size_t compact_packbits(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  constexpr std::uint8_t full = 127, run_of_two = 255;  // control bytes
  constexpr std::size_t longest_run = 128;              // bytes
  enum class State { kBase, kLiteral, kLiteralRun };
  State state = State::kBase;
  std::uint8_t* out = packets.data();
  std::uint8_t* literal = nullptr;  // control byte of the last literal
  for (std::size_t at = 0; at < row.size();) {
    const std::uint8_t value = row[at];
    const std::size_t end = run_end(row, at);
    while (at < end) {
      const std::size_t left = end - at;
      if (state == State::kLiteralRun) {  // out[-2] and out[-1] are a run
        const bool joins = left <= 2 && out[-2] == run_of_two && *literal < full - 1;
        if (joins) {
          out[-2] = out[-1];
          *literal = std::uint8_t(*literal + 2);
        }
        state = joins && *literal < full ? State::kLiteral : State::kBase;
      }
      if (left > 1) {
        const std::size_t count = std::min(left, longest_run);
        *out++ = std::uint8_t(257 - count);
        *out++ = value;
        at += count;
        if (state == State::kLiteral) state = State::kLiteralRun;
        continue;
      }
      if (state == State::kBase) {
        literal = out++;
        *literal = 0;
        state = State::kLiteral;
      } else if (++*literal == full) {
        state = State::kBase;
      }
      *out++ = value;
      ++at;
    }
  }
  return std::size_t(out - packets.data());
}

std::size_t compact_scanline(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  constexpr std::size_t longest = 127;
  std::uint8_t* out = packets.data();
  for (std::size_t at = 0; at < row.size();) {
    const std::size_t most = std::min(row.size(), at + longest);
    std::size_t end = at + 1;
    const bool is_run = end < row.size() && row[end] == row[at];
    if (is_run) {
      while (end < most && row[end] == row[at]) ++end;
    } else {
      while (end < most && (end + 1 == row.size() || row[end] != row[end + 1])) ++end;
    }
    const std::size_t count = end - at, stored = is_run ? 1 : count;
    *out++ = std::uint8_t(is_run ? 128 + count : count);
    std::memcpy(out, &row[at], stored);
    out += stored;
    at = end;
  }
  return std::size_t(out - packets.data());
}

std::size_t compact_bytes(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<BytePackets>(row, packets);
}

std::size_t compact_signed(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<SignedPackets>(row, packets);
}

std::size_t compact_mixed(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets,
                          std::size_t pixel_bytes) {
  constexpr std::array compact_form = {compact<MixedPackets<1>>, compact<MixedPackets<2>>,
                                       compact<MixedPackets<3>>, compact<MixedPackets<4>>};
  return compact_form[pixel_bytes - 1](row, packets);
}

template std::size_t compact_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template std::size_t compact_counted(std::span<const std::uint16_t>, std::span<std::uint8_t>);

}  // namespace ka
