// What the parts of the tifz driver share: the open file under libtiff, and its state.
#pragma once

#include <tiffio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "drivers.h"

namespace drivers::tifz {

struct CloseTiff {
  void operator()(TIFF* tif) const { TIFFClose(tif); }
};

// The handle's file as libtiff sees it. It reads with pread, so the handle's stream stays where it is,
// and prints nothing: the first message of an operation is kept.
struct File {
  img_file* handle = nullptr;
  std::int64_t position = 0, end = 0;
  int os_error = 0;
  Writer out;
  std::array<char, IMG_REASON_SIZE> message{};

  // Opens it with a mode of libtiff; null with a message.
  TIFF* open(const char* mode, std::uint64_t most_memory);
  // Sets the handle's error: the system's, or libtiff's message. Returns 0.
  int fail(int code);
  void forget() { message[0] = '\0', os_error = 0; }
};

enum class Sample { kUnsigned, kFloat };

struct State {
  File file;
  std::unique_ptr<TIFF, CloseTiff> tif;  // after `file`: closing it may write
  std::uint16_t bits = 1, samples = 1, photometric = 0, compression = COMPRESSION_NONE;
  std::size_t colors = 1;  // of a pixel; alpha is the sample after them
  bool has_alpha = false, is_planar = false, is_tiled = false;
  Sample kind = Sample::kUnsigned;
  int type = IMG_TYPE_RGB;
  std::array<std::vector<std::uint8_t>, 3> palette;
  // Rows that are decoded at once: those of a strip of separate planes or of a row of tiles, else one.
  std::uint32_t band_rows = 1, block_width = 0;  // of a tile, or the line
  std::size_t block_bytes = 0, block_row_bytes = 0;
  std::size_t blocks = 1;          // side by side
  std::vector<std::uint8_t> band;  // [plane][block]
  std::int64_t band_number = -1;
  std::size_t rows = 0;  // in the band, of a file that is written
  bool has_failed = false;
};

constexpr int kWritten = 1 << IMG_TYPE_RGBA | 1 << IMG_TYPE_RGB | 1 << IMG_TYPE_RGBA_16 |
                         1 << IMG_TYPE_RGB_16 | 1 << IMG_TYPE_RGBA_FP | 1 << IMG_TYPE_RGB_FP;

int read_line(img_file* handle, img_line* line);
int create(img_file* handle);
int write_line(img_file* handle, img_line* line);
int close(img_file* handle);
void header(img_file* handle, img_header* header);

}  // namespace drivers::tifz
