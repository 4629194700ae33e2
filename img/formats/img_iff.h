// Chunks, tiles and state of tiled IFF images, for the files that open, read and write them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "driver.h"
#include "stream.h"

namespace ka {

// Identifiers and form types: four characters, the first in the highest byte.
constexpr std::uint32_t iff_name(const char (&text)[5]) {
  std::uint32_t name = 0;
  for (std::size_t i = 0; i < 4; ++i) name = name << 8 | static_cast<unsigned char>(text[i]);
  return name;
}
constexpr std::uint32_t kIffForm = iff_name("FOR4");
constexpr std::uint32_t kIffImage = iff_name("CIMG");
constexpr std::uint32_t kIffHeader = iff_name("TBHD");
constexpr std::uint32_t kIffTiles = iff_name("TBMP");
constexpr std::uint32_t kIffColors = iff_name("RGBA");
constexpr std::uint32_t kIffDepths = iff_name("ZBUF");

constexpr std::size_t kIffHeaderBytes = 24;
constexpr std::size_t kIffBoundsBytes = 8;  // of a tile, before its pixels
constexpr int kIffLargestSide = 65536;      // pixels; bounds of tiles have 16 bits

enum IffFlags : std::uint32_t { kIffHasColor = 1, kIffHasAlpha = 2, kIffHasDepth = 4 };

struct IffChunk {
  std::uint32_t name;
  std::uint32_t size;   // bytes after this field, a form's type included, padding not
  std::uint32_t form;   // type of a form, else 0
  std::uint64_t start;  // byte offset in the file
};

// The chunks that are open, each inside the one below it.
class IffStack {
 public:
  static constexpr std::size_t kDepth = 16;

  [[nodiscard]] bool push(const IffChunk& chunk) {
    if (count_ == kDepth) return false;
    chunks_[count_++] = chunk;
    return true;
  }
  // Before: not empty.
  IffChunk pop() { return chunks_[--count_]; }
  [[nodiscard]] bool empty() const { return count_ == 0; }

 private:
  std::array<IffChunk, kDepth> chunks_;
  std::size_t count_ = 0;
};

// Opens the next chunk. False at the end of the file, when the system failed, which errno then
// tells, and when too many are open.
[[nodiscard]] bool img_iff_read_begin_chunk(FileReader& in, IffStack& stack, IffChunk& chunk);
// Leaves the innermost chunk: continues after its padding. False when none is open.
[[nodiscard]] bool img_iff_read_end_chunk(FileReader& in, IffStack& stack);

// Opens a chunk whose start is here; its size need not be known. False when too many are open.
[[nodiscard]] bool img_iff_write_begin_chunk(FileWriter& out, IffStack& stack, IffChunk chunk);
// Ends the innermost chunk: corrects its size where it is another one, and pads it. False when none
// is open.
[[nodiscard]] bool img_iff_write_end_chunk(FileWriter& out, IffStack& stack);

struct IffTile {
  std::size_t x1, y1, x2, y2;  // inclusive, pixels and lines
  std::uint64_t start;         // of its pixels, byte offset in the file
  std::uint64_t bytes;         // of them

  [[nodiscard]] std::size_t width() const { return x2 - x1 + 1; }
  [[nodiscard]] std::size_t height() const { return y2 - y1 + 1; }
  [[nodiscard]] std::size_t pixels() const { return width() * height(); }
};

// Lines whose tiles overlap, and those tiles.
struct IffStrip {
  std::size_t first_line, last_line;
  std::size_t first_tile, end_tile;  // indexes of IffState::tiles
  int error;                         // what its tiles were found to be
};

struct IffState {
  std::size_t width, height;
  std::size_t components, sample_bytes;  // 1, 3 or 4; 1, 2 or 4
  bool is_encoded;
  IffStack stack;
  FileReader in;
  FileWriter out;
  vector<IffTile> tiles;                // reading: of the whole file, sorted
  vector<IffStrip> strips;              // reading: from the bottom up
  std::uint32_t tile_name;              // writing
  std::size_t tile_width, tile_height;  // writing
  IffStrip held{0, 0, 0, 0, 0};         // in the strip buffer; no tiles at first
  Buffer strip;                         // tile by tile from left to right, planes of samples
  Buffer tile;                          // planes of a tile's bytes, or its pixels as written
  Buffer packets;                       // writing: of a tile

