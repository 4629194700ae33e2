// OpenEXR: scanline and tiled parts, through the core library of OpenEXR; ZIP and ZIPS through
// libdeflate. Layout: docs/formats.md, "OpenEXR". exrwrite.cc writes.
#include <errno.h>
#include <libdeflate.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <ka/imgbytes.h>

#include "drivers.h"
#include "exrcore.h"
#include "exrlayer.h"
#include "exrpixels.h"
#include "exrwrite.h"

namespace drivers {

namespace {

constexpr std::uint32_t kMagic = 20000630;
constexpr std::size_t kTableEntry = 8;  // bytes, an offset for each chunk

struct FreeDecompressor {
  void operator()(libdeflate_decompressor* inflate) const { libdeflate_free_decompressor(inflate); }
};
struct ReleaseBytes {
  void operator()(std::uint8_t* bytes) const { ka_mem_release(bytes); }
};
using Bytes = std::unique_ptr<std::uint8_t[], ReleaseBytes>;

Bytes allocate_bytes(std::uint64_t size) {
  return Bytes(static_cast<std::uint8_t*>(ka_mem_allocate(std::size_t(size))));
}

// Pixels from the first to the last one, in the coordinates of the file.
struct Range {
  std::int64_t first, last;

  [[nodiscard]] std::int64_t count() const { return last - first + 1; }
  [[nodiscard]] bool holds(std::int64_t at) const { return at >= first && at <= last; }
};

struct ExrState {
  ~ExrState();

  int descriptor = -1;
  std::int64_t file_size = 0;
  std::string message;  // of the library, its first one
  int os_error = 0;     // of reading

  const ExrCore* core = nullptr;
  exr_context_t context = nullptr;
  exr_decode_pipeline_t pipeline{};
  bool has_pipeline = false;
  exr_result_t (*decompress)(exr_decode_pipeline_t*) = nullptr;  // the library's own function
  std::unique_ptr<libdeflate_decompressor, FreeDecompressor> inflate;
  Bytes parts;  // of a chunk that is inflated
  std::uint64_t parts_size = 0;

  ExrChoice choice;
  std::span<const exr_attr_chlist_entry_t> channels;
  exr_compression_t compression{};
  bool is_tiled = false;
  Range across{}, down{};         // the data window
  Range shown_across{}, shown{};  // the display window
  int tile_width = 0;
  int chunk_lines = 0;             // lines of a chunk, or of a row of tiles
  std::uint64_t packed_bytes = 0;  // of all chunks that were decoded

