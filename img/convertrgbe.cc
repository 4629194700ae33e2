// Shared-exponent colors: three mantissas and one exponent, 8 bits each. They are coded as in
// Radiance pictures.
#include <bit>
#include <limits>

#include "convertline.h"

namespace ka {
namespace {

constexpr float kDarkest = 1e-32F;         // what is darker is black
constexpr float kBrightest = 0x1.fep126F;  // what a component from kTooBright on counts as
constexpr float kTooBright = 0x1p127F;     // its exponent would not fit a byte
constexpr int kBias = 128;                 // of the exponent

// 2^exponent for -1022 to 1023.
constexpr double power_of_two(int exponent) {
  return std::bit_cast<double>(std::uint64_t(exponent + 1023) << 52);
}

// One step of the mantissas by exponent byte. The byte 0 is black whatever the mantissas are.
constexpr auto kSteps = [] {
  std::array<float, 256> steps{};
  for (int e = 1; e < 256; ++e) {
    steps[std::size_t(e)] = float(power_of_two(e - kBias - 8));
  }
  return steps;
}();

KA_KERNEL float decode_component(std::uint8_t mantissa, float step) {
  return (float(mantissa) + 0.5F) * step;
}

// Not a number is no light.
KA_KERNEL float as_light(float component) {
  constexpr float most = std::numeric_limits<float>::max();
  const float number = component == component ? component : 0.0F;
  const float bounded = number >= kTooBright ? kBrightest : number;
  return bounded < -most ? -kBrightest : bounded;
}

// What the components of a color share.
struct Shared {
  std::uint8_t exponent;  // as it is stored
  float scale;            // from components to mantissas
};

KA_KERNEL Shared share(float r, float g, float b) {
  const float most = std::max(std::max(r, g), b);
  const bool is_black = most < kDarkest;
  // The exponent with which `most` is a fraction of 0.5 to 1.
  const auto exponent = std::int32_t(std::bit_cast<std::uint32_t>(most) >> 23 & 0xff) - 126;
  const auto scale = std::bit_cast<float>((127 + 8 - exponent) << 23);
  return {std::uint8_t(is_black ? 0 : exponent + kBias), is_black ? 0.0F : scale};
}

// A component as a fraction of the exponent's range, rounded down. Of what is negative the low byte
// of 32 bits remains.
KA_KERNEL std::uint8_t mantissa(float component, float scale) {
  const double value = double(component) * double(scale);
  const double held = std::fabs(value) < 0x1p31 ? value : 0.0;
  const auto cut = std::int32_t(held);
  return std::uint8_t(cut - (held < cut));
}

// Codes the colors of a block, which it overwrites.
KA_KERNEL void encode_body(FloatBlock::Samples& colors,
                           const std::array<std::uint8_t*, IMG_SLOTS>& to, std::size_t count) {
  for (auto& plane : colors) {
    for (std::size_t x = 0; x < count; ++x) plane[x] = as_light(plane[x]);
  }
  std::array<float, FloatBlock::kPixels> scales;
  std::uint8_t* const exponents = to[3];
  for (std::size_t x = 0; x < count; ++x) {
    const Shared shared = share(colors[0][x], colors[1][x], colors[2][x]);
    scales[x] = shared.scale;
    exponents[x] = shared.exponent;
  }
  for (std::size_t slot = 0; slot < colors.size(); ++slot) {
    std::uint8_t* const mantissas = to[slot];
    for (std::size_t x = 0; x < count; ++x) mantissas[x] = mantissa(colors[slot][x], scales[x]);
  }
}

KA_KERNEL void decode_body(const std::array<const std::uint8_t*, IMG_SLOTS>& from,
                           FloatBlock::Samples& colors, std::size_t count) {
  std::array<float, FloatBlock::kPixels> steps;
  const std::uint8_t* const exponents = from[3];
  for (std::size_t x = 0; x < count; ++x) steps[x] = kSteps[exponents[x]];
  for (std::size_t slot = 0; slot < colors.size(); ++slot) {
    const std::uint8_t* const mantissas = from[slot];
    for (std::size_t x = 0; x < count; ++x) {
      colors[slot][x] = decode_component(mantissas[x], steps[x]);
    }
  }
}

constexpr auto& encode_block_kernels = kernels_of<encode_body>;
constexpr auto& decode_block_kernels = kernels_of<decode_body>;

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

template <typename Sample>
std::array<Sample*, IMG_SLOTS> planes_of(const img_line& line) {
  return {plane_of<Sample>(&line, 0), plane_of<Sample>(&line, 1), plane_of<Sample>(&line, 2),
          plane_of<Sample>(&line, 3)};
}

// To types of three bytes and an alpha that may be there.
template <int Type>
void to_bytes(img_line* dst, const img_line* src, const float* /*weights*/, std::size_t width) {
  static const auto kernel = best_kernel(decode_bytes_kernels);
  const auto from = planes_of<const std::uint8_t>(*src);
  const auto [r, g, b, a] = planes_of<std::uint8_t>(*dst);
  const std::array to = {r, g, b};
  if (std::ranges::find(from, nullptr) != from.end()) return;
  if (std::ranges::find(to, nullptr) != to.end()) return;
  kernel(from, to, width);
  if (Type == IMG_TYPE_RGBA && a) std::fill_n(a, width, std::uint8_t{255});
}

template <int... Types>
constexpr ConvertRow row_to() {
  ConvertRow row{};
  ((row[Types] = from_rgbe<Types>), ...);
  row[IMG_TYPE_RGBA] = to_bytes<IMG_TYPE_RGBA>;
  row[IMG_TYPE_RGB] = to_bytes<IMG_TYPE_RGB>;
  row[IMG_TYPE_BIT] = any_to_bit<std::uint8_t, 0, 1, 2>;  // a mantissa that is not 0
  return row;
}

}  // namespace

constinit const KernelTable<DecodeKernel> decode_kernels = decode_block_kernels;
constinit const KernelTable<EncodeKernel> encode_kernels = encode_block_kernels;

bool FloatBlock::decode(const img_line& from, std::size_t count) {
  static const auto kernel = best_kernel(decode_kernels);
  const auto planes = planes_of<const std::uint8_t>(from);
  if (std::ranges::find(planes, nullptr) != planes.end()) return false;
  kernel(planes, samples_, count);
  return true;
}

void FloatBlock::encode(const img_line& to, std::size_t count) {
  static const auto kernel = best_kernel(encode_kernels);
  const auto planes = planes_of<std::uint8_t>(to);
  if (std::ranges::find(planes, nullptr) == planes.end()) kernel(samples_, planes, count);
}

constinit const ConvertRow rgbe_row =
    row_to<IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP, IMG_TYPE_A,
           IMG_TYPE_A_16, IMG_TYPE_A_FP, IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_S_FP>();

}  // namespace ka

void ka_img_rgb_to_hdr(std::uint8_t* r_out, std::uint8_t* g_out, std::uint8_t* b_out,
                       std::uint8_t* e_out, float r, float g, float b) {
  r = ka::as_light(r);
  g = ka::as_light(g);
  b = ka::as_light(b);
  const ka::Shared shared = ka::share(r, g, b);
  *r_out = ka::mantissa(r, shared.scale);
  *g_out = ka::mantissa(g, shared.scale);
  *b_out = ka::mantissa(b, shared.scale);
  *e_out = shared.exponent;
}

void ka_img_hdr_to_rgb(float* r_out, float* g_out, float* b_out, std::uint8_t r, std::uint8_t g,
                       std::uint8_t b, std::uint8_t e) {
  const float step = ka::kSteps[e];
  *r_out = ka::decode_component(r, step);
  *g_out = ka::decode_component(g, step);
  *b_out = ka::decode_component(b, step);
}
