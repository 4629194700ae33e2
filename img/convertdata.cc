// Conversions from data that is not a colour: directions, distances, labels, coverage and bits are
// made visible.
#include "convertline.h"

namespace ka {
namespace {

// The low bits of a value cut to a whole number; a float as it is.
template <typename To>
To store(double value) {
  if constexpr (std::is_same_v<To, float>) {
    return static_cast<float>(value);
  } else {
    return static_cast<To>(cut(value));
  }
}

// One of three constants, by depth of the destination.
template <typename To>
constexpr double by_depth(double bits_8, double bits_16, double floats) {
  return std::is_same_v<To, float> ? floats : sizeof(To) == 2 ? bits_16 : bits_8;
}

// Between the ends; what is not a number is 0.
double between(double least, double value, double most) {
  if (!(value > least)) return value <= least ? least : 0.0;
  return value < most ? value : most;
}

// A part of a direction, -1 to 1, around the middle of a sample's range; and the sum of two, -2 to
// 2.
template <typename To>
To view_part(double part) {
  constexpr double middle = by_depth<To>(128, 32768, 0.5);
  return store<To>(part * by_depth<To>(127, 32767, 0.5) + middle);
}
template <typename To>
To view_sum(double sum) {
  constexpr double middle = by_depth<To>(128, 32768, 0.5);
  return store<To>(between(-2, sum, 2) * by_depth<To>(63, 16383, 0.5) + middle);
}

// u and v are signed. The factor is a float, so that the largest u stays just below 1.
struct Vector {
  using Sample = std::uint16_t;
  static constexpr std::size_t kSampleBits = 16;
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {0, 1, 0, kFullSlot};

  static double part(Sample sample) {
    constexpr double unit = static_cast<double>(1.0F / 32767.0F);
    return between(-1, static_cast<std::int16_t>(sample) * unit, 1);
  }
  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      to[i] = view_part<To>(Channel == 2 ? 0.0 : part(from[i]));
    }
  }
};

struct Normal {
  using Sample = float;
  static constexpr std::size_t kSampleBits = 32;
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {0, 1, 2, kFullSlot};

  static double part(Sample sample) { return between(-1, static_cast<double>(sample), 1); }
  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    if constexpr (std::is_same_v<To, float>) {
      convert_plane(from, to, count);
    } else {
      for (std::size_t i = 0; i < count; ++i) to[i] = view_part<To>(static_cast<double>(from[i]));
    }
  }
};

// The first two parts of a direction as one sample.
template <typename Source, typename To>
void sum_to_scalar(img_line* dst, const img_line* src, const float* /*weights*/,
                   std::size_t width) {
  const auto* const u = plane_of<const typename Source::Sample>(src, 0);
  const auto* const v = plane_of<const typename Source::Sample>(src, 1);
  To* const to = plane_of<To>(dst, 3);
  if (!u || !v || !to) return;
  for (std::size_t x = 0; x < width; ++x) {
    to[x] = view_sum<To>(Source::part(u[x]) + Source::part(v[x]));
  }
}

// Data in one plane that is seen as grey: Look::grey<To>(sample).
template <typename Look>
struct Grey {
  using Sample = float;
  static constexpr std::size_t kSampleBits = 32;
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {0, 0, 0, kFullSlot};

  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      to[i] = Look::template grey<To>(static_cast<double>(from[i]));
    }
  }
};

// Near is bright, and nothing at all is at distance 0.
struct Distance {
  template <typename To>
  static To grey(double z) {
    const double d = between(0, z, 100);
    const double range = by_depth<To>(255, 65535, 1);
    return store<To>(d == 0.0 ? 0.0 : (100 - d) * range / 100);
  }
};

struct Coverage {
  template <typename To>
  static To grey(double coverage) {
    const double value = coverage * by_depth<To>(256, 65536, 1);
    const double most = by_depth<To>(255, 65535, 1);
    return store<To>(value > most ? most : value);
  }
};

