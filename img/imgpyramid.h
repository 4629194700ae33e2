// Layout of images with reduced levels in one block, as images in memory, mapped files and the
// elements of a scene have it.
#pragma once

#include <ka/img.h>

#include <cstdint>
#include <optional>

namespace ka {

// How many levels the images of a handle can have, the base included: as often as its smaller side
// can be halved before it is 0.
int img_pyramid_levels(const img_file* ifp);

// Bytes of an image of this shape, with `pyramid` those of all its levels. Empty when that passes
// what the offsets in an image can hold, which also keeps the levels within the directory.
std::optional<std::uint64_t> img_pyramid_size(int width, int height, int bits, int components,
                                              bool pyramid);

// Fills the level directory of an image of the handle's size and the headers and line tables of all
// levels below it.
void img_pyramid_create_directory(const img_file* ifp, img_image* image);

}  // namespace ka
