// Shared-exponent colours: three mantissas and one exponent, 8 bits each. They are coded as in
// Radiance pictures.
#include <bit>

#include "convertline.h"

namespace ka {
namespace {

constexpr double kDarkest = 1e-32;         // what is darker is black
constexpr float kBrightest = 0x1.fep126F;  // what an infinite component counts as
constexpr int kBias = 128;                 // of the exponent

// 2^exponent for -1022 to 1023.
constexpr double power_of_two(int exponent) {
  return std::bit_cast<double>(static_cast<std::uint64_t>(exponent + 1023) << 52);
}

// One step of the mantissas by exponent byte. The byte 0 is black whatever the mantissas are.
constexpr auto kSteps = [] {
  std::array<float, 256> steps{};
  for (int e = 1; e < 256; ++e) {
    steps[std::size_t(e)] = static_cast<float>(power_of_two(e - kBias - 8));
  }
  return steps;
}();

struct Rgbe {
  std::uint8_t r, g, b, e;
};

float decode_component(std::uint8_t mantissa, float step) {
  return (static_cast<float>(mantissa) + 0.5F) * step;
}

float as_light(float component) {
  if (std::isnan(component)) return 0.0F;
  return std::isinf(component) ? std::copysign(kBrightest, component) : component;
}

// A component as a fraction of the exponent's range, rounded down. Of what is negative the low byte
// of 32 bits remains.
std::uint8_t mantissa(float component, double scale) {
  const double value = static_cast<double>(component) * scale;
  const double held = std::fabs(value) < 0x1p31 ? value : 0.0;
  const auto cut = static_cast<std::int32_t>(held);
  return static_cast<std::uint8_t>(held < cut ? cut - 1 : cut);
}

Rgbe encode_colour(float r, float g, float b) {
  r = as_light(r);
  g = as_light(g);
  b = as_light(b);
  const float most = std::max({r, g, b});
  if (static_cast<double>(most) < kDarkest) return {};
  // The exponent with which `most` is a fraction of 0.5 to 1.
  const int exponent = static_cast<int>(std::bit_cast<std::uint32_t>(most) >> 23) - 126;
  const double scale = power_of_two(8 - exponent);
  return {mantissa(r, scale), mantissa(g, scale), mantissa(b, scale),
          static_cast<std::uint8_t>(exponent + kBias)};
}

// By way of floats to one type.
template <int Type>
void from_rgbe(img_line* dst, const img_line* src, const float* weights, std::size_t width) {
  FloatBlock block;
  for (std::size_t first = 0; first < width; first += FloatBlock::kPixels) {
    const std::size_t count = std::min(width - first, FloatBlock::kPixels);
    if (!block.decode(rest_of(src, 8, first), count)) return;
    img_line to = rest_of(dst, std::size_t(ka_img_nbits[Type]), first);
    rgb_fp_row[Type](&to, block.line(), weights, count);
  }
}

template <int... Types>
constexpr ConvertRow row_to() {
  ConvertRow row{};
  ((row[Types] = from_rgbe<Types>), ...);
  row[IMG_TYPE_BIT] = any_to_bit<std::uint8_t, 0, 1, 2>;  // a mantissa that is not 0
  return row;
}

}  // namespace

bool FloatBlock::decode(const img_line& from, std::size_t count) {
  std::array<const std::uint8_t*, IMG_SLOTS> planes;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    planes[slot] = plane_of<const std::uint8_t>(&from, slot);
    if (!planes[slot]) return false;
  }
  for (std::size_t slot = 0; slot < samples_.size(); ++slot) {
    for (std::size_t x = 0; x < count; ++x) {
      samples_[slot][x] = decode_component(planes[slot][x], kSteps[planes[3][x]]);
    }
  }
  return true;
}

void FloatBlock::encode(const img_line& to, std::size_t count) const {
  std::array<std::uint8_t*, IMG_SLOTS> planes;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    planes[slot] = plane_of<std::uint8_t>(&to, slot);
    if (!planes[slot]) return;
  }
  for (std::size_t x = 0; x < count; ++x) {
    const Rgbe pixel = encode_colour(samples_[0][x], samples_[1][x], samples_[2][x]);
    planes[0][x] = pixel.r;
    planes[1][x] = pixel.g;
    planes[2][x] = pixel.b;
    planes[3][x] = pixel.e;
  }
}

constinit const ConvertRow rgbe_row =
    row_to<IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP, IMG_TYPE_RGB, IMG_TYPE_RGB_16,
           IMG_TYPE_RGB_FP, IMG_TYPE_A, IMG_TYPE_A_16, IMG_TYPE_A_FP, IMG_TYPE_S, IMG_TYPE_S_16,
           IMG_TYPE_S_FP>();

}  // namespace ka

void ka_img_rgb_to_hdr(std::uint8_t* r_out, std::uint8_t* g_out, std::uint8_t* b_out,
                       std::uint8_t* e_out, float r, float g, float b) {
  const ka::Rgbe pixel = ka::encode_colour(r, g, b);
  *r_out = pixel.r;
  *g_out = pixel.g;
  *b_out = pixel.b;
  *e_out = pixel.e;
}

void ka_img_hdr_to_rgb(float* r_out, float* g_out, float* b_out, std::uint8_t r, std::uint8_t g,
                       std::uint8_t b, std::uint8_t e) {
  const float step = ka::kSteps[e];
  *r_out = ka::decode_component(r, step);
  *g_out = ka::decode_component(g, step);
  *b_out = ka::decode_component(b, step);
}
