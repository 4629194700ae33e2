// Image buffers: one block that describes itself, read from and written to files as a whole.
#include <errno.h>

#include <cstring>

#include <ka/detail/imagelines.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>

#include "imageplanes.h"
#include "imgcall.h"
#include "imgcontext.h"
#include "imgmap.h"
#include "imgpyramid.h"
#include "texturecache.h"

namespace {

constexpr int kLineLimit = 1 << 16;  // a table for them takes a megabyte

// The line table is as long as the header claims. No built-in format keeps that many lines with
// pixels in fewer bytes.
bool claims_too_many_lines(const img_file* handle) {
  if (handle->writing || handle->width == 0 || handle->format >= IMG_FORMAT_CUSTOM) return false;
  return handle->height > kLineLimit && handle->file_size > 0 && handle->height > handle->file_size;
}

// Drivers outside the library may pack lines without pixels in fewer bytes.
int lines_to_read(const img_file* handle) {
  if (handle->format >= IMG_FORMAT_CUSTOM) return handle->height;
  return ka::lines_to_read(handle->width, handle->height, handle->file_size);
}

int image_line(const img_file* handle, int i) {
  return handle->topdown ? handle->height - 1 - i : i;
}

// A handle that failed to open may still have the type that represents the file's own.
bool has_type(img_file* handle) {
  return ka::is_pixel_type(handle->type) || ka::img_error(handle, IMG_ERR_ARGUMENT, 0) != 0;
}

// The texture cache does not have a line: its image has been removed, or its file is unreadable.
int unreachable(img_file* handle) { return ka::img_error(handle, IMG_ERR_READ, 0); }

}  // namespace

size_t ka_img_image_size(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!has_type(handle)) return 0;
  if (claims_too_many_lines(handle)) {
    ka::img_error(handle, IMG_ERR_READ, 0);
    return 0;
  }
  const auto bytes = ka::img_pyramid_size(handle->width, handle->height, ka_img_nbits[handle->type],
                                          ka_img_ncomp[handle->type], handle->pyramid != 0);
  if (!bytes) ka::img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  return bytes ? std::size_t(*bytes) : 0;
}

bool ka::img_fails_at_once(img_file* handle) {
  if (!handle->lacks_lines || handle->height == 0 || ka_img_image_size(handle) == 0) return false;
  img_line none{};
  return !ka_img_line_read(handle, &none);
}

void ka::img_fill_image(const img_file* handle, img_image* image) {
  image->width = handle->width;
  image->height = handle->height;
  image->bits = ka_img_nbits[handle->type];
  image->components = ka_img_ncomp[handle->type];
  image->filter = float(handle->pyramid);
  image->type = handle->type;
  // Planes without pixels need no place: a long table of them stays as the system gave it.
  if (handle->width > 0 || handle->height <= kLineLimit) ka::lay_out(image);
  if (handle->pyramid) ka::img_pyramid_create_directory(handle, image);
}

img_image* ka_img_image_alloc(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  const std::size_t bytes = ka_img_image_size(handle);
  if (bytes == 0) return nullptr;
  auto* const image = static_cast<img_image*>(ka_mem_allocate(bytes));
  ka::img_fill_image(handle, image);
  return image;
}

void ka_img_image_release(img_image* image) {
  const ka::ModuleScope scope(KA_IMG);
  if (ka::img_is_mapped(image)) {
    ka::img_munmap_map(image);
  } else {
    ka_mem_release(image);
  }
}

img_line* ka_img_line_alloc(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!has_type(handle)) return nullptr;
  if (handle->lacks_lines) return static_cast<img_line*>(ka_mem_allocate(sizeof(img_line)));
  const std::size_t bytes = ka::plane_bytes(handle->type, handle->width);
  const auto components = std::size_t(ka_img_ncomp[handle->type]);
  auto* const line = static_cast<img_line*>(ka_mem_allocate(sizeof(img_line) + components * bytes));
  ka::set_planes_behind(line, handle->type, handle->width);
  return line;
}

int ka_img_image_read(img_file* handle, img_image* image) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!ka::img_can_read(handle) || handle->line_count != 0) {
    return ka::img_error(handle, IMG_ERR_NOT_OPEN, 0);
  }
  const int count = lines_to_read(handle);
  int result = 1, lines = 0;
  for (int i = 0; i < count && result; ++i, lines += result) {
    img_line line;
    if (!ka::set_line_anywhere(&line, image, image_line(handle, i))) return unreachable(handle);
    result = ka_img_line_read(handle, &line);
  }
  if (result) handle->line_count = handle->height;
  if (handle->pyramid && (result || lines > 0)) ka_img_pyramid_filter_levels(image);
  return result;
}

int ka_img_image_write(img_file* handle, img_image* image) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  const ka::CacheOperation operation(image);
  if (!ka::img_is_open(handle) || handle->line_count > 0) {
    return ka::img_error(handle, IMG_ERR_NOT_OPEN, 0);
  }
  img_line line{};
  if (handle->height == 0)
    return ka_img_line_write(handle, &line);  // the header is written all the same
  int result = 1;
  for (int i = 0; i < handle->height && result; ++i) {
    if (!ka::set_line_anywhere(&line, image, image_line(handle, i))) return unreachable(handle);
    result = ka_img_line_write(handle, &line);
  }
  return result;
}

int ka_img_convert(img_line* line, int* components, int* bits, const img_image* image, int y,
                   int type) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!ka::is_pixel_type(type)) return 0;
  *components = ka_img_ncomp[type];
  *bits = ka_img_nbits[type];
  img_line source;
  if (!ka::set_line_anywhere(&source, image, y)) return 0;
  if (image->type == type || ka::compatible_type(image->type) == type) {
    const std::size_t bytes = ka::plane_bytes(type, image->width);
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      auto* const to = ka::plane_of<std::uint8_t>(line, slot);
      const auto* const from = ka::plane_of<std::uint8_t>(&source, slot);
      if (to && from) std::memcpy(to, from, bytes);
    }
    return 1;
  }
  ka::img_convert(line, &source, type, image->type, ka::img_luminance_weights(), image->width);
  return 1;
}
