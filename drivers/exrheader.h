// The parts of an OpenEXR file that are read without its library: where attributes end, and whether a
// chunk is in the file.
#pragma once

#include <ka/img.h>

#include <cstdint>

namespace drivers {

struct ExrLayout {
  bool is_multipart = false;
  std::int64_t tables = 0;  // where the offsets of chunks begin, part by part, 8 bytes each
};

// Goes over the attributes of all parts, before the library does: it takes much longer for many of
// them, and does not say whether the file is short.
//   Returns  1, or 0 with the handle's error.
int exr_scan_header(img_file* handle, ExrLayout& layout);

// Whether the file has the whole chunk that an entry of the tables points to.
bool exr_holds_chunk(img_file* handle, const ExrLayout& layout, std::int64_t entry, bool is_tiled);

}  // namespace drivers
