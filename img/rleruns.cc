// Decoders of packets that are runs only.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "rle.h"

namespace ka {
namespace {

using Run [[gnu::vector_size(16)]] = std::uint8_t;

// Whole vectors are written where they end inside the row.
KA_KERNEL void fill(std::uint8_t* out, std::uint8_t sample, std::size_t length, std::size_t room) {
  if ((length + sizeof(Run) - 1) / sizeof(Run) * sizeof(Run) > room) {
    std::fill_n(out, length, sample);
    return;
  }
  const Run run = sample - Run{};
  for (std::size_t i = 0; i < length; i += sizeof run) std::memcpy(out + i, &run, sizeof run);
}

using Words [[gnu::vector_size(16)]] = std::uint64_t;

// Two packets as a word, each byte's place as in the file.
constexpr std::uint64_t two_packets(std::uint8_t length, std::uint8_t sample) {
  return std::bit_cast<std::uint64_t>(
      std::array<std::uint8_t, 8>{length, sample, sample, sample, length, sample, sample, sample});
}

// Noise has a packet for almost each pixel: moves `Count` packets when each has one pixel. When they
// do not, nothing is tried again before `mixed_end`, after them.
// `lumora_bench --benchmark_filter='read/(alias|lwi)/single'`: 0.94 of the rate with groups of 16
// only, 0.7 when groups of 8 are compared packet by packet and distributed by `split`.
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
    for (std::size_t i = 0; i < Count; ++i) samples[i] = std::uint8_t(packets[i] >> shift);
  }
  return true;
}

KA_KERNEL void expand_runs_loop(std::span<const std::uint8_t> packets, const RunPlanes& planes,
                                std::size_t count, Expanded& row) {
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
    } else {
      for (std::size_t c = 0; c < out.size(); ++c) fill(out[c] + done, in[1 + c], length, room);
    }
    in += used * kRunBytes;
    done += length;
  }
  row.used = std::size_t(in - packets.data());
  row.filled = done;
}

constexpr auto& expand_runs_kernels = kernels_of<expand_runs_loop>;

// `lumora_bench --benchmark_filter=read/catia/short`: 0.9 of the rate with SSE2 only.
KA_KERNEL void expand_pairs_loop(std::span<const std::uint8_t> pairs, std::span<std::uint8_t> row,
                                 Expanded& result) {
  const std::uint8_t* in = pairs.data();
  const std::uint8_t* const in_end = in + pairs.size() / 2 * 2;
  std::uint8_t* out = row.data();
  std::size_t room = row.size();
  RowEnd end = RowEnd::kWhole;
  for (; in < in_end; in += 2) {
    const std::size_t length = *in;
    if (length > room) break;
    fill(out, in[1], length, room);
    out += length;
    room -= length;
  }
  if (in < in_end || (room == 0 && pairs.size() % 2 != 0)) {
    end = RowEnd::kCorrupt;
  } else if (room > 0) {
    end = RowEnd::kShort;
  }
  result = {end, std::size_t(in - pairs.data()), row.size() - room};
}

constexpr auto& expand_pairs_kernels = kernels_of<expand_pairs_loop>;

}  // namespace

const KernelTable<RunKernel>& run_kernels() { return expand_runs_kernels; }

Expanded expand_runs(std::span<const std::uint8_t> packets, const RunPlanes& planes,
                     std::size_t count) {
  static const auto kernel = best_kernel(expand_runs_kernels);
  Expanded row;
  kernel(packets, planes, count, row);
  return row;
}

Expanded expand_pairs(std::span<const std::uint8_t> pairs, std::span<std::uint8_t> row) {
  static const auto kernel = best_kernel(expand_pairs_kernels);
  Expanded result;
  kernel(pairs, row, result);
  return result;
}

}  // namespace ka
