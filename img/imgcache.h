// The texture cache: images whose pixels are loaded from map files page by page.
#pragma once

#include <ka/img.h>

#include <cstdint>

// Adds a map file that is open for reading to the cache, and closes the handle. The image's element
// is made at `tag`, or anew if that is 0. Returns its tag; 0 when the file cannot be cached.
std::uint32_t img_cache_image_add(img_file* handle, std::uint32_t tag);
