#include "imgcache.h"

std::uint32_t img_cache_image_add(img_file* /*handle*/, std::uint32_t /*tag*/) { return 0; }
