// Decoders of run-length packets.
#include "rle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace ka {
namespace {

constexpr unsigned kCount = 0x7f;  // bits of a control; the highest says runs from literals

// Packets are short: what a branch on their length would cost when it is guessed wrong is more than
// moving some bytes too many. A chunk holds whole pixels of 1 to 4 bytes.
constexpr std::size_t kChunkBytes = 48;
constexpr std::size_t kStep = kRowSlack;  // bytes of a longer literal that are moved together
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

// A form of packets: `choose` calls literal(count) or run(count) for the low byte of a control,
// where the count is one of samples or pixels.
template <typename Sample>
struct CountedForm {
  static constexpr std::size_t kSampleBytes = sizeof(Sample);
  static constexpr std::size_t kControlBytes = sizeof(Sample);
  static constexpr bool kSwaps = sizeof(Sample) > 1;
  static constexpr bool kHasClosing = true;
  static constexpr bool kHasEmptyPackets = false;
  static constexpr bool kHasWideCounts = false;
  KA_KERNEL static auto choose(std::size_t control, auto literal, auto run) {
    return control > kCount ? literal(control & kCount) : run(control);
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
  static constexpr bool kHasWideCounts = false;  // a count of 0 represents one of 16 bits after it
};

template <std::size_t PixelBytes>
struct PixelForm : ByteControl<PixelBytes> {
  KA_KERNEL static auto choose(std::size_t control, auto literal, auto run) {
    return control <= kCount ? literal(control + 1) : run(control - kCount);
  }
};

struct SignedForm : ByteControl<1> {
  KA_KERNEL static auto choose(std::size_t control, auto literal, auto run) {
    return control <= kCount ? run(control + 1) : literal(256 - control);
  }
};

template <std::size_t PixelBytes>
struct MixedForm : ByteControl<PixelBytes> {
  static constexpr bool kHasWideCounts = true;
  KA_KERNEL static auto choose(std::size_t control, auto literal, auto run) {
    return control <= kCount ? literal(control + 1) : run(control == 128 ? 0 : control - kCount);
  }
};

template <std::size_t PixelBytes>
struct RunForm : ByteControl<PixelBytes> {
  KA_KERNEL static auto choose(std::size_t control, auto /*literal*/, auto run) {
    return run(control);
  }
};

struct PackBitsForm : ByteControl<1> {
  static constexpr bool kHasEmptyPackets = true;
  KA_KERNEL static auto choose(std::size_t control, auto literal, auto run) {
    return control <= 128 ? literal(control < 128 ? control + 1 : 0) : run(257 - control);
  }
};

struct ScanlineForm : ByteControl<1> {
  static constexpr bool kHasEmptyPackets = true;
  KA_KERNEL static auto choose(std::size_t control, auto literal, auto run) {
    return control <= 128 ? literal(control) : run(control - 128);
  }
};

struct Control {
  std::size_t count;
  bool literal;
};

template <typename Form>
Control control_of(const std::uint8_t* packet) {
  return Form::choose(
      packet[Form::kControlBytes - 1],
      [](std::size_t count) {
        return Control{count, true};
      },
      [](std::size_t count) {
        return Control{count, false};
      });
}

template <typename Form>
KA_KERNEL void store(std::uint8_t* out, Words words) {
  if constexpr (Form::kSwaps) words = swap_samples(words);
  std::memcpy(out, &words, sizeof words);
}

// Repeats a pixel in whole chunks: up to kChunkBytes - 1 more bytes are written.
template <typename Form>
KA_KERNEL void repeat(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes) {
  std::uint64_t pixel = 0;
  for (std::size_t i = 0; i < Form::kSampleBytes; ++i) pixel |= std::uint64_t{in[i]} << 8 * i;
  const Chunk run = repeated<Form::kSampleBytes>(pixel);
  const auto store_chunk = [&](std::uint8_t* at) {
    for (std::size_t i = 0; i < std::size(run.words); ++i) {
      store<Form>(at + i * sizeof(Words), run.words[i]);
    }
  };
  store_chunk(out);
  for (std::size_t done = kChunkBytes; done < bytes; done += kChunkBytes) store_chunk(out + done);
}

// Copies samples: up to kStep - 1 more bytes are read and written.
template <typename Form>
KA_KERNEL void copy(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes) {
  const auto move = [&](std::size_t at) {
    Words words;
    std::memcpy(&words, in + at, sizeof words);
    store<Form>(out + at, words);
  };
  move(0);
  for (std::size_t done = sizeof(Words); done < bytes; done += kStep) {
    for (std::size_t i = 0; i < kStep; i += sizeof(Words)) move(done + i);
  }
}

// Moves a packet that may stand near the end of its row or of the input.
template <typename Form>
[[gnu::noinline]] void move_packet(std::span<std::uint8_t> row,
                                   std::span<const std::uint8_t> packets, std::size_t bytes,
                                   bool literal) {
  constexpr std::size_t size = Form::kSampleBytes;
  std::uint8_t* const out = row.data();
  const std::uint8_t* in = packets.data();
  if (row.size() >= bytes + kStep && packets.size() >= (literal ? bytes : size) + kStep) {
    return literal ? copy<Form>(out, in, bytes) : repeat<Form>(out, in, bytes);
  }
  if (size == 1 && literal) {
    std::memcpy(out, in, bytes);
    return;
  }
  if (size == 1) {
    std::memset(out, *in, bytes);
    return;
  }
  constexpr bool swaps = Form::kSwaps && std::endian::native == std::endian::little;
  for (std::size_t done = 0; done < bytes; done += size) {
    for (std::size_t i = 0; i < size; ++i) out[done + i] = in[swaps ? size - 1 - i : i];
    if (literal) in += size;
  }
}

struct Expanded {
  RowEnd end;
  std::size_t used;    // bytes of the packets, of whole packets only
  std::size_t filled;  // bytes of the row
};

struct Progress {
  std::size_t used, filled;  // bytes of packets and row
};

// Expands what stands so far from both ends that a packet may be moved with some bytes too many, up
// to a count of 0 that ends the row or represents a wide one. Whether a packet is a run is left to
// a branch: where it is guessed, which is most often, the next packet need not wait for this one's
// length.
template <typename Form>
Progress expand_inner(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                      std::size_t slack) {
  if (packets.size() < kStep + Form::kControlBytes || row.size() + slack < kStep) return {};
  const std::uint8_t* const in = packets.data();
  std::uint8_t* const out = row.data();
  const std::size_t most_used = packets.size() - kStep - Form::kControlBytes;
  const std::size_t most_filled = row.size() - (kStep - std::min(slack, kStep));
  std::size_t used = 0, filled = 0;
  const auto move_literal = [&](std::size_t count) {
    const std::size_t from = used + Form::kControlBytes, bytes = count * Form::kSampleBytes;
    if (from + bytes > most_used || filled + bytes > most_filled) return false;
    if (count == 0 && !Form::kHasEmptyPackets) return false;
    copy<Form>(out + filled, in + from, bytes);
    used = from + bytes;
    filled += bytes;
    return true;
  };
  const auto move_run = [&](std::size_t count) {
    const std::size_t from = used + Form::kControlBytes, bytes = count * Form::kSampleBytes;
    if (filled + bytes > most_filled) return false;
    if (count == 0 && !Form::kHasEmptyPackets) return false;
    repeat<Form>(out + filled, in + from, bytes);
    used = from + Form::kSampleBytes;
    filled += bytes;
    return true;
  };
  while (used <= most_used &&
         Form::choose(in[used + Form::kControlBytes - 1], move_literal, move_run)) {
  }
  return {used, filled};
}

template <typename Form>
Expanded expand(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                std::size_t slack = 0) {
  const std::uint8_t* in = packets.data();
  const std::uint8_t* const in_end = in + packets.size();
  std::uint8_t* out = row.data();
  std::uint8_t* const out_end = out + row.size();
  const std::uint8_t* packet = in;  // that is checked
  const auto ended = [&](RowEnd end) {
    return Expanded{end, std::size_t(packet - packets.data()), std::size_t(out - row.data())};
  };
  for (;; packet = in) {
    const Progress inner = expand_inner<Form>({in, in_end}, {out, out_end}, slack);
    packet = in += inner.used;
    out += inner.filled;
    if (!Form::kHasClosing && out == out_end) break;
    if (std::size_t(in_end - in) < Form::kControlBytes) {
      return ended(out == out_end ? RowEnd::kWhole : RowEnd::kShort);
    }
    auto [count, literal] = control_of<Form>(in);
    in += Form::kControlBytes;
    if (Form::kHasWideCounts && count == 0) {
      if (in_end - in < 2) return ended(RowEnd::kShort);
      count = std::size_t{in[0]} << 8 | in[1];
      in += 2;
    }
    if (count == 0 && !Form::kHasEmptyPackets) break;
    const std::size_t bytes = count * Form::kSampleBytes;
    const std::size_t stored = literal ? bytes : Form::kSampleBytes;
    if (bytes > std::size_t(out_end - out)) return ended(RowEnd::kCorrupt);
    if (stored > std::size_t(in_end - in)) return ended(RowEnd::kShort);
    move_packet<Form>({out, out_end}, {in, in_end}, bytes, literal);
    in += stored;
    out += bytes;
  }
  return ended(out == out_end ? RowEnd::kWhole : RowEnd::kCorrupt);
}

template <template <std::size_t> typename Form>
PixelRow expand_row(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                    std::size_t pixel_bytes, std::size_t slack = 0) {
  constexpr std::array expand_form = {expand<Form<1>>, expand<Form<2>>, expand<Form<3>>,
                                      expand<Form<4>>};
  const auto [end, used, filled] = expand_form[pixel_bytes - 1](packets, row, slack);
  return {end, used};
}

}  // namespace

template <typename Sample>
RowEnd expand_counted(std::span<const std::uint8_t> packets, std::span<Sample> line) {
  auto* const row = reinterpret_cast<std::uint8_t*>(line.data());
  return expand<CountedForm<Sample>>(packets, {row, line.size_bytes()}).end;
}

PixelRow expand_pixels(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row,
                       std::size_t pixel_bytes, std::size_t slack) {
  return expand_row<PixelForm>(packets, row, pixel_bytes, slack);
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
  const auto [end, used, filled] = expand<ScanlineForm>(packets, row);
  return {end, used};
}

PackBitsRow expand_packbits(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const auto [end, used, filled] = expand<PackBitsForm>(packets, row);
  return {end, used, filled};
}

PackBitsRow skip_packbits(std::span<const std::uint8_t> packets, std::uint64_t count) {
  std::size_t used = 0, filled = 0;
  while (filled < count) {
    if (used == packets.size()) return {RowEnd::kShort, used, filled};
    const auto [bytes, literal] = control_of<PackBitsForm>(packets.data() + used);
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
