#include "look.h"

#include <algorithm>
#include <cmath>

#include "compose.h"

namespace {

constexpr float kTableTop = 65535.0F, kScreenTop = 255.0F;

// The color that shows one, if any of the three is infinite or no number; 0: none.
Color odd_color(float r, float g, float b) {
  if (std::isnan(r) || std::isnan(g) || std::isnan(b)) return kNoNumber;
  const float most = std::max({r, g, b}), least = std::min({r, g, b});
  if (std::isinf(most) && most > 0) return kInfinite;
  return std::isinf(least) ? kMinusInfinite : 0;
}

}  // namespace

std::vector<Part> parts_of(const Look& look, int planes) {
  if (look.channel != Channel::kColor) return {Part(int(look.channel) - 1)};
  if (planes == 1) return {Part::kRed};
  return {Part::kRed, Part::kGreen, Part::kBlue};
}

Tone::Tone(const Look& look) : gain_(std::exp2(look.stops)), inverse_gamma_(1.0F / look.gamma) {
  if (look.gamma == 1) return;
  table_.resize(std::size_t(kTableTop) + 1);
  for (std::size_t i = 0; i < table_.size(); ++i) {
    const float value = std::pow(float(i) / kTableTop, inverse_gamma_);
    table_[i] = std::uint8_t(value * kScreenTop + 0.5F);
  }
}

// What is no number is 0. Two loops, so that the usual one becomes vectors.
void Tone::paint_steps(const float* __restrict values, int count,
                       std::uint8_t* __restrict out) const {
  const auto shown = [gain = gain_](float value) {
    const float larger = value * gain > 0 ? value * gain : 0;
    return larger < 1 ? larger : 1;
  };
  if (table_.empty()) {
    for (int i = 0; i < count; ++i)
      out[i] = std::uint8_t(int(shown(values[i]) * kScreenTop + 0.5F));
  } else {
    for (int i = 0; i < count; ++i) {
      out[i] = table_[std::size_t(int(shown(values[i]) * kTableTop + 0.5F))];
    }
  }
}

void Tone::paint(const Rows& rows, std::size_t parts, bool may_be_odd, int count,
                 Color* out) const {
  const bool is_color = parts == 3;
  const float* const r = rows[0].data();
  const float* const g = is_color ? rows[1].data() : r;
  const float* const b = is_color ? rows[2].data() : r;
  constexpr int kBlock = 512;
  std::uint8_t steps[3][kBlock];
  for (int at = 0; at < count; at += kBlock) {
    const int size = std::min(kBlock, count - at);
    paint_steps(r + at, size, steps[0]);
    if (is_color) paint_steps(g + at, size, steps[1]);
    if (is_color) paint_steps(b + at, size, steps[2]);
    const std::uint8_t* const green = is_color ? steps[1] : steps[0];
    const std::uint8_t* const blue = is_color ? steps[2] : steps[0];
    for (int i = 0; i < size; ++i) {
      out[at + i] = Color{steps[0][i]} << 16 | Color{green[i]} << 8 | blue[i];
    }
  }
  if (!may_be_odd) return;
  for (int i = 0; i < count; ++i) {
    if (const Color odd = odd_color(r[i], g[i], b[i])) out[i] = odd;
  }
}

void Tone::paint_distances(const Row& distances, int count, Color* out) const {
  for (int i = 0; i < count; ++i) {
    const float distance = distances[std::size_t(i)];
    if (!(distance > 0)) {
      out[i] = 0;
      continue;
    }
    const float value = std::min(1.0F, distance * gain_);
    const ka::Rgb color = ka::false_color(table_.empty() ? value : std::pow(value, inverse_gamma_));
    out[i] = Color{color.r} << 16 | Color{color.g} << 8 | color.b;
  }
}
