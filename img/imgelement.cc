// Image elements of the scene database: making them, taking them over from another host.
#include "imageelements.h"

#include <algorithm>
#include <cstring>

#include <ka/detail/assertion.h>
#include <ka/detail/scope.h>
#include <ka/endian.h>

#include "imageplanes.h"
#include "imgcall.h"
#include "imgmap.h"
#include "imgpyramid.h"
#include "mapfile.h"

namespace {

constexpr std::size_t kWritable = 0;  // of the flags
// Of the words: the tag of the string element, and the low half of its serial. The element may go
// before the image, and another one get its tag.
constexpr std::size_t kName = 0, kNameSerial = 1;

std::uint32_t serial_of(std::uint32_t tag) {
  return ka_db_exists(tag) ? std::uint32_t(ka_db_accessinfo(tag)->serial) : 0;
}

void set_name(img_image* image, std::uint32_t tag) {
  image->words[kName] = tag;
  image->words[kNameSerial] = serial_of(tag);
}

void write_string(std::uint32_t& tag, const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  void* const data =
      ka::img_string(tag) ? ka_db_realloc(tag, size) : ka_db_create(&tag, KA_DB_STRING, size);
  std::memcpy(data, text, size);
}

// The memory of an image element of so many bytes, all zero. `name` receives what the image had.
img_image* element_memory(std::uint32_t* tag, std::size_t bytes, std::uint32_t& name) {
  if (*tag == 0) return static_cast<img_image*>(ka_db_create(tag, KA_DB_IMAGE, bytes));
  const std::size_t used = ka_db_accessinfo(*tag)->size;
  auto* const image = static_cast<img_image*>(ka_db_realloc(*tag, bytes));
  if (used >= sizeof *image && bytes >= sizeof *image) name = ka_img_image_name(image);
  std::memset(image, 0, std::min(used, bytes));
  return image;
}

img_image* make_element(img_file* handle, std::uint32_t* tag, std::uint32_t& name) {
  if (*tag != 0 && ka_db_type(*tag) != KA_DB_IMAGE) {
    __assert("!*tag || ka_db_type(*tag) == kaSCENE_IMAGE", __FILE__, __LINE__);
  }
  img_file shape = *handle;
  shape.name = nullptr;  // a handle that only describes an image has a name that is not its own
  const std::size_t bytes = ka_img_image_size(&shape);
  handle->error = shape.error;
  handle->os_error = shape.os_error;
  if (bytes == 0) return nullptr;
  img_image* const image = element_memory(tag, bytes, name);
  ka::img_fill_image(handle, image);
  image->flags[kWritable] = 1;
  return image;
}

void swap_samples(img_image* level, std::size_t bytes) {
  const std::size_t header =
      ka::kImageHeaderSize + std::size_t(level->height) * sizeof(img_image_line);
  std::uint8_t* const planes = reinterpret_cast<std::uint8_t*>(level) + header;
  if (level->bits == 16) ka_swap_shorts(planes, std::ptrdiff_t((bytes - header) / 2));
  if (level->bits == 32) ka_swap_ints(planes, std::ptrdiff_t((bytes - header) / 4));
}

// The head of an image in memory, as the checks of files want it; false: it contradicts itself.
bool read_head(const img_image* image, std::size_t size, bool swap, ka::MapHead& head) {
  ka::MapFileHeader header{};
  header.magic = swap ? __builtin_bswap32(ka::kMapMagic) : ka::kMapMagic;
  header.version = swap ? std::int32_t(__builtin_bswap32(ka::kMapVersion)) : ka::kMapVersion;
  header.image = *image;
  header.type = image->type;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&header);
  return ka::parse_map_head({bytes, sizeof header}, std::int64_t(size + ka::kMapImageOffset),
                            head) == IMG_ERR_NONE;
}

}  // namespace

const char* ka::img_string(std::uint32_t tag) {
  if (!ka_db_exists(tag) || ka_db_type(tag) != KA_DB_STRING) return nullptr;
  const auto* const text = static_cast<const char*>(ka_db_access(tag));
  return std::memchr(text, 0, ka_db_size(tag)) ? text : nullptr;
}

img_image* ka::img_make_element(img_file* handle, std::uint32_t* tag, std::uint32_t name) {
  std::uint32_t old_name = 0;
  img_image* const image = make_element(handle, tag, old_name);
  if (image) set_name(image, name);
  return image;
}

img_image* ka_img_image_dbcreate(img_file* ifp, std::uint32_t* tag) {
  const ka::ModuleScope scope(KA_IMG);
  KA_ASSERT(ifp);
  std::uint32_t name = 0;
  img_image* const image = make_element(ifp, tag, name);
  if (!image) return nullptr;
  if (ifp->name) write_string(name, ifp->name);
  set_name(image, name);
  return image;
}

int ka::img_color_type(int bits) {
  switch (bits) {
    case 8:
      return IMG_TYPE_RGBA;
    case 16:
      return IMG_TYPE_RGBA_16;
    default:
      return IMG_TYPE_RGBA_FP;
  }
}

// What a file says of itself in its mapping is not asked.
std::uint32_t ka_img_image_name(const img_image* image) {
  const std::uint32_t tag = image->words[kName];
  if (tag == 0 || ka::is_cached(image) || ka::img_is_mapped(image)) return 0;
  return serial_of(tag) == image->words[kNameSerial] ? tag : 0;
}

void ka_img_image_set_writable(img_image* image, int writable) {
  image->flags[kWritable] = writable != 0;
}

int ka_img_image_is_writable(const img_image* image) {
  return image->flags[kWritable] != 0 && !ka::is_cached(image) && !ka::img_is_mapped(image);
}

int ka_img_image_import(img_image* image, std::size_t size, int swap) {
  const ka::ModuleScope scope(KA_IMG);
  ka::MapHead head;
  if (size < sizeof *image || !read_head(image, size, swap != 0, head)) return 0;
  const auto levels = ka::map_levels(head, std::int64_t(size + ka::kMapImageOffset));
  if (!levels) return 0;
  for (std::size_t k = 0; k < levels->count; ++k) {
    const ka::MapLevel& level = levels->level[k];
    img_image* const at = ka::image_at(image, std::uint32_t(level.offset - ka::kMapImageOffset));
    if (swap) {
      ka::swap_map_level(at, level.height);
      swap_samples(at, std::size_t(level.bytes));
    }
    if (!ka::check_map_level(at, head, *levels, k)) return 0;
    std::ranges::fill(at->flags, std::uint8_t{0});  // they and the words have a meaning on one host
    std::ranges::fill(at->words, 0U);
  }
  return 1;
}

void* ka_img_access(const img_image* image, int line, int component) {
  if (ka::is_cached(image)) return nullptr;
  if (line < 0 || line >= image->height || component < 0 || component >= IMG_SLOTS) return nullptr;
  return ka::image_plane(image, line, std::size_t(component));
}
