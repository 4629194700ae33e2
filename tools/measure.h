// How far two pictures differ: pixel sums, their count, total and maximum, and the histograms.
// Nothing here knows of files, options or messages.
#pragma once

#include <ka/img.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ka {

struct MeasureSettings {
  int tolerance = 3;  // channel differences of at most this size contribute nothing
  bool ignore_alpha = false;
  bool signed_intensity =
      false;              // intensity of picture 1 minus picture 2, instead of the color distance
  bool brighten = false;  // scale by the largest difference found
};

// The 8-bit planes R, G, B, A of one line.
using LinePlanes = std::array<const std::uint8_t*, 4>;

// Pixels examined together: most blocks of most pairs do not differ.
inline constexpr std::size_t kMeasureBlock = 64;

// What a kernel finds in one line.
struct LineSums {
  std::uint32_t count;  // pixels whose sum is not 0
  std::int64_t total;   // of the sums of these pixels
  std::int32_t most;    // largest sum, at least 0
  std::int32_t least;   // smallest sum, at most 0
};

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

// Fills a table that is indexed by pixel sum with `value_of(sum)`. The function must not change
// back: where two sums give the same, so do all between. It is then called for few of the sums.
template <typename Value, typename Function>
void fill_by_sum(std::vector<Value>& table, Function value_of) {
  const auto fill = [&](auto&& self, std::size_t from, std::size_t to) -> void {
    if (to - from < 2) return;
    if (table[from] == table[to]) {
      std::fill(table.begin() + std::ptrdiff_t(from), table.begin() + std::ptrdiff_t(to),
                table[from]);
      return;
    }
    const std::size_t middle = from + (to - from) / 2;
    table[middle] = value_of(middle);
    self(self, from, middle);
    self(self, middle, to);
  };
  table.front() = value_of(std::size_t{0});
  table.back() = value_of(table.size() - 1);
  fill(fill, 0, table.size() - 1);
}

// A line of pass 2, by pixel.
struct PixelRow {
  std::vector<std::int32_t> sums;    // with the alpha part
  std::vector<std::int16_t> alphas;  // signed differences of alpha beyond the tolerance
  std::vector<std::uint32_t>
      entries;  // of the table of sums; open where a whole block has no difference
};

// Pixels by bin, those of negative sums kCounterMiddle further on; or by difference of alpha around
// kCounterMiddle, those that do not differ at 0. They are in several sets, so that pixels that
// count alike do not wait for each other, and sets do not start a power of two apart, as the
// processor would take their addresses for the same.
inline constexpr std::size_t kCounterSets = 8, kCounterMiddle = 256;
using Counters = std::array<std::array<int, 2 * kCounterMiddle + 16>, kCounterSets>;

// Pass 2: goes over the lines again, with the scale of pass 1, and fills the histograms.
class HistogramPass {
 public:
  // `paint_of` gives the 24 bits that the entry of each sum carries above its bin.
  template <typename Function>
  HistogramPass(const MeasureSettings& settings, double scale, int width, Function paint_of)
      : HistogramPass(settings, scale, width) {
    std::vector<std::uint32_t> paints(table_.size());
    fill_by_sum(paints, paint_of);
    for (std::size_t s = 0; s < table_.size(); ++s) table_[s] |= paints[s] << 8;
  }
  HistogramPass(const MeasureSettings& settings, double scale, int width);

  // The pixels of a line, valid until the next call.
  [[nodiscard]] const PixelRow& add_line(const LinePlanes& first, const LinePlanes& second);

  [[nodiscard]] Histograms result() const;

 private:
  MeasureSettings settings_;
  double scale_;
  std::vector<std::uint32_t>
      table_;  // by sum, intensity: by absolute value; the bin in the low 8 bits
  PixelRow row_;
  Counters main_{}, alpha_{};
};

// Pass 2 over the same lines of two images.
[[nodiscard]] Histograms count_histograms(const img_image* first, const img_image* second,
                                          int height, const MeasureSettings& settings,
                                          double scale);

// The planes of line y of an image.
[[nodiscard]] LinePlanes line_planes_of(const img_image* image, int y);

// Largest pixel sums: four squares of 255; intensity: brightness and alpha together.
inline constexpr std::size_t kLargestColourSum = 4 * 255 * 255;
inline constexpr std::size_t kLargestIntensitySum = 2 * 255;

}  // namespace ka
