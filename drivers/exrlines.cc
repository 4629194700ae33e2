// The lines of OpenEXR files: chunks through the library, and the samples in them.
#include <algorithm>
#include <cstring>

#include <ka/imgbytes.h>

#include "drivers.h"
#include "exrpixels.h"
#include "exrstate.h"

namespace drivers {

namespace {

Bytes allocate_bytes(std::uint64_t size) {
  return Bytes(static_cast<std::uint8_t*>(ka_mem_allocate(std::size_t(size))));
}

std::size_t sample_bytes(int pixel_type) { return pixel_type == EXR_PIXEL_HALF ? 2 : 4; }

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
  if (result != LIBDEFLATE_SUCCESS) {
    state.message = "a chunk is no data of zlib, or of another size";
    return EXR_ERR_CORRUPT_CHUNK;
  }
  exr_merge_bytes({state.parts.get(), size}, unpacked);
  return EXR_ERR_SUCCESS;
}

// exr_fail for a chunk that was not found.
int fail_at(img_file* handle, const ExrState& state, exr_result_t result, std::int64_t index) {
  const std::int64_t entry = state.first_entry + index;
  const bool is_there = exr_holds_chunk(handle, state.layout, entry, state.is_tiled);
  if (state.os_error != 0 || is_there) return exr_fail(handle, state, result);
  return refuse(handle, IMG_ERR_READ, "chunk %lld is not in the file, or not to its end",
                static_cast<long long>(index));
}

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
  if (result != EXR_ERR_SUCCESS) return exr_fail(handle, state, result);
  if (!state.has_pipeline) result = choose_routines(state);
  state.has_pipeline = true;
  if (result != EXR_ERR_SUCCESS) return exr_fail(handle, state, result);
  prepare_inflating(state, chunk.unpacked_size);
  result = state.core->decoding_run(state.context, part, &state.pipeline);
  if (result != EXR_ERR_SUCCESS) return exr_fail(handle, state, result);
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
  const std::int64_t index = (lines.first - state.down.first) / state.chunk_lines;
  if (result != EXR_ERR_SUCCESS) return fail_at(handle, state, result, index);
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
  const std::int64_t row = (lines.first - state.down.first) / state.chunk_lines;
  const std::int64_t columns = (state.across.count() + state.tile_width - 1) / state.tile_width;
  // Only tiles that can be seen.
  const std::int64_t first = std::max(state.shown_across.first, state.across.first);
  const std::int64_t last = std::min(state.shown_across.last, state.across.last);
  for (std::int64_t column = (first - state.across.first) / state.tile_width;
       column <= (last - state.across.first) / state.tile_width; ++column) {
    exr_chunk_info_t chunk{};
    const exr_result_t result = state.core->read_tile_chunk_info(
        state.context, state.choice.part, int(column), int(row), 0, 0, &chunk);
    const std::int64_t index = row * columns + column;
    if (result != EXR_ERR_SUCCESS) return fail_at(handle, state, result, index);
    if (!decode(handle, state, chunk)) return 0;
    if (!place_tile(handle, state, column * state.tile_width, lines)) return 0;
  }
  state.loaded = lines;
  return 1;
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

}  // namespace

int exr_fail(img_file* handle, const ExrState& state, exr_result_t result) {
  if (state.os_error != 0) return ka_img_custom_format_error(handle, IMG_ERR_READ, state.os_error);
  const bool is_short = result == EXR_ERR_READ_IO;
  const bool is_other = result == EXR_ERR_FEATURE_NOT_IMPLEMENTED;
  const int code = is_short ? IMG_ERR_READ : is_other ? IMG_ERR_SUBTYPE : IMG_ERR_CORRUPT;
  const char* const message =
      state.message.empty() ? state.core->get_default_error_message(result) : state.message.c_str();
  return refuse(handle, code, "%s", message);
}

ExrState::~ExrState() {
  if (has_pipeline) core->decoding_destroy(context, &pipeline);
  if (context) core->finish(&context);
}

int exr_load_lines(img_file* handle, ExrState& state, std::int64_t y) {
  const std::int64_t first = y - (y - state.down.first) % state.chunk_lines;
  const Range lines{first, std::min(first + state.chunk_lines - 1, state.down.last)};
  state.loaded = {0, -1};
  state.message.clear();
  return state.is_tiled ? load_tiles(handle, state, lines) : load_chunk(handle, state, lines);
}

void exr_fill_plane(const ExrState& state, std::int64_t y, std::size_t slot, float* plane) {
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

}  // namespace drivers
