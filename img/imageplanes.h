// Offsets to planes and planes to offsets: the only place that does this arithmetic.
#pragma once

#include <ka/img.h>
#include <ka/imgbytes.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "pixeltypes.h"

namespace ka {

constexpr std::size_t kImageHeaderSize = sizeof(img_image);  // before the line table
static_assert(sizeof(img_image) == 120 && sizeof(img_image_line) == 16);
static_assert(offsetof(img_image, level_offset) == 8 && offsetof(img_image, width) == 88);
static_assert(offsetof(img_image, height) == 92 && offsetof(img_image, bits) == 96);
static_assert(offsetof(img_image, components) == 100 && offsetof(img_image, flags) == 104);
static_assert(offsetof(img_image, type) == 108 && offsetof(img_image, words) == 112);

// Largest distance that an offset inside an image can hold, in bytes.
constexpr std::uint64_t kLargestImage = 0xffffffffu;

// The planes of an image whose third flag is set are held by the texture cache.
inline bool is_cached(const img_image* image) { return image->flags[2] != 0; }
inline void set_cached(img_image* image) { image->flags[2] = 1; }

// Slot of the one plane of a type with one component, or of the first plane of any other type.
constexpr std::size_t first_slot(int type) {
  return is_pixel_type(type) ? pixel_type(type).first_slot : 0;
}

// The same in the line tables of map files, whose bits and float alphas are in the R slot. Levels
// below the base have it in first_slot.
constexpr std::size_t first_slot_in_map_files(int type) {
  return type == IMG_TYPE_BIT || type == IMG_TYPE_A_FP ? 0 : first_slot(type);
}

// Bytes of one plane of one line. A plane of bits has room for a byte per pixel.
inline std::size_t plane_bytes(int type, int width) {
  return std::size_t(width) * std::size_t((ka_img_nbits[type] + 7) / 8);
}

// A plane of a line record, null when it is absent.
template <typename Sample>
Sample* plane_of(const img_line* line, std::size_t slot) {
  const std::intptr_t offset = line->offset[slot];
  if (offset == 0) return nullptr;
  return reinterpret_cast<Sample*>(reinterpret_cast<std::intptr_t>(line) + offset);
}

// The first `Count` planes of a line record.
template <typename Sample, std::size_t Count>
std::array<Sample*, Count> plane_pointers(const img_line* line) {
  std::array<Sample*, Count> planes;
  for (std::size_t slot = 0; slot < Count; ++slot) planes[slot] = plane_of<Sample>(line, slot);
  return planes;
}

// Makes a line record refer to a plane anywhere in memory; null: absent.
inline void set_plane(img_line* line, std::size_t slot, const void* plane) {
  line->offset[slot] =
      plane ? reinterpret_cast<std::intptr_t>(plane) - reinterpret_cast<std::intptr_t>(line) : 0;
}

// Makes a line record refer to planes of its type that stand one after the other right after it.
inline void set_planes_behind(img_line* line, int type, int width) {
  const std::size_t slot = first_slot(type);
  auto next = std::intptr_t(sizeof(img_line));
  for (std::size_t component = 0; component < std::size_t(ka_img_ncomp[type]); ++component) {
    line->offset[slot + component] = next;
    next += std::intptr_t(plane_bytes(type, width));
  }
}

// The line table of an image: image->height entries.
inline img_image_line* line_table(img_image* image) {
  return reinterpret_cast<img_image_line*>(reinterpret_cast<std::uint8_t*>(image) +
                                           kImageHeaderSize);
}
inline const img_image_line* line_table(const img_image* image) {
  return reinterpret_cast<const img_image_line*>(reinterpret_cast<const std::uint8_t*>(image) +
                                                 kImageHeaderSize);
}

// The plane at an offset from the start of an image.
template <typename Sample>
Sample* plane_at(const img_image* image, std::uint32_t offset) {
  return reinterpret_cast<Sample*>(
      const_cast<std::uint8_t*>(reinterpret_cast<const std::uint8_t*>(image)) + offset);
}

// A plane of line y of an image, null when it is absent.
inline std::uint8_t* image_plane(const img_image* image, int y, std::size_t slot) {
  const std::uint32_t offset = line_table(image)[y].offset[slot];
  if (offset == 0) return nullptr;
  return plane_at<std::uint8_t>(image, offset);
}

// Slot of the one plane of an image with one component: that of slots 0 and 3 whose offset is not 0,
// since images in files have it in either place. All lines have it where line 0 has it.
inline std::size_t single_slot(const img_image* image) {
  return line_table(image)->offset[3] != 0 ? 3 : 0;
}

// A plane of line y of an image that has it.
template <typename Sample>
Sample* plane_in(const img_image* image, int y, std::size_t slot) {
  return plane_at<Sample>(image, line_table(image)[y].offset[slot]);
}

// Where the planes of an image begin that lay_out has laid out.
inline std::uint8_t* first_plane(img_image* image) {
  return reinterpret_cast<std::uint8_t*>(line_table(image) + image->height);
}

// Fills the line table of an image whose header is complete: line after line, each line's planes
// one after the other, the first one in slot `first`.
inline void lay_out(img_image* image, std::size_t first) {
  const auto bytes = std::uint32_t(plane_bytes(image->type, image->width));
  auto next = std::uint32_t(kImageHeaderSize + std::size_t(image->height) * sizeof(img_image_line));
  img_image_line* const table = line_table(image);
  for (int y = 0; y < image->height; ++y) {
    table[y] = {};
    for (std::size_t slot = first; slot < first + std::size_t(image->components);
         ++slot, next += bytes) {
      table[y].offset[slot] = next;
    }
  }
}

inline void lay_out(img_image* image) { lay_out(image, first_slot(image->type)); }

// The header `offset` bytes after that of an image, in the same block.
inline img_image* image_at(img_image* image, std::uint32_t offset) {
  return reinterpret_cast<img_image*>(reinterpret_cast<std::uint8_t*>(image) + offset);
}

// Makes a line record refer to the planes of line y of an image. The one plane of a line is in the
// slot of its type, whichever slot the image has it in.
inline void set_line(img_line* line, const img_image* image, int y) {
  if (image->components == 1) {
    *line = {};
    set_plane(line, first_slot(image->type), image_plane(image, y, single_slot(image)));
    return;
  }
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot)
    set_plane(line, slot, image_plane(image, y, slot));
}

// Bytes of one image, which may be a level of a pyramid: header, line table and planes, rounded up
// to whole words. Empty when it passes what its offsets can hold, or when a side is negative.
inline std::optional<std::uint64_t> level_bytes(int width, int height, int bits, int components) {
  const auto line = checked_product(width, components, (bits + 7) / 8);
  if (!line || *line > kLargestImage) return std::nullopt;
  const auto lines = checked_product(height, *line + sizeof(img_image_line));
  if (!lines || *lines > kLargestImage - kImageHeaderSize - 3) return std::nullopt;
  return (*lines + kImageHeaderSize + 3) / 4 * 4;
}

}  // namespace ka
