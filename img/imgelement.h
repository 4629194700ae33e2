// Image elements, for the files that create them.
#pragma once

#include <ka/imgelement.h>

#include <cstdint>

// ka_img_image_dbcreate with a name that has its element already; 0: the image gets none.
img_image* img_make_element(img_file* handle, std::uint32_t* tag, std::uint32_t name);

// A string element with a text; 0 for a null text.
std::uint32_t img_make_string(const char* text);

// The type of colours with alpha that has so many bits per component; floats for other numbers.
int img_color_type(int bits);

// Start and end of the active lightmaps.
void img_lightmap_init();
void img_lightmap_exit();
