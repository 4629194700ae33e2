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
constexpr std::size_t kLongestRead = 128;    // samples or pixels, of any packet

// Packets are short: what a branch on their kind or length would cost when it is guessed wrong is
// more than moving some bytes too many. A chunk holds whole pixels of 1 to 4 bytes.
// It is made of vectors: as single words it would be put together in memory, which takes longer.
constexpr std::size_t kChunkBytes = 48;
using Words [[gnu::vector_size(16)]] = std::uint64_t;
using Chunk = std::array<Words, kChunkBytes / sizeof(Words)>;

constexpr std::size_t in_chunks(std::size_t bytes) {
  return (bytes + kChunkBytes - 1) / kChunkBytes * kChunkBytes;
}

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
  Chunk chunk;
  if constexpr (PixelBytes == 3) {  // eight pixels are three words
    const std::array words = {from_little(pixel | pixel << 24 | pixel << 48),
                              from_little(pixel >> 16 | pixel << 8 | pixel << 32 | pixel << 56),
                              from_little(pixel >> 8 | pixel << 16 | pixel << 40)};
    for (std::size_t i = 0; i < chunk.size(); ++i) {
      chunk[i] = Words{words[2 * i % 3], words[(2 * i + 1) % 3]};
    }
  } else {
    constexpr std::uint64_t ones = ~std::uint64_t{0} / ((std::uint64_t{1} << 8 * PixelBytes) - 1);
    const std::uint64_t word = from_little(pixel * ones);
    chunk.fill(Words{word, word});
  }
  return chunk;
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
  static Control control(const std::uint8_t* bytes) {
    const unsigned low = bytes[kControlBytes - 1];
    return {low & kCount, (low & kLiteral) != 0};
  }
};

template <std::size_t PixelBytes>
struct PixelForm {
  static constexpr std::size_t kSampleBytes = PixelBytes;
  static constexpr std::size_t kControlBytes = 1;
  static constexpr bool kSwaps = false;
  static constexpr bool kHasClosing = false;
  static Control control(const std::uint8_t* bytes) {
    return {(*bytes & kCount) + std::size_t{1}, *bytes <= kCount};
  }
};

struct ScanlineForm {
  static constexpr std::size_t kSampleBytes = 1;
  static constexpr std::size_t kControlBytes = 1;
  static constexpr bool kSwaps = false;
  static constexpr bool kHasClosing = false;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t is_run = (*bytes + 127U) >> 8;  // 1 above 128, without a branch
    return {*bytes - is_run * kLongestRead, is_run == 0};
  }
};

struct PackBitsForm {
  static constexpr std::size_t kSampleBytes = 1;
  static constexpr std::size_t kControlBytes = 1;
  static constexpr bool kSwaps = false;
  static constexpr bool kHasClosing = false;
  static Control control(const std::uint8_t* bytes) {
    const std::size_t c = *bytes;
    if (c <= 128) return {c < 128 ? c + 1 : 0, true};
    return {257 - c, false};
  }
};

// Moves a packet in whole chunks: up to in_chunks(bytes) are read and written.
template <typename Form>
KA_KERNEL void move_chunks(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes,
                           bool literal) {
  std::uint64_t pixel = 0;
  for (std::size_t i = 0; i < Form::kSampleBytes; ++i) pixel |= std::uint64_t{in[i]} << 8 * i;
  const Chunk run = repeated<Form::kSampleBytes>(pixel);
  const std::uint64_t from_input = std::uint64_t{0} - literal;
  for (std::size_t done = 0; done < bytes; done += kChunkBytes) {
    Chunk chunk;
    std::memcpy(chunk.data(), in + done, kChunkBytes);
    for (std::size_t i = 0; i < chunk.size(); ++i) {
      chunk[i] = (chunk[i] & from_input) | (run[i] & ~from_input);
      if constexpr (Form::kSwaps) chunk[i] = swap_samples(chunk[i]);
    }
    std::memcpy(out + done, chunk.data(), kChunkBytes);
  }
}

// Moves a packet that stands near the end of its row or of the input.
template <typename Form>
void move_exactly(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes, bool literal) {
  constexpr std::size_t size = Form::kSampleBytes;
  constexpr bool swaps = Form::kSwaps && std::endian::native == std::endian::little;
  for (std::size_t done = 0; done < bytes; done += size) {
    for (std::size_t i = 0; i < size; ++i) out[done + i] = in[swaps ? size - 1 - i : i];
    if (literal) in += size;
  }
}

struct Expanded {
  RowEnd end;
  std::size_t used;    // bytes of the packets
  std::size_t filled;  // bytes of the row
};

