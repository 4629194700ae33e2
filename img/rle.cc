#include "rle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace ka {
namespace {

constexpr unsigned kLiteral = 0x80;          // bit of a control sample
constexpr unsigned kCount = 0x7f;            // its other bits
constexpr std::size_t kLongestPacket = 126;  // samples, as written
constexpr std::size_t kLongestMove = 128;    // samples or pixels that are moved at a time
constexpr std::size_t kShortestRun = 3;      // samples or pixels, as written

// Packets are short: what a branch on their kind or length would cost when it is guessed wrong is
// more than moving some bytes too many. A chunk holds whole pixels of 1 to 4 bytes.
constexpr std::size_t kChunkBytes = 48;
using Words [[gnu::vector_size(16)]] = std::uint64_t;
struct Chunk {
  Words words[kChunkBytes / sizeof(Words)];
};

constexpr std::uint64_t from_little(std::uint64_t word) {
  return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}

// 16-bit samples of the file's byte order, big-endian, to the host's.
KA_KERNEL Words swap_samples(Words words) {
  if constexpr (std::endian::native == std::endian::big) return words;
  constexpr std::uint64_t low_bytes = 0x00ff00ff00ff00ff;
  return (words >> 8 & low_bytes) | (words & low_bytes) << 8;
}

// A chunk of one pixel over and over. Its first byte is the lowest of `pixel`.
template <std::size_t PixelBytes>
KA_KERNEL Chunk repeated(std::uint64_t pixel) {
  if constexpr (PixelBytes == 3) {  // eight pixels are three words
    const std::uint64_t a = from_little(pixel | pixel << 24 | pixel << 48);
    const std::uint64_t b = from_little(pixel >> 16 | pixel << 8 | pixel << 32 | pixel << 56);
    const std::uint64_t c = from_little(pixel >> 8 | pixel << 16 | pixel << 40);
    return {{Words{a, b}, Words{c, a}, Words{b, c}}};
  } else {
    constexpr std::uint64_t ones = ~std::uint64_t{0} / ((std::uint64_t{1} << 8 * PixelBytes) - 1);
    const std::uint64_t word = from_little(pixel * ones);
    const Words words = {word, word};
    return {{words, words, words}};
  }
}

struct Control {
  std::size_t count;  // samples or pixels
  bool literal;       // they follow as they are, else as one
};

template <typename Sample>
struct CountedForm {
  static constexpr std::size_t kSampleBytes = sizeof(Sample);
  static constexpr std::size_t kControlBytes = sizeof(Sample);
  static constexpr bool kSwaps = sizeof(Sample) > 1;
  static constexpr bool kHasClosing = true;
  static constexpr bool kHasWideCounts = false;
  static constexpr std::size_t kLongestCount = kLongestMove;
  static Control control(const std::uint8_t* bytes) {
    const unsigned low = bytes[kControlBytes - 1];
    return {low & kCount, (low & kLiteral) != 0};
  }
};

// What the forms below have in common. Written packets hold up to kLongestLiteral and kLongestRun
// pixels.
template <std::size_t PixelBytes>
struct ByteControl {
  static constexpr std::size_t kSampleBytes = PixelBytes;
  static constexpr std::size_t kControlBytes = 1;
  static constexpr bool kSwaps = false;
  static constexpr bool kHasClosing = false;
  static constexpr bool kHasWideCounts = false;  // a count of 0 stands for one of 16 bits behind it
  static constexpr std::size_t kLongestCount = kLongestMove;
  static constexpr std::size_t kLongestLiteral = kLongestMove;
  static constexpr std::size_t kLongestRun = kLongestMove;
};

template <std::size_t PixelBytes>
struct PixelForm : ByteControl<PixelBytes> {
  static Control control(const std::uint8_t* bytes) {
    return {(*bytes & kCount) + std::size_t{1}, *bytes <= kCount};
  }
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = static_cast<std::uint8_t>((literal ? 0 : kLiteral) | (count - 1));
    return out;
  }
};

struct SignedForm : ByteControl<1> {
  static constexpr std::size_t kLongestLiteral = 127;
  static constexpr std::size_t kLongestRun = 127;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t low = *bytes;
    return low <= kCount ? Control{low + 1, false} : Control{256 - low, true};
  }
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = static_cast<std::uint8_t>(literal ? 256 - count : count - 1);
    return out;
  }
};

