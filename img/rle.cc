// Decoders of run-length packets.
#include "rle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace ka {
namespace {

// What a packet of no samples means.
enum class Empty { kNothing, kEndsRow, kWideCount };

// A form of packets. `samples` gives the meaning of a control: how often the sample after it is
// repeated, or, below 0, how many literals follow.
struct CountedForm {
  static constexpr Empty kEmpty = Empty::kEndsRow;
  static constexpr bool kFillsInput = true;  // else packets end with the row
  static constexpr std::size_t kControlBytes = 1;
  static constexpr int samples(int c) { return c < 128 ? c : 128 - c; }
};

struct WordForm : CountedForm {
  static constexpr std::size_t kControlBytes = 2;
};

struct PixelForm : CountedForm {
  static constexpr bool kFillsInput = false;
  static constexpr int samples(int c) { return c < 128 ? -1 - c : c - 127; }
};

struct MixedForm : PixelForm {
  static constexpr Empty kEmpty = Empty::kWideCount;
  static constexpr int samples(int c) { return c == 128 ? 0 : PixelForm::samples(c); }
};

struct RepeatForm : PixelForm {
  static constexpr int samples(int c) { return c; }
};

struct SignedForm : CountedForm {
  static constexpr int samples(int c) { return c < 128 ? c + 1 : c - 256; }
};

struct PackBitsForm : PixelForm {
  static constexpr Empty kEmpty = Empty::kNothing;
  static constexpr int samples(int c) {
    if (c > 128) return 257 - c;
    return c < 128 ? -1 - c : 0;
  }
};

struct ScanlineForm : PixelForm {
  static constexpr Empty kEmpty = Empty::kNothing;
  static constexpr int samples(int c) { return c > 128 ? c - 128 : -c; }
};

// Far from the ends of packets and row some bytes too many are moved: packets are short, and a
// branch on their length costs more when it is guessed wrong.
// `lumora_bench --benchmark_filter='read/(iff/short|sgi|hdr|tga/packed)'`: moved exactly, 0.5 to 0.6
// of the rate for short runs and 0.8 to 0.9 for literals.
constexpr std::size_t kStep = 64;  // bytes of a longer literal that are moved together
using Words [[gnu::vector_size(16)]] = std::uint64_t;

// Whole vectors that are whole pixels of 1 to 4 bytes as well.
using Chunk = std::array<Words, 3>;

constexpr std::uint64_t from_little(std::uint64_t word) {
  return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}

// A chunk of one pixel over and over. Its first byte is the lowest of `pixel`.
template <std::size_t PixelBytes>
KA_KERNEL Chunk repeated(std::uint64_t pixel) {
  if constexpr (PixelBytes == 3) {  // eight pixels are three words
    const std::uint64_t a = from_little(pixel | pixel << 24 | pixel << 48);
    const std::uint64_t b = from_little(pixel >> 16 | pixel << 8 | pixel << 32 | pixel << 56);
    const std::uint64_t c = from_little(pixel >> 8 | pixel << 16 | pixel << 40);
    return {Words{a, b}, Words{c, a}, Words{b, c}};
  } else {
    constexpr std::uint64_t ones = ~std::uint64_t{0} / ((std::uint64_t{1} << 8 * PixelBytes) - 1);
    const std::uint64_t word = from_little(pixel * ones);
    const Words words = {word, word};
    return {words, words, words};
  }
}

// Repeats a pixel in whole chunks: fewer than sizeof(Chunk) more bytes are written.
template <std::size_t PixelBytes>
KA_KERNEL void repeat(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes) {
  std::uint64_t pixel = 0;
  for (std::size_t i = 0; i < PixelBytes; ++i) pixel |= std::uint64_t{in[i]} << 8 * i;
  const Chunk run = repeated<PixelBytes>(pixel);
  std::size_t done = 0;
  do {
    for (const Words& words : run) {
      std::memcpy(out + done, &words, sizeof words);
      done += sizeof words;
    }
  } while (done < bytes);
}

// Copies bytes: fewer than kStep more are read and written.
KA_KERNEL void copy(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes) {
  const auto move = [&](std::size_t at) {
    Words words;
    std::memcpy(&words, in + at, sizeof words);
    std::memcpy(out + at, &words, sizeof words);
  };
  move(0);
  for (std::size_t done = sizeof(Words); done < bytes; done += kStep) {
    for (std::size_t i = 0; i < kStep; i += sizeof(Words)) move(done + i);
  }
}

// Not inlined, which leaves the registers to the loop.
template <std::size_t Size>
[[gnu::noinline]] void repeat_exactly(std::uint8_t* out, const std::uint8_t* in,
                                      std::size_t bytes) {
  if (Size == 1) {
    std::memset(out, *in, bytes);
  } else {
    for (std::size_t done = 0; done < bytes; done += Size) std::memcpy(out + done, in, Size);
  }
}

// Decodes a row of samples of `Size` bytes. Whether a packet is a run is left to a branch: where it
// is guessed, which is most often, the next packet need not wait for this one's length.
template <typename Form, std::size_t Size>
Expanded expand(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const std::uint8_t* in = packets.data();
  const std::uint8_t* const in_end = in + packets.size();
  std::uint8_t* out = row.data();
  std::uint8_t* const out_end = out + row.size();
  const auto move_literals = [&](std::size_t bytes) {
    const auto left = std::size_t(in_end - in), room = std::size_t(out_end - out);
    if (bytes + kStep <= left && bytes + kStep <= room) [[likely]] {
      copy(out, in, bytes);
    } else {
      if (bytes > room) return RowEnd::kCorrupt;
      if (bytes > left) return RowEnd::kShort;
      std::memcpy(out, in, bytes);
    }
    in += bytes;
    out += bytes;
    return RowEnd::kWhole;
  };
  const auto move_run = [&](std::size_t bytes) {
    const auto left = std::size_t(in_end - in), room = std::size_t(out_end - out);
    if (bytes + sizeof(Chunk) <= room && Size <= left) [[likely]] {
      repeat<Size>(out, in, bytes);
    } else {
      if (bytes > room) return RowEnd::kCorrupt;
      if (Size > left) return RowEnd::kShort;
      repeat_exactly<Size>(out, in, bytes);
    }
    in += Size;
    out += bytes;
    return RowEnd::kWhole;
  };
  const std::uint8_t* packet = in;  // that is decoded
  RowEnd end = RowEnd::kWhole;
  for (; out < out_end || Form::kFillsInput; packet = in) {
    if (std::size_t(in_end - in) < Form::kControlBytes) {
      if (out < out_end) end = RowEnd::kShort;
      break;
    }
    const int count = Form::samples(in[Form::kControlBytes - 1]);
    in += Form::kControlBytes;
    if (count == 0 && Form::kEmpty == Empty::kEndsRow) [[unlikely]] {
      if (out < out_end) end = RowEnd::kCorrupt;
      break;
    }
    if (count < 0) {
      end = move_literals(std::size_t(-count) * Size);
    } else if (count > 0) {
      end = move_run(std::size_t(count) * Size);
    } else if (Form::kEmpty == Empty::kWideCount) {
      if (in_end - in < 2) {
        end = RowEnd::kShort;
        break;
      }
      const std::size_t wide = std::size_t{in[0]} << 8 | in[1];
      in += 2;
      end = wide > 0 ? move_run(wide * Size) : RowEnd::kCorrupt;
    }
    if (end != RowEnd::kWhole) break;
  }
  return {end, std::size_t(packet - packets.data()), std::size_t(out - row.data())};
}

template <typename Form>
Expanded expand_pixels_of(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                          std::size_t pixel_bytes) {
  constexpr std::array expand_size = {expand<Form, 1>, expand<Form, 2>, expand<Form, 3>,
                                      expand<Form, 4>};
  return expand_size[pixel_bytes - 1](packets, row);
}

}  // namespace

