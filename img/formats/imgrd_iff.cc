// Reading tiled IFF images: all chunks are checked once, then the tiles of a strip are collected
// when the first of its lines is asked for.
#include <errno.h>
#include <ka/imgheader.h>
#include <ka/message.h>

#include <algorithm>

#include "drivers.h"
#include "img_iff.h"
#include "linekernels.h"
#include "rle.h"
#include "rows.h"

namespace ka {

namespace {

constexpr std::size_t kChunkHeader = 8;      // bytes of name and size
constexpr std::size_t kFormType = 4;         // bytes
constexpr std::size_t kScanBuffer = 64;      // bytes; of large chunks only the starts matter
constexpr std::uint64_t kLargeChunk = 8192;  // bytes that are passed over rather than read
constexpr std::uint64_t kMostPerByte = 64;   // a packet of 2 bytes gives up to 128
constexpr std::uint64_t kFreeMemory = std::uint64_t{16} << 20;  // bytes, beside those of the file
constexpr std::size_t kLeastTile = 16;  // bytes that a tile takes in the file

// Opens the next chunk of that name and form; others are skipped.
bool find_chunk(FileReader& in, IffStack& stack, std::uint32_t name, std::uint32_t form,
                IffChunk& chunk) {
  while (img_iff_read_begin_chunk(in, stack, chunk)) {
    if (chunk.name == name && chunk.form == form) return true;
    if (!img_iff_read_end_chunk(in, stack)) return false;
  }
  return false;
}

// 0 for a file that holds depths only.
std::size_t components_of(std::uint32_t flags) {
  const std::size_t colors = (flags & kIffHasColor) != 0 ? 3 : 0;
  const std::size_t alpha = (flags & kIffHasAlpha) != 0 ? 1 : 0;
  return colors + alpha == 0 && (flags & kIffHasDepth) == 0 ? 1 : colors + alpha;
}

int file_type_of(const IffState& state) {
  constexpr int types[3][3] = {{IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_S_FP},
                               {IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP},
                               {IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP}};
  return types[state.components == 1 ? 0 : state.components - 2][state.sample_bytes / 2];
}

// The header chunk; `tiles` is how many of them the file has.
int read_header(img_file* handle, IffState& state, std::size_t& tiles) {
  IffChunk chunk;
  if (!find_chunk(state.in, state.stack, kIffHeader, 0, chunk)) {
    return img_refuse(handle, IMG_ERR_READ, errno, "no header chunk is found");
  }
  const auto bytes = state.in.take(kIffHeaderBytes);
  if (bytes.empty()) return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the header");
  if (chunk.size < kIffHeaderBytes) {
    return img_refuse(handle, IMG_ERR_READ, 0, "a header of %u bytes; it has %zu", chunk.size,
                      kIffHeaderBytes);
  }
  ByteCursor in(bytes);
  const std::uint32_t width = in.be32(), height = in.be32();
  in.skip(4);  // pixel aspect
  const std::uint32_t flags = in.be32();
  const unsigned depth = in.be16();  // bytes per sample - 1
  tiles = in.be16();
  const std::uint32_t compression = in.be32();
  if (depth > 1 && depth != 3) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "%u bytes per sample are not read; 1, 2 and 4 are", depth + 1);
  }
  if (compression > 1) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "compression %u is not read; 0 (none) and 1 (run-length) are", compression);
  }
  if (components_of(flags) == 0) {
    return img_refuse(handle, IMG_ERR_FORMAT, 0, "only depths are in the file, no colors");
  }
  if (width > kIffLargestSide || height > kIffLargestSide) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "width %u, height %u; sides of up to %d are read",
                      width, height, kIffLargestSide);
  }
  handle->width = int(width);
  handle->height = int(height);  // messages tell it from here on
  state.width = width;
  state.height = height;
  state.components = components_of(flags);
  state.sample_bytes = depth + 1;
  state.is_encoded = compression == 1;
  (void)img_iff_read_end_chunk(state.in, state.stack);
  return 1;
}

