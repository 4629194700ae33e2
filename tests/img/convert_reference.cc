#include "convert_reference.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace test {

const std::array<Layout, IMG_TYPE_COUNT> kLayouts = {{
    {8, 0, 4},  {16, 0, 4}, {8, 0, 3},  {16, 0, 3}, {8, 3, 1},  {16, 3, 1}, {8, 3, 1},
    {16, 3, 1}, {16, 0, 2}, {16, 0, 2}, {32, 0, 1}, {32, 0, 3}, {32, 0, 1}, {32, 0, 4},
    {32, 0, 3}, {1, 3, 1},  {32, 0, 3}, {32, 0, 1}, {8, 0, 4},  {32, 3, 1}, {32, 3, 1},
}};

namespace {

constexpr std::size_t kGuard = 64;
constexpr std::uint8_t kGuardByte = 0xa5;

const Layout& layout(int type) { return kLayouts[std::size_t(type)]; }
bool is_float(int type) { return layout(type).bits == 32 && type != IMG_TYPE_TAG; }

// Color, alpha, scalar, direction, grey (z, coverage), label, bit, shared exponent; by type.
constexpr char kKinds[] = "CCCCaassddgdlCdbCgeas";
bool is(int type, char kind) { return kKinds[type] == kind; }
bool is_scalar(int type) { return is(type, 'a') || is(type, 's'); }

double clamp(double v, double least, double most) {
  return std::isnan(v) ? 0.0 : std::clamp(v, least, most);
}
double full(int bits) { return bits == 32 ? 1.0 : std::exp2(bits) - 1; }
double low_byte(double v) { return std::fmod(v, 256.0); }

// A sample of one depth as one of another.
double depth(int from, int to, double v, double old) {
  if (from == to) return v;
  if (from == 8 && to == 16) return v * 256 + low_byte(old);
  if (from == 16 && to == 8) return std::floor(v / 256);
  if (to == 32) return from == 8 ? float(v * (1.0 / 255)) : float(v / 65535.0);
  return std::trunc(float(clamp(v, 0, 1)) * float(full(to)));
}

// A number as a sample: floats take it, integers its low bits after the fraction is cut off.
double sample(int bits, double v) {
  if (bits == 32) return float(v);
  if (!(std::fabs(v) < 0x1p31)) return 0.0;
  return double(std::int64_t(v) & ((std::int64_t(1) << bits) - 1));
}

double by_depth(int bits, double of_8, double of_16, double of_float) {
  return bits == 8 ? of_8 : bits == 16 ? of_16 : of_float;
}

double getbits(std::uint32_t value, int first, int step) {
  double byte = 0;
  for (int i = 0; i < 8; ++i) byte = 2 * byte + (value >> (first + i * step) & 1);
  return byte;
}
double label(int bits, double tag, int first, int step) {
  const double byte = getbits(std::uint32_t(tag), first, step);
  return bits == 32 ? float(byte / 255) : by_depth(bits, byte, byte * 257, 0);
}

// Part of a direction, clamped for the sum of two; normals are not clamped otherwise.
double part(int src, double v, bool clamped) {
  if (src == IMG_TYPE_VTA || src == IMG_TYPE_VTS) {
    v = std::int16_t(std::uint16_t(v)) * double(1.0F / 32767);
    clamped = true;
  }
  return clamped ? clamp(v, -1, 1) : v;
}
double middle(int bits) { return by_depth(bits, 128, 32768, 0.5); }

double direction(int src, int bits, const Pixel& p, std::size_t channel) {
  if (!is_float(src) && channel == 2) return middle(bits);
  if (is_float(src) && bits == 32) return p[channel];
  return sample(bits,
                part(src, p[channel], false) * by_depth(bits, 127, 32767, 0.5) + middle(bits));
}

double grey(int src, int bits, double v) {
  const double most = full(bits);
  if (src == IMG_TYPE_Z) {
    const double d = clamp(v, 0, 100);
    return d == 0 ? 0 : sample(bits, (100 - d) * most / 100);
  }
  const double covered = v * by_depth(bits, 256, 65536, 1);
  return sample(bits, covered > most ? most : covered);
}

// Red, green or blue (channel 0 to 2) of any source, and alpha (3) of those that have one.
double channel_of(int src, int bits, const Pixel& p, std::size_t channel, double old) {
  if (is(src, 'C')) return depth(layout(src).bits, bits, p[channel], old);
  if (is_scalar(src)) return depth(layout(src).bits, bits, p[3], old);
  if (src == IMG_TYPE_BIT) return bits == 32 ? p[3] : depth(8, bits, 255 * p[3], old);
  if (is(src, 'd')) return direction(src, bits, p, channel);
  if (src == IMG_TYPE_TAG) return label(bits, p[0], int(channel), 3);
  return grey(src, bits, p[0]);
}

Pixel decoded(const Pixel& p) {
  Pixel color{};
  for (std::size_t c = 0; c < 3 && p[3] != 0; ++c) {
    color[c] = std::ldexp(p[c] + 0.5, int(p[3]) - 136);
  }
  return color;
}

Pixel encoded(Pixel p) {
  for (std::size_t c = 0; c < 3; ++c) {
    if (std::isnan(p[c])) p[c] = 0;
    if (p[c] >= std::ldexp(1, 127) || std::isinf(p[c]))
      p[c] = std::copysign(std::ldexp(255, 119), p[c]);
  }
  const double most = std::max({p[0], p[1], p[2]});
  if (most < 1e-32) return {};
  int exponent;
  const double scale = std::frexp(most, &exponent) * 256 / most;
  Pixel rgbe;
  for (std::size_t c = 0; c < 3; ++c) rgbe[c] = sample(8, std::floor(p[c] * scale));
  rgbe[3] = (exponent + 128) % 256;
  return rgbe;
}

double luminance(const Pixel& p, const float* w) {
  return double(w[0]) * p[0] + double(w[1]) * p[1] + double(w[2]) * p[2];
}

double scalar_of(int src, int dst, const Pixel& p, double old, const float* weights) {
  const int from = layout(src).bits, to = layout(dst).bits;
  if (is(src, 'd')) {
    const double sum = part(src, p[0], true) + part(src, p[1], true);
    return sample(to, sum * by_depth(to, 63, 16383, 0.5) + middle(to));
  }
  if (src == IMG_TYPE_TAG) return label(to, p[0], 0, 1);
  if (!is(src, 'C')) return channel_of(src, to, p, 0, old);
  if (is(dst, 'a') && layout(src).planes == 4) return depth(from, to, p[3], old);
  const double l = luminance(p, weights);
  if (to == 32) return float(l);
  if (from == 16 && to == 8) return std::floor(sample(16, l) / 256);
  return sample(to, from == 32 ? l * full(to) : from == 8 && to == 16 ? l * 255 : l);
}

double bit_of(int src, const Pixel& p, const float* weights) {
  const Layout& from = layout(src);
  const auto counts = [&](double v) {
    return from.bits == 16 ? std::floor(sample(16, v) / 256) != 0 : v != 0;
  };
  if (is(src, 'C')) return from.planes == 4 ? counts(p[3]) : counts(luminance(p, weights));
  if (is_scalar(src)) return counts(p[3]);
  const int tested = src == IMG_TYPE_RGBE ? 3 : from.planes;
  return std::any_of(p.begin(), p.begin() + tested, [](double v) { return v != 0; });
}

Pixel rgbe_of(int src, const Pixel& p) {
  Pixel floats{};
  for (std::size_t c = 0; c < 3; ++c) floats[c] = channel_of(src, 32, p, c, 0);
  if (is_scalar(src) && is_float(src)) {
    floats.fill(float(std::trunc(float(clamp(p[3], 0, 1)) * 255.0F) / 255));
  }
  return encoded(floats);
}

bool stays(int dst, int src) {
  const auto are = [&](int a, int s) { return (src == a || src == s) && (dst == a || dst == s); };
  return src == dst || are(IMG_TYPE_A, IMG_TYPE_S) || are(IMG_TYPE_A_16, IMG_TYPE_S_16) ||
         !(is(dst, 'C') || is_scalar(dst) || dst == IMG_TYPE_BIT || dst == IMG_TYPE_RGBE);
}

}  // namespace

