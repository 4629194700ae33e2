#include "source.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// Half a step of 16 bits is larger, what two types of different depths make of one color smaller.
constexpr float kRounding = 1.0F / (1 << 18);

void add_square(float a, float b, float rounding, float& sum) {
  if (a == b || (std::isnan(a) && std::isnan(b))) return;
  const float difference = std::fabs(a - b);
  if (difference <= rounding) return;
  const float square = difference * difference;
  sum += std::isnan(square) ? std::numeric_limits<float>::infinity() : square;
}

}  // namespace

PictureSource::PictureSource(const Picture& picture, const Range& range)
    : Source(picture.width(), picture.height(), is_grey(picture.type()) ? 1 : 3,
             is_float(picture.type())),
      picture_(picture),
      range_(range) {}

void PictureSource::fetch(int y, Part part, int x, int count, float* out) const {
  shown_samples(picture_.type(), picture_.row(y), range_, part, x, count, out);
}

RowDistance::RowDistance(int first_type, int second_type)
    : first_type_(first_type),
      second_type_(second_type),
      rounding_(first_type == second_type ? 0 : kRounding) {}

void RowDistance::measure(const RowPlanes& first, const RowPlanes& second, const Range& range,
                          int x, int count, float* out) const {
  constexpr int kBlock = 256;
  float a[kBlock], b[kBlock], sums[kBlock];
  for (int at = 0; at < count; at += kBlock) {
    const int size = std::min(kBlock, count - at);
    std::fill_n(sums, size, 0.0F);
    for (const Part part : {Part::kRed, Part::kGreen, Part::kBlue, Part::kAlpha}) {
      shown_samples(first_type_, first, range, part, x + at, size, a);
      shown_samples(second_type_, second, range, part, x + at, size, b);
      for (int i = 0; i < size; ++i) add_square(a[i], b[i], rounding_, sums[i]);
    }
    for (int i = 0; i < size; ++i) out[at + i] = std::sqrt(sums[i]);
  }
}

DistanceSource::DistanceSource(const Picture& first, const Picture& second, const Range& range)
    : Source(first.width(), first.height(), 1, false),
      first_(first),
      second_(second),
      range_(range),
      distance_(first.type(), second.type()) {}

void DistanceSource::fetch(int y, Part /*part*/, int x, int count, float* out) const {
  distance_.measure(first_.row(y), second_.row(y), range_, x, count, out);
}
