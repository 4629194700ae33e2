// A picture made smaller while its lines come one by one, in any order.
#pragma once

#include "look.h"
#include "stretches.h"
#include "view.h"

class Reduction {
 public:
  // Before: `to` is not larger than `from`, and has pixels where that has some.
  Reduction(Size from, Size to, std::size_t parts);

  // Adds line y, of which `line` has as many rows as there are parts.
  void add(int y, const Rows& line);

  [[nodiscard]] Size size() const { return size_; }
  // The rows of line y of the smaller picture, when all lines have come.
  [[nodiscard]] const Rows& line(int y) const { return lines_[std::size_t(y)]; }

 private:
  Size size_;
  double step_;  // lines for each line of the smaller picture
  std::size_t parts_;
  Stretches columns_;
  std::vector<Stretch> stretches_;  // of lines
  std::vector<Rows> lines_;
  Row reduced_;
};
