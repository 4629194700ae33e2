#include "statistics.h"

#include <ka/detail/targets.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <type_traits>

namespace {

// Results of a line. What the loops add up fits: a line has fewer than 2^31 samples.
template <typename Sample>
struct LineSums {
  using Total = std::conditional_t<std::is_signed_v<Sample>, std::int64_t, std::uint64_t>;
  Sample least = std::numeric_limits<Sample>::max(), most = std::numeric_limits<Sample>::lowest();
  Total sum = 0;
};

// Sums of blocks fit half the bits, so that a vector has twice as many of them.
template <typename Sample>
KA_KERNEL void add_integers(const Sample* samples, std::size_t count, LineSums<Sample>& sums) {
  using Total = typename LineSums<Sample>::Total;
  using Part =
      std::conditional_t<sizeof(Sample) == 4, Total,
                         std::conditional_t<std::is_signed_v<Sample>, std::int32_t, std::uint32_t>>;
  constexpr std::size_t block = 8192;
  Sample least = sums.least, most = sums.most;
  Total sum = 0;
  for (std::size_t done = 0; done < count; done += block) {
    const std::size_t end = std::min(count, done + block);
    Part part = 0;
    for (std::size_t i = done; i < end; ++i) {
      least = std::min(least, samples[i]);
      most = std::max(most, samples[i]);
      part += samples[i];
    }
    sum += Total(part);
  }
  sums = {least, most, sum};
}

struct FloatSums {
  float least = std::numeric_limits<float>::infinity();
  float most = -std::numeric_limits<float>::infinity();
  double sum = 0;
  std::uint64_t others = 0;  // samples that are no numbers, and infinities
};

constexpr std::size_t kLanes = 16;
constexpr std::uint32_t kExponent = 0x7f800000;

KA_KERNEL void add_floats(const float* samples, std::size_t count, FloatSums& sums) {
  constexpr float infinity = std::numeric_limits<float>::infinity();
  std::array<float, kLanes> least, most;
  std::array<double, kLanes> sum{};
  std::array<std::uint32_t, kLanes> others{};
  least.fill(infinity);
  most.fill(-infinity);
  const auto add = [&](std::size_t lane, float sample) {
    const bool is_number = (std::bit_cast<std::uint32_t>(sample) & kExponent) != kExponent;
    const float low = is_number ? sample : infinity, high = is_number ? sample : -infinity;
    least[lane] = low < least[lane] ? low : least[lane];
    most[lane] = high > most[lane] ? high : most[lane];
    sum[lane] += double(is_number ? sample : 0.0F);
    others[lane] += is_number ? 0U : 1U;
  };
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) add(lane, samples[i + lane]);
  }
  for (; i < count; ++i) add(0, samples[i]);
  for (std::size_t lane = 0; lane < kLanes; ++lane) {
    sums.least = std::min(sums.least, least[lane]);
    sums.most = std::max(sums.most, most[lane]);
    sums.sum += sum[lane];
    sums.others += others[lane];
  }
}

template <typename Sums>
void add_results(const Sums& sums, std::uint64_t numbers, Channel& channel) {
  if (numbers == 0) return;
  channel.minimum = std::min(channel.minimum, double(sums.least));
  channel.maximum = std::max(channel.maximum, double(sums.most));
  channel.sum += double(sums.sum);
}

template <typename Sample>
void add_samples(const void* plane, std::size_t count, Channel& channel) {
  static const auto add = ka::best_kernel(ka::kernels_of<add_integers<Sample>>);
  LineSums<Sample> sums;
  add(static_cast<const Sample*>(plane), count, sums);
  add_results(sums, count, channel);
}

template <>
void add_samples<float>(const void* plane, std::size_t count, Channel& channel) {
  static const auto add = ka::best_kernel(ka::kernels_of<add_floats>);
  const auto* const samples = static_cast<const float*>(plane);
  FloatSums sums;
  add(samples, count, sums);
  add_results(sums, count - sums.others, channel);
  if (sums.others == 0) return;
  const auto nan = std::uint64_t(
      std::count_if(samples, samples + count, [](float sample) { return std::isnan(sample); }));
  channel.nan += nan;
  channel.infinite += sums.others - nan;
}

// Eight samples to a byte, the first one in the lowest bit.
void add_bits(const void* plane, std::size_t count, Channel& channel) {
  const auto* const bytes = static_cast<const std::uint8_t*>(plane);
  LineSums<std::uint8_t> sums;
  for (std::size_t i = 0; i < count / 8; ++i) sums.sum += unsigned(std::popcount(bytes[i]));
  if (count % 8 != 0) {
    sums.sum += unsigned(std::popcount(std::uint8_t(bytes[count / 8] << (8 - count % 8))));
  }
  sums.least = sums.sum == count;
  sums.most = sums.sum > 0;
  add_results(sums, count, channel);
}

const char* names_of(int type) {
  switch (type) {
    case IMG_TYPE_A:
    case IMG_TYPE_A_16:
    case IMG_TYPE_A_FP:
      return "A";
    case IMG_TYPE_S:
    case IMG_TYPE_S_16:
    case IMG_TYPE_S_FP:
      return "S";
    case IMG_TYPE_VTA:
    case IMG_TYPE_VTS:
      return "UV";
    case IMG_TYPE_N:
    case IMG_TYPE_M:
      return "XYZ";
    case IMG_TYPE_Z:
      return "Z";
    case IMG_TYPE_TAG:
      return "T";
    case IMG_TYPE_BIT:
      return "B";
    case IMG_TYPE_COVERAGE:
      return "C";
    default:
      return "RGBA";
  }
}

}  // namespace

Statistics::Statistics(int type, int width) : width_(std::size_t(width)) {
  const bool is_signed = type == IMG_TYPE_VTA || type == IMG_TYPE_VTS;
  switch (ka_img_nbits[type]) {
    case 1:
      add_ = add_bits;
      break;
    case 8:
      add_ = add_samples<std::uint8_t>;
      break;
    case 16:
      add_ = is_signed ? add_samples<std::int16_t> : add_samples<std::uint16_t>;
      break;
    default:
      add_ = type == IMG_TYPE_TAG ? add_samples<std::uint32_t> : add_samples<float>;
      break;
  }
  for (int i = 0; i < ka_img_ncomp[type]; ++i) channels_.emplace_back().name = names_of(type)[i];
}

void Statistics::add_line(const img_line* line) {
  const bool is_single = channels_.size() == 1;
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    const void* plane = ka_img_line_plane(line, int(i));
    if (!plane && is_single) plane = ka_img_line_plane(line, IMG_SLOTS - 1);
    if (!plane) continue;
    add_(plane, width_, channels_[i]);
    channels_[i].samples += width_;
  }
}
