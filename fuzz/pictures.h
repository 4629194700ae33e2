// What the targets that write pictures share: the size of planes, and the check that a file keeps what
// was written.
#pragma once

#include <ka/imgload.h>
#include <ka/imgowner.h>
#include <ka/mem.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "images.h"

namespace fuzz {

// The bytes of a plane's line that pixels fill completely.
inline std::size_t plane_bytes(int type, int width) {
  return std::size_t(width) * std::size_t(ka_img_nbits[type]) / 8;
}

// Whether a complete file of this format and type can be opened and read. Frames can, but have a size
// and losses of their own; fuzz_qnt reads them.
inline bool is_readable(const img_file& file) {
  switch (file.format) {
    case IMG_FORMAT_ZPIC:
    case IMG_FORMAT_NULL:
    case IMG_FORMAT_LWI:
    case IMG_FORMAT_QNTPAL:
    case IMG_FORMAT_QNTNTSC:
      return false;
    case IMG_FORMAT_ALIAS:  // without a magic, only sides tell it
      return file.width <= 4095 && file.height <= 4095;
    case IMG_FORMAT_IFF:
      return file.file_type != IMG_TYPE_Z;
    case IMG_FORMAT_RLA:
    case IMG_FORMAT_RLB:  // pictures of one column or one line do not count as such
      return file.width > 1 && file.height > 1;
    default:
      return true;
  }
}

// Whether a file that was written as `written` and is read as `read` has the same samples. Types of
// other sizes have been rounded, and so have shared exponents in text.
inline bool is_lossless(const img_file& written, const img_file& read) {
  if (ka_img_nbits[written.file_type] != ka_img_nbits[read.file_type]) return false;
  if (written.format == IMG_FORMAT_PPM) return written.file_type == IMG_TYPE_RGB;
  return written.format != IMG_FORMAT_JPG;
}

// Targa and Alias files have no magic: others may look like them.
inline bool is_mistaken(const img_file& written, const img_file& read) {
  return read.format != written.format &&
         (read.format == IMG_FORMAT_TGA || read.format == IMG_FORMAT_ALIAS);
}

// Compares the planes that both have.
inline void expect_same_line(const img_line* line, const img_image* image, int y) {
  const int first = image->components == 1 && line->offset[3] != 0 ? 3 : 0;
  for (int component = 0; component < image->components; ++component) {
    const void* const read = ka_img_plane(image, y, component);
    const void* const written = ka_img_line_plane(line, first + component);
    if (!written || !read) continue;
    if (std::memcmp(written, read, plane_bytes(image->type, image->width)) != 0) std::abort();
  }
}

// Reads the file `name` that was closed without an error after `image` was written to `written`.
inline void expect_kept(const img_file& written, const img_image* image, const char* name) {
  img_file file{};
  const bool opened = ka_img_open(&file, name, IMG_TYPE_FILE) != 0;
  if (is_mistaken(written, file)) {
    ka_img_close(&file);
    return;
  }
  if (!opened || file.width != image->width || file.height != image->height) std::abort();
  const ka::ImageBuffer read(ka_img_image_alloc(&file));
  if (!read || !ka_img_image_read(&file, read.get())) std::abort();
  if (is_lossless(written, file)) {
    img_file shape{};
    shape.type = written.file_type;
    shape.width = image->width;
    for (int y = 0; y < image->height; ++y) {
      int components, bits;
      const ka::LineBuffer line(ka_img_line_alloc(&shape));
      if (!ka_img_convert(line.get(), &components, &bits, image, y, shape.type)) std::abort();
      expect_same_line(line.get(), read.get(), y);
    }
  }
  ka_img_close(&file);
}

// Writes an image with the type that the file is to have, and compares what comes back. False when
// the format refuses the picture.
inline bool write_and_compare(img_image* image, int format, int file_type) {
  const MemoryFile memory(nullptr, 0);
  img_file file{};
  file.file_type = static_cast<std::uint8_t>(file_type);
  if (!ka_img_create(&file, memory.name(), image->type, format, image->width, image->height)) {
    return false;
  }
  const img_file created = file;
  const bool written = ka_img_image_write(&file, image) != 0;
  if (!ka_img_close(&file) || !written) return false;
  if (image->width > 0 && image->height > 0 && is_readable(created)) {
    expect_kept(created, image, memory.name());
  }
  return true;
}

}  // namespace fuzz