PlanarLine::PlanarLine(int type, int width, bool guarded) : type_(type), width_(width) {
  for (std::size_t slot = 0; slot < kPlanes; ++slot) {
    if (!has(slot)) continue;
    planes_[slot].resize(plane_bytes() + (guarded ? kGuard : 0), kGuardByte);
    planes_[slot].reserve(1);  // an empty plane is somewhere, too
    record_.offset[slot] = reinterpret_cast<std::intptr_t>(planes_[slot].data()) -
                           reinterpret_cast<std::intptr_t>(&record_);
  }
}

std::size_t PlanarLine::plane_bytes() const {
  return (std::size_t(width_) * std::size_t(layout(type_).bits) + 7) / 8;
}

bool PlanarLine::has(std::size_t slot) const {
  const int first = layout(type_).first;
  return int(slot) >= first && int(slot) < first + layout(type_).planes;
}

Pixel PlanarLine::at(int x) const {
  Pixel pixel{};
  const auto i = std::size_t(x), bytes = std::size_t(layout(type_).bits) / 8;
  for (std::size_t slot = 0; slot < kPlanes; ++slot) {
    if (!has(slot)) continue;
    std::uint32_t stored = 0;
    if (bytes == 0) stored = planes_[slot][i / 8] >> (i % 8) & 1;
    std::memcpy(&stored, planes_[slot].data() + i * bytes, bytes);
    pixel[slot] = is_float(type_) ? double{std::bit_cast<float>(stored)} : stored;
  }
  return pixel;
}

