#include "mapfile.h"

#include <errno.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include <ka/endian.h>

#include "imgpyramid.h"

namespace ka {
namespace {

// Every word of the file header and of an image header for ka_swap: those before the flags, the
// four flag bytes, which stay, the type and two words.
constexpr char kHeaderWords[] = "41i3c2i";
constexpr char kImageWords[] = "25i3c2i";
static_assert((42 + 1 + 3) * 4 == sizeof(MapFileHeader) && (26 + 1 + 3) * 4 == sizeof(img_image));
static_assert(offsetof(img_image, flags) == 26 * 4);

bool is_type(std::int32_t type) { return type >= 0 && type < IMG_TYPE_COUNT; }

int levels_allowed(int width, int height) {
  img_file shape{};
  shape.width = width;
  shape.height = height;
  return ka::img_pyramid_levels(&shape);
}

bool has_samples_of(const img_image& image, int type) {
  return image.bits == ka_img_nbits[type] && image.components == ka_img_ncomp[type];
}

MapLevel level_at(std::uint64_t offset, int width, int height, int type) {
  const auto bytes = level_bytes(width, height, ka_img_nbits[type], ka_img_ncomp[type]);
  return {.offset = offset,
          .bytes = *bytes,
          .width = width,
          .height = height,
          .planes = kImageHeaderSize + std::uint64_t(height) * sizeof(img_image_line)};
}

bool is_plane(std::uint32_t offset, const MapLevel& level, int type) {
  const std::size_t sample_bytes = (std::size_t(ka_img_nbits[type]) + 7) / 8;
  return offset >= level.planes && offset <= level.bytes - plane_bytes(type, level.width) &&
         offset % sample_bytes == 0;
}

// The header of level k must say what the base says about that level.
bool is_header_of(const img_image& image, const MapHead& head, const MapLevels& levels,
                  std::size_t k) {
  const img_image& base = head.image;
  if (image.type != head.type || image.width != levels.level[k].width ||
      image.height != levels.level[k].height || image.bits != base.bits ||
      image.components != base.components || image.levels != base.levels - std::int32_t(k) ||
      image.flags[2] != 0) {  // not held by the texture cache
    return false;
  }
  for (std::size_t j = k; j < levels.count; ++j) {
    if (image.level_offset[j - k] != base.level_offset[j] - base.level_offset[k]) return false;
  }
  return true;
}

}  // namespace

bool is_map_file(std::span<const std::uint8_t> head) {
  std::uint32_t magic;
  std::memcpy(&magic, head.data(), sizeof magic);
  return magic == kMapMagic || magic == __builtin_bswap32(kMapMagic);
}

int parse_map_head(std::span<const std::uint8_t> bytes, std::int64_t file_size, MapHead& head) {
  MapFileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  const bool swapped = header.magic != kMapMagic;
  if (swapped) ka_swap(&header, kHeaderWords);
  head = {
      .type = header.type, .swapped = swapped, .image = header.image, .version = header.version};
  if (header.version != kMapVersion) return IMG_ERR_SUBTYPE;
  if (file_size < std::int64_t{sizeof header}) return IMG_ERR_SIZE;
  const img_image& image = header.image;
  if (!is_type(header.type) || !has_samples_of(image, header.type)) return IMG_ERR_CORRUPT;
  if (image.levels < 0 || image.levels > levels_allowed(image.width, image.height)) {
    return IMG_ERR_CORRUPT;
  }
  if (!map_file_bytes(image, image.levels > 0)) return IMG_ERR_CORRUPT;  // also a negative side
  return IMG_ERR_NONE;
}

std::optional<std::uint64_t> map_file_bytes(const img_image& image, bool pyramid) {
  const auto bytes =
      ka::img_pyramid_size(image.width, image.height, image.bits, image.components, pyramid);
  return bytes ? std::optional(*bytes + kMapImageOffset) : std::nullopt;
}

MapLevel map_base(const MapHead& head) {
  return level_at(kMapImageOffset, head.image.width, head.image.height, head.type);
}

std::optional<MapLevels> map_levels(const MapHead& head, std::int64_t file_size) {
  const img_image& image = head.image;
  MapLevels levels{.count = std::size_t(std::max(image.levels, 1)), .level = {}};
  if (image.level_offset[0] != 0) return std::nullopt;
  std::uint64_t end = kMapImageOffset;  // of the levels before
  for (std::size_t k = 0; k < levels.count; ++k) {
    const std::uint64_t offset = image.level_offset[k] + kMapImageOffset;
    const MapLevel level = level_at(offset, image.width >> k, image.height >> k, head.type);
    if (offset < end || offset % sizeof(std::uint32_t) != 0) return std::nullopt;
    end = level.end();
    if (end > std::uint64_t(file_size)) return std::nullopt;
    levels.level[k] = level;
  }
  return levels;
}

std::optional<std::array<std::uint32_t, IMG_SLOTS>> map_line(const img_image_line& entry,
                                                             const MapLevel& level, int type) {
  std::array<std::uint32_t, IMG_SLOTS> planes{};
  const auto components = std::size_t(ka_img_ncomp[type]);
  const std::size_t first = components == 1 && entry.offset[3] != 0 ? 3 : 0;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    const std::uint32_t offset = entry.offset[slot];
    if (slot < first || slot >= first + components) {
      if (offset != 0) return std::nullopt;
    } else {
      if (!is_plane(offset, level, type)) return std::nullopt;
      planes[slot - first] = offset;
    }
  }
  return planes;
}

bool check_map_level(const img_image* image, const MapHead& head, const MapLevels& levels,
                     std::size_t k) {
  if (!is_header_of(*image, head, levels, k)) return false;
  const std::span lines(line_table(image), std::size_t(image->height));
  return std::ranges::all_of(lines, [&](const img_image_line& line) {
    // the one plane is in the slot in which line 0 has it
    return map_line(line, levels.level[k], head.type) &&
           (line.offset[0] != 0) == (lines[0].offset[0] != 0);
  });
}

void swap_map_level(img_image* image, int height) {
  ka_swap(image, kImageWords);
  ka_swap_ints(line_table(image), std::ptrdiff_t{height} * IMG_SLOTS);
}

int read_map_level(FileReader& in, const MapHead& head, const MapLevels& levels, std::size_t k,
                   std::span<std::uint8_t> bytes) {
  const MapLevel& level = levels.level[k];
  in.seek(level.offset);
  if (!in.read(bytes.first(std::size_t(level.planes)))) return IMG_ERR_READ;
  auto* const image = reinterpret_cast<img_image*>(bytes.data());
  if (head.swapped) swap_map_level(image, level.height);
  return check_map_level(image, head, levels, k) ? IMG_ERR_NONE : IMG_ERR_CORRUPT;
}

bool has_aligned_planes(const img_image* image, const MapLevel& level, int type) {
  const std::uint64_t bytes = plane_bytes(type, level.width);
  const std::span lines(line_table(image), std::size_t(level.height));
  return bytes == 0 || std::ranges::all_of(lines, [&](const img_image_line& line) {
           return std::ranges::all_of(line.offset, [&](std::uint32_t offset) {
             return offset == 0 || (offset - level.planes) % bytes == 0;
           });
         });
}

}  // namespace ka
