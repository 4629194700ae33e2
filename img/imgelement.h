// Memory of database elements for the texture cache.
#pragma once

#include <ka/img.h>

#include <cstddef>
#include <cstdint>

// Memory for an element: of the given tag, or of a new one for 0, whose tag it stores.
void* img_element_memory(std::uint32_t& tag, std::size_t bytes);
// The data of an element.
img_image* img_element_image(std::uint32_t tag);
