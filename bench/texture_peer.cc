// texture_peer FOLDER: the look-ups of texture_lookups in OpenImageIO's ImageCache, on the same
// texture as a TIFF file with tiles. Built by bench/texture_peer.sh, which installs that library.
#include <OpenImageIO/imagecache.h>
#include <OpenImageIO/imageio.h>

#include <string>
#include <vector>

#include "lookups.h"

namespace {

bool write(const std::string& path) {
  auto out = OIIO::ImageOutput::create(path);
  OIIO::ImageSpec layout(lookups::kSide, lookups::kSide, 4, OIIO::TypeDesc::UINT8);
  layout.tile_width = layout.tile_height = 64;
  layout.attribute("compression", "none");
  std::vector<std::uint32_t> texels(std::size_t(lookups::kSide) * lookups::kSide);
  for (int y = 0; y < lookups::kSide; ++y) {
    for (int x = 0; x < lookups::kSide; ++x) {
      texels[std::size_t(y) * lookups::kSide + std::size_t(x)] = lookups::texel(x, y);
    }
  }
  return out && out->open(path, layout) && out->write_image(OIIO::TypeDesc::UINT8, texels.data()) &&
         out->close();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string path = std::string(argv[1]) + "/texture.tif";
  if (!write(path)) return 1;
  OIIO::ImageCache* const cache = OIIO::ImageCache::create(false);
  cache->attribute("max_memory_MB", float(lookups::kBudgetMegabytes));
  auto* const thread = cache->get_perthread_info();
  auto* const file = cache->get_image_handle(OIIO::ustring(path), thread);
  return lookups::measure("ImageCache", [=](int x, int y, float color[4]) {
    cache->get_pixels(file, thread, 0, 0, x, x + 1, y, y + 1, 0, 1, OIIO::TypeDesc::FLOAT, color);
  });
}
