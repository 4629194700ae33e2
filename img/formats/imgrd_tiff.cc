// Lines of TIFF files: where their rows are, how they are decoded, what the samples are.
#include <errno.h>

#include "drivers.h"
#include "img_tiff.h"
#include "linekernels.h"
#include "rle.h"

namespace ka {

namespace {

using tiff::PlaneReader;
using tiff::State;

using Row = std::span<const std::uint8_t>;  // empty: the handle's error is set

Row fail(img_file* handle, int error, int os_error) {
  img_error(handle, error, os_error);
  return {};
}

int refuse_packet(img_file* handle) {
  return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a packet passes the end of its row");
}

// A row of a strip.
struct Place {
  std::size_t strip;
  std::uint64_t row;
};

// Where the current line's row of a plane stands.
Place findline(const img_file* handle, const State& state, std::size_t plane) {
  const auto line = std::uint64_t(handle->line_count);
  const std::size_t first = plane * state.strips.per_plane;
  if (state.strips.per_plane == 1) return {first, line};
  return {first + std::size_t(line / state.strips.rows), line % state.strips.rows};
}

Row read_plain(img_file* handle, State& state, PlaneReader& plane, const Place& place) {
  const auto before = checked_product(place.row, state.row_bytes);
  if (!before || *before > std::uint64_t(handle->file_size)) return fail(handle, IMG_ERR_READ, 0);
  plane.in.seek(state.strips.offset[place.strip] + *before);
  const Row row = plane.in.take(state.row_bytes);
  return row.empty() ? fail(handle, IMG_ERR_READ, errno) : row;
}

// Packets without bytes do not count in the bound of a row's packets. A row may have some, up to the
// size of the reader's buffer; all rows together, which can share them, up to the size of the file.
// `used` are the bytes of a row's packets so far. False with the handle's error.
bool check_idle(img_file* handle, const State& state, std::uint64_t used, std::uint64_t row_bytes) {
  const std::uint64_t usual = 2 * row_bytes;
  if (used <= usual) return true;
  const bool is_sound = used <= std::max<std::uint64_t>(usual, FileReader::kBufferSize) &&
                        state.idle + (used - usual) <= std::uint64_t(handle->file_size);
  return is_sound || img_error(handle, IMG_ERR_CORRUPT, 0);
}

// Goes to the row's first packet: packets do not say where rows begin. The way from row to row is
// none, since the rows before are known to end there.
bool walk(img_file* handle, const State& state, PlaneReader& plane, const Place& place) {
  const std::uint64_t wanted = place.row * state.row_bytes;
  if (plane.position == 0 || plane.strip != place.strip || plane.filled > wanted) {
    plane.strip = place.strip;
    plane.filled = 0;
    plane.position = state.strips.offset[place.strip];
  }
  while (plane.filled < wanted) {
    plane.in.seek(plane.position);
    const auto packets = plane.in.ahead(kLongestPackBits);
    const int failure = errno;
    const auto [end, used, filled] = skip_packbits(packets, wanted - plane.filled);
    plane.position += used;
    plane.filled += filled;
    if (end == RowEnd::kCorrupt) return refuse_packet(handle);
    if (end == RowEnd::kShort && used == 0) return img_error(handle, IMG_ERR_READ, failure);
  }
  return true;
}

Row decodeline(img_file* handle, State& state, PlaneReader& plane, const Place& place) {
  if (!walk(handle, state, plane, place)) return {};
  const std::span row(state.row.data(), state.row.size());
  std::uint64_t position = plane.position;
  for (std::size_t done = 0; done < row.size();) {
    plane.in.seek(position);
    const auto packets = plane.in.ahead(kLongestPackBits);
    const int failure = errno;
    const auto [end, used, filled] = expand_packbits(packets, row.subspan(done));
    position += used;
    done += filled;
    if (end == RowEnd::kCorrupt) {
      refuse_packet(handle);
      return {};
    }
    if (end == RowEnd::kShort && used == 0) return fail(handle, IMG_ERR_READ, failure);
    if (!check_idle(handle, state, position - plane.position, row.size())) return {};
  }
  const std::uint64_t packed = position - plane.position;
  state.idle += packed - std::min(packed, 2 * std::uint64_t{row.size()});
  plane.position = position;
  plane.filled += row.size();
  return row;
}

Row read_row(img_file* handle, State& state, std::size_t plane) {
  const Place place = findline(handle, state, plane);
  PlaneReader& reader = state.planes[plane];
  return state.is_compressed ? decodeline(handle, state, reader, place)
                             : read_plain(handle, state, reader, place);
}

// Levels of fewer than 8 bits: of one bit black and white, of four the high half of a byte.
void convert_grey(const State& state, const std::uint8_t* row, std::size_t width,
                  const std::array<std::uint8_t*, 3>& planes) {
  const auto scale = std::uint8_t(state.sample_bits == 1 ? 255 : state.sample_bits == 4 ? 16 : 1);
  const std::uint8_t flip = state.photometric == tiff::kWhiteIsZero ? 255 : 0;
  const auto store = [&](const std::uint8_t* levels, std::size_t at, std::size_t part) {
    std::uint8_t* const red = planes[0] + at;
    for (std::size_t i = 0; i < part; ++i) red[i] = std::uint8_t(levels[i] * scale) ^ flip;
    return true;
  };
  (void)for_indexes(row, state.sample_bits, width, store);
  for (std::size_t c = 1; c < planes.size(); ++c) std::copy_n(planes[0], width, planes[c]);
}

template <typename Sample>
void convert_colors(const State& state, const std::uint8_t* row, std::size_t width,
                    img_line* line) {
  if (state.components == 4) {
    split<Sample, 4>(row, plane_pointers<Sample, 4>(line), width, state.order);
  } else {
    split<Sample, 3>(row, plane_pointers<Sample, 3>(line), width, state.order);
  }
}

// Distributes a row over the planes of a line.
bool readline(const State& state, const std::uint8_t* row, std::size_t width, img_line* line) {
  const auto [r, g, b] = plane_pointers<std::uint8_t, 3>(line);
  if (state.photometric == tiff::kPalette) {
    return state.palette.look_up(row, state.sample_bits, width, {r, g, b, nullptr});
  }
  if (state.photometric != tiff::kRgb) {
    convert_grey(state, row, width, {r, g, b});
  } else if (state.sample_bits == 8) {
    convert_colors<std::uint8_t>(state, row, width, line);
  } else if (state.sample_bits == 16) {
    convert_colors<std::uint16_t>(state, row, width, line);
  } else {
    convert_colors<std::uint32_t>(state, row, width, line);
  }
  return true;
}

template <typename Sample>
void copy_plane(const State& state, const std::uint8_t* row, std::size_t width, img_line* line,
                std::size_t c) {
  split<Sample, 1>(row, {plane_of<Sample>(line, c)}, width, state.order);
}

int read_planes(img_file* handle, State& state, img_line* line) {
  const auto width = std::size_t(handle->width);
  for (std::size_t c = 0; c < state.components; ++c) {
    const Row row = read_row(handle, state, c);
    if (row.empty()) return 0;
    if (state.sample_bits == 8) copy_plane<std::uint8_t>(state, row.data(), width, line, c);
    if (state.sample_bits == 16) copy_plane<std::uint16_t>(state, row.data(), width, line, c);
    if (state.sample_bits == 32) copy_plane<std::uint32_t>(state, row.data(), width, line, c);
  }
  return 1;
}

}  // namespace

int img_read_tiff(img_file* handle, img_line* line) {
  auto& state = state_of<State>(handle);
  if (handle->lacks_lines || handle->line_count >= handle->height) {
    return img_error(handle, IMG_ERR_READ, 0);
  }
  if (state.is_planar) return read_planes(handle, state, line);
  const Row row = read_row(handle, state, 0);
  if (row.empty()) return 0;
  if (readline(state, row.data(), std::size_t(handle->width), line)) return 1;
  return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a pixel outside the color map");
}

}  // namespace ka
