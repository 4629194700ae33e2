#include "view.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kSmallestZoom = 1.0 / 256;

// Zoom goes in steps of about 1.4 that enlarge by whole pixels from 2 on: 0.75, 1, 1.5, 2, 3, 4, 6 ...
double next_zoom(double zoom, bool larger) {
  constexpr double same = 1e-9;
  const double octave = std::exp2(std::floor(std::log2(zoom)));
  for (const double step : {0.75, 1.0, 1.5}) {
    if (larger && octave * step > zoom * (1 + same)) return octave * step;
  }
  if (larger) return octave * 2;
  for (const double step : {1.5, 1.0}) {
    if (octave * step < zoom * (1 - same)) return octave * step;
  }
  return octave * 0.75;
}

}  // namespace

double View::fitting_zoom() const {
  const double width = std::max(picture_.width, 1), height = std::max(picture_.height, 1);
  return std::min({window_.width / width, window_.height / height, kLargestZoom});
}

// Some pixel of the picture stays in the middle.
void View::keep_inside() {
  center_.x = std::clamp<double>(center_.x, 0, picture_.width);
  center_.y = std::clamp<double>(center_.y, 0, picture_.height);
}

void View::resize(Size window) {
  window_ = {std::max(window.width, 1), std::max(window.height, 1)};
  if (is_fitted_) fit();
}

void View::show(Size picture) {
  if (picture == picture_) return;
  picture_ = picture;
  if (is_fitted_) {
    fit();
  } else {
    center_ = {picture.width / 2.0, picture.height / 2.0};
  }
}

void View::fit() {
  zoom_ = fitting_zoom();
  center_ = {picture_.width / 2.0, picture_.height / 2.0};
  is_fitted_ = true;
}

void View::zoom_to(double zoom, Point place) {
  const Point before = at(place);
  zoom_ = std::clamp(zoom, std::min(kSmallestZoom, fitting_zoom()), kLargestZoom);
  is_fitted_ = false;
  center_.x = before.x - (place.x - window_.width / 2.0) / zoom_;
  center_.y = before.y - (place.y - window_.height / 2.0) / zoom_;
  keep_inside();
}

void View::zoom_by(int steps, Point place) {
  double zoom = zoom_;
  for (int i = 0; i < std::min(std::abs(steps), 32); ++i) zoom = next_zoom(zoom, steps > 0);
  zoom_to(zoom, place);
}

void View::pan(double right, double down) {
  center_.x -= right / zoom_;
  center_.y -= down / zoom_;
  is_fitted_ = false;
  keep_inside();
}

int View::left() const { return int(std::lround(window_.width / 2.0 - center_.x * zoom_)); }
int View::top() const { return int(std::lround(window_.height / 2.0 - center_.y * zoom_)); }

Point View::at(Point window) const {
  return {(window.x - left()) / zoom_, (window.y - top()) / zoom_};
}
