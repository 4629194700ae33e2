// Conversions from data that is not a color: directions, distances, labels, coverage and bits are
// made visible.
#include <cstring>
#include <tuple>

#include "convertline.h"

namespace ka {
namespace {

// The low bits of a value cut to a whole number; a float as it is.
template <typename To>
To store(double value) {
  if constexpr (std::is_same_v<To, float>) {
    return float(value);
  } else {
    return static_cast<To>(cut(value));
  }
}

// One of three constants, by depth of the destination.
template <typename To>
constexpr double by_depth(double bits_8, double bits_16, double floats) {
  return std::is_same_v<To, float> ? floats : sizeof(To) == 2 ? bits_16 : bits_8;
}

// Limits that include 0: what is not a number becomes 0.
double between(double least, double value, double most) {
  if (!(value > least)) return value <= least ? least : 0.0;
  return value < most ? value : most;
}

// A look is how a sample of data is seen: Look::at<To>(sample). The part of a direction is seen
// around the middle of a sample's range.
template <typename To>
To scaled_part(double part) {
  return store<To>(part * by_depth<To>(127, 32767, 0.5) + by_depth<To>(128, 32768, 0.5));
}

// u and v are signed. The factor is a float, with which the largest u stays just below 1.
struct TexturePart {
  using Sample = std::uint16_t;
  static double part(Sample sample) {
    constexpr double unit = double(1.0F / 32767.0F);
    return between(-1, std::int16_t(sample) * unit, 1);
  }
  template <typename To>
  static To at(Sample sample) {
    return scaled_part<To>(part(sample));
  }
};

struct NoPart {
  using Sample = std::uint16_t;
  template <typename To>
  static To at(Sample /*sample*/) {
    return scaled_part<To>(0.0);
  }
};

// Parts of normals and motions go beyond 1, and floats have room for it.
struct NormalPart {
  using Sample = float;
  static double part(Sample sample) { return between(-1, double(sample), 1); }
  template <typename To>
  static To at(Sample sample) {
    if constexpr (std::is_same_v<To, float>) return sample;
    return scaled_part<To>(double(sample));
  }
};

// Near is bright, and where nothing is the distance is 0.
struct Distance {
  using Sample = float;
  template <typename To>
  static To at(Sample z) {
    const double d = between(0, double(z), 100);
    return store<To>(d == 0.0 ? 0.0 : (100 - d) * by_depth<To>(255, 65535, 1) / 100);
  }
};

struct Coverage {
  using Sample = float;
  template <typename To>
  static To at(Sample coverage) {
    const double value = double(coverage) * by_depth<To>(256, 65536, 1);
    const double most = by_depth<To>(255, 65535, 1);
    return store<To>(value > most ? most : value);
  }
};

// Gathers 8 bits of a value, `step` apart from bit `first` on, the first one as the highest.
std::uint8_t getbits(std::uint32_t value, int first, int step) {
  std::uint32_t mask = 1U << first;
  unsigned result = 0;
  for (unsigned bit = 128; bit != 0; bit >>= 1, mask <<= step) {
    if (value & mask) result |= bit;
  }
  return std::uint8_t(result);
}

// Neighbouring labels get colors far apart.
template <int First, int Step>
struct Label {
  using Sample = std::uint32_t;
  template <typename To>
  static To at(Sample label) {
    const std::uint8_t byte = getbits(label, First, Step);
    if constexpr (std::is_same_v<To, float>) return float(byte) / 255.0F;
    return static_cast<To>(byte * (kFull<To> / 255));
  }
};

// Many conversions share these loops.
template <typename Look, typename To>
[[gnu::noinline]] void look_at(const typename Look::Sample* __restrict from, To* __restrict to,
                               std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) to[i] = Look::template at<To>(from[i]);
}

// Eight pixels by byte of a plane of bits.
constexpr auto kEightSamples = [] {
  std::array<std::array<std::uint8_t, 8>, 256> samples{};
  for (std::size_t byte = 0; byte < samples.size(); ++byte) {
    for (std::size_t bit = 0; bit < 8; ++bit) samples[byte][bit] = byte >> bit & 1 ? 255 : 0;
  }
  return samples;
}();

void expand_bits(const std::uint8_t* from, std::uint8_t* to, std::size_t count) {
  const std::size_t whole_bytes = count / 8;
  for (std::size_t i = 0; i < whole_bytes; ++i) {
    std::memcpy(to + 8 * i, kEightSamples[from[i]].data(), 8);
  }
  if (count % 8 != 0) {
    std::memcpy(to + 8 * whole_bytes, kEightSamples[from[whole_bytes]].data(), count % 8);
  }
}

// Deeper samples are made of those of 8 bits.
template <typename To>
void expand_bits(const std::uint8_t* from, To* to, std::size_t count) {
  std::array<std::uint8_t, 512> samples;
  for (std::size_t first = 0; first < count; first += samples.size()) {
    const std::size_t size = std::min(samples.size(), count - first);
    expand_bits(from + first / 8, samples.data(), size);
    convert_plane(samples.data(), to + first, size);
  }
}

// A source of three looks, each at a separate plane.
template <typename Red, std::size_t RedSlot, typename Green, std::size_t GreenSlot, typename Blue,
          std::size_t BlueSlot>
struct Looks {
  using Sample = typename Red::Sample;
  static constexpr std::size_t kSampleBits = 8 * sizeof(Sample);
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {RedSlot, GreenSlot, BlueSlot,
                                                                kFullSlot};
  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    look_at<std::tuple_element_t<Channel, std::tuple<Red, Green, Blue>>>(from, to, count);
  }
};
using Vectors = Looks<TexturePart, 0, TexturePart, 1, NoPart, 0>;
using Normals = Looks<NormalPart, 0, NormalPart, 1, NormalPart, 2>;
using Labels = Looks<Label<0, 3>, 0, Label<1, 3>, 0, Label<2, 3>, 0>;
template <typename Look>
using Grey = Looks<Look, 0, Look, 0, Look, 0>;

