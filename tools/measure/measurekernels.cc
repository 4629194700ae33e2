// The loops have constant lengths and samples as narrow as their values allow: that is what lets
// the compilers fill whole vectors.
#include "measurekernels.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ka {
namespace {

constexpr std::size_t kBlock = kMeasureBlock;
// Eight planes are more streams than a processor follows by itself. In bytes from the block.
constexpr std::size_t kPrefetch = 512;
constexpr int kLargestDistance = 255;

template <std::size_t Channels>
using Distances = std::array<std::array<std::uint8_t, kBlock>, Channels>;

// The end of a line that does not fill a block, followed by zeros.
template <std::size_t Channels>
struct Tail {
  Distances<Channels> samples{};
  LinePlanes planes{};
};

template <std::size_t Channels>
KA_KERNEL void copy_tail(Tail<Channels>& tail, const LinePlanes& line, std::size_t at,
                         std::size_t width) {
  for (std::size_t c = 0; c < Channels; ++c) {
    std::memcpy(tail.samples[c].data(), line[c] + at, width - at);
    tail.planes[c] = tail.samples[c].data();
  }
}

KA_KERNEL void prefetch(const LinePlanes& line, std::size_t channels, std::size_t at) {
  for (std::size_t c = 0; c < channels; ++c) __builtin_prefetch(line[c] + at);
}

// Distances of the samples of one block, 0 below `counted`. False when all are 0.
template <std::size_t Channels>
KA_KERNEL bool block_distances(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                               std::uint8_t counted, Distances<Channels>& distances) {
  std::uint8_t any = 0;
  for (std::size_t c = 0; c < Channels; ++c) {
    const std::uint8_t* __restrict a = first[c] + at;
    const std::uint8_t* __restrict b = second[c] + at;
    std::uint8_t* __restrict d = distances[c].data();
    for (std::size_t i = 0; i < kBlock; ++i) {
      const std::uint8_t more = a[i] > b[i] ? a[i] : b[i], less = a[i] > b[i] ? b[i] : a[i];
      const auto distance = std::uint8_t(more - less);
      d[i] = distance >= counted ? distance : std::uint8_t{0};
      any = std::uint8_t(any | d[i]);
    }
  }
  return any != 0;
}

template <std::size_t Channels>
struct ColorBlock {
  static constexpr std::size_t kChannels = Channels;

  KA_KERNEL static void add(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                            std::uint8_t counted, LineSums& sums) {
    Distances<Channels> distances;
    if (!block_distances(first, second, at, counted, distances)) return;
    std::uint16_t squares[Channels][kBlock];
    for (std::size_t c = 0; c < Channels; ++c) {
      const std::uint8_t* __restrict d = distances[c].data();
      for (std::size_t i = 0; i < kBlock; ++i) squares[c][i] = std::uint16_t(d[i] * d[i]);
    }
    std::int32_t count = 0, total = 0, most = 0;
    for (std::size_t i = 0; i < kBlock; ++i) {
      std::int32_t s = 0;
      for (std::size_t c = 0; c < Channels; ++c) s += squares[c][i];
      count += s != 0;
      total += s;
      most = std::max(most, s);
    }
    sums.count += std::uint32_t(count);
    sums.total += total;
    sums.most = std::max(sums.most, most);
  }
};

// The weights in parts of 65536. Products with them are cut to the same whole numbers as the exact
// ones.
constexpr std::array<std::uint32_t, 3> kScaledWeights = {19595, 38470, 7471};
constexpr bool cuts_exactly(std::size_t channel, std::uint32_t thousandths) {
  for (std::uint32_t d = 0; d <= 255; ++d) {
    if (d * kScaledWeights[channel] >> 16 != d * thousandths / 1000) return false;
  }
  return true;
}
static_assert(cuts_exactly(0, 299) && cuts_exactly(1, 587) && cuts_exactly(2, 114));

// s + d * weight, cut towards 0. The product is cut downwards first, by 1 too far where it is below
// 0; it is never whole but for d = 0, so that a sum below 0 goes up by 1.
template <std::size_t Channel>
KA_KERNEL std::int16_t add_weighted(std::int16_t s, std::uint8_t a, std::uint8_t b,
                                    std::int16_t tolerance) {
  const auto difference = std::int16_t(a - b);
  const auto size = std::int16_t(difference < 0 ? -difference : difference);
  const auto d = std::int16_t(size > tolerance ? difference : 0);
  const auto distance = std::uint16_t(size > tolerance ? size : 0);
  const auto whole = std::int16_t(distance * kScaledWeights[Channel] >> 16);
  const auto sum = std::int16_t(s + (whole ^ std::int16_t(d >> 15)));
  const auto is_counted = std::int16_t(size > tolerance ? -1 : 0);
  return std::int16_t(sum - std::int16_t(std::int16_t(sum >> 15) & is_counted));
}

struct IntensityBlock {
  static constexpr std::size_t kChannels = 3;  // alpha has weight 0

