#include "samples.h"

#include <ka/imgload.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace {

constexpr float kFarthest = 0.1F;  // how bright the farthest depth is: background is black

const float* floats(const void* plane, int x) { return static_cast<const float*>(plane) + x; }

bool is_background(float depth) { return depth == 0 || std::fabs(depth) >= FLT_MAX; }

template <typename Sample, typename Function>
void each(const void* plane, int x, int count, float* __restrict out, Function shown) {
  const Sample* __restrict samples = static_cast<const Sample*>(plane) + x;
  for (int i = 0; i < count; ++i) out[i] = shown(samples[i]);
}

int bit_at(const void* plane, int x) {
  return static_cast<const std::uint8_t*>(plane)[x / 8] >> x % 8 & 1;
}

// Neighbouring labels get colors that differ much: bits 0, 3, 6 ... are red, the lowest counts most.
float label_color(std::uint32_t label, unsigned component) {
  unsigned value = 0;
  for (unsigned i = 0; i < 8; ++i) {
    const unsigned bit = 3 * i + component;
    value = value << 1 | (label >> bit & 1);
  }
  return float(value) / 255.0F;
}

std::array<float, 3> decoded(const RowPlanes& planes, int x) {
  const auto byte = [&](std::size_t i) { return static_cast<const std::uint8_t*>(planes[i])[x]; };
  std::array<float, 3> color;
  ka_img_hdr_to_rgb(&color[0], &color[1], &color[2], byte(0), byte(1), byte(2), byte(3));
  return color;
}

void show_depths(const void* plane, const Range& range, int x, int count, float* out) {
  const float span = range.high - range.low;
  each<float>(plane, x, count, out, [&](float depth) {
    if (is_background(depth)) return 0.0F;
    if (!(span > 0)) return std::isnan(depth) ? depth : 1.0F;
    return 1.0F - (depth - range.low) / span * (1.0F - kFarthest);
  });
}

void show_vectors(const void* plane, int x, int count, float* out) {
  each<std::int16_t>(plane, x, count, out, [](int v) { return 0.5F + float(v) / 65534.0F; });
}

void show_directions(const void* plane, const Range& range, int x, int count, float* out) {
  const float scale = range.high > 0 ? 0.5F / range.high : 0;
  each<float>(plane, x, count, out, [=](float v) { return 0.5F + v * scale; });
}

// Types of which each component is a color or a scalar.
void show_plain(int bits, const void* plane, int x, int count, float* out) {
  if (bits == 8) {
    each<std::uint8_t>(plane, x, count, out, [](int v) { return float(v) * (1.0F / 255.0F); });
  } else if (bits == 16) {
    each<std::uint16_t>(plane, x, count, out, [](int v) { return float(v) * (1.0F / 65535.0F); });
  } else {
    std::copy_n(floats(plane, x), count, out);
  }
}

std::string number_text(double value, int digits) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  char text[32];
  std::snprintf(text, sizeof text, "%.*g", digits, value);
  return text;
}

std::string sample_text(int type, const void* plane, int x) {
  constexpr int digits = 6;
  if (type == IMG_TYPE_BIT) return std::to_string(bit_at(plane, x));
  if (type == IMG_TYPE_TAG) return std::to_string(static_cast<const std::uint32_t*>(plane)[x]);
  if (type == IMG_TYPE_VTA || type == IMG_TYPE_VTS) {
    return std::to_string(static_cast<const std::int16_t*>(plane)[x]);
  }
  if (ka_img_nbits[type] == 8) {
    return std::to_string(static_cast<const std::uint8_t*>(plane)[x]);
  }
  if (ka_img_nbits[type] == 16) {
    return std::to_string(static_cast<const std::uint16_t*>(plane)[x]);
  }
  return number_text(*floats(plane, x), digits);
}

const char* sample_name(int type, std::size_t component) {
  static constexpr const char* colors[] = {"R", "G", "B", "A"};
  static constexpr const char* directions[] = {"x", "y", "z"};
  static constexpr const char* vectors[] = {"u", "v"};
  switch (type) {
    case IMG_TYPE_VTA:
    case IMG_TYPE_VTS:
      return vectors[component];
    case IMG_TYPE_N:
    case IMG_TYPE_M:
      return directions[component];
    case IMG_TYPE_Z:
      return "depth";
    case IMG_TYPE_TAG:
      return "tag";
    case IMG_TYPE_COVERAGE:
      return "coverage";
    case IMG_TYPE_BIT:
      return "bit";
    default:
      if (ka_img_ncomp[type] > 1) return colors[component];
      return type == IMG_TYPE_A || type == IMG_TYPE_A_16 || type == IMG_TYPE_A_FP ? "A" : "S";
  }
}

}  // namespace

