// Pixel type to pixel type, one line at a time: a table of kernels, found by source and
// destination.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include <ka/message.h>

#include "imageplanes.h"
#include "imgcall.h"

namespace {

constexpr std::array<std::int32_t, IMG_TYPE_COUNT> kBits = {
    8, 16, 8, 16, 8, 16, 8, 16, 16, 16, 32, 32, 32, 32, 32, 1, 32, 32, 8, 32, 32};
constexpr std::array<std::int32_t, IMG_TYPE_COUNT> kComponents = {4, 4, 3, 3, 1, 1, 1, 1, 2, 2, 1,
                                                                  3, 1, 4, 3, 1, 3, 1, 4, 1, 1};
constexpr std::array<int, IMG_TYPE_COUNT> kCompatible = {-1,
                                                         -1,
                                                         -1,
                                                         -1,
                                                         IMG_TYPE_S,
                                                         IMG_TYPE_S_16,
                                                         IMG_TYPE_A,
                                                         IMG_TYPE_A_16,
                                                         IMG_TYPE_VTS,
                                                         IMG_TYPE_VTA,
                                                         IMG_TYPE_COVERAGE,
                                                         IMG_TYPE_M,
                                                         -1,
                                                         -1,
                                                         IMG_TYPE_N,
                                                         -1,
                                                         -1,
                                                         IMG_TYPE_Z,
                                                         -1,
                                                         IMG_TYPE_A_FP,
                                                         IMG_TYPE_S_FP};

constexpr int kRefusedNumber = 6;  // of the message about a destination that nothing converts to

bool is_data_type(int type) {
  return type == IMG_TYPE_VTA || type == IMG_TYPE_VTS || type == IMG_TYPE_Z || type == IMG_TYPE_N ||
         type == IMG_TYPE_TAG || type == IMG_TYPE_M;
}

using Plane = std::uint8_t*;

void copy_rgb(img_line* dst, const img_line* src, int width) {
  for (std::size_t slot = 0; slot < 3; ++slot) {
    std::memcpy(ka::plane_of<std::uint8_t>(dst, slot), ka::plane_of<std::uint8_t>(src, slot),
                std::size_t(width));
  }
}

void rgb_to_rgba(img_line* dst, const img_line* src, const float* /*weights*/, int width) {
  copy_rgb(dst, src, width);
  img_fill_alpha(dst, IMG_TYPE_RGBA, width);
}

void rgba_to_rgb(img_line* dst, const img_line* src, const float* /*weights*/, int width) {
  copy_rgb(dst, src, width);
}

std::uint8_t to_byte(float value) { return static_cast<std::uint8_t>(std::min(value, 1.0F) * 255); }

void rgbe_to_rgba(img_line* dst, const img_line* src, const float* /*weights*/, int width) {
  std::array<const std::uint8_t*, 4> from;
  std::array<Plane, 3> to;
  for (std::size_t slot = 0; slot < 4; ++slot) from[slot] = ka::plane_of<std::uint8_t>(src, slot);
  for (std::size_t slot = 0; slot < 3; ++slot) to[slot] = ka::plane_of<std::uint8_t>(dst, slot);
  for (std::size_t x = 0; x < std::size_t(width); ++x) {
    float r, g, b;
    ka_img_hdr_to_rgb(&r, &g, &b, from[0][x], from[1][x], from[2][x], from[3][x]);
    to[0][x] = to_byte(r);
    to[1][x] = to_byte(g);
    to[2][x] = to_byte(b);
  }
  img_fill_alpha(dst, IMG_TYPE_RGBA, width);
}

using Kernel = void (*)(img_line* dst, const img_line* src, const float* weights, int width);

// [source][destination]; an empty entry leaves the destination as it is.
constexpr auto kKernels = [] {
  std::array<std::array<Kernel, IMG_TYPE_COUNT>, IMG_TYPE_COUNT> table{};
  table[IMG_TYPE_RGB][IMG_TYPE_RGBA] = rgb_to_rgba;
  table[IMG_TYPE_RGBA][IMG_TYPE_RGB] = rgba_to_rgb;
  table[IMG_TYPE_RGBE][IMG_TYPE_RGBA] = rgbe_to_rgba;
  return table;
}();

// One mantissa: a component as a fraction of the exponent's range, of which the low byte is kept.
std::uint8_t mantissa(float component, double scale) {
  const double value = std::floor(static_cast<double>(component) * scale);
  return static_cast<std::uint8_t>(static_cast<std::int64_t>(std::clamp(value, -1e15, 1e15)));
}

}  // namespace

const std::int32_t* const ka_img_nbits = kBits.data();
const std::int32_t* const ka_img_ncomp = kComponents.data();

int img_compatible_type(int type) { return kCompatible[std::size_t(type)]; }

void img_convert(img_line* dst, const img_line* src, int dst_type, int src_type,
                 const float* weights, int width) {
  if (is_data_type(dst_type)) {
    ka_nerror(kRefusedNumber, "cannot convert to vector,Z,normal,motion,tag");
    return;
  }
  if (src_type >= IMG_TYPE_COUNT || dst_type >= IMG_TYPE_COUNT) return;
  const Kernel kernel = kKernels[std::size_t(src_type)][std::size_t(dst_type)];
  if (kernel && width > 0) kernel(dst, src, weights, width);
}

bool img_adds_alpha_only(int dst_type, int src_type) {
  return dst_type == IMG_TYPE_RGBA && src_type == IMG_TYPE_RGB;
}

void img_fill_alpha(img_line* line, int type, int width) {
  std::memset(ka::plane_of<std::uint8_t>(line, 3), 0xff, ka::plane_bytes(type, width));
}

void ka_img_rgb_to_hdr(std::uint8_t* r_out, std::uint8_t* g_out, std::uint8_t* b_out,
                       std::uint8_t* e_out, float r, float g, float b) {
  // What is not a number is no light; more light than a float can hold is as much as the encoding
  // can.
  const float brightest = std::ldexp(255.0F / 256.0F, 127);
  for (float* component : {&r, &g, &b}) {
    if (std::isnan(*component)) *component = 0.0F;
    if (std::isinf(*component)) *component = std::copysign(brightest, *component);
  }
  const float most = std::max({r, g, b});
  if (most < 1e-32F) {
    *r_out = *g_out = *b_out = *e_out = 0;
    return;
  }
  int exponent;
  const double fraction = std::frexp(static_cast<double>(most), &exponent);
  const double scale = fraction * 256.0 / static_cast<double>(most);
  *r_out = mantissa(r, scale);
  *g_out = mantissa(g, scale);
  *b_out = mantissa(b, scale);
  *e_out = static_cast<std::uint8_t>(exponent + 128);
}

void ka_img_hdr_to_rgb(float* r_out, float* g_out, float* b_out, std::uint8_t r, std::uint8_t g,
                       std::uint8_t b, std::uint8_t e) {
  if (e == 0) {
    *r_out = *g_out = *b_out = 0.0F;
    return;
  }
  const float unit = std::ldexp(1.0F / 256.0F, e - 128);
  *r_out = (static_cast<float>(r) + 0.5F) * unit;
  *g_out = (static_cast<float>(g) + 0.5F) * unit;
  *b_out = (static_cast<float>(b) + 0.5F) * unit;
}
