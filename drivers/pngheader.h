// The entries of ka_img_header for PNG files.
#pragma once

#include <ka/img.h>

namespace drivers {

void png_header(img_file* handle, img_header* header);

}  // namespace drivers