  KA_KERNEL static void add(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                            std::uint8_t counted, LineSums& sums) {
    Distances<kChannels> distances;
    if (!block_distances(first, second, at, counted, distances)) return;
    const std::uint8_t* __restrict red1 = first[0] + at, * __restrict red2 = second[0] + at;
    const std::uint8_t* __restrict green1 = first[1] + at, * __restrict green2 = second[1] + at;
    const std::uint8_t* __restrict blue1 = first[2] + at, * __restrict blue2 = second[2] + at;
    const auto tolerance = std::int16_t(counted - 1);
    std::int16_t s[kBlock];
    for (std::size_t i = 0; i < kBlock; ++i) {
      s[i] = add_weighted<2>(0, blue1[i], blue2[i], tolerance);
      s[i] = add_weighted<1>(s[i], green1[i], green2[i], tolerance);
      s[i] = add_weighted<0>(s[i], red1[i], red2[i], tolerance);
    }
    std::int32_t count = 0;
    std::int16_t total = 0, most = 0, least = 0;  // 64 * 255 is in range
    for (std::size_t i = 0; i < kBlock; ++i) {
      count += s[i] != 0;
      total = std::int16_t(total + s[i]);
      most = std::max(most, s[i]);
      least = std::min(least, s[i]);
    }
    sums.count += std::uint32_t(count);
    sums.total += total;
    sums.most = std::max(sums.most, std::int32_t{most});
    sums.least = std::min(sums.least, std::int32_t{least});
  }
};

template <typename Block>
KA_KERNEL void line_sums(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                         int tolerance, LineSums& sums) {
  if (tolerance >= kLargestDistance) return;
  const auto counted = std::uint8_t(tolerance + 1);
  std::size_t at = 0;
  for (; at + kBlock <= width; at += kBlock) {
    prefetch(first, Block::kChannels, std::min(at + kPrefetch, width));
    prefetch(second, Block::kChannels, std::min(at + kPrefetch, width));
    Block::add(first, second, at, counted, sums);
  }
  if (at == width) return;
  Tail<Block::kChannels> a, b;
  copy_tail(a, first, at, width);
  copy_tail(b, second, at, width);
  Block::add(a.planes, b.planes, 0, counted, sums);
}

KA_KERNEL void color_body(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                          int tolerance, int channels, LineSums& sums) {
  if (channels == 4) {
    line_sums<ColorBlock<4>>(first, second, width, tolerance, sums);
  } else {
    line_sums<ColorBlock<3>>(first, second, width, tolerance, sums);
  }
}

KA_KERNEL void intensity_body(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                              int tolerance, int /*channels*/, LineSums& sums) {
  line_sums<IntensityBlock>(first, second, width, tolerance, sums);
}

KA_KERNEL std::int16_t counted_difference(std::uint8_t a, std::uint8_t b, std::int16_t tolerance) {
  const auto d = std::int16_t(a - b);
  return std::int16_t((d < 0 ? -d : d) > tolerance ? d : 0);
}

KA_KERNEL std::int32_t counted_square(std::uint8_t a, std::uint8_t b, std::int16_t tolerance) {
  const std::int32_t d = counted_difference(a, b, tolerance);
  return d * d;
}

template <bool Intensity>
KA_KERNEL void pixel_sums(const LinePlanes& first, const LinePlanes& second, std::size_t at,
                          std::size_t size, int tolerance, int channels,
                          std::int32_t* __restrict sums, std::int16_t* __restrict alphas) {
  const auto limit = std::int16_t(tolerance);
  const auto alpha_limit = std::int16_t(channels == 4 ? tolerance : kLargestDistance);
  for (std::size_t i = at; i < at + size; ++i) {
    alphas[i] = counted_difference(first[3][i], second[3][i], alpha_limit);
    if constexpr (Intensity) {
      std::int16_t s = add_weighted<2>(0, first[2][i], second[2][i], limit);
      s = add_weighted<1>(s, first[1][i], second[1][i], limit);
      s = add_weighted<0>(s, first[0][i], second[0][i], limit);
      sums[i] = s + alphas[i];
    } else {
      std::int32_t s = alphas[i] * alphas[i];
      for (std::size_t c = 0; c < 3; ++c) s += counted_square(first[c][i], second[c][i], limit);
      sums[i] = s;
    }
  }
}

template <bool Intensity>
KA_KERNEL void pixels_body(const LinePlanes& first, const LinePlanes& second, std::size_t width,
                           int tolerance, int channels, std::int32_t* sums, std::int16_t* alphas) {
  std::size_t at = 0;
  for (; at + kBlock <= width; at += kBlock) {
    prefetch(first, first.size(), std::min(at + kPrefetch, width));
    prefetch(second, second.size(), std::min(at + kPrefetch, width));
    pixel_sums<Intensity>(first, second, at, kBlock, tolerance, channels, sums, alphas);
  }
  pixel_sums<Intensity>(first, second, at, width - at, tolerance, channels, sums, alphas);
}

// Fetches the entry of each pixel and counts it under its bin, one by one: vectors of entries cost
// more to fill and to take apart than they save. `index_of` and `side_of` are called by pixel.
template <typename Index, typename Side>
KA_KERNEL void count_entries(const std::uint32_t* __restrict table, std::size_t size,
                             std::uint32_t* __restrict entries, Counters& counters, Index index_of,
                             Side side_of) {
  const auto count = [&](std::size_t i, std::size_t set) {
    const std::uint32_t entry = table[index_of(i)];
    entries[i] = entry;
    ++counters[set][(entry & 0xff) + side_of(i)];
  };
  std::size_t i = 0;
  for (; i + kCounterSets <= size; i += kCounterSets) {
#pragma GCC unroll 8
    for (std::size_t set = 0; set < kCounterSets; ++set) count(i + set, set);
  }
  for (; i < size; ++i) count(i, 0);
}

// Counts the pixels of a block by their differences of alpha, those that do not differ apart.
KA_KERNEL void count_alphas(const std::int32_t* sums, const std::int16_t* alphas, std::size_t size,
                            Counters& counters) {
  std::uint16_t positions[kBlock];
  for (std::size_t i = 0; i < size; ++i) {
    const auto differs = std::int16_t(0 - (sums[i] != 0));
    positions[i] = std::uint16_t((alphas[i] + std::int16_t{kCounterMiddle}) & differs);
  }
  std::size_t i = 0;
  for (; i + kCounterSets <= size; i += kCounterSets) {
#pragma GCC unroll 8
    for (std::size_t set = 0; set < kCounterSets; ++set) ++counters[set][positions[i + set]];
  }
  for (; i < size; ++i) ++counters[0][positions[i]];
}

KA_KERNEL void count_block(const CountInput& input, std::size_t size, std::uint32_t* entries,
                           Counters& main, Counters& alpha) {
  const std::int32_t* __restrict sums = input.sums;
  const std::int16_t* __restrict alphas = input.alphas;
  std::int32_t any = 0, differing = 0;
  std::int16_t any_alpha = 0;
  for (std::size_t i = 0; i < size; ++i) {
    any |= sums[i];
    any_alpha = std::int16_t(any_alpha | alphas[i]);
    differing += sums[i] != 0;
  }
  if (any == 0) return;
  if (input.is_signed) {
    count_entries(
        input.table, size, entries, main, [&](std::size_t i) { return std::abs(sums[i]); },
        [&](std::size_t i) { return sums[i] < 0 ? kCounterMiddle : 0; });
  } else {
    count_entries(
        input.table, size, entries, main, [&](std::size_t i) { return sums[i]; },
        [](std::size_t) { return std::size_t{0}; });
  }
  main[0][0] -= int(size) - differing;  // a sum of 0 was counted under bin 0
  if (any_alpha == 0) {
    alpha[0][kCounterMiddle] += differing;
  } else {
    count_alphas(sums, alphas, size, alpha);
  }
}

KA_KERNEL void count_body(const CountInput& input, std::size_t width, std::uint32_t* entries,
                          Counters& main, Counters& alpha) {
  std::size_t at = 0;
  const auto from = [&] {
    return CountInput{input.sums + at, input.alphas + at, input.table, input.is_signed};
  };
  for (; at + kBlock <= width; at += kBlock) count_block(from(), kBlock, entries + at, main, alpha);
  count_block(from(), width - at, entries + at, main, alpha);
}

}  // namespace

constinit const KernelTable<CountKernel> count_kernels = kernels_of<count_body>;
constinit const KernelTable<PixelKernel> color_pixel_kernels = kernels_of<pixels_body<false>>;
constinit const KernelTable<PixelKernel> intensity_pixel_kernels = kernels_of<pixels_body<true>>;
constinit const KernelTable<MeasureKernel> color_kernels = kernels_of<color_body>;
constinit const KernelTable<MeasureKernel> intensity_kernels = kernels_of<intensity_body>;

}  // namespace ka
