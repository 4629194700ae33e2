// What the files of the TIFF driver share: the state of an open file.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "driver.h"
#include "palette.h"

namespace ka {

namespace tiff {

enum Photometric : std::uint32_t { kWhiteIsZero, kBlackIsZero, kRgb, kPalette };

// Where the strips of a file stand.
struct Strips {
  vector<std::uint32_t> offset;  // [plane * per_plane + strip], file offsets in bytes
  std::size_t per_plane;         // strips of one plane; pixels side by side have one plane
  std::uint32_t rows;            // of each strip but the last; not used with a single one
};

// Rows are read through a reader for each plane, which stand far apart in a file.
struct PlaneReader {
  FileReader in;
  // Where a packet of the strip begins: the rows before the next one end there, or as much of them
  // as could be found.
  std::size_t strip;
  std::uint64_t filled;    // bytes of the strip's rows before the packet
  std::uint64_t position;  // file offset in bytes, 0: none known
};

struct State {
  // Of a file that is read.
  std::endian order;
  std::uint32_t photometric;
  std::size_t components;
  std::size_t sample_bits;
  std::size_t row_bytes;  // of a decoded row, of one plane where they are separate
  bool is_planar;         // rows of separate planes
  Strips strips;
  Palette palette;
  std::array<PlaneReader, 4> planes;

  // Of a file that is written.
  FileWriter out;
  Buffer packets;            // of one row
  std::uint64_t compressed;  // bytes of all rows

  // Of both.
  bool is_compressed;
  Buffer row;  // a decoded row of a compressed file
};

}  // namespace tiff

}  // namespace ka