  // The chunk, or the row of tiles, that is in memory.
  Range loaded{0, -1};
  std::vector<std::size_t> line_starts;  // byte offsets in the chunk
  Bytes strip;                           // the samples of a row of tiles, [plane][line][column]
};

ExrState::~ExrState() {
  if (has_pipeline) core->decoding_destroy(context, &pipeline);
  if (context) core->finish(&context);
}

std::size_t sample_bytes(int pixel_type) { return pixel_type == EXR_PIXEL_HALF ? 2 : 4; }

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

bool is_zip(const ExrState& state) {
  return state.compression == EXR_COMPRESSION_ZIP || state.compression == EXR_COMPRESSION_ZIPS;
}

// A chunk of its full size is not compressed. The library's own function takes it for B44 data.
exr_result_t unpack_chunk(exr_decode_pipeline_t* pipeline) {
  auto& state = *static_cast<ExrState*>(pipeline->decoding_user_data);
  const exr_chunk_info_t& chunk = pipeline->chunk;
  const auto size = std::size_t(chunk.unpacked_size);
  auto* const unpacked = static_cast<std::uint8_t*>(pipeline->unpacked_buffer);
  if (chunk.packed_size == size) {
    if (unpacked != pipeline->packed_buffer) std::memcpy(unpacked, pipeline->packed_buffer, size);
    return EXR_ERR_SUCCESS;
  }
  if (!is_zip(state)) return state.decompress(pipeline);
  const auto result =
      libdeflate_zlib_decompress(state.inflate.get(), pipeline->packed_buffer,
                                 std::size_t(chunk.packed_size), state.parts.get(), size, nullptr);
  if (result != LIBDEFLATE_SUCCESS) return EXR_ERR_CORRUPT_CHUNK;
  exr_merge_bytes({state.parts.get(), size}, unpacked);
  return EXR_ERR_SUCCESS;
}

// Sets the handle's error after the library has refused something. Returns 0.
int fail(img_file* handle, const ExrState& state, exr_result_t result) {
  if (state.os_error != 0) return ka_img_custom_format_error(handle, IMG_ERR_READ, state.os_error);
  const bool is_short = result == EXR_ERR_READ_IO;
  const bool is_other = result == EXR_ERR_FEATURE_NOT_IMPLEMENTED;
  const int code = is_short ? IMG_ERR_READ : is_other ? IMG_ERR_SUBTYPE : IMG_ERR_CORRUPT;
  const char* const message =
      state.message.empty() ? state.core->get_default_error_message(result) : state.message.c_str();
  return refuse(handle, code, "%s", message);
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
  return fail(handle, state, result);
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
  if (result != EXR_ERR_SUCCESS) return fail(handle, state, result);
  state.core->get_chunk_count(state.context, part, &chunks);
  if (lines < 1 || width < 1 || chunks < 1) {
    return refuse(handle, IMG_ERR_CORRUPT, "the picture has no chunks or tiles");
  }
  if (std::uint64_t(chunks) * kTableEntry > std::uint64_t(handle->file_size)) {
    return refuse(handle, IMG_ERR_READ, "the file ends in the table of %d chunks", chunks);
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

// Lines that would take more memory than a file of that size may get no planes.
void limit_lines(img_file* handle) {
  constexpr int usual_width = 65536;
  constexpr std::uint64_t pixel_bytes = 20;  // in the file's type and in the caller's
  handle->lacks_lines = handle->width > usual_width &&
                        std::uint64_t(handle->width) * pixel_bytes > memory_limit(handle);
}

// Lines of pixels.

int check_chunk(img_file* handle, ExrState& state, const exr_chunk_info_t& chunk) {
  // The packed, the unpacked and two intermediate buffers.
  const auto needed = ka::checked_product(chunk.unpacked_size, 4);
  if (!needed || *needed > memory_limit(handle)) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%llu bytes that are compressed together are too many",
                  static_cast<unsigned long long>(chunk.unpacked_size));
  }
  const auto file_size = std::uint64_t(handle->file_size);
  const bool is_empty = chunk.packed_size == 0 && chunk.unpacked_size != 0;
  if (is_empty || chunk.packed_size > file_size - std::min(state.packed_bytes, file_size)) {
    return refuse(handle, IMG_ERR_CORRUPT, "chunks are empty or lie upon each other");
  }
  state.packed_bytes += chunk.packed_size;
  return 1;
}

// Has chunks unpacked by unpack_chunk, and as they are in the file: lines are taken from them.
exr_result_t choose_routines(ExrState& state) {
  const exr_result_t result = state.core->decoding_choose_default_routines(
      state.context, state.choice.part, &state.pipeline);
  state.decompress = state.pipeline.decompress_fn;
  if (state.decompress) state.pipeline.decompress_fn = unpack_chunk;
  state.pipeline.unpack_and_convert_fn = nullptr;
  state.pipeline.decoding_user_data = &state;
  return result;
}

void prepare_inflating(ExrState& state, std::uint64_t size) {
  if (!is_zip(state)) return;
  if (!state.inflate) state.inflate.reset(libdeflate_alloc_decompressor());
  if (state.parts_size >= size && state.parts) return;
  state.parts = allocate_bytes(size);
  state.parts_size = size;
}

int decode(img_file* handle, ExrState& state, const exr_chunk_info_t& chunk) {
  if (!check_chunk(handle, state, chunk)) return 0;
  const int part = state.choice.part;
  const auto prepare =
      state.has_pipeline ? state.core->decoding_update : state.core->decoding_initialize;
  exr_result_t result = prepare(state.context, part, &chunk, &state.pipeline);
  if (result != EXR_ERR_SUCCESS) return fail(handle, state, result);
  if (!state.has_pipeline) result = choose_routines(state);
  state.has_pipeline = true;
  if (result != EXR_ERR_SUCCESS) return fail(handle, state, result);
  prepare_inflating(state, chunk.unpacked_size);
  result = state.core->decoding_run(state.context, part, &state.pipeline);
  if (result != EXR_ERR_SUCCESS) return fail(handle, state, result);
  const bool has_channels = std::size_t(state.pipeline.channel_count) == state.channels.size();
  if (has_channels && state.pipeline.unpacked_buffer) return 1;
  return refuse(handle, IMG_ERR_CORRUPT, "a chunk has no samples");
}

// Subsampled channels have samples in some lines only.
bool has_line(const exr_coding_channel_info_t& channel, std::int64_t y) {
  return channel.y_samples <= 1 || y % channel.y_samples == 0;
}
std::size_t line_bytes(const exr_coding_channel_info_t& channel) {
  return std::size_t(channel.width) * std::size_t(channel.bytes_per_element);
}

// Finds the lines of the chunk that was decoded, and whether they are all that is in it.
int index_lines(img_file* handle, ExrState& state) {
  const std::span channels(state.pipeline.channels, std::size_t(state.pipeline.channel_count));
  state.line_starts.clear();
  std::size_t at = 0;
  for (std::int64_t y = state.loaded.first; y <= state.loaded.last; ++y) {
    state.line_starts.push_back(at);
    for (const auto& channel : channels) {
      if (has_line(channel, y)) at += line_bytes(channel);
    }
  }
  bool is_sound = at == state.pipeline.chunk.unpacked_size;
  for (const int channel : state.choice.channels) {
    if (channel >= 0) is_sound &= channels[std::size_t(channel)].width == state.across.count();
  }
  return is_sound ? 1 : refuse(handle, IMG_ERR_CORRUPT, "a chunk has another size");
}

int load_chunk(img_file* handle, ExrState& state, const Range& lines) {
  exr_chunk_info_t chunk{};
  const exr_result_t result = state.core->read_scanline_chunk_info(state.context, state.choice.part,
                                                                   int(lines.first), &chunk);
  if (result != EXR_ERR_SUCCESS) return fail(handle, state, result);
  if (!decode(handle, state, chunk)) return 0;
  state.loaded = lines;
  return index_lines(handle, state);
}

// Where a plane's samples of a row of tiles begin.
std::size_t strip_offset(const ExrState& state, std::size_t slot, std::int64_t lines) {
  std::size_t pixel_bytes = 0;
  for (std::size_t i = 0; i < slot; ++i) {
    const int channel = state.choice.channels[i];
    if (channel >= 0) pixel_bytes += sample_bytes(state.channels[std::size_t(channel)].pixel_type);
  }
  return pixel_bytes * std::size_t(lines) * std::size_t(state.across.count());
}

// Copies the samples of the tile that was decoded into the row of tiles.
int place_tile(img_file* handle, ExrState& state, std::int64_t left, const Range& lines) {
  const std::span channels(state.pipeline.channels, state.channels.size());
  const std::int64_t width = std::min<std::int64_t>(state.tile_width, state.across.count() - left);
  std::vector<std::size_t> starts;
  std::size_t row_bytes = 0;
  for (const auto& channel : channels) {
    if (channel.width != width || channel.height != lines.count()) {
      return refuse(handle, IMG_ERR_CORRUPT, "a tile has another size");
    }
    starts.push_back(row_bytes);
    row_bytes += line_bytes(channel);
  }
  if (row_bytes * std::size_t(lines.count()) != state.pipeline.chunk.unpacked_size) {
    return refuse(handle, IMG_ERR_CORRUPT, "a tile has another size");
  }
  const auto* const samples = static_cast<const std::uint8_t*>(state.pipeline.unpacked_buffer);
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    if (state.choice.channels[slot] < 0) continue;
    const auto channel = std::size_t(state.choice.channels[slot]);
    const std::size_t size = sample_bytes(state.channels[channel].pixel_type);
    std::uint8_t* to =
        state.strip.get() + strip_offset(state, slot, lines.count()) + std::size_t(left) * size;
    for (std::int64_t y = 0; y < lines.count(); ++y) {
      std::memcpy(to, samples + std::size_t(y) * row_bytes + starts[channel],
                  std::size_t(width) * size);
      to += std::size_t(state.across.count()) * size;
    }
  }
  return 1;
}

int load_tiles(img_file* handle, ExrState& state, const Range& lines) {
  if (!state.strip) {
    const auto pixels = ka::checked_product(state.chunk_lines, state.across.count(), 16);
    if (!pixels || *pixels > memory_limit(handle)) {
      return refuse(handle, IMG_ERR_SUBTYPE, "a row of tiles is too large");
    }
    state.strip = allocate_bytes(*pixels);
  }
  const int row = int((lines.first - state.down.first) / state.chunk_lines);
  // Only tiles that can be seen.
  const std::int64_t first = std::max(state.shown_across.first, state.across.first);
  const std::int64_t last = std::min(state.shown_across.last, state.across.last);
  for (std::int64_t column = (first - state.across.first) / state.tile_width;
       column <= (last - state.across.first) / state.tile_width; ++column) {
    exr_chunk_info_t chunk{};
    const exr_result_t result = state.core->read_tile_chunk_info(state.context, state.choice.part,
                                                                 int(column), row, 0, 0, &chunk);
    if (result != EXR_ERR_SUCCESS) return fail(handle, state, result);
    if (!decode(handle, state, chunk)) return 0;
    if (!place_tile(handle, state, column * state.tile_width, lines)) return 0;
  }
  state.loaded = lines;
  return 1;
}

int load_lines(img_file* handle, ExrState& state, std::int64_t y) {
  const std::int64_t first = y - (y - state.down.first) % state.chunk_lines;
  const Range lines{first, std::min(first + state.chunk_lines - 1, state.down.last)};
  state.loaded = {0, -1};
  state.message.clear();
  return state.is_tiled ? load_tiles(handle, state, lines) : load_chunk(handle, state, lines);
}

// The samples of a plane's channel in a line that is in memory, the left one first.
const std::uint8_t* row_of(const ExrState& state, std::int64_t y, std::size_t slot) {
  const auto line = std::size_t(y - state.loaded.first);
  const auto channel = std::size_t(state.choice.channels[slot]);
  if (state.is_tiled) {
    const std::size_t size = sample_bytes(state.channels[channel].pixel_type);
    return state.strip.get() + strip_offset(state, slot, state.loaded.count()) +
           line * std::size_t(state.across.count()) * size;
  }
  std::size_t at = state.line_starts[line];
  for (std::size_t i = 0; i < channel; ++i) {
    if (has_line(state.pipeline.channels[i], y)) at += line_bytes(state.pipeline.channels[i]);
  }
  return static_cast<const std::uint8_t*>(state.pipeline.unpacked_buffer) + at;
}

// One plane of a line inside both windows.
void fill_plane(const ExrState& state, std::int64_t y, std::size_t slot, float* plane) {
  const Range& data = state.across;
  const Range& shown = state.shown_across;
  const Range both{std::max(data.first, shown.first), std::min(data.last, shown.last)};
  const int type = state.channels[std::size_t(state.choice.channels[slot])].pixel_type;
  const std::uint8_t* const row =
      row_of(state, y, slot) + std::size_t(both.first - data.first) * sample_bytes(type);
  const auto before = std::size_t(both.first - shown.first), count = std::size_t(both.count());
  const auto convert = type == EXR_PIXEL_HALF    ? exr_from_half
                       : type == EXR_PIXEL_FLOAT ? exr_from_float
                                                 : exr_from_uint;
  std::fill_n(plane, before, 0.0F);
  convert(row, plane + before, count);
  std::fill_n(plane + before + count, std::size_t(shown.count()) - before - count, 0.0F);
}

int test_exr(img_file* /*handle*/, const std::uint8_t* head) {
  return ka::ByteCursor({head, IMG_HEAD_SIZE}).le32() == kMagic;
}

int open_exr(img_file* handle, const std::uint8_t* /*head*/) {
  const char* reason = nullptr;
  auto state = std::make_unique<ExrState>();
  state->core = exr_core(&reason);
  if (!state->core) return refuse(handle, IMG_ERR_SUBTYPE, "%s", reason);
  if (!start_reading(handle, *state)) return 0;
  if (!exr_choose(handle, *state->core, state->context, state->choice)) return 0;
  const exr_attr_chlist_t* channels = nullptr;
  state->core->get_channels(state->context, state->choice.part, &channels);
  state->channels = {channels->entries, std::size_t(channels->num_channels)};
  if (!read_windows(handle, *state) || !read_chunking(handle, *state)) return 0;
  float aspect = 1;
  state->core->get_pixel_aspect_ratio(state->context, state->choice.part, &aspect);
  if (std::isfinite(aspect) && aspect > 0) handle->aspect = aspect;
  handle->profile = profile_of(*state);
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
  if (is_seen && !state.loaded.holds(y) && !load_lines(handle, state, y)) return 0;
  for (std::size_t slot = 0; slot < std::size_t(ka_img_ncomp[state.choice.type]); ++slot) {
    auto* const plane = static_cast<float*>(ka_img_line_plane(line, int(slot)));
    if (!plane) continue;
    if (is_seen && state.choice.channels[slot] >= 0) {
      fill_plane(state, y, slot, plane);
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
                              exr_write, 1, "exr", further, IMG_TYPE_RGBA_FP);
}

}  // namespace drivers