template <std::size_t PixelBytes>
struct MixedForm : ByteControl<PixelBytes> {
  static constexpr bool kHasWideCounts = true;
  static constexpr std::size_t kLongestCount = 65535;
  static constexpr std::size_t kLongestRun = 65535;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t low = *bytes;
    return low <= kCount ? Control{low + 1, true} : Control{low == 128 ? 0 : low - 127, false};
  }
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    if (!literal && count > kLongestMove) {
      *out++ = 128;
      *out++ = static_cast<std::uint8_t>(count >> 8);
      *out++ = static_cast<std::uint8_t>(count);
    } else {
      *out++ = static_cast<std::uint8_t>(literal ? count - 1 : count + 127);
    }
    return out;
  }
};

template <std::size_t PixelBytes>
struct RunForm : ByteControl<PixelBytes> {
  static constexpr std::size_t kLongestCount = 255;
  static Control control(const std::uint8_t* bytes) { return {*bytes, false}; }
};

// Moves a packet in whole chunks: up to kChunkBytes - 1 more bytes are read and written.
template <typename Form>
KA_KERNEL void move_chunks(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes,
                           bool literal) {
  std::uint64_t pixel = 0;
  for (std::size_t i = 0; i < Form::kSampleBytes; ++i) pixel |= std::uint64_t{in[i]} << 8 * i;
  const Chunk run = repeated<Form::kSampleBytes>(pixel);
  const std::uint64_t from_input = std::uint64_t{0} - literal;
  const Words kept = {from_input, from_input};
  const auto move = [&](std::size_t at, Words repeats) {
    Words words;
    std::memcpy(&words, in + at, sizeof words);
    words = (words & kept) | (repeats & ~kept);
    if constexpr (Form::kSwaps) words = swap_samples(words);
    std::memcpy(out + at, &words, sizeof words);
  };
  for (std::size_t done = 0; done < bytes; done += kChunkBytes) {
    move(done, run.words[0]);
    move(done + sizeof(Words), run.words[1]);
    move(done + 2 * sizeof(Words), run.words[2]);
  }
}

// Moves a packet that stands near the end of its row or of the input. Kept out of the loop over
// packets, whose registers are few.
template <typename Form>
[[gnu::noinline]] void move_exactly(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes,
                                    bool literal) {
  constexpr std::size_t size = Form::kSampleBytes;
  constexpr bool swaps = Form::kSwaps && std::endian::native == std::endian::little;
  for (std::size_t done = 0; done < bytes; done += size) {
    for (std::size_t i = 0; i < size; ++i) out[done + i] = in[swaps ? size - 1 - i : i];
    if (literal) in += size;
  }
}

// Moves a packet of up to kLongestMove samples.
template <typename Form>
KA_KERNEL void move_packet(std::span<std::uint8_t> out, std::span<const std::uint8_t> in,
                           std::size_t bytes, bool literal) {
  const std::size_t room = bytes + kChunkBytes - 1;  // no less than whole chunks take
  if (out.size() >= room && in.size() >= room) {
    move_chunks<Form>(out.data(), in.data(), bytes, literal);
  } else {
    move_exactly<Form>(out.data(), in.data(), bytes, literal);
  }
}

template <typename Form>
PixelRow expand(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  constexpr std::size_t most = kLongestMove * Form::kSampleBytes;
  const std::uint8_t* in = packets.data();
  const std::uint8_t* const in_end = in + packets.size();
  std::uint8_t* out = row.data();
  std::uint8_t* const out_end = out + row.size();
  const auto ended = [&](RowEnd end) { return PixelRow{end, std::size_t(in - packets.data())}; };
  while (Form::kHasClosing || out < out_end) {
    if (std::size_t(in_end - in) < Form::kControlBytes) {
      return ended(out == out_end ? RowEnd::kWhole : RowEnd::kShort);
    }
    auto [count, literal] = Form::control(in);
    in += Form::kControlBytes;
    if (Form::kHasWideCounts && count == 0) {
      if (in_end - in < 2) return ended(RowEnd::kShort);
      count = std::size_t{in[0]} << 8 | in[1];
      in += 2;
    }
    if (count == 0) break;
    std::size_t bytes = count * Form::kSampleBytes;
    const std::size_t stored = literal ? bytes : Form::kSampleBytes;
    if (bytes > std::size_t(out_end - out)) return ended(RowEnd::kCorrupt);
    if (stored > std::size_t(in_end - in)) return ended(RowEnd::kShort);
    // Where the next packet starts is what the next turn of the loop waits for.
    const std::span from(in, in_end);
    in += stored;
    for (; Form::kLongestCount > kLongestMove && bytes > most; bytes -= most, out += most) {
      move_packet<Form>({out, out_end}, from, most, false);
    }
    move_packet<Form>({out, out_end}, from, bytes, literal);
    out += bytes;
  }
  return ended(out == out_end ? RowEnd::kWhole : RowEnd::kCorrupt);
}