// The next tile with colors; the reader is at its pixels then.
int read_tile_header(img_file* handle, IffState& state, IffTile& tile) {
  IffChunk chunk;
  if (!find_chunk(state.in, state.stack, kIffColors, 0, chunk)) {
    return img_refuse(handle, IMG_ERR_READ, errno, "a tile is not found");
  }
  const auto bytes = state.in.take(kIffBoundsBytes);
  if (bytes.empty()) return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in a tile");
  ByteCursor in(bytes);
  tile.x1 = in.be16();
  tile.y1 = in.be16();
  tile.x2 = in.be16();
  tile.y2 = in.be16();
  if (chunk.size < kIffBoundsBytes || tile.x1 > tile.x2 || tile.y1 > tile.y2 ||
      tile.x2 >= state.width || tile.y2 >= state.height) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a tile of columns %zu to %zu, lines %zu to %zu",
                      tile.x1, tile.x2, tile.y1, tile.y2);
  }
  tile.start = state.in.position();
  tile.bytes = chunk.size - kIffBoundsBytes;
  return 1;
}

// Tiles from the bottom up, then from left to right, and the strips that they form.
void sort_tiles(IffState& state) {
  std::ranges::sort(state.tiles, [](const IffTile& a, const IffTile& b) {
    return a.y1 != b.y1 ? a.y1 < b.y1 : a.x1 < b.x1;
  });
  for (std::size_t i = 0; i < state.tiles.size(); ++i) {
    const IffTile& tile = state.tiles[i];
    if (state.strips.empty() || tile.y1 > state.strips.back().last_line) {
      state.strips.push_back({tile.y1, tile.y2, i, i, IMG_ERR_NONE});
    }
    IffStrip& strip = state.strips.back();
    if (tile.y1 != strip.first_line || tile.y2 != strip.last_line) strip.error = IMG_ERR_CORRUPT;
    strip.last_line = std::max(strip.last_line, tile.y2);
    strip.end_tile = i + 1;
  }
}

bool is_encoded(const IffState& state, const IffTile& tile) {
  return state.is_encoded && tile.bytes < std::uint64_t{tile.pixels()} * state.pixel_bytes();
}

// Whether the file can hold the pixels of a tile.
int check_tile(const img_file* handle, const IffState& state, const IffTile& tile) {
  const std::uint64_t raw = std::uint64_t{tile.pixels()} * state.pixel_bytes();
  const std::uint64_t left = std::uint64_t(handle->file_size) - tile.start;
  if (is_encoded(state, tile)) {
    return tile.bytes > left || raw > kMostPerByte * tile.bytes ? IMG_ERR_CORRUPT : IMG_ERR_NONE;
  }
  return raw > std::min(tile.bytes, left) ? IMG_ERR_READ : IMG_ERR_NONE;
}

// Whether a strip and its largest tile, which deep samples need beside it, take little more memory
// than the strips of one byte per sample can.
bool is_affordable(const img_file* handle, const IffState& state, const IffStrip& strip) {
  const std::uint64_t lines = strip.last_line - strip.first_line + 1;
  const std::uint64_t bytes = lines * state.width * state.pixel_bytes();
  std::uint64_t largest = 0;
  for (std::size_t i = strip.first_tile; i < strip.end_tile; ++i) {
    const IffTile& tile = state.tiles[i];
    if (!is_encoded(state, tile) || state.sample_bytes == 1) continue;
    largest = std::max<std::uint64_t>(largest, tile.pixels() * state.pixel_bytes());
  }
  return bytes + largest <= kFreeMemory + kMostPerByte * std::uint64_t(handle->file_size);
}

// Whether the tiles of a strip cover it, each pixel once.
int check_strip(const img_file* handle, const IffState& state, const IffStrip& strip) {
  if (strip.error != IMG_ERR_NONE) return strip.error;
  std::size_t covered = 0;
  for (std::size_t i = strip.first_tile; i < strip.end_tile; ++i) {
    const IffTile& tile = state.tiles[i];
    if (tile.x1 < covered) return IMG_ERR_CORRUPT;
    if (tile.x1 > covered) return IMG_ERR_READ;
    if (const int error = check_tile(handle, state, tile)) return error;
    covered = tile.x2 + 1;
  }
  if (covered != state.width) return IMG_ERR_READ;
  return is_affordable(handle, state, strip) ? IMG_ERR_NONE : IMG_ERR_CORRUPT;
}