template <typename Form>
Expanded expand(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  constexpr std::size_t room = in_chunks(kLongestRead * Form::kSampleBytes);
  const std::uint8_t* in = packets.data();
  const std::uint8_t* const in_end = in + packets.size();
  std::uint8_t* out = row.data();
  std::uint8_t* const out_end = out + row.size();
  const auto ended = [&](RowEnd end) {
    return Expanded{end, std::size_t(in - packets.data()), std::size_t(out - row.data())};
  };
  while (Form::kHasClosing || out < out_end) {
    if (std::size_t(in_end - in) < Form::kControlBytes) {
      return ended(out == out_end ? RowEnd::kWhole : RowEnd::kShort);
    }
    const auto [count, literal] = Form::control(in);
    if (Form::kHasClosing && count == 0) break;
    const std::size_t bytes = count * Form::kSampleBytes;
    const std::size_t stored = literal ? bytes : Form::kSampleBytes;
    if (bytes > std::size_t(out_end - out)) return ended(RowEnd::kCorrupt);
    if (stored + Form::kControlBytes > std::size_t(in_end - in)) return ended(RowEnd::kShort);
    in += Form::kControlBytes;
    if (std::size_t(out_end - out) >= room && std::size_t(in_end - in) >= room) {
      move_chunks<Form>(out, in, bytes, literal);
    } else {
      move_exactly<Form>(out, in, bytes, literal);
    }
    in += stored;
    out += bytes;
  }
  return ended(out == out_end ? RowEnd::kWhole : RowEnd::kCorrupt);
}

struct Progress {
  std::size_t in, out;  // bytes
};

