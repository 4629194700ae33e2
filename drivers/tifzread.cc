// Lines of a TIFF file: blocks through libtiff, their samples to planes.
#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "tifz.h"

namespace drivers::tifz {

namespace {

// Samples of one component that lie in a block: number i is at `first + i * step`.
struct Source {
  const std::uint8_t* row;
  std::size_t first, step;

  [[nodiscard]] std::size_t at(std::size_t i) const { return first + i * step; }
};

template <typename Value>
Value value_at(const Source& source, std::size_t i) {
  Value value;
  std::memcpy(&value, source.row + source.at(i) * sizeof value, sizeof value);
  return value;
}

// Bits that follow one another from the highest of a byte down; at most 16. Before: two bytes follow
// the row.
std::uint32_t packed_at(const Source& source, std::size_t i, unsigned bits) {
  const std::size_t bit = source.at(i) * bits;
  const std::uint8_t* const bytes = source.row + bit / 8;
  const std::uint32_t three =
      std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[1]} << 8 | bytes[2];
  return three >> (24 - bits - bit % 8) & ((1U << bits) - 1);
}

float from_half(std::uint16_t half) {
  const std::uint32_t sign = std::uint32_t{half} >> 15 << 31, mantissa = half & 0x3ffU;
  const std::uint32_t exponent = half >> 10 & 31U;
  if (exponent == 0) {
    const float value = float(mantissa) * 0x1p-24F;
    return sign != 0 ? -value : value;
  }
  const std::uint32_t raised = exponent == 31 ? 255 : exponent + 112;
  return std::bit_cast<float>(sign | raised << 23 | mantissa << 13);
}

// Moves samples to a plane, each changed by a function.
template <typename Stored, typename Out, typename Change>
void move_values(const Source& source, std::size_t count, Out* plane, Change change) {
  for (std::size_t i = 0; i < count; ++i) plane[i] = change(value_at<Stored>(source, i));
}

void move_floats(const State& state, const Source& source, std::size_t count, float* plane) {
  if (state.bits == 16) move_values<std::uint16_t>(source, count, plane, from_half);
  if (state.bits == 32) move_values<float>(source, count, plane, [](float value) { return value; });
  if (state.bits == 64)
    move_values<double>(source, count, plane, [](double value) { return float(value); });
}

// Integers become samples of the whole range of `Out`.
template <typename Out>
void move_integers(const State& state, const Source& source, std::size_t count, Out* plane) {
  constexpr std::uint32_t full = std::numeric_limits<Out>::max();
  const unsigned bits = state.bits;
  if (bits == 8 * sizeof(Out)) {
    move_values<Out>(source, count, plane, [](Out value) { return value; });
  } else if (bits == 32) {
    move_values<std::uint32_t>(source, count, plane,
                               [](std::uint32_t value) { return Out(value >> 16); });
  } else {
    const std::uint32_t most = (1U << bits) - 1;
    for (std::size_t i = 0; i < count; ++i) {
      plane[i] = Out((std::uint64_t{packed_at(source, i, bits)} * full + most / 2) / most);
    }
  }
}

template <typename Out>
Out* plane_at(img_line* line, std::size_t slot, std::size_t at) {
  return static_cast<Out*>(ka_img_line_plane(line, int(slot))) + at;
}

// Sample number `sample` of the pixels of a block, in the current line.
Source source_of(const State& state, std::size_t block, std::size_t row, std::size_t sample) {
  const std::size_t plane = state.is_planar ? sample : 0;
  return {state.band.data() + (plane * state.blocks + block) * state.block_bytes +
              row * state.block_row_bytes,
          state.is_planar ? 0 : sample, state.is_planar ? std::size_t{1} : state.samples};
}

void look_up(const State& state, const Source& source, std::size_t count,
             const std::array<std::uint8_t*, 3>& planes) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t index = packed_at(source, i, state.bits);
    for (std::size_t c = 0; c < planes.size(); ++c) planes[c][i] = state.palette[c][index];
  }
}

template <typename Out>
void invert(Out* plane, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) plane[i] = Out(~unsigned{plane[i]});
}

