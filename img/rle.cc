// Decoders of run-length packets.
#include "rle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace ka {
namespace {

constexpr unsigned kLiteral = 0x80;        // bit of a control sample
constexpr unsigned kCount = 0x7f;          // its other bits
constexpr std::size_t kLongestMove = 128;  // samples or pixels that are moved at a time

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
  static constexpr bool kHasEmptyPackets = false;
  static constexpr bool kHasWideCounts = false;
  static constexpr std::size_t kLongestCount = kLongestMove;
  static Control control(const std::uint8_t* bytes) {
    const unsigned low = bytes[kControlBytes - 1];
    return {low & kCount, (low & kLiteral) != 0};
  }
};

// What the forms below have in common.
template <std::size_t PixelBytes>
struct ByteControl {
  static constexpr std::size_t kSampleBytes = PixelBytes;
  static constexpr std::size_t kControlBytes = 1;
  static constexpr bool kSwaps = false;
  static constexpr bool kHasClosing = false;
  static constexpr bool kHasEmptyPackets = false;  // else a count of 0 ends the row
  static constexpr bool kHasWideCounts = false;  // a count of 0 stands for one of 16 bits behind it
  static constexpr std::size_t kLongestCount = kLongestMove;
};

template <std::size_t PixelBytes>
struct PixelForm : ByteControl<PixelBytes> {
  static Control control(const std::uint8_t* bytes) {
    return {(*bytes & kCount) + std::size_t{1}, *bytes <= kCount};
  }
};

struct SignedForm : ByteControl<1> {
  static Control control(const std::uint8_t* bytes) {
    const std::size_t low = *bytes;
    return low <= kCount ? Control{low + 1, false} : Control{256 - low, true};
  }
};

template <std::size_t PixelBytes>
struct MixedForm : ByteControl<PixelBytes> {
  static constexpr bool kHasWideCounts = true;
  static constexpr std::size_t kLongestCount = 65535;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t low = *bytes;
    return low <= kCount ? Control{low + 1, true} : Control{low == 128 ? 0 : low - 127, false};
  }
};

template <std::size_t PixelBytes>
struct RunForm : ByteControl<PixelBytes> {
  static constexpr std::size_t kLongestCount = 255;
  static Control control(const std::uint8_t* bytes) { return {*bytes, false}; }
};

struct PackBitsForm : ByteControl<1> {
  static constexpr bool kHasEmptyPackets = true;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t c = *bytes;
    return c <= 128 ? Control{c < 128 ? c + 1 : 0, true} : Control{257 - c, false};
  }
};

struct ScanlineForm : ByteControl<1> {
  static constexpr bool kHasEmptyPackets = true;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t is_run = (*bytes + 127U) >> 8;  // 1 above 128, without a branch
    return {*bytes - is_run * kLongestMove, is_run == 0};
  }
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

struct Expanded {
  RowEnd end;
  std::size_t used;    // bytes of the packets, of whole packets only
  std::size_t filled;  // bytes of the row
};

template <typename Form>
Expanded expand(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  constexpr std::size_t most = kLongestMove * Form::kSampleBytes;
  const std::uint8_t* in = packets.data();
  const std::uint8_t* const in_end = in + packets.size();
  std::uint8_t* out = row.data();
  std::uint8_t* const out_end = out + row.size();
  const std::uint8_t* packet = in;  // that is looked at
  const auto ended = [&](RowEnd end) {
    return Expanded{end, std::size_t(packet - packets.data()), std::size_t(out - row.data())};
  };
  for (; Form::kHasClosing || out < out_end; packet = in) {
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
    if (count == 0 && !Form::kHasEmptyPackets) break;
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

struct Progress {
  std::size_t in, out;  // bytes
};

inline void store_twice(std::uint8_t* out, Words words) {
  std::memcpy(out, &words, sizeof words);
  std::memcpy(out + sizeof words, &words, sizeof words);
}

// Expands what stands so far from both ends that a packet may be moved with some bytes too many.
// Rows hold the four parts of colours one by one, so that most packets of a row are of one kind: a
// branch is guessed, and the next packet need not wait for this one's length.
Progress expand_inner(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  constexpr std::size_t step = 64;
  constexpr std::size_t room = (1 + kLongestMove + step - 1) / step * step;
  const std::uint8_t* in = packets.data();
  std::uint8_t* out = row.data();
  const std::uint8_t* const in_end = in + packets.size();
  const std::uint8_t* const out_end = out + row.size();
  while (std::size_t(out_end - out) >= room && std::size_t(in_end - in) >= room) {
    const std::size_t control = *in++;
    if (control > kLongestMove) {
      const std::size_t count = control - kLongestMove;
      const std::uint64_t word = *in++ * (~std::uint64_t{0} / 0xff);
      const Words run{word, word};
      store_twice(out, run);
      for (std::size_t done = 2 * sizeof run; done < count; done += 2 * sizeof run) {
        store_twice(out + done, run);
      }
      out += count;
    } else {
      std::memcpy(out, in, sizeof(Words));
      for (std::size_t done = sizeof(Words); done < control; done += step) {
        std::memcpy(out + done, in + done, step);
      }
      in += control;
      out += control;
    }
  }
  return {std::size_t(in - packets.data()), std::size_t(out - row.data())};
}

template <template <std::size_t> typename Form>
PixelRow expand_row(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                    std::size_t pixel_bytes) {
  constexpr std::array expand_form = {expand<Form<1>>, expand<Form<2>>, expand<Form<3>>,
                                      expand<Form<4>>};
  const auto [end, used, filled] = expand_form[pixel_bytes - 1](packets, row);
  return {end, used};
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

RowEnd expand_signed(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const auto [end, used, filled] = expand<SignedForm>(packets, row);
  return end == RowEnd::kWhole && used < packets.size() ? RowEnd::kCorrupt : end;
}

PixelRow expand_mixed(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                      std::size_t pixel_bytes) {
  return expand_row<MixedForm>(packets, row, pixel_bytes);
}

PixelRow expand_repeats(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                        std::size_t pixel_bytes) {
  return expand_row<RunForm>(packets, row, pixel_bytes);
}

PixelRow expand_scanline(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const auto [in, out] = expand_inner(packets, row);
  const auto rest = expand<ScanlineForm>(packets.subspan(in), row.subspan(out));
  return {rest.end, in + rest.used};
}

PackBitsRow expand_packbits(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const auto [end, used, filled] = expand<PackBitsForm>(packets, row);
  return {end, used, filled};
}

PackBitsRow skip_packbits(std::span<const std::uint8_t> packets, std::uint64_t count) {
  std::size_t used = 0, filled = 0;
  while (filled < count) {
    if (used == packets.size()) return {RowEnd::kShort, used, filled};
    const auto [bytes, literal] = PackBitsForm::control(packets.data() + used);
    const std::size_t stored = 1 + (literal ? bytes : 1);
    if (bytes > count - filled) return {RowEnd::kCorrupt, used, filled};
    if (stored > packets.size() - used) return {RowEnd::kShort, used, filled};
    used += stored;
    filled += bytes;
  }
  return {RowEnd::kWhole, used, filled};
}

template RowEnd expand_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template RowEnd expand_counted(std::span<const std::uint8_t>, std::span<std::uint16_t>);

}  // namespace ka
