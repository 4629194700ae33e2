// Memory-mapped texture files as images: mapping them, and the registry that says which images are
// in a mapping.
#pragma once

#include <ka/img.h>

#include <cstddef>
#include <cstdint>

#include "mapfile.h"
#include "stream.h"

namespace ka {

// Owner of the mapping of a whole file.
class Mapping {
 public:
  Mapping() = default;
  ~Mapping() { unmap(); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  // Maps the first `bytes` bytes of a file where the system likes them, at `hint` if it can. Before:
  // nothing is mapped. Returns 0, or the system's error number.
  int map(int file, std::size_t bytes, bool writing, void* hint);
  int unmap();                         // the same; nothing happens without a mapping
  void let_go() { start_ = nullptr; }  // the mapping belongs to the caller from now on

  [[nodiscard]] std::uint8_t* start() const { return start_; }  // null: not mapped
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  [[nodiscard]] img_image* image() const {
    return reinterpret_cast<img_image*>(start_ + kMapImageOffset);
  }

 private:
  std::uint8_t* start_ = nullptr;
  std::size_t bytes_ = 0;
};

// The driver's state. Lines are read with the readers: a file that another program shortens is an
// error then, while touching its mapping ends the process.
struct MapState {
  MapHead head;
  Mapping mapping;
  FileReader tables, planes;
};

// Make and delete the registry of mapped images. Images that are mapped at the end stay so.
void img_init_map();
void img_fini_map();

// Maps the file of a handle, for writing at its final size handle->file_size with all its blocks
// reserved: touching the mapping fails no more. Makes the driver's state if there is none.
//   Returns  1, or 0 with the handle's error.
int img_mmap_map(img_file* handle, bool writing);

// The image in the mapping of a file that is open for reading; it is in the registry from then on
// and belongs to the caller.
//   Returns  null for other formats; after error message 5 when the file is not open for reading or
//            could not be mapped, which is the handle's error as well; after warnings 3 to 5 when it
//            cannot be used unchanged; with the handle's error when it contradicts itself. Lines can
//            be read in every case.
img_image* img_address_map(img_file* handle);

// Adds a file that is open for reading to the texture cache, which closes the handle. The element
// is made at `*tag`, or anew if that is 0, and its tag stored there.
//   Returns  the tag; 0 for other formats, after warnings 7 and 8, and when the cache refuses.
std::uint32_t img_cache_map(img_file* handle, std::uint32_t* tag);

// Unmaps an image.
//   Returns  1; 0 when the image is not in a mapping, or after a message when the system failed.
int img_munmap_map(img_image* image);
bool img_is_mapped(const img_image* image);

}  // namespace ka
