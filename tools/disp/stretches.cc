#include "stretches.h"

#include <algorithm>
#include <cmath>

Stretch stretch_of(double from, double to, int limit) {
  from = std::clamp<double>(from, 0, limit);
  to = std::clamp<double>(to, from, limit);
  Stretch stretch{};
  stretch.first = std::min(int(from), limit - 1);
  stretch.end = std::clamp(int(std::ceil(to)), stretch.first + 1, limit);
  if (stretch.end == stretch.first + 1) {  // within one sample
    stretch.first_weight = stretch.last_weight = stretch.inverse = 1;
    return stretch;
  }
  stretch.first_weight = float(stretch.first + 1 - from);
  stretch.last_weight = float(to - (stretch.end - 1));
  stretch.inverse = float(1.0 / (to - from));
  return stretch;
}

Stretches::Stretches(double start, double step, int count, int limit) {
  stretches_.reserve(std::size_t(count));
  for (int i = 0; i < count; ++i) {
    stretches_.push_back(stretch_of(start + i * step, start + (i + 1) * step, limit));
  }
  if (count == 0) return;
  first_ = stretches_.front().first;
  end_ = stretches_.back().end;
  are_short_ = std::ranges::all_of(
      stretches_, [](const Stretch& stretch) { return stretch.end - stretch.first <= kShort; });
  if (!are_short_) return;
  for (const Stretch& stretch : stretches_) {
    Taps taps;
    for (int k = 0; k < kShort; ++k) {
      const int sample = stretch.first + k;
      const bool is_inside = sample < stretch.end;
      taps.offset[k] = (is_inside ? sample : stretch.end - 1) - first_;
      taps.weight[k] = is_inside ? stretch.weight(sample) * stretch.inverse : 0;
    }
    taps_.push_back(taps);
  }
}

void Stretches::reduce(const float* __restrict samples, float* __restrict out) const {
  if (are_short_) {
    for (const Taps& taps : taps_) {
      float sum = 0;
      for (int k = 0; k < kShort; ++k) sum += samples[taps.offset[k]] * taps.weight[k];
      *out++ = sum;
    }
    return;
  }
  for (const Stretch& stretch : stretches_) {
    const float* const from = samples + (stretch.first - first_);
    const int size = stretch.end - stretch.first;
    float sum = from[0] * stretch.first_weight;
    for (int i = 1; i < size - 1; ++i) sum += from[i];
    if (size > 1) sum += from[size - 1] * stretch.last_weight;
    *out++ = sum * stretch.inverse;
  }
}