void make_room(Buffer& buffer, std::size_t bytes) {
  if (buffer.size() < bytes) buffer = Buffer(bytes);
}

// Decodes planes of bytes.
bool decodetile(std::span<const std::uint8_t> packets, std::span<std::uint8_t* const> planes,
                std::size_t pixels) {
  for (std::uint8_t* const plane : planes) {
    const auto [end, used, filled] = expand_pixels(packets, {plane, pixels}, 1);
    if (end != RowEnd::kWhole) return false;
    packets = packets.subspan(used);
  }
  return true;
}

// A tile whose packets are planes of samples.
template <std::size_t Components>
bool decode_bytes(const IffState& state, const IffTile& tile,
                  std::span<const std::uint8_t> packets) {
  return decodetile(packets, state.planes<std::uint8_t, Components>(tile), tile.pixels());
}

// A tile whose packets are planes of the samples' bytes: first the highest bytes of all components.
template <typename Sample, std::size_t Components>
bool decode_samples(IffState& state, const IffTile& tile, std::span<const std::uint8_t> packets) {
  const std::size_t pixels = tile.pixels();
  make_room(state.tile, pixels * state.pixel_bytes());
  std::array<std::uint8_t*, sizeof(Sample) * Components> parts;
  for (std::size_t i = 0; i < parts.size(); ++i) parts[i] = state.tile.data() + i * pixels;
  if (!decodetile(packets, parts, pixels)) return false;
  const auto planes = state.planes<Sample, Components>(tile);
  for (std::size_t p = 0; p < Components; ++p) {
    join_bytes(parts[p], Components * pixels, planes[p], pixels);
  }
  return true;
}

// A tile whose pixels are stored plainly, byte by byte in reverse.
template <typename Sample, std::size_t Components>
bool copytile(IffState& state, const IffTile& tile) {
  return read_row(state.in, state.planes<Sample, Components>(tile), tile.pixels(),
                  std::endian::little);
}

template <typename Sample, std::size_t Components>
int read_tile(img_file* handle, IffState& state, const IffTile& tile) {
  state.in.seek(tile.start);
  if (!is_encoded(state, tile)) {
    const bool is_read = copytile<Sample, Components>(state, tile);
    return is_read ? 1 : img_error(handle, IMG_ERR_READ, errno);
  }
  const auto packets = state.in.take(tile.bytes);
  if (packets.empty()) return img_error(handle, IMG_ERR_READ, errno);
  bool is_read;
  if constexpr (sizeof(Sample) == 1) {
    is_read = decode_bytes<Components>(state, tile, packets);
  } else {
    is_read = decode_samples<Sample, Components>(state, tile, packets);
  }
  if (is_read) return 1;
  return img_refuse(handle, IMG_ERR_CORRUPT, 0, "packets do not fill their tile exactly");
}

// Fills the strip buffer. Returns 1, or 0 with the handle's error.
int read_strip(img_file* handle, IffState& state, const IffStrip& strip) {
  const std::size_t lines = strip.last_line - strip.first_line + 1;
  make_room(state.strip, lines * state.width * state.pixel_bytes());
  return iff_with_pixels(state, [&]<typename Sample, std::size_t Components>() {
    for (std::size_t i = strip.first_tile; i < strip.end_tile; ++i) {
      if (!read_tile<Sample, Components>(handle, state, state.tiles[i])) return 0;
    }
    return 1;
  });
}

// Fills the strip buffer with the strip that has a line. What is wrong with a strip is found once.
int collect_tiles(img_file* handle, IffState& state, std::size_t line) {
  state.held = {};
  ka_debug("%s: IFF collecting tiles", handle->display_name);
  const auto strip = std::ranges::lower_bound(state.strips, line, {}, &IffStrip::last_line);
  if (strip == state.strips.end() || strip->first_line > line) {
    return img_error(handle, IMG_ERR_READ, 0);
  }
  if (strip->error == IMG_ERR_NONE) strip->error = check_strip(handle, state, *strip);
  if (strip->error != IMG_ERR_NONE) return img_error(handle, strip->error, 0);
  if (!read_strip(handle, state, *strip)) {
    if (handle->os_error == 0) strip->error = handle->error;
    return 0;
  }
  state.held = *strip;
  return 1;
}

}  // namespace

