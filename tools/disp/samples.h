// The samples of pixels in any pixel type: as numbers that can be shown, and as text.
#pragma once

#include <ka/img.h>

#include <array>
#include <limits>
#include <string>
#include <vector>

// The planes of one line, by component; null: absent.
using RowPlanes = std::array<const void*, IMG_SLOTS>;
[[nodiscard]] RowPlanes planes_of(const img_line* line);
[[nodiscard]] RowPlanes planes_of(const img_image* image, int y);

// What of a pixel is shown.
enum class Part { kRed, kGreen, kBlue, kAlpha };

// The smallest and the largest number of data that has no range of its own: depths without
// background, coverage, the absolute values of normals and motions.
struct Range {
  float low = std::numeric_limits<float>::max();
  float high = std::numeric_limits<float>::lowest();
  [[nodiscard]] Range united(const Range& other) const;
  bool operator==(const Range&) const = default;
};
[[nodiscard]] bool has_range(int type);
void widen_range(Range& range, int type, const RowPlanes& planes, int width);

// Whether red, green and blue are always the same.
[[nodiscard]] bool is_grey(int type);
// Whether a pixel may hold what is no number, or infinity.
[[nodiscard]] bool is_float(int type);

// The pixels from `x` on as numbers: 0 is black and 1 white. Colors may be outside, and need not be
// numbers. Of data without a meaning as color, docs/vel_disp.1 says how it looks.
void shown_samples(int type, const RowPlanes& planes, const Range& range, Part part, int x,
                   int count, float* out);

// The samples of one pixel as the file has them.
struct NamedSample {
  const char* name;
  std::string text;
};
[[nodiscard]] std::vector<NamedSample> sample_texts(int type, const RowPlanes& planes, int x);
// At most so many characters, and so many samples, for the text of a pixel.
[[nodiscard]] int longest_sample(int type);
[[nodiscard]] int sample_count(int type);
