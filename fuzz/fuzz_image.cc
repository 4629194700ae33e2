// Fuzz target of one family of image formats: opens a file made of the input, reads it line by line
// in the file's own pixel type and as a whole in rgba, closes it whatever happened. FUZZ_FORMATS
// lists the family's formats; of others only the header is read.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <ka/img.h>
#include <ka/mem.h>

#include "images.h"

namespace {

constexpr std::array kFormats = {FUZZ_FORMATS};
constexpr std::int64_t kMostPixels = 1'000'000;  // larger pictures only cost time

bool is_worth_reading(const img_file& file) {
  if (std::ranges::find(kFormats, file.format) == kFormats.end()) return false;
  return file.width <= kMostPixels && file.height <= kMostPixels &&
         std::int64_t{file.width} * file.height <= kMostPixels;
}

// A line that fails does not end the file for a caller who goes on, up to a point.
void read_lines(img_file& file) {
  constexpr int most_failures = 100;
  img_line* const line = ka_img_line_alloc(&file);
  for (int y = 0, failed = 0; y < file.height && failed < most_failures; ++y) {
    failed += ka_img_line_read(&file, line) == 0;
  }
  ka_mem_release(line);
}

void read_image(img_file& file) {
  img_image* const image = ka_img_image_alloc(&file);
  if (image) ka_img_image_read(&file, image);
  ka_img_image_release(image);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = fuzz::start_library();
  const fuzz::MemoryFile input(data, size);
  img_file file{};
  if (ka_img_open(&file, input.name(), IMG_TYPE_FILE) && is_worth_reading(file)) read_lines(file);
  ka_img_close(&file);
  if (ka_img_open(&file, input.name(), IMG_TYPE_RGBA) && is_worth_reading(file)) read_image(file);
  ka_img_close(&file);
  return 0;
}