void PlanarLine::set(int x, const Pixel& pixel) {
  const auto i = std::size_t(x), bytes = std::size_t(layout(type_).bits) / 8;
  for (std::size_t slot = 0; slot < kPlanes; ++slot) {
    if (!has(slot)) continue;
    std::uint8_t* const plane = planes_[slot].data();
    const double value = pixel[slot];
    const auto stored =
        is_float(type_) ? std::bit_cast<std::uint32_t>(float(value)) : std::uint32_t(value);
    if (bytes == 0)
      plane[i / 8] = std::uint8_t((plane[i / 8] & ~(1 << i % 8)) | (value != 0) << i % 8);
    std::memcpy(plane + i * bytes, &stored, bytes);
  }
}

void PlanarLine::fill(std::uint8_t byte) {
  for (auto& plane : planes_) {
    if (!plane.empty()) std::memset(plane.data(), byte, plane_bytes());
  }
}

bool PlanarLine::guards_hold() const {
  return std::all_of(planes_.begin(), planes_.end(), [this](const auto& plane) {
    return plane.empty() || std::all_of(plane.begin() + std::ptrdiff_t(plane_bytes()), plane.end(),
                                        [](std::uint8_t byte) { return byte == kGuardByte; });
  });
}

std::optional<Pixel> converted(int dst_type, int src_type, const Pixel& source, const Pixel& old,
                               const float* weights) {
  if (stays(dst_type, src_type)) return std::nullopt;
  const bool from_rgbe = src_type == IMG_TYPE_RGBE && dst_type != IMG_TYPE_BIT;
  const Pixel p = from_rgbe ? decoded(source) : source;
  const int src = from_rgbe ? int(IMG_TYPE_RGB_FP) : src_type;
  if (dst_type == IMG_TYPE_RGBE) return rgbe_of(src, p);
  Pixel result{};
  if (dst_type == IMG_TYPE_BIT) {
    result[3] = bit_of(src, p, weights);
  } else if (is_scalar(dst_type)) {
    result[3] = scalar_of(src, dst_type, p, old[3], weights);
  } else {
    const int bits = layout(dst_type).bits;
    for (std::size_t c = 0; c < 3; ++c) result[c] = channel_of(src, bits, p, c, old[c]);
    const bool has_alpha = layout(src).first + layout(src).planes == 4;  // or is all alpha
    if (layout(dst_type).planes == 4) {
      result[3] = has_alpha ? channel_of(src, bits, p, 3, old[3]) : full(bits);
    }
  }
  return result;
}

}  // namespace test