// Expands what stands so far from both ends that a packet may be moved with some bytes too many.
// Rows hold the four parts of colours one by one, so that most packets of a row are of one kind: a
// branch is guessed, and the next packet need not wait for this one's length.
Progress expand_inner(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  constexpr std::size_t step = 64;
  constexpr std::size_t room = (1 + kLongestRead + step - 1) / step * step;
  const std::uint8_t* in = packets.data();
  std::uint8_t* out = row.data();
  const std::uint8_t* const in_end = in + packets.size();
  const std::uint8_t* const out_end = out + row.size();
  while (std::size_t(out_end - out) >= room && std::size_t(in_end - in) >= room) {
    const std::size_t control = *in++;
    if (control > kLongestRead) {
      const std::size_t count = control - kLongestRead;
      const std::uint64_t word = *in++ * (~std::uint64_t{0} / 0xff);
      const Words run{word, word};
      for (std::size_t done = 0; done < count; done += sizeof run) {
        std::memcpy(out + done, &run, sizeof run);
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

// Runs go to each plane in whole chunks where these end inside the row.
using Run [[gnu::vector_size(16)]] = std::uint8_t;

KA_KERNEL void fill_chunks(std::uint8_t* out, std::uint8_t sample, std::size_t length) {
  const Run run = sample - Run{};
  for (std::size_t i = 0; i < length; i += sizeof run) std::memcpy(out + i, &run, sizeof run);
}

// Two packets as a word, each byte's place as in the file.
constexpr std::uint64_t two_packets(std::uint8_t length, std::uint8_t sample) {
  return std::bit_cast<std::uint64_t>(
      std::array<std::uint8_t, 8>{length, sample, sample, sample, length, sample, sample, sample});
}

// Noise has a packet for almost each pixel: `Count` at once where all of them are such. Where they
// are not nothing is tried again before `mixed_end`, behind them.
template <std::size_t Count>
KA_KERNEL bool move_singles(const RunPlanes& out, std::size_t done, const std::uint8_t* in,
                            const std::uint8_t*& mixed_end) {
  if (in < mixed_end) return false;
  Words others{};
  for (std::size_t i = 0; i < Count * kRunBytes; i += sizeof(Words)) {
    Words packets;
    std::memcpy(&packets, in + i, sizeof packets);
    others |= packets ^ two_packets(1, 0);
  }
  if (((others[0] | others[1]) & two_packets(0xff, 0)) != 0) {
    mixed_end = in + Count * kRunBytes;
    return false;
  }
  std::array<std::uint32_t, Count> packets;
  std::memcpy(packets.data(), in, sizeof packets);
  for (std::size_t c = 0; c < out.size(); ++c) {
    const std::size_t shift = 8 * (std::endian::native == std::endian::little ? 1 + c : 2 - c);
    std::uint8_t* const samples = out[c] + done;
    for (std::size_t i = 0; i < Count; ++i) {
      samples[i] = static_cast<std::uint8_t>(packets[i] >> shift);
    }
  }
  return true;
}

KA_KERNEL void expand_runs_loop(std::span<const std::uint8_t> packets, const RunPlanes& planes,
                                std::size_t count, RunRow& row) {
  constexpr std::size_t many = 16, some = 8;
  const RunPlanes out = planes;
  const std::uint8_t* in = packets.data();
  const std::uint8_t* const in_end = in + packets.size() / kRunBytes * kRunBytes;
  const std::uint8_t *many_mixed = in, *some_mixed = in;
  std::size_t done = 0;
  row.end = RowEnd::kWhole;
  while (done < count) {
    if (in == in_end) {
      row.end = RowEnd::kShort;
      break;
    }
    std::size_t length = *in, used = 1;
    const std::size_t room = count - done;
    if (length == 0 || length > room) {
      row.end = RowEnd::kCorrupt;
      break;
    }
    const bool may_be_singles =
        length == 1 && room >= many && std::size_t(in_end - in) >= many * kRunBytes;
    if (may_be_singles && move_singles<many>(out, done, in, many_mixed)) {
      length = used = many;
    } else if (may_be_singles && move_singles<some>(out, done, in, some_mixed)) {
      length = used = some;
    } else if ((length + sizeof(Run) - 1) / sizeof(Run) * sizeof(Run) <= room) {
      for (std::size_t c = 0; c < out.size(); ++c) fill_chunks(out[c] + done, in[1 + c], length);
    } else {
      for (std::size_t c = 0; c < out.size(); ++c) std::fill_n(out[c] + done, length, in[1 + c]);
    }
    in += used * kRunBytes;
    done += length;
  }
  row.used = std::size_t(in - packets.data());
  row.pixels = done;
}

KA_DEFINE_KERNELS(expand_runs, expand_runs_loop,
                  (std::span<const std::uint8_t> packets, const RunPlanes& planes,
                   std::size_t count, RunRow& row),
                  (packets, planes, count, row));

KA_KERNEL void expand_pairs_loop(std::span<const std::uint8_t> pairs, std::span<std::uint8_t> row,
                                 RowEnd& end) {
  const std::uint8_t* in = pairs.data();
  const std::uint8_t* const in_end = in + pairs.size() / 2 * 2;
  std::uint8_t* out = row.data();
  std::size_t room = row.size();
  end = RowEnd::kCorrupt;
  for (; in < in_end; in += 2) {
    const std::size_t length = *in;
    if (length > room) return;
    if ((length + sizeof(Run) - 1) / sizeof(Run) * sizeof(Run) <= room) {
      fill_chunks(out, in[1], length);
    } else {
      std::fill_n(out, length, in[1]);
    }
    out += length;
    room -= length;
  }
  if (room > 0) {
    end = RowEnd::kShort;
  } else if (pairs.size() % 2 == 0) {
    end = RowEnd::kWhole;
  }
}

KA_DEFINE_KERNELS(expand_pairs, expand_pairs_loop,
                  (std::span<const std::uint8_t> pairs, std::span<std::uint8_t> row, RowEnd& end),
                  (pairs, row, end));

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
  constexpr std::array expand_form = {expand<PixelForm<1>>, expand<PixelForm<2>>,
                                      expand<PixelForm<3>>, expand<PixelForm<4>>};
  const auto [end, used, filled] = expand_form[pixel_bytes - 1](packets, row);
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
    const auto [bytes, literal] = PackBitsForm::control(packets.data() + used);
    const std::size_t stored = 1 + (literal ? bytes : 1);
    if (bytes > count - filled) return {RowEnd::kCorrupt, used, filled};
    if (stored > packets.size() - used) return {RowEnd::kShort, used, filled};
    used += stored;
    filled += bytes;
  }
  return {RowEnd::kWhole, used, filled};
}

const KernelTable<RunKernel>& run_kernels() { return expand_runs_kernels; }

RunRow expand_runs(std::span<const std::uint8_t> packets, const RunPlanes& planes,
                   std::size_t count) {
  static const auto kernel = best_kernel(expand_runs_kernels);
  RunRow row;
  kernel(packets, planes, count, row);
  return row;
}

RowEnd expand_pairs(std::span<const std::uint8_t> pairs, std::span<std::uint8_t> row) {
  static const auto kernel = best_kernel(expand_pairs_kernels);
  RowEnd end;
  kernel(pairs, row, end);
  return end;
}

PixelRow expand_scanline(std::span<const std::uint8_t> packets, std::span<std::uint8_t> row) {
  const auto [in, out] = expand_inner(packets, row);
  const auto rest = expand<ScanlineForm>(packets.subspan(in), row.subspan(out));
  return {rest.end, in + rest.used};
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
    *out++ = static_cast<std::uint8_t>(is_run ? kLongestRead + count : count);
    std::memcpy(out, &row[at], stored);
    out += stored;
    at = end;
  }
  return static_cast<std::size_t>(out - packets.data());
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
          *literal = static_cast<std::uint8_t>(*literal + 2);
        }
        state = joins && *literal < full ? State::kLiteral : State::kBase;
      }
      if (left > 1) {
        const std::size_t count = std::min(left, longest_run);
        *out++ = static_cast<std::uint8_t>(257 - count);
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
  return static_cast<std::size_t>(out - packets.data());
}

template RowEnd expand_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template RowEnd expand_counted(std::span<const std::uint8_t>, std::span<std::uint16_t>);
template std::size_t compact_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template std::size_t compact_counted(std::span<const std::uint16_t>, std::span<std::uint8_t>);

}  // namespace ka
