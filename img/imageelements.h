// Image elements, for the files that create them.
#pragma once

#include <ka/detail/threadsafety.h>
#include <ka/imgelement.h>

#include <cstdint>

namespace ka {

// ka_img_image_dbcreate with a name that has its element already; 0: the image gets none.
img_image* img_make_element(img_file* handle, std::uint32_t* tag, std::uint32_t name);

// The text of a string element; null when there is none with the tag.
const char* img_string(std::uint32_t tag);

// The type of colors with alpha that has so many bits per component; floats for other numbers.
int img_color_type(int bits);

// Start and end of the active lightmaps, while only one thread uses images.
void img_lightmap_init() KA_NO_THREAD_SAFETY_ANALYSIS;
void img_lightmap_exit() KA_NO_THREAD_SAFETY_ANALYSIS;

}  // namespace ka
