// Tiled images in IFF chunks: color, alpha or one component of 8, 16 or 32 bits, each tile
// run-length encoded where that makes it shorter, the bottom line first; depths are written only.
// Layout: docs/formats.md, "IFF". Numbers are big-endian.
#include <errno.h>

#include <algorithm>

#include "drivers.h"
#include "img_iff.h"
#include "rle.h"

namespace ka {

namespace {

constexpr std::size_t kMostTiles = 65535;  // the header counts them in 16 bits

struct TileSize {
  std::size_t width, height;
};

// Wide images get wide tiles: a strip of them stays small.
TileSize tile_size(std::size_t width, std::size_t height) {
  TileSize size{2048, 32};
  if (width <= 4096) {
    size = height <= 4096 ? TileSize{64, 64} : TileSize{512, 128};
  } else if (width <= 8192) {
    size = {256, 64};
  } else if (width <= 16384) {
    size = {1024, 32};
  }
  return {std::min(size.width, width), std::min(size.height, height)};
}

std::size_t tile_count(const IffState& state) {
  if (state.width == 0 || state.height == 0) return 0;
  const auto parts = [](std::size_t whole, std::size_t part) { return (whole + part - 1) / part; };
  return parts(state.width, state.tile_width) * parts(state.height, state.tile_height);
}

std::uint32_t flags_of(const img_file* handle) {
  if (handle->file_type == IMG_TYPE_Z) return kIffHasDepth;
  if (handle->components == 1) return 0;
  return handle->components == 3 ? kIffHasColor : kIffHasColor | kIffHasAlpha;
}

bool write_headers(const img_file* handle, IffState& state) {
  FileWriter& out = state.out;
  if (!img_iff_write_begin_chunk(out, state.stack, {kIffForm, 0, kIffImage, 0})) return false;
  if (!img_iff_write_begin_chunk(out, state.stack, {kIffHeader, kIffHeaderBytes, 0, 0})) {
    return false;
  }
  ByteWriter header(out.put(kIffHeaderBytes));
  header.be32(std::uint32_t(state.width));
  header.be32(std::uint32_t(state.height));
  header.be32(0);  // no pixel aspect
  header.be32(flags_of(handle));
  header.be16(std::uint32_t(state.sample_bytes - 1));
  header.be16(std::uint32_t(tile_count(state)));
  header.be32(1);  // tiles may be encoded
  return img_iff_write_end_chunk(out, state.stack) &&
         img_iff_write_begin_chunk(out, state.stack, {kIffForm, 0, kIffTiles, 0});
}

}  // namespace

int img_test_iff(img_file* /*handle*/, const std::uint8_t* head) {
  ByteCursor in({head, IMG_HEAD_SIZE});
  in.skip(8);
  return in.be32() == kIffImage;
}

int img_open_iff(img_file* handle, const std::uint8_t* /*head*/) {
  auto state = make_state<IffState>(handle);
  if (!img_iff_read_headers(handle, *state)) return 0;
  handle->data.p = state.release();
  return 1;
}

int img_create_iff(img_file* handle) {
  if (!check_sides(handle, kIffLargestSide)) return 0;
  auto state = make_state<IffState>(handle);
  state->width = std::size_t(handle->width);
  state->height = std::size_t(handle->height);
  state->components = std::size_t(handle->components);
  state->sample_bytes = std::size_t(handle->bits) / 8;
  const auto [width, height] = tile_size(state->width, state->height);
  state->tile_width = width;
  state->tile_height = height;
  if (tile_count(*state) > kMostTiles) return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  const std::size_t pixels = width * height, raw = pixels * state->pixel_bytes();
  state->tile_name = handle->file_type == IMG_TYPE_Z ? kIffDepths : kIffColors;
  state->tile = Buffer(raw);
  state->packets = Buffer(raw + compact_bound(pixels, 1));
  state->strip = Buffer(state->width * height * state->pixel_bytes());
  img_iff_start_strip(*state, 0);
  state->out.start(handle);
  if (!write_headers(handle, *state)) return img_error(handle, IMG_ERR_WRITE, 0);
  handle->data.p = state.release();
  return 1;
}

int img_close_iff(img_file* handle) {
  const auto state = take_state<IffState>(handle);
  if (!state || !handle->writing || handle->error) return 1;
  while (img_iff_write_end_chunk(state->out, state->stack)) {
  }
  return finish_file(handle, state->out, IMG_ERR_WRITE);
}

}  // namespace ka
