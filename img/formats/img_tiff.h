// What the files of the TIFF driver share: the directory of a file, the state of an open one.
#pragma once

#include <errno.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "driver.h"
#include "palette.h"

namespace ka {

namespace tiff {

enum Photometric : std::uint32_t { kWhiteIsZero, kBlackIsZero, kRgb, kPalette };

constexpr std::uint16_t kShort = 3;  // type of an entry whose values have 16 bits; all others: 32

// An entry of the directory: values of 16 or 32 bits, which are in it where four bytes hold them
// all, else at a file offset.
struct Entry {
  std::uint16_t tag, type;
  std::uint32_t count;  // 0: not there
  std::array<std::uint8_t, 4> field;

  [[nodiscard]] std::size_t value_bytes() const { return type == kShort ? 2 : 4; }
  [[nodiscard]] std::uint64_t bytes() const { return std::uint64_t{count} * value_bytes(); }
};

// The sides of the picture go to the handle, whose errors tell them; those that pass an int are
// negative there.
struct Directory {
  std::uint32_t components = 1;
  bool is_compressed;
  bool is_planar;
  std::uint32_t photometric = kRgb;
  std::uint32_t rows_per_strip = 0xffffffff;  // all in one strip
  std::uint32_t strips;                       // 0: no table of them yet
  Entry sample_bits, sample_format, offsets, byte_counts, color_map;
};

// What a file says, in its own byte order.
struct Source {
  img_file* handle;
  FileReader in;
  std::endian order;

  std::uint16_t u16(ByteCursor& bytes) const {
    return order == std::endian::big ? bytes.be16() : bytes.le16();
  }
  std::uint32_t u32(ByteCursor& bytes) const {
    return order == std::endian::big ? bytes.be32() : bytes.le32();
  }
  std::uint32_t value(ByteCursor& bytes, const Entry& entry) const {
    return entry.type == kShort ? u16(bytes) : u32(bytes);
  }
  // The one value of an entry, or the offset of several.
  [[nodiscard]] std::uint32_t number(const Entry& entry) const {
    ByteCursor field(entry.field);
    return value(field, entry);
  }
  [[nodiscard]] std::uint32_t offset(const Entry& entry) const {
    ByteCursor field(entry.field);
    return u32(field);
  }

  // `part` is where the file ends, unless the system has failed.
  [[nodiscard]] int short_read(const char* part) const {
    return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the %s", part);
  }
};

// Reads the entries of the directory at a file offset that say what the file holds. Returns 1, or 0
// with the handle's error, also for what is not read whatever other entries say.
int read_directory(Source& file, std::uint32_t offset, Directory& directory);

// Refuses a table of sample formats that has not one for each sample.
int refuse_format_count(const Source& file, std::uint32_t count);

// Where the strips of a file are.
struct Strips {
  vector<std::uint32_t> offset;  // [plane * per_plane + strip], file offsets in bytes
  std::size_t per_plane;         // strips of one plane; pixels side by side have one plane
  std::uint32_t rows;            // of each strip but the last; not used with a single one
};

// Rows are read through a reader for each plane, which are far apart in a file.
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
  std::uint64_t idle;     // bytes of packets that gave no bytes, in all rows so far
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
