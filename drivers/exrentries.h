// The entries of ka_img_header for OpenEXR files.
#pragma once

#include <ka/img.h>

namespace drivers {

void exr_header(img_file* handle, img_header* header);

}  // namespace drivers
