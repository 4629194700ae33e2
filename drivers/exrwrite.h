// The writing half of the driver for OpenEXR files.
#pragma once

#include <ka/img.h>

namespace drivers {

// The parameter of the handle that asks for floats instead of halves, and says so of a file that was
// opened.
constexpr int kExrAsFloat = 3;

int exr_create(img_file* handle);
int exr_write(img_file* handle, img_line* line);
int exr_close_written(img_file* handle);

}  // namespace drivers