template <typename Look, typename To>
void grey_to_scalar(img_line* dst, const img_line* src, const float* /*weights*/,
                    std::size_t width) {
  const auto* const from = plane_of<const float>(src, 0);
  To* const to = plane_of<To>(dst, 3);
  if (from && to) Grey<Look>::template view<To, 0>(from, to, width);
}

// Gathers 8 bits of a value, `step` apart from bit `first` on, the first one as the highest.
std::uint8_t getbits(std::uint32_t value, int first, int step) {
  std::uint32_t mask = 1U << first;
  unsigned result = 0;
  for (unsigned bit = 128; bit != 0; bit >>= 1, mask <<= step) {
    if (value & mask) result |= bit;
  }
  return static_cast<std::uint8_t>(result);
}

// Neighbouring labels get colours far apart.
struct Tag {
  using Sample = std::uint32_t;
  static constexpr std::size_t kSampleBits = 32;
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {0, 0, 0, kFullSlot};

  template <typename To>
  static To widen(std::uint8_t byte) {
    if constexpr (std::is_same_v<To, float>) return static_cast<float>(byte) / 255.0F;
    return static_cast<To>(byte * (kFull<To> / 255));
  }
  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) to[i] = widen<To>(getbits(from[i], int{Channel}, 3));
  }
};

template <typename To>
void tag_to_scalar(img_line* dst, const img_line* src, const float* /*weights*/,
                   std::size_t width) {
  const auto* const from = plane_of<const std::uint32_t>(src, 0);
  To* const to = plane_of<To>(dst, 3);
  if (!from || !to) return;
  for (std::size_t x = 0; x < width; ++x) to[x] = Tag::widen<To>(getbits(from[x], 0, 1));
}

struct Bit {
  using Sample = std::uint8_t;
  static constexpr std::size_t kSampleBits = 1;
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {3, 3, 3, 3};

  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const bool is_set = from[i / 8] >> (i % 8) & 1;
      if constexpr (std::is_same_v<To, std::uint16_t>) {
        to[i] = with_high_byte(to[i], is_set ? 255 : 0);
      } else {
        to[i] = is_set ? kFull<To> : To{};
      }
    }
  }
};

constexpr ConvertRow row_of(ConvertRow colours, const std::array<ConvertKernel, 3>& scalars,
                            ConvertKernel bits) {
  set_scalars(colours, scalars);
  colours[IMG_TYPE_BIT] = bits;
  return colours;
}

template <typename Source>
constexpr std::array<ConvertKernel, 3> kSums = {sum_to_scalar<Source, std::uint8_t>,
                                                sum_to_scalar<Source, std::uint16_t>,
                                                sum_to_scalar<Source, float>};
template <typename Look>
constexpr std::array<ConvertKernel, 3> kGreys = {grey_to_scalar<Look, std::uint8_t>,
                                                 grey_to_scalar<Look, std::uint16_t>,
                                                 grey_to_scalar<Look, float>};

}  // namespace

constinit const ConvertRow vector_row =
    row_of(colour_columns<Vector>(), kSums<Vector>, any_to_bit<std::uint16_t, 0, 1>);
constinit const ConvertRow normal_row =
    row_of(colour_columns<Normal>(), kSums<Normal>, any_to_bit<float, 0, 1, 2>);
constinit const ConvertRow z_row =
    row_of(colour_columns<Grey<Distance>>(), kGreys<Distance>, any_to_bit<float, 0>);
constinit const ConvertRow coverage_row =
    row_of(colour_columns<Grey<Coverage>>(), kGreys<Coverage>, any_to_bit<float, 0>);
constinit const ConvertRow tag_row =
    row_of(colour_columns<Tag>(),
           {tag_to_scalar<std::uint8_t>, tag_to_scalar<std::uint16_t>, tag_to_scalar<float>},
           any_to_bit<std::uint32_t, 0>);
constinit const ConvertRow bit_row = row_of(
    colour_columns<Bit>(),
    {to_alpha<Bit, std::uint8_t>, to_alpha<Bit, std::uint16_t>, to_alpha<Bit, float>}, nullptr);

}  // namespace ka