// The pixels of a block, `count` of them, to the line from `at` on.
template <typename Out, typename Move>
void unpack(const State& state, img_line* line, std::size_t block, std::size_t row,
            std::size_t count, Move move) {
  const std::size_t at = block * state.block_width;
  for (std::size_t c = 0; c < state.colors; ++c) {
    move(state, source_of(state, block, row, c), count, plane_at<Out>(line, c, at));
  }
  if constexpr (std::is_integral_v<Out>) {
    if (state.photometric == PHOTOMETRIC_MINISWHITE) invert(plane_at<Out>(line, 0, at), count);
  }
  if (state.colors == 1) {
    const Out* const grey = plane_at<Out>(line, 0, at);
    for (const std::size_t c : {std::size_t{1}, std::size_t{2}})
      std::copy_n(grey, count, plane_at<Out>(line, c, at));
  }
  if (!state.has_alpha) return;
  move(state, source_of(state, block, row, state.colors), count, plane_at<Out>(line, 3, at));
}

void unpack_palette(const State& state, img_line* line, std::size_t block, std::size_t row,
                    std::size_t count) {
  const std::size_t at = block * state.block_width;
  using Byte = std::uint8_t;
  look_up(state, source_of(state, block, row, 0), count,
          {plane_at<Byte>(line, 0, at), plane_at<Byte>(line, 1, at), plane_at<Byte>(line, 2, at)});
  if (!state.has_alpha) return;
  move_integers(state, source_of(state, block, row, 1), count, plane_at<Byte>(line, 3, at));
}

void unpack_block(const State& state, img_line* line, std::size_t block, std::size_t row,
                  std::size_t count) {
  if (state.photometric == PHOTOMETRIC_PALETTE) {
    unpack_palette(state, line, block, row, count);
  } else if (state.kind == Sample::kFloat) {
    unpack<float>(state, line, block, row, count, move_floats);
  } else if (state.bits > 8) {
    unpack<std::uint16_t>(state, line, block, row, count, move_integers<std::uint16_t>);
  } else {
    unpack<std::uint8_t>(state, line, block, row, count, move_integers<std::uint8_t>);
  }
}

// Decodes what holds a line: the row itself, or all blocks of its band.
bool decode(State& state, std::uint32_t y) {
  TIFF* const tif = state.tif.get();
  if (!state.is_tiled && !state.is_planar)
    return TIFFReadScanline(tif, state.band.data(), y, 0) > 0;
  const std::size_t planes = state.is_planar ? state.samples : 1;
  std::uint8_t* block = state.band.data();
  for (std::size_t plane = 0; plane < planes; ++plane) {
    for (std::size_t i = 0; i < state.blocks; ++i, block += state.block_bytes) {
      const auto size = tmsize_t(state.block_bytes);
      const auto x = std::uint32_t(i) * state.block_width;
      const auto sample = std::uint16_t(plane);
      const tmsize_t got =
          state.is_tiled
              ? TIFFReadEncodedTile(tif, TIFFComputeTile(tif, x, y, 0, sample), block, size)
              : TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, y, sample), block, size);
      if (got < 0 || state.file.message[0] != '\0') return false;
    }
  }
  return true;
}

// Makes the band of a line the current one. Damaged data that libtiff goes on with is an error.
bool load_band(State& state, std::uint32_t y) {
  const std::int64_t band = y / state.band_rows;
  if (band == state.band_number) return true;
  state.file.forget();
  state.band_number = band;
  return decode(state, y) && state.file.message[0] == '\0';
}

}  // namespace

int read_line(img_file* handle, img_line* line) {
  auto& state = state_of<State>(handle);
  if (state.has_failed || handle->line_count >= handle->height) {
    return ka_img_custom_format_error(handle, IMG_ERR_READ, 0);
  }
  const auto y = std::uint32_t(handle->line_count);
  if (!load_band(state, y)) {
    state.has_failed = true;  // the next rows of a strip need this one
    return state.file.fail(state.file.os_error != 0 ? IMG_ERR_READ : IMG_ERR_CORRUPT);
  }
  const std::size_t row = y % state.band_rows;
  const auto width = std::size_t(handle->width);
  const bool is_plain = state.blocks == 1 && !state.is_planar && !state.is_tiled &&
                        state.colors == 3 && state.samples == ka_img_ncomp[state.type] &&
                        state.bits == ka_img_nbits[state.type];
  if (is_plain) {
    ka_img_line_unpack(line, state.type, state.band.data(), handle->width, IMG_ORDER_HOST);
    return 1;
  }
  for (std::size_t block = 0; block < state.blocks; ++block) {
    const std::size_t at = block * state.block_width;
    unpack_block(state, line, block, row, std::min<std::size_t>(state.block_width, width - at));
  }
  return 1;
}

}  // namespace drivers::tifz