RowPlanes planes_of(const img_line* line) {
  RowPlanes planes{};
  std::size_t component = 0;
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    if (const void* const plane = ka_img_line_plane(line, slot)) planes[component++] = plane;
  }
  return planes;
}

RowPlanes planes_of(const img_image* image, int y) {
  RowPlanes planes{};
  for (int i = 0; i < image->components; ++i) planes[std::size_t(i)] = ka_img_plane(image, y, i);
  return planes;
}

Range Range::united(const Range& other) const {
  return {std::min(low, other.low), std::max(high, other.high)};
}

bool has_range(int type) {
  return type == IMG_TYPE_Z || type == IMG_TYPE_COVERAGE || type == IMG_TYPE_N ||
         type == IMG_TYPE_M;
}

void widen_range(Range& range, int type, const RowPlanes& planes, int width) {
  const bool is_direction = ka_img_ncomp[type] == 3;
  for (int i = 0; i < ka_img_ncomp[type]; ++i) {
    const float* const samples = floats(planes[std::size_t(i)], 0);
    for (int x = 0; x < width; ++x) {
      const float value = is_direction ? std::fabs(samples[x]) : samples[x];
      if (!(std::fabs(value) < FLT_MAX) || (type == IMG_TYPE_Z && value == 0)) continue;
      range = range.united({value, value});
    }
  }
}

bool is_grey(int type) { return ka_img_ncomp[type] == 1 && type != IMG_TYPE_TAG; }

bool is_float(int type) { return ka_img_nbits[type] == 32 && type != IMG_TYPE_TAG; }

void shown_samples(int type, const RowPlanes& planes, const Range& range, Part part, int x,
                   int count, float* out) {
  const bool is_single = ka_img_ncomp[type] == 1;
  const auto component = is_single && part != Part::kAlpha ? 0 : std::size_t(part);
  const bool is_alpha = type == IMG_TYPE_A || type == IMG_TYPE_A_16 || type == IMG_TYPE_A_FP;
  const void* const plane = planes[is_alpha ? 0 : component];
  if (part == Part::kAlpha && (!plane || type == IMG_TYPE_RGBE)) {
    std::fill_n(out, count, 1.0F);
    return;
  }
  switch (type) {
    case IMG_TYPE_BIT:
      for (int i = 0; i < count; ++i) out[i] = float(bit_at(plane, x + i));
      return;
    case IMG_TYPE_RGBE:
      for (int i = 0; i < count; ++i) out[i] = decoded(planes, x + i)[component];
      return;
    case IMG_TYPE_TAG:
      return each<std::uint32_t>(planes[0], x, count, out,
                                 [=](auto v) { return label_color(v, unsigned(part)); });
    case IMG_TYPE_Z:
      return show_depths(plane, range, x, count, out);
    case IMG_TYPE_COVERAGE:
      return each<float>(plane, x, count, out,
                         [=](float v) { return range.high > 0 ? v / range.high : v; });
    case IMG_TYPE_VTA:
    case IMG_TYPE_VTS:
      if (plane) return show_vectors(plane, x, count, out);
      std::fill_n(out, count, 0.5F);  // their third component
      return;
    case IMG_TYPE_N:
    case IMG_TYPE_M:
      return show_directions(plane, range, x, count, out);
    default:
      return show_plain(ka_img_nbits[type], plane, x, count, out);
  }
}

std::vector<NamedSample> sample_texts(int type, const RowPlanes& planes, int x) {
  std::vector<NamedSample> result;
  if (type == IMG_TYPE_RGBE) {
    constexpr int digits = 4;  // of three numbers with 8 bits each
    const auto color = decoded(planes, x);
    for (std::size_t i = 0; i < color.size(); ++i) {
      result.push_back({sample_name(type, i), number_text(color[i], digits)});
    }
    return result;
  }
  for (std::size_t i = 0; i < std::size_t(ka_img_ncomp[type]); ++i) {
    result.push_back({sample_name(type, i), sample_text(type, planes[i], x)});
  }
  return result;
}

int longest_sample(int type) {
  if (type == IMG_TYPE_RGBE) return 9;
  if (type == IMG_TYPE_TAG) return 10;
  if (type == IMG_TYPE_VTA || type == IMG_TYPE_VTS) return 6;
  const int bits = ka_img_nbits[type];
  return bits == 1 ? 1 : bits == 8 ? 3 : bits == 16 ? 5 : 12;
}

int sample_count(int type) { return type == IMG_TYPE_RGBE ? 3 : ka_img_ncomp[type]; }
