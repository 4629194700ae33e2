// Pass 2 line by line, for those that also use the differences of single pixels.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "measure.h"
#include "measurekernels.h"

namespace ka {

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
  // Of the table of sums; without a value where a whole block has no difference.
  std::vector<std::uint32_t> entries;
};

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
  // By sum, intensity: by absolute value; the bin in the low 8 bits.
  std::vector<std::uint32_t> table_;
  PixelRow row_;
  Counters main_{}, alpha_{};
};

}  // namespace ka
