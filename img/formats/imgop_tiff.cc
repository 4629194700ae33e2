// TIFF images: one image in strips, plain or PackBits; grey, palette, RGB and RGBA. Layout:
// docs/formats.md, "TIFF", which is a part of "TIFF, Revision 6.0". Here is how a file is opened:
// what of its directory can be read.
#include <errno.h>
#include <limits.h>

#include <optional>

#include <ka/message.h>

#include "drivers.h"
#include "img_tiff.h"
#include "rows.h"

namespace ka {

namespace {

using tiff::Directory;
using tiff::Entry;
using tiff::Source;
using tiff::State;

constexpr std::uint16_t kMagic = 42;
constexpr std::uint32_t kIeeeFloat = 3;           // sample format
constexpr std::size_t kMostExpanded = 64;         // bytes that a byte of packets can represent
constexpr std::size_t kHeaderBuffer = 16 * 1024;  // bytes

// Whether the file holds the values of an entry. Nothing is allocated for those that it lacks.
bool holds(Source& file, const Entry& entry) {
  if (entry.bytes() <= entry.field.size()) return true;
  file.in.seek(file.offset(entry));
  errno = 0;
  return entry.bytes() <= file.in.left();
}

// Reads the first values of an entry that has as many. False when the file ends before.
bool read_values(Source& file, const Entry& entry, std::span<std::uint32_t> values) {
  if (!holds(file, entry)) return false;
  if (entry.bytes() > entry.field.size()) {
    return entry.type == tiff::kShort ? read_numbers<std::uint16_t>(file.in, values, file.order)
                                      : read_numbers<std::uint32_t>(file.in, values, file.order);
  }
  ByteCursor field(entry.field);
  for (std::uint32_t& value : values) value = file.value(field, entry);
  return true;
}

// The values of all components, which need not be there. Empty when the file lacks them.
using ComponentValues = std::array<std::uint32_t, 4>;
std::optional<ComponentValues> component_values(Source& file, const Entry& entry,
                                                std::size_t components) {
  ComponentValues values{};
  if (!read_values(file, entry, std::span(values).first(components))) return std::nullopt;
  return values;
}

bool are_equal(const ComponentValues& values, std::size_t components) {
  return std::all_of(values.begin(), values.begin() + std::ptrdiff_t(components),
                     [&](std::uint32_t value) { return value == values[0]; });
}

// The bits of each sample. Different ones are reported as an error, and the first goes for all.
int read_sample_bits(Source& file, const Directory& directory, State& state) {
  const Entry& entry = directory.sample_bits;
  state.sample_bits = entry.count == 0 ? 1 : file.number(entry);
  if (entry.count <= 1) return 1;
  if (entry.count < state.components) {
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "bits of %u samples where a pixel has %zu",
                      entry.count, state.components);
  }
  const auto bits = component_values(file, entry, state.components);
  if (!bits) return file.short_read("bits per sample");
  if (!are_equal(*bits, state.components)) {
    const auto other = std::ranges::adjacent_find(*bits, std::ranges::not_equal_to{}) + 1;
    img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "samples of %u and %u bits in a pixel", (*bits)[0],
               *other);
  }
  state.sample_bits = (*bits)[0];
  return 1;
}

// Returns 1, or 0 with the handle's error.
int check_sample_bits(img_file* handle, const State& state) {
  struct Readable {
    std::array<std::size_t, 3> bits;
    const char* text;
  };
  static constexpr Readable rgb = {{8, 16, 32}, "8, 16 and 32 are in RGB"},
                            palette = {{4, 8, 8}, "4 and 8 are in palette files"},
                            grey = {{1, 4, 8}, "1, 4 and 8 are in grey"};
  const Readable& readable = state.photometric == tiff::kRgb       ? rgb
                             : state.photometric == tiff::kPalette ? palette
                                                                   : grey;
  if (std::ranges::find(readable.bits, state.sample_bits) != readable.bits.end()) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "%zu bits per sample are not read; %s",
                    state.sample_bits, readable.text);
}

// What a pixel is.
int read_layout(Source& file, const Directory& directory, State& state) {
  const bool is_rgb = directory.photometric == tiff::kRgb;
  const std::uint32_t components = directory.components;
  if (directory.photometric > tiff::kPalette) {
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0,
                      "photometric interpretation %u is not read; 0 to 3 are",
                      directory.photometric);
  }
  if (is_rgb ? components != 3 && components != 4 : components != 1) {
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "%u samples per pixel are not read; %s",
                      components, is_rgb ? "3 and 4 are in RGB" : "1 is in grey and palette files");
  }
  state.photometric = directory.photometric;
  state.components = components;
  if (!read_sample_bits(file, directory, state)) return 0;
  if (!check_sample_bits(file.handle, state)) return 0;
  if (file.handle->width <= 0 || file.handle->height <= 0) {
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0,
                      "width %u, height %u; sides of 1 to %d are read",
                      unsigned(file.handle->width), unsigned(file.handle->height), INT_MAX);
  }
  state.is_planar = directory.is_planar && components > 1;
  const std::uint64_t row_samples =
      std::uint64_t(file.handle->width) * (state.is_planar ? 1 : components);
  state.row_bytes = (row_samples * state.sample_bits + 7) / 8;
  return 1;
}

// Colors of 16 bits, of which the high bytes are kept: all reds, all greens, all blues.
int read_color_map(Source& file, const Directory& directory, State& state) {
  constexpr std::size_t most_entries = 3 * 256;
  const std::size_t colors = std::size_t{1} << state.sample_bits;
  std::array<std::uint32_t, most_entries> map;
  if (directory.color_map.count < 3 * colors) {
    return img_refuse(file.handle, IMG_ERR_CORRUPT, 0, "a color map of %u values; %zu are needed",
                      directory.color_map.count, 3 * colors);
  }
  if (!read_values(file, directory.color_map, std::span(map).first(3 * colors))) {
    return file.short_read("color map");
  }
  const auto sample = [&](std::size_t i) { return std::uint8_t(map[i] >> 8); };
  for (std::size_t i = 0; i < colors; ++i) {
    state.palette.set(i, {sample(i), sample(colors + i), sample(2 * colors + i), 255});
  }
  return 1;
}