// Calls `use` with the form for pixels of that many bytes.
template <template <std::size_t> typename Form, typename Use>
auto with_form(std::size_t pixel_bytes, Use use) {
  switch (pixel_bytes) {
    case 1:
      return use(Form<1>{});
    case 2:
      return use(Form<2>{});
    case 3:
      return use(Form<3>{});
    default:
      return use(Form<4>{});
  }
}

template <template <std::size_t> typename Form>
PixelRow expand_row(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                    std::size_t pixel_bytes) {
  return with_form<Form>(pixel_bytes,
                         [&]<typename Chosen>(Chosen) { return expand<Chosen>(packets, row); });
}

template <std::size_t PixelBytes>
bool are_equal(const std::uint8_t* a, const std::uint8_t* b) {
  return std::memcmp(a, b, PixelBytes) == 0;
}

// Encodes a row of whole pixels: stretches of at least three equal pixels as runs, what stands
// between them as it is. What is left of a run that a packet does not hold is looked at anew.
template <typename Form>
std::size_t compact(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  constexpr std::size_t size = Form::kSampleBytes;
  const std::uint8_t* const pixels = row.data();
  const std::size_t count = row.size() / size;
  const auto run_at = [&](std::size_t from) {  // pixels, as far as a packet can count them
    const std::size_t most = std::min(count - from, Form::kLongestRun);
    std::size_t run = 1;
    while (run < most && are_equal<size>(pixels + (from + run) * size, pixels + from * size)) ++run;
    return run;
  };
  const auto starts_run = [&](std::size_t at) {
    const std::uint8_t* const first = pixels + at * size;
    return count - at >= kShortestRun && are_equal<size>(first, first + size) &&
           are_equal<size>(first, first + 2 * size);
  };
  std::uint8_t* out = packets.data();
  for (std::size_t at = 0; at < count;) {
    std::size_t packet;
    const bool literal = !starts_run(at);
    if (literal) {
      const std::size_t most = std::min(count - at, Form::kLongestLiteral);
      for (packet = 1; packet < most && !starts_run(at + packet);) ++packet;
    } else {
      packet = run_at(at);
    }
    out = Form::put(out, packet, literal);
    const std::size_t stored = (literal ? packet : 1) * size;
    std::memcpy(out, pixels + at * size, stored);
    out += stored;
    at += packet;
  }
  return static_cast<std::size_t>(out - packets.data());
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
RowEnd expand_counted(std::span<const std::uint8_t> packets, std::span<Sample> line) {
  auto* const row = reinterpret_cast<std::uint8_t*>(line.data());
  return expand<CountedForm<Sample>>(packets, {row, line.size_bytes()}).end;
}

PixelRow expand_pixels(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                       std::size_t pixel_bytes) {
  return expand_row<PixelForm>(packets, row, pixel_bytes);
}

std::size_t compact_bytes(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<PixelForm<1>>(row, packets);
}

RowEnd expand_signed(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const auto [end, used] = expand<SignedForm>(packets, row);
  return end == RowEnd::kWhole && used < packets.size() ? RowEnd::kCorrupt : end;
}

std::size_t compact_signed(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<SignedForm>(row, packets);
}

PixelRow expand_mixed(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                      std::size_t pixel_bytes) {
  return expand_row<MixedForm>(packets, row, pixel_bytes);
}

std::size_t compact_mixed(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets,
                          std::size_t pixel_bytes) {
  return with_form<MixedForm>(
      pixel_bytes, [&]<typename Chosen>(Chosen) { return compact<Chosen>(row, packets); });
}

PixelRow expand_runs(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                     std::size_t pixel_bytes) {
  return expand_row<RunForm>(packets, row, pixel_bytes);
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

template RowEnd expand_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template RowEnd expand_counted(std::span<const std::uint8_t>, std::span<std::uint16_t>);
template std::size_t compact_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template std::size_t compact_counted(std::span<const std::uint16_t>, std::span<std::uint8_t>);

}  // namespace ka
