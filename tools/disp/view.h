// Which part of a picture a window shows, and how large. Points of a window count pixels of the
// screen, points of a picture its own, both from the top left corner.
#pragma once

struct Point {
  double x = 0, y = 0;
};
struct Size {
  int width = 0, height = 0;
  bool operator==(const Size&) const = default;
};

class View {
 public:
  static constexpr double kLargestZoom = 128;

  // The window has this size from now on. A picture that was fitted stays so.
  void resize(Size window);
  // Another picture is shown. One of the same size keeps its place, others only the zoom.
  void show(Size picture);

  void fit();
  // Zooms; what is under the point of the window stays there.
  void zoom_to(double zoom, Point at);
  void zoom_by(int steps, Point at);    // above 0: larger
  void pan(double right, double down);  // moves the picture

  [[nodiscard]] double zoom() const {
    return zoom_;
  }  // pixels of the screen for one of the picture
  [[nodiscard]] bool is_fitted() const { return is_fitted_; }
  [[nodiscard]] Size picture() const { return picture_; }
  [[nodiscard]] Size window() const { return window_; }
  // Where in the window the picture begins, in whole pixels.
  [[nodiscard]] int left() const;
  [[nodiscard]] int top() const;
  // The point of the picture at a point of the window.
  [[nodiscard]] Point at(Point window) const;

 private:
  [[nodiscard]] double fitting_zoom() const;
  void keep_inside();

  Size window_{1, 1}, picture_{1, 1};
  Point center_{0.5, 0.5};  // of the picture in the middle of the window
  double zoom_ = 1;
  bool is_fitted_ = false;
};
