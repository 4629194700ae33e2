// Writing tiled IFF images: lines are kept until a strip of tiles is complete.
#include <errno.h>
#include <ka/message.h>

#include <algorithm>
#include <limits>
#include <optional>

#include "drivers.h"
#include "img_iff.h"
#include "linekernels.h"
#include "rle.h"

namespace ka {

namespace {

constexpr std::size_t kChunkHeader = 8;  // bytes of name and size

// Lays a tile out as planes of its samples' bytes, the highest bytes of all components first.
template <typename Sample, std::size_t Components>
void part_tile(const IffState& state, const IffTile& tile) {
  const std::size_t pixels = tile.pixels();
  const auto planes = state.planes<const Sample, Components>(tile);
  for (std::size_t p = 0; p < Components; ++p) {
    part_bytes(planes[p], state.tile.data() + p * pixels, Components * pixels, pixels);
  }
}

// The packets of a tile; empty when they are not shorter than its pixels.
std::span<const std::uint8_t> encodetile(const IffState& state, const IffTile& tile) {
  iff_with_pixels(state, [&]<typename Sample, std::size_t Components>() {
    part_tile<Sample, Components>(state, tile);
  });
  const std::size_t pixels = tile.pixels(), raw = pixels * state.pixel_bytes();
  const std::span packets(state.packets.data(), state.packets.size());
  std::size_t used = 0;
  for (std::size_t plane = 0; plane < state.pixel_bytes() && used < raw; ++plane) {
    used += compact_bytes({state.tile.data() + plane * pixels, pixels}, packets.subspan(used));
  }
  return packets.first(used < raw ? used : 0);
}

// The pixels of a tile as they are stored without packets, byte by byte in reverse.
std::span<const std::uint8_t> copytile(const IffState& state, const IffTile& tile) {
  iff_with_pixels(state, [&]<typename Sample, std::size_t Components>() {
    pack(state.tile.data(), state.planes<const Sample, Components>(tile), tile.pixels(),
         std::endian::little);
  });
  return {state.tile.data(), tile.pixels() * state.pixel_bytes()};
}

// The sizes of the forms around the tiles have 32 bits.
bool has_room(const IffState& state, std::size_t bytes) {
  return state.out.position() + bytes <= std::numeric_limits<std::uint32_t>::max();
}

int write_tile(img_file* handle, IffState& state, const IffTile& tile) {
  std::span<const std::uint8_t> bytes;
  if (state.is_encoded) bytes = encodetile(state, tile);
  if (state.is_encoded && bytes.empty()) {
    ka_debug("%s: IFF tile not compressable, store raw", handle->display_name);
    state.is_encoded = false;
  }
  if (!state.is_encoded) bytes = copytile(state, tile);
  const std::size_t size = kIffBoundsBytes + bytes.size();
  if (!has_room(state, kChunkHeader + size)) return img_error(handle, IMG_ERR_WRITE, EFBIG);
  const IffChunk chunk{state.tile_name, std::uint32_t(size), 0, 0};
  bool written = img_iff_write_begin_chunk(state.out, state.stack, chunk);
  ByteWriter bounds(state.out.put(kIffBoundsBytes));
  for (const std::size_t bound : {tile.x1, tile.y1, tile.x2, tile.y2}) {
    bounds.be16(std::uint32_t(bound));
  }
  state.out.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  written = written && img_iff_write_end_chunk(state.out, state.stack);
  if (written && state.out.error() == 0) return 1;
  return img_error(handle, IMG_ERR_WRITE, state.out.error());
}

// Each strip starts with hope for compression anew.
int write_tiles(img_file* handle, IffState& state) {
  ka_debug("%s: IFF writing tiles", handle->display_name);
  state.is_encoded = true;
  for (const IffTile& tile : state.held_tiles()) {
    if (!write_tile(handle, state, tile)) return 0;
  }
  return 1;
}

}  // namespace

bool img_iff_write_begin_chunk(FileWriter& out, IffStack& stack, IffChunk chunk) {
  chunk.start = out.position();
  if (!stack.push(chunk)) return false;
  ByteWriter header(out.put(kChunkHeader + (chunk.form != 0 ? 4 : 0)));
  header.be32(chunk.name);
  header.be32(chunk.size);
  if (chunk.form != 0) header.be32(chunk.form);
  return true;
}

bool img_iff_write_end_chunk(FileWriter& out, IffStack& stack) {
  if (stack.empty()) return false;
  const IffChunk chunk = stack.pop();
  const std::uint64_t end = out.position();
  const auto size = std::uint32_t(end - chunk.start - kChunkHeader);
  if (size != chunk.size) {
    out.seek(chunk.start + 4);
    ByteWriter(out.put(4)).be32(size);
    out.seek(end);
  }
  const std::size_t padding = (4 - end % 4) % 4;
  ByteWriter(out.put(padding)).zeros(padding);
  return true;
}

void img_iff_start_strip(IffState& state, std::size_t line) {
  const std::size_t end = std::min(line + state.tile_height, state.height);
  state.tiles.clear();
  for (std::size_t x = 0; x < state.width && line < end; x += state.tile_width) {
    const std::size_t right = std::min(x + state.tile_width, state.width);
    state.tiles.push_back({x, line, right - 1, end - 1, 0, 0});
  }
  state.held = {line, end - 1, 0, state.tiles.size(), IMG_ERR_NONE};
}

int img_write_iff(img_file* handle, img_line* line) {
  if (!handle->data.p) return img_error(handle, IMG_ERR_WRITE, handle->os_error);
  auto& state = state_of<IffState>(handle);
  const auto y = std::size_t(handle->line_count);
  iff_copy_line(handle, state, y, line, iff_copy);
  if (y < state.held.last_line) return 1;
  if (!write_tiles(handle, state)) {
    (void)take_state<IffState>(handle);  // the strip has no room for the lines after it
    return 0;
  }
  img_iff_start_strip(state, state.held.last_line + 1);
  return 1;
}

}  // namespace ka
