// Which part of an OpenEXR file is read, and which of its channels.
#pragma once

#include <ka/img.h>

#include <array>

#include "exrcore.h"

namespace drivers {

struct ExrChoice {
  int part = 0;
  int type = IMG_TYPE_RGB_FP;  // or rgba_fp, z
  // For each plane the number of its channel in the part's list; -1: none, the plane is 0.
  std::array<int, IMG_SLOTS> channels{-1, -1, -1, -1};
};

// Finds what handle->layer names: docs/formats.md, "OpenEXR". Warns of what else the file holds.
//   Returns  1, or 0 with the handle's error.
int exr_choose(img_file* handle, const ExrCore& core, exr_const_context_t context,
               ExrChoice& choice);

}  // namespace drivers
