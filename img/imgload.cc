// A file as an image in one call, planes by component.
#include <ka/imgload.h>

#include <memory>

#include <ka/detail/scope.h>

#include "imageplanes.h"
#include "imgcall.h"

namespace {

struct ReleaseImage {
  void operator()(img_image* image) const { ka_img_image_release(image); }
};

// Null when the image is not whole.
img_image* read_whole(img_file* handle) {
  if (ka::img_fails_at_once(handle)) return nullptr;
  std::unique_ptr<img_image, ReleaseImage> image(ka_img_image_alloc(handle));
  if (!image || !ka_img_image_read(handle, image.get())) return nullptr;
  return image.release();
}

}  // namespace

img_image* ka_img_load(const char* name, int type) {
  const ka::ModuleScope scope(KA_IMG);
  img_file handle{};
  img_image* const image = ka_img_open(&handle, name, type) ? read_whole(&handle) : nullptr;
  if (!image) ka_img_err_msg(&handle);
  ka_img_close(&handle);
  return image;
}

void* ka_img_plane(const img_image* image, int y, int component) {
  if (ka::is_cached(image) || y < 0 || y >= image->height) return nullptr;
  if (component < 0 || component >= image->components) return nullptr;
  const bool is_single = image->components == 1;
  return ka::image_plane(image, y, is_single ? ka::single_slot(image) : std::size_t(component));
}
