// Smaller pictures: each of their pixels is the mean of the area that it covers.
#pragma once

#include <vector>

// One pixel's stretch of a row, or of a column: whole samples, and parts of the first and the last.
struct Stretch {
  int first, end;  // samples that it touches
  float first_weight, last_weight;
  float inverse;  // of the sum of all weights

  // The weight of one of its samples.
  [[nodiscard]] float weight(int sample) const {
    return sample == first ? first_weight : sample + 1 == end ? last_weight : 1.0F;
  }
};

// The stretch from `from` to `to` of `limit` samples. Before: it touches one of them at least.
[[nodiscard]] Stretch stretch_of(double from, double to, int limit);

// A short stretch with its samples and weights one by one: no branches. Where it has fewer samples the
// last one is repeated without weight.
inline constexpr int kShort = 4;
struct Taps {
  int offset[kShort];  // from the first sample that takes part
  float weight[kShort];
};

// Equal stretches of a row, side by side.
class Stretches {
 public:
  // Stretch i covers `step` samples from `start` + i * `step` on.
  Stretches(double start, double step, int count, int limit);

  // The samples that take part.
  [[nodiscard]] int first() const { return first_; }
  [[nodiscard]] int count() const { return end_ - first_; }

  // The mean of each stretch; `samples` begin with the first that takes part.
  void reduce(const float* samples, float* out) const;

 private:
  int first_ = 0, end_ = 0;
  bool are_short_ = false;  // none touches more than kShort samples
  std::vector<Stretch> stretches_;
  std::vector<Taps> taps_;  // of short ones
};
