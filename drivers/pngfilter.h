// Filters of PNG rows: "Portable Network Graphics", second edition, section 9. Rows are given without
// the byte that names their filter.
#pragma once

#include <cstddef>
#include <cstdint>

namespace drivers {

enum PngFilter : std::uint8_t { kPngNone, kPngSub, kPngUp, kPngAverage, kPngPaeth, kPngFilters };

// So many bytes after a row and after the row above it may be read.
inline constexpr std::size_t kPngSlack = 8;

// Undoes the filter of a row in place. `above` is the row above, zeros for the first. A pixel has 1,
// 2, 3, 4, 6 or 8 bytes, one where several share a byte; `count` is a multiple of that.
void png_unfilter(PngFilter filter, std::size_t pixel_bytes, std::uint8_t* row,
                  const std::uint8_t* above, std::size_t count);

// Filters a row into `out`. `kPngAverage` is not among the filters that are written.
void png_filter(PngFilter filter, std::size_t pixel_bytes, const std::uint8_t* row,
                const std::uint8_t* above, std::size_t count, std::uint8_t* out);

}  // namespace drivers