int check_sample_format(Source& file, const Directory& directory, const State& state) {
  const Entry& entry = directory.sample_format;
  if (entry.count == 0) {
    if (state.sample_bits <= 16) return 1;
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "integers of 32 bits; floats are read");
  }
  if (entry.count < state.components) return tiff::refuse_format_count(file, entry.count);
  const auto formats = component_values(file, entry, state.components);
  if (!formats) return file.short_read("sample format");
  if (!are_equal(*formats, state.components)) {
    ka_debug("%s: different sampleformat values per sample not supported",
             file.handle->display_name);
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "sample formats differ");
  }
  if (state.sample_bits == 32 && (*formats)[0] != kIeeeFloat) {
    ka_debug("%s: non-float 32 bit format not supported", file.handle->display_name);
    return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0,
                      "sample format %u of 32 bits is not read; %u (float) is", (*formats)[0],
                      kIeeeFloat);
  }
  return 1;
}

// The strips of one plane follow those of another. A single strip holds all rows whatever the file
// says about them. A table of byte counts has to be whole where there is one; strips end with their rows.
int read_strips(Source& file, const Directory& directory, State& state) {
  const std::uint32_t strips = directory.strips, rows = directory.rows_per_strip;
  const std::size_t planes = state.is_planar ? state.components : 1;
  const auto height = std::uint64_t(file.handle->height);
  const std::uint64_t needed = rows == 0 ? 0 : (height + rows - 1) / rows;
  if (directory.offsets.count == 0) {
    return img_refuse(file.handle, IMG_ERR_CORRUPT, 0, "no table of strips");
  }
  if (state.is_planar ? strips != planes && strips != planes * needed
                      : strips > 1 && (rows == 0 || strips < needed)) {
    return img_refuse(file.handle, state.is_planar ? IMG_ERR_SUBTYPE : IMG_ERR_CORRUPT, 0,
                      "%u strips of %u rows for %d lines in %zu planes", strips, rows,
                      file.handle->height, planes);
  }
  if (!holds(file, directory.byte_counts) || !holds(file, directory.offsets)) {
    return file.short_read("table of strips");
  }
  state.strips.offset.resize(strips);
  state.strips.per_plane = strips / planes;
  state.strips.rows = rows;
  return read_values(file, directory.offsets, state.strips.offset)
             ? 1
             : file.short_read("table of strips");
}

int file_type_of(const State& state) {
  const bool has_alpha = state.components == 4;
  if (state.sample_bits == 32) return has_alpha ? IMG_TYPE_RGBA_FP : IMG_TYPE_RGB_FP;
  if (state.sample_bits == 16) return has_alpha ? IMG_TYPE_RGBA_16 : IMG_TYPE_RGB_16;
  return has_alpha ? IMG_TYPE_RGBA : IMG_TYPE_RGB;
}

void start_planes(img_file* handle, State& state) {
  if (state.is_compressed) state.row = Buffer(state.row_bytes);
  const std::size_t usual = state.is_planar ? FileReader::kBufferSize / 2 : FileReader::kBufferSize;
  const std::size_t buffer = state.is_compressed ? usual : std::max(usual, state.row_bytes);
  for (std::size_t c = 0; c < (state.is_planar ? state.components : 1); ++c) {
    state.planes[c].in.start(handle, 0, buffer);
  }
}

}  // namespace

int img_test_tiff(img_file* /*handle*/, const std::uint8_t* head) {
  const bool has_order = (head[0] == 'I' && head[1] == 'I') || (head[0] == 'M' && head[1] == 'M');
  ByteCursor little({head + 2, 2}), big({head + 2, 2});
  return has_order && (little.le16() == kMagic || big.be16() == kMagic);
}

int img_open_tiff(img_file* handle, const std::uint8_t* head) {
  auto state = make_state<State>(handle);
  Source file{handle, {}, head[0] == 'I' ? std::endian::little : std::endian::big};
  file.in.start(handle, 0, kHeaderBuffer);
  ByteCursor header({head, IMG_HEAD_SIZE});
  header.skip(4);
  Directory directory{};
  if (!tiff::read_directory(file, file.u32(header), directory)) return 0;
  state->order = file.order;
  state->is_compressed = directory.is_compressed;
  if (!read_layout(file, directory, *state)) return 0;
  if (state->photometric == tiff::kPalette && !read_color_map(file, directory, *state)) return 0;
  if (!check_sample_format(file, directory, *state)) return 0;
  if (!read_strips(file, directory, *state)) return 0;
  // Not even the first row can be there: no memory is asked for it.
  const auto most = checked_product(handle->file_size, kMostExpanded);
  if (state->is_compressed && most && state->row_bytes > *most) {
    return img_refuse(handle, IMG_ERR_READ, 0, "the file is too short for a row of %zu bytes",
                      state->row_bytes);
  }
  const std::uint64_t per_byte = state->is_compressed ? kMostExpanded : 1;
  note_line_bytes(handle, (state->row_bytes + per_byte - 1) / per_byte,
                  std::uint64_t(handle->file_size),
                  std::max<std::size_t>(state->components * state->sample_bits / 8, 3));
  start_planes(handle, *state);
  state_file_type(handle, file_type_of(*state));
  handle->data.p = state.release();
  return 1;
}

}  // namespace ka
