// The texture cache as the rest of the image library sees it.
#pragma once

#include <ka/imgcache.h>

#include <cstdint>

#include "imageplanes.h"

namespace ka {

struct ImageContext;

// Starts the cache: reads KA_1TC_LIMIT, shares the process's file descriptors out and reports both.
// The counterpart reports how large the cache was and frees everything in it; no other thread uses
// images meanwhile.
void img_cache_init();
void img_cache_exit();

// Attach a thread's state to one of its contexts, and detach it: with the last one the thread's
// pages become unused and its files are closed.
void img_context_cache_init(ImageContext& context);
void img_context_cache_exit(ImageContext& context);

// Caches the map file of an open handle, all its levels, and closes the handle.
//   Takes    the tag of an element that gets the headers, 0 for a new one.
//   Returns  the element's tag; 0 with the handle's error (1 or 3) when the file cannot be read or
//            its directory or line tables are not sound: the handle stays open.
std::uint32_t img_cache_image_add(img_file* handle, std::uint32_t tag);
// The same with the headers in memory of the caller's choice: accounted, as many bytes as `element`
// is called for. Returns the image, or null.
using img_element_function = void* (*)(void* argument, std::size_t bytes);
img_image* img_cache_image_make(img_file* handle, img_element_function element, void* argument);

// Removes a cached image, given by its base level.
//   Returns  1: the cache has become the owner of the element's memory, which threads may still
//            read, and releases it (ka_mem_release) with the last one. 0: the image is not cached;
//            nothing happens.
//   Threads  any, also in a purge.
int img_cache_image_remove(img_image* image);

// Gives memory back: about `bytes` of pages that no thread holds, and where these are too few, all
// threads, the context's among them, are asked to drop pages with their next access. Takes no lock that another thread
// holds, and allocates nothing.
//   Returns  0.
int img_cache_memory_limit(ImageContext& context, std::int64_t bytes);

// Changes the budget, which starts at 16 MB, by so many bytes.
void img_cache_size_adjust(double delta);

// True for map files that are too large to be mapped, and when the thread has asked for caching.
bool img_cache_prefer(const ImageContext& context, const img_file* handle);

// Bytes of the file of a cached image; 0 for other images.
std::int64_t img_cache_filesize_get(const img_image* image);

// An operation that looks at a cached image more than once: the headers of an image that another
// thread removes meanwhile stay until it ends.
void begin_cache_operation();
void end_cache_operation();

class CacheOperation {
 public:
  explicit CacheOperation(const img_image* image) : counts_(image && is_cached(image)) {
    if (counts_) [[unlikely]]
      begin_cache_operation();
  }
  ~CacheOperation() {
    if (counts_) [[unlikely]]
      end_cache_operation();
  }
  CacheOperation(const CacheOperation&) = delete;
  CacheOperation& operator=(const CacheOperation&) = delete;

 private:
  bool counts_;
};

// set_line for images wherever their planes are. False when the cache does not have them.
inline bool set_line_anywhere(img_line* line, const img_image* image, int y) {
  if (!is_cached(image)) {
    set_line(line, image, y);
    return true;
  }
  *line = {};
  if (image->width == 0) return true;
  const bool is_single = image->components == 1;
  const std::size_t from = is_single ? single_slot(image) : 0;
  const std::size_t to = is_single ? first_slot(image->type) : 0;
  for (std::size_t i = 0; i < std::size_t(image->components); ++i) {
    const void* const plane = ka_img_cache_get(image, line_table(image)[y].offset[from + i]);
    if (!plane) return false;
    set_plane(line, to + i, plane);
  }
  return true;
}

// A sample of line y that is in the image; null when the cache does not have it.
template <typename Sample>
Sample* sample_at(const img_image* image, int x, int y, std::size_t slot) {
  if (!is_cached(image)) [[likely]]
    return plane_in<Sample>(image, y, slot) + x;
  void* const plane = ka_img_cache_get(image, line_table(image)[y].offset[slot]);
  return plane ? static_cast<Sample*>(plane) + x : nullptr;
}

}  // namespace ka