bool img_iff_read_begin_chunk(FileReader& in, IffStack& stack, IffChunk& chunk) {
  chunk.start = in.position();
  const auto header = in.take(kChunkHeader);
  if (header.empty()) return false;
  ByteCursor fields(header);
  chunk.name = fields.be32();
  chunk.size = fields.be32();
  chunk.form = 0;
  if (chunk.name == kIffForm) {
    const auto form = in.take(kFormType);
    if (form.empty()) return false;
    chunk.form = ByteCursor(form).be32();
  }
  errno = 0;
  return stack.push(chunk);
}

bool img_iff_read_end_chunk(FileReader& in, IffStack& stack) {
  if (stack.empty()) return false;
  const IffChunk chunk = stack.pop();
  const std::uint64_t end = chunk.start + kChunkHeader + chunk.size;
  in.seek((end + 3) / 4 * 4);
  return true;
}

int img_iff_read_headers(img_file* handle, IffState& state) {
  state.in.start(handle, 0, kScanBuffer);
  IffChunk chunk;
  if (!img_iff_read_begin_chunk(state.in, state.stack, chunk) || chunk.form != kIffImage) {
    return img_refuse(handle, IMG_ERR_FORMAT, errno, "the first chunk is not the form of an image");
  }
  std::size_t tiles = 0;
  if (!read_header(handle, state, tiles)) return 0;
  if (!find_chunk(state.in, state.stack, kIffForm, kIffTiles, chunk)) {
    return img_refuse(handle, IMG_ERR_READ, errno, "no form of tiles is found");
  }
  std::size_t longest = FileReader::kBufferSize;  // bytes of an encoded tile
  const std::uint64_t left = state.in.left();
  if (left < tiles * kLargeChunk) state.in.start(handle, state.in.position());
  state.tiles.reserve(std::min(tiles, std::size_t(left / kLeastTile)));
  for (IffTile tile; tiles > 0; --tiles) {
    if (!read_tile_header(handle, state, tile)) return 0;
    state.tiles.push_back(tile);
    if (is_encoded(state, tile)) longest = std::max(longest, std::size_t{tile.bytes});
    (void)img_iff_read_end_chunk(state.in, state.stack);
  }
  sort_tiles(state);
  state.in.start(handle, 0, longest);
  state_file_type(handle, file_type_of(state));
  return 1;
}

int img_read_iff(img_file* handle, img_line* line) {
  if (handle->line_count >= handle->height) return img_error(handle, IMG_ERR_READ, 0);
  auto& state = state_of<IffState>(handle);
  if (state.width == 0) return 1;  // there are no tiles
  const auto y = std::size_t(handle->line_count);
  if (!state.holds(y) && !collect_tiles(handle, state, y)) return 0;
  iff_copy_line(handle, state, y, line,
                [](const std::uint8_t* held, std::uint8_t* plane, std::size_t bytes) {
                  iff_copy(plane, held, bytes);
                });
  return 1;
}

void img_header_iff(img_file* handle, img_header* header) {
  FileReader file;
  IffStack stack;
  IffChunk chunk;
  file.start(handle, 0, kScanBuffer);
  if (!img_iff_read_begin_chunk(file, stack, chunk) ||
      !find_chunk(file, stack, kIffHeader, 0, chunk)) {
    return;
  }
  ByteCursor in(file.take(kIffHeaderBytes));
  if (in.left() == 0) return;
  in.skip(8);  // width, height
  const unsigned numerator = in.be16(), denominator = in.be16(), flags = in.be32();
  HeaderEntries out(header);
  if (denominator != 0) out.numbers("aspect", double(numerator) / denominator);
  out.numbers("flags", flags);
  out.text("depths", (flags & kIffHasDepth) != 0 ? "yes" : "no");
  out.numbers("sample_bytes", in.be16() + 1);
  out.numbers("tiles", in.be16());
  out.choice("compression", in.be32(), {"none", "run-length"});
}

}  // namespace ka