struct Bits {
  using Sample = std::uint8_t;
  static constexpr std::size_t kSampleBits = 1;
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {3, 3, 3, 3};

  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    expand_bits(from, to, count);
  }
};

template <typename Look, typename To>
void look_to_scalar(img_line* dst, const img_line* src, const float* /*weights*/,
                    std::size_t width) {
  const auto* const from = plane_of<const typename Look::Sample>(src, 0);
  To* const to = plane_of<To>(dst, 3);
  if (from && to) look_at<Look>(from, to, width);
}

// The first two parts of a direction as one sample.
template <typename Look, typename To>
void parts_to_scalar(img_line* dst, const img_line* src, const float* /*weights*/,
                     std::size_t width) {
  const auto* const first = plane_of<const typename Look::Sample>(src, 0);
  const auto* const second = plane_of<const typename Look::Sample>(src, 1);
  To* const to = plane_of<To>(dst, 3);
  if (!first || !second || !to) return;
  for (std::size_t x = 0; x < width; ++x) {
    const double sum = Look::part(first[x]) + Look::part(second[x]);  // -2 to 2
    to[x] = store<To>(sum * by_depth<To>(63, 16383, 0.5) + by_depth<To>(128, 32768, 0.5));
  }
}

template <typename Look>
constexpr std::array<ConvertKernel, 3> kPlaneScalars = {look_to_scalar<Look, std::uint8_t>,
                                                        look_to_scalar<Look, std::uint16_t>,
                                                        look_to_scalar<Look, float>};
template <typename Look>
constexpr std::array<ConvertKernel, 3> kPartScalars = {parts_to_scalar<Look, std::uint8_t>,
                                                       parts_to_scalar<Look, std::uint16_t>,
                                                       parts_to_scalar<Look, float>};
constexpr std::array<ConvertKernel, 3> kBitScalars = {
    to_alpha<Bits, std::uint8_t>, to_alpha<Bits, std::uint16_t>, to_alpha<Bits, float>};

template <typename Source>
constexpr ConvertRow row_of(const std::array<ConvertKernel, 3>& scalars, ConvertKernel bits) {
  ConvertRow row = color_columns<Source>();
  set_scalars(row, scalars);
  row[IMG_TYPE_BIT] = bits;
  return row;
}

}  // namespace

constinit const ConvertRow vector_row =
    row_of<Vectors>(kPartScalars<TexturePart>, any_to_bit<std::uint16_t, 0, 1>);
constinit const ConvertRow normal_row =
    row_of<Normals>(kPartScalars<NormalPart>, any_to_bit<float, 0, 1, 2>);
constinit const ConvertRow z_row =
    row_of<Grey<Distance>>(kPlaneScalars<Distance>, any_to_bit<float, 0>);
constinit const ConvertRow coverage_row =
    row_of<Grey<Coverage>>(kPlaneScalars<Coverage>, any_to_bit<float, 0>);
constinit const ConvertRow tag_row =
    row_of<Labels>(kPlaneScalars<Label<0, 1>>, any_to_bit<std::uint32_t, 0>);
constinit const ConvertRow bit_row = row_of<Bits>(kBitScalars, nullptr);

}  // namespace ka
