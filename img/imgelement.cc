// Elements in a table, until there is a store.
#include "imgelement.h"

#include <mutex>

#include <ka/detail/owned.h>

namespace {

std::mutex lock;
ka::vector<void*> elements;

}  // namespace

void* img_element_memory(std::uint32_t& tag, std::size_t bytes) {
  void* const memory = ka_mem_allocate(bytes);
  const std::scoped_lock locked(lock);
  if (tag == 0) {
    elements.push_back(nullptr);
    tag = std::uint32_t(elements.size());
  }
  elements[tag - 1] = memory;
  return memory;
}

img_image* img_element_image(std::uint32_t tag) {
  const std::scoped_lock locked(lock);
  return static_cast<img_image*>(elements[tag - 1]);
}
