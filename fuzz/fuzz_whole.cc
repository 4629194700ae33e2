// Fuzz target of a picture's whole way: the input is a file of any format. Its lines are read in
// its own type and in another, then the whole image with its reduced levels; the image is written
// in any format and type, and comes back where the format keeps it. The last three bytes of the
// input also choose the type that is read, and the type and the format that are written: so the
// seeds of all readers are seeds of this target.
#include <cstddef>
#include <cstdint>

#include <ka/img.h>
#include <ka/imgaccess.h>

#include "pictures.h"

namespace {

constexpr std::int64_t kMostPixels = 5'000;  // levels are filtered pixel by pixel
constexpr std::size_t kChoices = 3;

bool is_small(const img_file& file) {
  return file.width <= kMostPixels && file.height <= kMostPixels &&
         std::int64_t{file.width} * file.height <= kMostPixels;
}

void read_lines(const char* name, int type) {
  img_file file{};
  if (ka_img_open(&file, name, type) && is_small(file)) {
    const ka::LineBuffer line(ka_img_line_alloc(&file));
    for (int y = 0; y < file.height; ++y) ka_img_line_read(&file, line.get());
  }
  ka_img_close(&file);
}

// The image with its levels, complete or not. Null when there is none.
ka::ImageBuffer read_image(const char* name) {
  img_file file{};
  ka::ImageBuffer image;
  if (ka_img_open(&file, name, IMG_TYPE_FILE) && is_small(file)) {
    file.pyramid = 1;
    image.reset(ka_img_image_alloc(&file));
    if (image) ka_img_image_read(&file, image.get());
  }
  ka_img_close(&file);
  return image;
}

// One pixel of every line of every level.
void read_levels(img_image* image) {
  img_image* level = image;
  for (int k = 0; level; ka_img_pyramid_set_level(&level, image, ++k)) {
    float color[4];
    for (int y = 0; y < level->height && level->width > 0; ++y) {
      ka_img_get_color(level, color, y % level->width, y);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = fuzz::start_library();
  if (size < kChoices) return 0;
  const std::uint8_t* const choices = data + size - kChoices;
  const fuzz::MemoryFile input(data, size);
  read_lines(input.name(), IMG_TYPE_FILE);
  read_lines(input.name(), choices[0] % IMG_TYPE_COUNT);
  const ka::ImageBuffer image = read_image(input.name());
  if (!image) return 0;
  read_levels(image.get());
  fuzz::write_and_compare(image.get(), choices[2] % IMG_FORMAT_CUSTOM, choices[1] % IMG_TYPE_COUNT);
  return 0;
}
