#include "reduction.h"

#include <algorithm>

Reduction::Reduction(Size from, Size to, std::size_t parts)
    : size_(to),
      step_(double(from.height) / std::max(to.height, 1)),
      parts_(parts),
      columns_(0, double(from.width) / std::max(to.width, 1), to.width, from.width),
      lines_(std::size_t(to.height)),
      reduced_(std::size_t(to.width)) {
  for (int y = 0; y < to.height; ++y) {
    stretches_.push_back(stretch_of(y * step_, (y + 1) * step_, from.height));
    for (std::size_t i = 0; i < parts; ++i) {
      lines_[std::size_t(y)][i].resize(std::size_t(to.width));
    }
  }
}

void Reduction::add(int y, const Rows& line) {
  const int likely = int(y / step_);
  const int first = std::max(likely - 1, 0), last = std::min(likely + 1, size_.height - 1);
  for (std::size_t part = 0; part < parts_; ++part) {
    columns_.reduce(line[part].data(), reduced_.data());
    for (int i = first; i <= last; ++i) {
      const Stretch& stretch = stretches_[std::size_t(i)];
      if (y < stretch.first || y >= stretch.end) continue;
      const float weight = stretch.weight(y) * stretch.inverse;
      Row& sum = lines_[std::size_t(i)][part];
      for (std::size_t x = 0; x < reduced_.size(); ++x) sum[x] += weight * reduced_[x];
    }
  }
}
