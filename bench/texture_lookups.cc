// texture_lookups FOLDER: look-ups in a texture of four times the cache's budget. bench/texture_peer.sh
// runs it beside another texture system.
#include <ka/imgaccess.h>
#include <ka/imgcache.h>
#include <ka/imgelement.h>

#include <cstdlib>
#include <string>

#include "library.h"
#include "lookups.h"

namespace {

bool write(const std::string& path) {
  img_file file{};
  if (!ka_img_create(&file, path.c_str(), IMG_TYPE_RGBA, IMG_FORMAT_MAP, lookups::kSide,
                     lookups::kSide)) {
    return false;
  }
  img_line* const line = ka_img_line_alloc(&file);
  bool written = true;
  for (int y = 0; y < lookups::kSide && written; ++y) {
    for (int c = 0; c < 4; ++c) {
      auto* const plane = static_cast<std::uint8_t*>(ka_img_line_plane(line, c));
      for (int x = 0; x < lookups::kSide; ++x) {
        plane[x] = std::uint8_t(lookups::texel(x, y) >> 8 * c);
      }
    }
    written = ka_img_line_write(&file, line) != 0;
  }
  ka_mem_release(line);
  return ka_img_close(&file) && written;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  start_library();
  const std::string path = std::string(argv[1]) + "/texture.map";
  if (!write(path)) return 1;
  img_file handle{};
  std::string name = path;
  handle.name = name.data();
  handle.type = IMG_TYPE_FILE;
  std::uint32_t tag = 0;
  ka_img_cache_request(3);
  if (!ka_img_placeholder_dbcreate(&handle, &tag, 0)) return 1;
  const auto* const image = static_cast<const img_image*>(ka_job_access(tag));
  if (!image) return 1;
  return lookups::measure(
      "lumora", [image](int x, int y, float color[4]) { ka_img_get_color(image, color, x, y); });
}
