// OpenEXR: scanline and tiled parts, through the core library of OpenEXR; ZIP and ZIPS through
// libdeflate. Layout: docs/formats.md, "OpenEXR". Here: opening; exrlines.cc reads the lines,
// exrwrite.cc writes.
#include <errno.h>
#include <libdeflate.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>

#include <ka/imgbytes.h>

#include "drivers.h"
#include "exrentries.h"
#include "exrstate.h"
#include "exrwrite.h"

namespace drivers {

namespace {

constexpr std::uint32_t kMagic = 20000630;
constexpr std::size_t kTableEntry = 8;  // bytes, an offset for each chunk

// What the library calls.

std::int64_t read_file(exr_const_context_t /*context*/, void* user, void* buffer,
                       std::uint64_t size, std::uint64_t offset,
                       exr_stream_error_func_ptr_t /*report*/) {
  auto& state = *static_cast<ExrState*>(user);
  auto* const bytes = static_cast<std::uint8_t*>(buffer);
  std::uint64_t done = 0;
  while (done < size) {
    const ssize_t got =
        pread(state.descriptor, bytes + done, std::size_t(size - done), off_t(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) state.os_error = errno;
    if (got < 0) return -1;
    if (got == 0) break;
    done += std::uint64_t(got);
  }
  return std::int64_t(done);
}

std::int64_t size_of_file(exr_const_context_t /*context*/, void* user) {
  return static_cast<ExrState*>(user)->file_size;
}

void keep_message(exr_const_context_t context, exr_result_t /*code*/, const char* message) {
  const char* reason = nullptr;
  void* user = nullptr;
  exr_core(&reason)->get_user_data(context, &user);
  if (user && message && static_cast<ExrState*>(user)->message.empty()) {
    static_cast<ExrState*>(user)->message = message;
  }
}

int start_reading(img_file* handle, ExrState& state) {
  state.descriptor = fileno(handle->stream);
  state.file_size = handle->file_size;
  exr_context_initializer_t settings = EXR_DEFAULT_CONTEXT_INITIALIZER;
  settings.error_handler_fn = keep_message;
  settings.user_data = &state;
  settings.read_fn = read_file;
  settings.size_fn = size_of_file;
  settings.flags = EXR_CONTEXT_FLAG_DISABLE_CHUNK_RECONSTRUCTION;
  const exr_result_t result =
      state.core->start_read(&state.context, handle->display_name, &settings);
  if (result == EXR_ERR_SUCCESS) return 1;
  state.context = nullptr;
  return exr_fail(handle, state, result);
}

// Both windows, and the size of the picture.
int read_windows(img_file* handle, ExrState& state) {
  exr_attr_box2i_t data{}, display{};
  state.core->get_data_window(state.context, state.choice.part, &data);
  state.core->get_display_window(state.context, state.choice.part, &display);
  state.across = {data.min.x, data.max.x};
  state.down = {data.min.y, data.max.y};
  state.shown_across = {display.min.x, display.max.x};
  state.shown = {display.min.y, display.max.y};
  for (const Range& side : {state.across, state.down, state.shown_across, state.shown}) {
    if (side.count() >= 1 && side.count() <= INT_MAX) continue;
    return refuse(handle, IMG_ERR_SUBTYPE, "a window has a side of %lld pixels",
                  static_cast<long long>(side.count()));
  }
  handle->width = int(state.shown_across.count());
  handle->height = int(state.shown.count());
  const auto within = [](const Range& inner, const Range& outer) {
    return inner.first >= outer.first && inner.last <= outer.last;
  };
  if (!within(state.across, state.shown_across) || !within(state.down, state.shown)) {
    note(handle, "pixels outside the display window are not read");
  }
  return 1;
}

// The order and the compression of chunks.
int read_chunking(img_file* handle, ExrState& state) {
  const int part = state.choice.part;
  state.core->get_compression(state.context, part, &state.compression);
  if (state.compression == EXR_COMPRESSION_DWAA || state.compression == EXR_COMPRESSION_DWAB) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%s compression is not read",
                  state.compression == EXR_COMPRESSION_DWAA ? "DWAA" : "DWAB");
  }
  exr_storage_t storage{};
  state.core->get_storage(state.context, part, &storage);
  state.is_tiled = storage == EXR_STORAGE_TILED;
  std::int32_t lines = 0, width = 1, chunks = 0;
  const exr_result_t result =
      state.is_tiled ? state.core->get_tile_sizes(state.context, part, 0, 0, &width, &lines)
                     : state.core->get_scanlines_per_chunk(state.context, part, &lines);
  if (result != EXR_ERR_SUCCESS) return exr_fail(handle, state, result);
  state.core->get_chunk_count(state.context, part, &chunks);
  if (lines < 1 || width < 1 || chunks < 1) {
    return refuse(handle, IMG_ERR_CORRUPT, "the picture has no chunks or tiles");
  }
  if (std::uint64_t(chunks) * kTableEntry > std::uint64_t(handle->file_size)) {
    return refuse(handle, IMG_ERR_READ, "the file ends in the table of %d chunks", chunks);
  }
  for (int i = 0; i < part; ++i) {
    std::int32_t before = 0;
    state.core->get_chunk_count(state.context, i, &before);
    state.first_entry += before;
  }
  state.tile_width = width;
  state.chunk_lines = lines;
  return 1;
}

// A checksum of the colors that the samples stand for.
std::uint32_t profile_of(const ExrState& state) {
  const exr_attribute_t* attribute = nullptr;
  state.core->get_attribute_by_name(state.context, state.choice.part, "chromaticities", &attribute);
  if (!attribute || attribute->type != EXR_ATTR_CHROMATICITIES) return 0;
  std::array<std::uint8_t, sizeof(exr_attr_chromaticities_t)> bytes{};
  std::memcpy(bytes.data(), attribute->chromaticities, bytes.size());
  return libdeflate_crc32(0, bytes.data(), bytes.size());
}

// Whether samples that are read have more than the 16 bits of a half.
bool is_deep(const ExrState& state) {
  return std::ranges::any_of(state.choice.channels, [&](int channel) {
    return channel >= 0 && state.channels[std::size_t(channel)].pixel_type != EXR_PIXEL_HALF;
  });
}

// Lines that would take more memory than a file of that size may get no planes.
void limit_lines(img_file* handle) {
  constexpr int usual_width = 65536;
  constexpr std::uint64_t pixel_bytes = 20;  // in the file's type and in the caller's
  handle->lacks_lines = handle->width > usual_width &&
                        std::uint64_t(handle->width) * pixel_bytes > memory_limit(handle);
}

int test_exr(img_file* /*handle*/, const std::uint8_t* head) {
  return ka::ByteCursor({head, IMG_HEAD_SIZE}).le32() == kMagic;
}

int open_exr(img_file* handle, const std::uint8_t* /*head*/) {
  const char* reason = nullptr;
  auto state = std::make_unique<ExrState>();
  state->core = exr_core(&reason);
  if (!state->core) return refuse(handle, IMG_ERR_SUBTYPE, "%s", reason);
  if (!exr_scan_header(handle, state->layout) || !start_reading(handle, *state)) return 0;
  if (!exr_choose(handle, *state->core, state->context, state->choice)) return 0;
  const exr_attr_chlist_t* channels = nullptr;
  state->core->get_channels(state->context, state->choice.part, &channels);
  state->channels = {channels->entries, std::size_t(channels->num_channels)};
  if (!read_windows(handle, *state) || !read_chunking(handle, *state)) return 0;
  float aspect = 1;
  state->core->get_pixel_aspect_ratio(state->context, state->choice.part, &aspect);
  if (std::isfinite(aspect) && aspect > 0) handle->aspect = aspect;
  handle->profile = profile_of(*state);
  handle->parameters[kExrAsFloat] = is_deep(*state);
  limit_lines(handle);
  state_file_type(handle, state->choice.type);
  handle->data.p = state.release();
  return 1;
}

int read_exr(img_file* handle, img_line* line) {
  if (handle->lacks_lines || handle->line_count >= handle->height) {
    return ka_img_custom_format_error(handle, IMG_ERR_READ, 0);
  }
  auto& state = state_of<ExrState>(handle);
  const std::int64_t y = state.shown.first + handle->line_count;
  const bool is_seen = state.down.holds(y) && state.across.last >= state.shown_across.first &&
                       state.across.first <= state.shown_across.last;
  if (is_seen && !state.loaded.holds(y) && !exr_load_lines(handle, state, y)) return 0;
  for (std::size_t slot = 0; slot < std::size_t(ka_img_ncomp[state.choice.type]); ++slot) {
    auto* const plane = static_cast<float*>(ka_img_line_plane(line, int(slot)));
    if (!plane) continue;
    if (is_seen && state.choice.channels[slot] >= 0) {
      exr_fill_plane(state, y, slot, plane);
    } else {
      std::fill_n(plane, std::size_t(handle->width), 0.0F);
    }
  }
  return 1;
}

int close_exr(img_file* handle) {
  if (handle->writing) return exr_close_written(handle);
  take_state<ExrState>(handle);
  return 1;
}

}  // namespace

int register_exr(int format) {
  constexpr std::uint32_t further = 1U << IMG_TYPE_RGB_FP | 1U << IMG_TYPE_Z;
  return ka_img_custom_format(format, test_exr, exr_create, open_exr, close_exr, read_exr,
                              exr_write, 1, "exr", further, IMG_TYPE_RGBA_FP) &&
         ka_img_custom_format_header(format, exr_header);
}

}  // namespace drivers
