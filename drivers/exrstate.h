// An OpenEXR file that is being read: what its header says, the chunk that is in memory.
#pragma once

#include <ka/mem.h>
#include <libdeflate.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "exrcore.h"
#include "exrheader.h"
#include "exrlayer.h"

namespace drivers {

struct FreeDecompressor {
  void operator()(libdeflate_decompressor* inflate) const { libdeflate_free_decompressor(inflate); }
};
struct ReleaseBytes {
  void operator()(std::uint8_t* bytes) const { ka_mem_release(bytes); }
};
using Bytes = std::unique_ptr<std::uint8_t[], ReleaseBytes>;

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

  ExrLayout layout;
  std::int64_t first_entry = 0;  // of the part, in the tables of chunks
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

// Fills a plane with a line of the file, in its coordinates, where it is inside both windows. The
// planes of the line are in memory: exr_load_lines.
void exr_fill_plane(const ExrState& state, std::int64_t y, std::size_t slot, float* plane);

// Decodes the chunk or the row of tiles that a line is in.
//   Returns  1, or 0 with the handle's error.
int exr_load_lines(img_file* handle, ExrState& state, std::int64_t y);

// Sets the handle's error after the library has refused something. Returns 0.
int exr_fail(img_file* handle, const ExrState& state, exr_result_t result);

}  // namespace drivers
