// Filtered resizing of a picture whose lines come one after the other: the mean of what a pixel
// covers where a side becomes smaller, linear interpolation where it becomes larger.
#pragma once

#include <ka/img.h>

#include <array>
#include <cstddef>
#include <functional>
#include <vector>

// Pixels along one side that make up a new one, and the weight of each; the weights have the sum 1.
struct Taps {
  int first = 0;
  std::vector<double> weights;
};

// Those of new pixel i. Means have exact coverage: a pixel that is covered by half counts by half.
[[nodiscard]] Taps taps_of(int from, int to, int i);

class Resampler {
 public:
  // `type` is that of the lines in and out, not IMG_TYPE_BIT and not a tag. With `as_bits` the
  // samples, which are floats then, come out as 0 or 1.
  Resampler(int from_width, int from_height, int to_width, int to_height, int type, bool as_bits);

  // Makes the next line. `next` gives the next line of the picture as often as it is called.
  void read(const std::function<const img_line*()>& next, img_line* line);

 private:
  using Row = std::vector<double>;  // a plane after the other, of the new width

  const Row& row(int number, const std::function<const img_line*()>& next);
  void narrow(const img_line* line, Row& row) const;
  void store(img_line* line) const;

  int from_height_, to_width_, to_height_, type_;
  bool as_bits_;
  std::vector<Taps> across_;
  std::array<Row, 2> rows_;  // the line that was read last and the one before
  int lines_read_ = 0, lines_made_ = 0;
  Row sum_;
};
