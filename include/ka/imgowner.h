/* Owners of images and lines, for programs in C++ only. */
#pragma once

#include <ka/img.h>
#include <ka/mem.h>

#ifdef __cplusplus
#include <memory>

namespace ka {

struct ReleaseImage {
  void operator()(img_image* image) const { ka_img_image_release(image); }
};
struct ReleaseLine {
  void operator()(img_line* line) const { ka_mem_release(line); }
};

/* What ka_img_image_alloc, ka_img_mmap_address and ka_img_line_alloc give. */
using ImageBuffer = std::unique_ptr<img_image, ReleaseImage>;
using LineBuffer = std::unique_ptr<img_line, ReleaseLine>;

}  // namespace ka
#endif