template <typename Sample>
Expanded expand_counted(std::span<const std::uint8_t> packets, std::span<Sample> line) {
  const std::span row(reinterpret_cast<std::uint8_t*>(line.data()), line.size_bytes());
  if constexpr (sizeof(Sample) == 1) {
    return expand<CountedForm, 1>(packets, row);
  } else {
    const Expanded result = expand<WordForm, 2>(packets, row);
    for (std::size_t i = 0; i < result.filled; i += 2) {
      line[i / 2] = Sample(row[i] << 8 | row[i + 1]);
    }
    return result;
  }
}

Expanded expand_pixels(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                       std::size_t pixel_bytes) {
  return expand_pixels_of<PixelForm>(packets, row, pixel_bytes);
}

Expanded expand_signed(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  return expand<SignedForm, 1>(packets, row);
}

Expanded expand_mixed(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                      std::size_t pixel_bytes) {
  return expand_pixels_of<MixedForm>(packets, row, pixel_bytes);
}

Expanded expand_repeats(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                        std::size_t pixel_bytes) {
  return expand_pixels_of<RepeatForm>(packets, row, pixel_bytes);
}

Expanded expand_scanline(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  return expand<ScanlineForm, 1>(packets, row);
}

Expanded expand_packbits(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  return expand<PackBitsForm, 1>(packets, row);
}

Expanded skip_packbits(std::span<const std::uint8_t> packets, std::uint64_t count) {
  std::size_t used = 0, filled = 0;
  while (filled < count) {
    if (used == packets.size()) return {RowEnd::kShort, used, filled};
    const int samples = PackBitsForm::samples(packets[used]);
    const auto bytes = std::size_t(std::abs(samples));
    const std::size_t stored = 1 + (samples > 0 ? 1 : bytes);
    if (bytes > count - filled) return {RowEnd::kCorrupt, used, filled};
    if (stored > packets.size() - used) return {RowEnd::kShort, used, filled};
    used += stored;
    filled += bytes;
  }
  return {RowEnd::kWhole, used, filled};
}

template Expanded expand_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template Expanded expand_counted(std::span<const std::uint8_t>, std::span<std::uint16_t>);

}  // namespace ka
