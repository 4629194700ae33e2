// Memory-mapped texture files: the checked way from their bytes to headers, levels and line tables.
// Layout: docs/formats.md, "Memory-mapped textures".
#pragma once

#include <ka/img.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "imageplanes.h"
#include "stream.h"

namespace ka {

// What a map file begins with, in the byte order of the host that wrote it.
struct MapFileHeader {
  std::uint32_t magic;
  std::int32_t type;  // img_type of the file
  std::int32_t version;
  std::uint32_t reserved[13];
  img_image image;  // of the base level
};
static_assert(sizeof(MapFileHeader) == 184 && offsetof(MapFileHeader, image) == 64);

constexpr std::uint32_t kMapMagic = 0x4b417478;
constexpr std::int32_t kMapVersion = 1;
constexpr std::uint64_t kMapImageOffset = offsetof(MapFileHeader, image);
constexpr std::size_t kMapLevels = std::size(img_image{}.level_offset);

// The beginning of a file in host byte order: `image` has the bits, the components and the width
// and height of its type, and no more levels than its sides allow. The header's own type word is as
// the file has it.
struct MapHead {
  int type;
  bool swapped;  // the file has the other byte order
  img_image image;
  std::int32_t version;
};

// One level of a file: header, line table and planes, one after the other.
struct MapLevel {
  std::uint64_t offset;  // of its header in the file, in bytes
  std::uint64_t bytes;   // of the whole level
  int width, height;     // pixels, lines
  std::uint64_t planes;  // of header and line table: where the first plane can begin

  [[nodiscard]] std::uint64_t end() const { return offset + bytes; }
};

struct MapLevels {
  std::size_t count;  // 1 for a plain image
  std::array<MapLevel, kMapLevels> level;
};

// True for the magic number in either byte order. Takes at least four bytes.
bool is_map_file(std::span<const std::uint8_t> head);

// Reads the first sizeof(MapFileHeader) bytes of a file of `file_size` bytes, zeros after the end of
// a shorter one.
//   Returns  IMG_ERR_NONE, or IMG_ERR_SUBTYPE for another version, IMG_ERR_SIZE for a file shorter
//            than its header, IMG_ERR_CORRUPT for fields that contradict each other. `head` has
//            the fields of a refused file unchecked.
int parse_map_head(std::span<const std::uint8_t> bytes, std::int64_t file_size, MapHead& head);

// Bytes of a whole file, with `pyramid` those of all levels that its sides allow. Empty when the
// offsets in an image cannot hold them.
std::optional<std::uint64_t> map_file_bytes(const img_image& image, bool pyramid);

// The base level. It may pass the end of the file.
MapLevel map_base(const MapHead& head);

// Where the levels are: checks that they follow each other in the file, each within its bounds.
// Empty otherwise.
std::optional<MapLevels> map_levels(const MapHead& head, std::int64_t file_size);

// The plane offsets of one line in the order of the components, in host byte order, from the
// level's header; those after the last component are 0. Empty when the entry has other slots than
// `type` allows or when a plane is not inside the level. Several lines may share a plane.
std::optional<std::array<std::uint32_t, IMG_SLOTS>> map_line(const img_image_line& entry,
                                                             const MapLevel& level, int type);

// A level's header and line table, `level.planes` bytes as the file has them, in memory that is
// aligned for words.
//   check_map_level   true when the header, in host byte order, is that of level k of the file, and
//                     when every line of the table is sound: then all operations on images may use
//                     the level in place.
//   swap_map_level    turns both into the host's byte order.
//   read_map_level    reads level k into `bytes`, turns it into the host's byte order and checks
//                     it. Returns IMG_ERR_NONE, IMG_ERR_READ with errno, or IMG_ERR_CORRUPT.
bool check_map_level(const img_image* image, const MapHead& head, const MapLevels& levels,
                     std::size_t k);
void swap_map_level(img_image* image, int height);
int read_map_level(FileReader& in, const MapHead& head, const MapLevels& levels, std::size_t k,
                   std::span<std::uint8_t> bytes);

// Stricter, for the texture cache: every plane of the table begins at a multiple of its own bytes
// after the line table, so that pages of whole planes never cut one. Before: check_map_level.
bool has_aligned_planes(const img_image* image, const MapLevel& level, int type);

}  // namespace ka
