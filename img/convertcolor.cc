// Conversions from colors and from alpha and luminance.
#include "convertline.h"

namespace ka {
namespace {

// Planes whose samples only change their depth.
template <typename S, std::size_t... Slots>
struct Samples {
  using Sample = S;
  static constexpr std::size_t kSampleBits = 8 * sizeof(Sample);
  static constexpr std::array<std::size_t, IMG_SLOTS> kSlots = {Slots...};

  template <typename To, std::size_t Channel>
  static void view(const Sample* from, To* to, std::size_t count) {
    convert_plane(from, to, count);
  }
};
template <typename Sample>
using Opaque = Samples<Sample, 0, 1, 2, kFullSlot>;
template <typename Sample>
using WithAlpha = Samples<Sample, 0, 1, 2, 3>;
template <typename Sample>
using Scalar = Samples<Sample, 3, 3, 3, 3>;

// Scalar floats get a shared exponent in 256 steps only. For blocks.
struct SteppedScalar : Scalar<float> {
  template <typename To, std::size_t Channel>
  static void view(const float* from, To* to, std::size_t count) {
    std::array<std::uint8_t, FloatBlock::kPixels> steps;
    convert_plane(from, steps.data(), count);
    convert_plane(steps.data(), to, count);
  }
};

// The planes of a color; false when one is absent.
template <typename Sample>
struct Planes {
  explicit Planes(const img_line* line)
      : red(plane_of<const Sample>(line, 0)),
        green(plane_of<const Sample>(line, 1)),
        blue(plane_of<const Sample>(line, 2)) {}
  explicit operator bool() const { return red && green && blue; }

  const Sample *red, *green, *blue;
};

template <typename From, typename To>
void to_luminance(img_line* dst, const img_line* src, const float* weights, std::size_t width) {
  const Planes<From> from(src);
  To* const to = plane_of<To>(dst, 3);
  if (from && to) convert_luminance(from.red, from.green, from.blue, to, weights, width);
}

// Of 16 bits only the high byte counts.
bool is_set(std::uint16_t sample) { return sample >> 8 != 0; }
bool is_set(std::uint8_t sample) { return sample != 0; }
bool is_set(float sample) { return sample != 0.0F; }
template <typename Sample>
bool is_set_luminance(double luminance) {
  return std::is_same_v<Sample, std::uint16_t> ? is_set(cut(luminance)) : luminance != 0.0;
}

template <typename Sample>
void alpha_to_bit(img_line* dst, const img_line* src, const float* /*weights*/, std::size_t width) {
  const auto* const from = plane_of<const Sample>(src, 3);
  auto* const to = plane_of<std::uint8_t>(dst, 3);
  if (from && to) pack_bits(to, width, [from](std::size_t x) { return is_set(from[x]); });
}

template <typename Sample>
void luminance_to_bit(img_line* dst, const img_line* src, const float* weights, std::size_t width) {
  const Planes<Sample> from(src);
  auto* const to = plane_of<std::uint8_t>(dst, 3);
  if (!from || !to) return;
  const double exact[3] = {weights[0], weights[1], weights[2]};
  pack_bits(to, width, [&](std::size_t x) {
    return is_set_luminance<Sample>(luminance_of(from.red[x], from.green[x], from.blue[x], exact));
  });
}

template <typename Sample>
constexpr ConvertRow opaque_row() {
  ConvertRow row = color_columns<Opaque<Sample>>();
  set_scalars(row, {to_luminance<Sample, std::uint8_t>, to_luminance<Sample, std::uint16_t>,
                    to_luminance<Sample, float>});
  row[IMG_TYPE_BIT] = luminance_to_bit<Sample>;
  return row;
}

template <typename Sample>
constexpr ConvertRow alpha_row() {
  using Source = WithAlpha<Sample>;
  ConvertRow row = color_columns<Source>();
  set_scalars(row, {to_luminance<Sample, std::uint8_t>, to_luminance<Sample, std::uint16_t>,
                    to_luminance<Sample, float>});
  row[IMG_TYPE_A] = to_alpha<Source, std::uint8_t>;
  row[IMG_TYPE_A_16] = to_alpha<Source, std::uint16_t>;
  row[IMG_TYPE_A_FP] = to_alpha<Source, float>;
  row[IMG_TYPE_BIT] = alpha_to_bit<Sample>;
  return row;
}

template <typename Sample>
constexpr ConvertRow scalar_to_all() {
  using Source = Scalar<Sample>;
  ConvertRow row = color_columns<Source>();
  set_scalars(row, {to_alpha<Source, std::uint8_t>, to_alpha<Source, std::uint16_t>,
                    to_alpha<Source, float>});
  row[IMG_TYPE_BIT] = alpha_to_bit<Sample>;
  return row;
}

// Alpha and luminance of the same depth are the same line, and no conversion but that of floats
// copies it.
constexpr ConvertRow without(ConvertRow row, int alpha, int luminance) {
  row[std::size_t(alpha)] = row[std::size_t(luminance)] = nullptr;
  return row;
}

constexpr ConvertRow with_steps(ConvertRow row) {
  row[IMG_TYPE_RGBE] = to_rgbe<SteppedScalar>;
  return row;
}

}  // namespace

constinit const ConvertRow rgba_row = alpha_row<std::uint8_t>();
constinit const ConvertRow rgba_16_row = alpha_row<std::uint16_t>();
constinit const ConvertRow rgba_fp_row = alpha_row<float>();
constinit const ConvertRow rgb_row = opaque_row<std::uint8_t>();
constinit const ConvertRow rgb_16_row = opaque_row<std::uint16_t>();
constinit const ConvertRow rgb_fp_row = opaque_row<float>();
constinit const ConvertRow scalar_row =
    without(scalar_to_all<std::uint8_t>(), IMG_TYPE_A, IMG_TYPE_S);
constinit const ConvertRow scalar_16_row =
    without(scalar_to_all<std::uint16_t>(), IMG_TYPE_A_16, IMG_TYPE_S_16);
constinit const ConvertRow scalar_fp_row = with_steps(scalar_to_all<float>());

}  // namespace ka
