// Memory-mapped textures: an image as it is in memory, after a file header, with the levels of a
// pyramid after the base. All fields have the byte order of the host that wrote the file.
// Layout: docs/formats.md, "Memory-mapped textures".
#include <errno.h>

#include <cstring>
#include <limits>

#include <ka/endian.h>
#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "imgmap.h"
#include "imgpyramid.h"

namespace ka {

namespace {

constexpr int kLarger = 9;                                   // number of the message about the size
constexpr std::size_t kTableBuffer = std::size_t{16} << 10;  // of the reader of line tables, bytes

// A file of one level has exactly the bytes of its picture or more, which is reported. Files of several
// levels have been seen with fewer levels than their sides allow.
int check_size(img_file* handle, const img_image& image) {
  const auto expected = std::int64_t(map_file_bytes(image, image.levels > 0).value_or(0));
  if (image.levels > 1) {
    if (handle->file_size == expected) return 1;
    ka_info(
        "pyramid mmap image \"%s\" file has nonstandard size %lld, expected %lld; probably created "
        "with vel_copy -c",
        handle->display_name, static_cast<long long>(handle->file_size),
        static_cast<long long>(expected));
  } else if (handle->file_size < expected) {
    return img_refuse(handle, IMG_ERR_SIZE, 0, "%lld bytes; a picture of this size has %lld",
                      static_cast<long long>(handle->file_size), static_cast<long long>(expected));
  } else if (handle->file_size > expected) {
    ka_nerror(kLarger, "mmap image \"%s\" file larger than expected", handle->display_name);
  }
  return 1;
}

// States what parse_map_head has refused.
int refuse_head(img_file* handle, int error, const MapHead& head) {
  const img_image& image = head.image;
  if (error == IMG_ERR_SUBTYPE) {
    return img_refuse(handle, error, 0, "version %d is not read; %d is", head.version, kMapVersion);
  }
  if (error == IMG_ERR_SIZE) return img_refuse(handle, error, 0, "the file ends in the header");
  return img_refuse(handle, error, 0, "pixel type %d, %d components of %d bits, %d x %d, %d levels",
                    head.type, image.components, image.bits, image.width, image.height,
                    image.levels);
}

// The pyramid word of the handle that wrote the file; what none can hold counts as 0.
int pyramid_of(float filter) {
  constexpr float limit = -float(std::numeric_limits<int>::min());
  return filter >= -limit && filter < limit ? int(filter) : 0;
}

void swap_samples(std::uint8_t* plane, std::size_t bytes, int type) {
  if (ka_img_nbits[type] == 16) ka_swap_shorts(plane, std::ptrdiff_t(bytes / 2));
  if (ka_img_nbits[type] == 32) ka_swap_ints(plane, std::ptrdiff_t(bytes / 4));
}

// The file header and the header and line table of the base, in a mapping that is zero; then the
// headers and line tables of the other levels.
void write_headers(const img_file* handle, const Mapping& mapping) {
  MapFileHeader header{};
  header.magic = kMapMagic;
  header.type = handle->file_type;
  header.version = kMapVersion;
  header.image.filter = float(handle->pyramid);
  header.image.width = handle->width;
  header.image.height = handle->height;
  header.image.bits = handle->bits;
  header.image.components = handle->components;
  header.image.type = handle->file_type;
  std::memcpy(mapping.start(), &header, sizeof header);
  lay_out(mapping.image(), first_slot_in_map_files(handle->file_type));
  if (handle->pyramid != 0) img_pyramid_create_directory(handle, mapping.image());
}

}  // namespace

int img_test_map(img_file* /*handle*/, const std::uint8_t* head) {
  return is_map_file({head, IMG_HEAD_SIZE});
}

int img_open_map(img_file* handle, const std::uint8_t* head) {
  auto state = make_state<MapState>(handle);
  const int error = parse_map_head({head, IMG_HEAD_SIZE}, handle->file_size, state->head);
  if (error) return refuse_head(handle, error, state->head);
  const img_image& image = state->head.image;
  if (!check_size(handle, image)) return 0;
  handle->width = image.width;
  handle->height = image.height;
  handle->pyramid = pyramid_of(image.filter);
  note_line_bytes(handle, plane_bytes(state->head.type, image.width),
                  std::uint64_t(handle->file_size));
  state_file_type(handle, state->head.type);
  state->tables.start(handle, 0, kTableBuffer);
  state->planes.start(handle, 0);
  handle->data.p = state.release();
  return 1;
}

int img_create_map(img_file* handle) {
  if (handle->error) return 0;  // an earlier try has removed the file
  const auto bytes = img_pyramid_size(handle->width, handle->height, handle->bits,
                                      handle->components, handle->pyramid != 0);
  if (!bytes) return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  handle->file_size = std::int64_t(*bytes + kMapImageOffset);
  if (!img_mmap_map(handle, true)) return 0;
  write_headers(handle, state_of<MapState>(handle).mapping);
  return 1;
}

int img_read_map(img_file* handle, img_line* line) {
  auto& state = state_of<MapState>(handle);
  const int type = state.head.type;
  if (handle->line_count >= handle->height) return img_error(handle, IMG_ERR_READ, 0);
  const MapLevel base = map_base(state.head);
  img_image_line entry;
  const std::uint64_t table = base.offset + kImageHeaderSize;
  state.tables.seek(table + std::uint64_t(handle->line_count) * sizeof entry);
  if (!state.tables.read({reinterpret_cast<std::uint8_t*>(&entry), sizeof entry})) {
    return img_error(handle, IMG_ERR_READ, errno);
  }
  if (state.head.swapped) ka_swap_ints(entry.offset, IMG_SLOTS);
  const auto planes = map_line(entry, base, type);
  if (!planes) return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a plane outside its level");
  if (handle->lacks_lines) return img_error(handle, IMG_ERR_READ, 0);
  const std::size_t bytes = plane_bytes(type, handle->width), first = first_slot(type);
  for (std::size_t c = 0; c < std::size_t(ka_img_ncomp[type]); ++c) {
    auto* const to = plane_of<std::uint8_t>(line, first + c);
    if (!to) continue;
    state.planes.seek(base.offset + (*planes)[c]);
    if (!state.planes.read({to, bytes})) return img_error(handle, IMG_ERR_READ, errno);
    if (state.head.swapped) swap_samples(to, bytes, type);
  }
  return 1;
}

// The last line completes the picture, from which its other levels are filtered.
int img_write_map(img_file* handle, img_line* line) {
  if (handle->error) return 0;
  const Mapping& mapping = state_of<MapState>(handle).mapping;
  const int type = handle->file_type;
  const std::size_t bytes = plane_bytes(type, handle->width);
  const auto components = std::size_t(ka_img_ncomp[type]);
  const auto y = std::size_t(handle->line_count);
  std::uint8_t* to = first_plane(mapping.image()) + y * components * bytes;
  for (std::size_t c = 0; c < components; ++c, to += bytes) {
    const auto* const from = plane_of<std::uint8_t>(line, first_slot(type) + c);
    if (from) std::memcpy(to, from, bytes);
  }
  if (handle->line_count + 1 == handle->height && handle->pyramid != 0) {
    ka_img_pyramid_filter_levels(mapping.image());
  }
  return 1;
}

int img_close_map(img_file* handle) {
  const auto state = take_state<MapState>(handle);
  if (!state) return 1;
  const bool lacks_lines = handle->height > 0 && handle->line_count < handle->height;
  const int failure = state->mapping.unmap();
  if (failure) return img_error(handle, IMG_ERR_CLOSE, failure);
  if (handle->writing && !handle->error && lacks_lines) return img_error(handle, IMG_ERR_CLOSE, 0);
  return 1;
}

void img_header_map(img_file* handle, img_header* header) {
  const auto& state = state_of<MapState>(handle);
  constexpr bool is_little_host = std::endian::native == std::endian::little;
  HeaderEntries out(header);
  out.numbers("version", state.head.version);
  out.text("byte_order", is_little_host != state.head.swapped ? "little" : "big");
  out.numbers("filter", state.head.image.filter);
  const auto levels = map_levels(state.head, handle->file_size);
  if (!levels) return;
  out.numbers("levels", levels->count);
  for (std::size_t k = 0; k < levels->count; ++k) {
    out.numbers("level", levels->level[k].width, levels->level[k].height);
  }
}

}  // namespace ka