  [[nodiscard]] std::size_t pixel_bytes() const { return components * sample_bytes; }
  [[nodiscard]] bool holds(std::size_t line) const {
    return held.end_tile > 0 && line >= held.first_line && line <= held.last_line;
  }
  // The tiles in the strip buffer.
  [[nodiscard]] std::span<const IffTile> held_tiles() const {
    return std::span(tiles).subspan(held.first_tile, held.end_tile - held.first_tile);
  }
  // A tile's plane in the strip buffer. Tiles of a strip have the same lines. Planes are in the
  // order of the file, the last component first. When reading there is room after the last of
  // them, and tiles are decoded from left to right: what is written past the end of one is
  // overwritten.
  [[nodiscard]] std::uint8_t* plane(const IffTile& of, std::size_t component) const {
    const std::size_t samples =
        of.x1 * of.height() * components + of.pixels() * (components - 1 - component);
    return strip.data() + samples * sample_bytes;
  }
  // All of them in the order of the file.
  template <typename Sample, std::size_t Components>
  [[nodiscard]] std::array<Sample*, Components> planes(const IffTile& of) const {
    std::array<Sample*, Components> planes;
    for (std::size_t p = 0; p < Components; ++p) {
      planes[p] = reinterpret_cast<Sample*>(plane(of, Components - 1 - p));
    }
    return planes;
  }
};

// Copies a tile's part of a line. Most tiles are 64 pixels wide: a call would take longer.
inline void iff_copy(std::uint8_t* to, const std::uint8_t* from, std::size_t bytes) {
  constexpr std::size_t block = 64;
  for (; bytes >= block; bytes -= block, to += block, from += block) std::memcpy(to, from, block);
  if (bytes > 0) std::memcpy(to, from, bytes);
}

// Calls copy(in the strip buffer, in the line, bytes) for all parts of a line that is held.
template <typename Copy>
void iff_copy_line(const img_file* handle, const IffState& state, std::size_t y,
                   const img_line* line, Copy copy) {
  const std::size_t slot = first_slot(handle->file_type), size = state.sample_bytes;
  for (const IffTile& tile : state.held_tiles()) {
    for (std::size_t c = 0; c < state.components; ++c) {
      copy(state.plane(tile, c) + (y - tile.y1) * tile.width() * size,
           plane_of<std::uint8_t>(line, slot + c) + tile.x1 * size, tile.width() * size);
    }
  }
}

// Calls use<Sample, Components>() for the samples of the state's pixels; of floats the bits.
template <typename Sample, typename Use>
auto iff_with_components(const IffState& state, Use use) {
  switch (state.components) {
    case 1:
      return use.template operator()<Sample, 1>();
    case 3:
      return use.template operator()<Sample, 3>();
    default:
      return use.template operator()<Sample, 4>();
  }
}
template <typename Use>
auto iff_with_pixels(const IffState& state, Use use) {
  switch (state.sample_bytes) {
    case 1:
      return iff_with_components<std::uint8_t>(state, use);
    case 2:
      return iff_with_components<std::uint16_t>(state, use);
    default:
      return iff_with_components<std::uint32_t>(state, use);
  }
}

// Finds all tiles of a file that is being opened. Returns 1, or 0 with the handle's error.
int img_iff_read_headers(img_file* handle, IffState& state);

// Lays out the tiles of the strip that begins with a line and is written next.
void img_iff_start_strip(IffState& state, std::size_t line);

}  // namespace ka
