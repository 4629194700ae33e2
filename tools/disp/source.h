// What can be looked at: a picture, or the distance of two.
#pragma once

#include "picture.h"

class Source {
 public:
  Source(int width, int height, int planes, bool may_be_odd)
      : width_(width), height_(height), planes_(planes), may_be_odd_(may_be_odd) {}
  virtual ~Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // Numbers as of shown_samples; line 0 is the top one.
  virtual void fetch(int y, Part part, int x, int count, float* out) const = 0;

  [[nodiscard]] int width() const { return width_; }
  [[nodiscard]] int height() const { return height_; }
  // Of the colors: 1 where they are grey, else 3.
  [[nodiscard]] int planes() const { return planes_; }
  // Whether there are numbers that are infinite, or none.
  [[nodiscard]] bool may_be_odd() const { return may_be_odd_; }

 private:
  int width_, height_, planes_;
  bool may_be_odd_;
};

// Before: the picture lives as long.
class PictureSource final : public Source {
 public:
  PictureSource(const Picture& picture, const Range& range);
  void fetch(int y, Part part, int x, int count, float* out) const override;

 private:
  const Picture& picture_;
  Range range_;
};

// How far the pixels of two lines differ: the length of the difference of their colors with alpha,
// as vel_diff measures it, with 1 for its 255. What is a number in one only differs infinitely.
class RowDistance {
 public:
  RowDistance(int first_type, int second_type);
  void measure(const RowPlanes& first, const RowPlanes& second, const Range& range, int x,
               int count, float* out) const;

 private:
  int first_type_, second_type_;
  float rounding_;  // smaller differences of a component come from the depths of the two types
};

// Before: both pictures have the same size and live as long.
class DistanceSource final : public Source {
 public:
  DistanceSource(const Picture& first, const Picture& second, const Range& range);
  void fetch(int y, Part part, int x, int count, float* out) const override;

 private:
  const Picture &first_, &second_;
  Range range_;
  RowDistance distance_;
};
