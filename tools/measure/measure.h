// How far two pictures differ: pixel sums, their count, total and maximum, and the histograms.
// Nothing here knows of files, options or messages.
#pragma once

#include <ka/img.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ka {

struct MeasureSettings {
  int tolerance = 3;  // channel differences of at most this size contribute nothing
  bool ignore_alpha = false;
  // Intensity of picture 1 minus picture 2, instead of the color distance.
  bool signed_intensity = false;
  bool brighten = false;  // scale by the largest difference found
};

// The 8-bit planes R, G, B, A of one line.
using LinePlanes = std::array<const std::uint8_t*, 4>;

// Results of the first pass.
struct Difference {
  int count = 0;       // differing pixels
  double total = 0;    // of their sums
  double largest = 0;  // color: the largest sum; intensity: the sum of largest absolute value
  double maximum_percent = 0;  // of the full range; intensity: with its sign
  double scale = 1;            // divides a pixel's difference to give 0 to 1
};

// Pass 1. Takes the lines of a picture in any order, each once.
class Meter {
 public:
  explicit Meter(const MeasureSettings& settings);

  // Adds line `y` of both pictures, `width` samples in each plane.
  void add_line(int y, const LinePlanes& first, const LinePlanes& second, int width);

  [[nodiscard]] Difference result() const;

 private:
  // The intensity, with its sign, of the first pixel on the line whose intensity has this absolute
  // value.
  [[nodiscard]] std::int32_t first_of_size(std::int32_t size, const LinePlanes& first,
                                           const LinePlanes& second, int width) const;

  MeasureSettings settings_;
  std::int64_t count_ = 0;
  std::int64_t total_ = 0;
  std::int32_t largest_ = 0;
  int largest_line_ = 0;  // of equal sizes the one on the lowest line counts
};

// Pass 1 over the lowest `height` lines of two images of equal width and type rgba.
[[nodiscard]] Difference measure(const img_image* first, const img_image* second, int height,
                                 const MeasureSettings& settings);

// Average difference in percent: color: the root mean square of the distances; intensity: the
// mean. Before: count is not 0.
[[nodiscard]] double average_percent(const Difference& difference, const MeasureSettings& settings);

// Pixels by size of their difference, smallest first. The negative ones are used by intensity only.
struct Histograms {
  using Bins = std::array<int, 256>;
  Bins main{}, negative{}, alpha{}, negative_alpha{};
};

// Pass 2 over the same lines of two images.
[[nodiscard]] Histograms count_histograms(const img_image* first, const img_image* second,
                                          int height, const MeasureSettings& settings,
                                          double scale);

// The planes of line y of an image.
[[nodiscard]] LinePlanes line_planes_of(const img_image* image, int y);

}  // namespace ka
