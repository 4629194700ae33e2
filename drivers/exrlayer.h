// Which part of an OpenEXR file is read, and which of its channels.
#pragma once

#include <ka/img.h>

#include <array>
#include <string>
#include <vector>

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

// The names of all channels, by part, each as handle->layer takes it to open that channel alone: its
// own, after that of its part or the part's number where another channel would be opened. A channel
// that no name opens, as in deep parts and beside a layer of its name, has its own.
std::vector<std::vector<std::string>> exr_channel_names(const ExrCore& core,
                                                        exr_const_context_t context);

}  // namespace drivers
