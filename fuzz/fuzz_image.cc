// Fuzz target of one family of image formats: opens a file made of the input, reads it line by line
// in the file's own pixel type, every pixel of its mapping if it can be mapped, and as a whole in
// rgba, closes it whatever happened. FUZZ_FORMATS lists the family's formats; of others only the
// header is read. FUZZ_SIZES lists the file sizes of a format without a header: inputs become files
// of one of them, zero after the input, and only the first lines are read. FUZZ_PIXELS is the size
// of the largest pictures that are read.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <ka/img.h>
#include <ka/imgaccess.h>
#include <ka/mem.h>

#include "images.h"

namespace {

constexpr std::array kFormats = {FUZZ_FORMATS};
#ifndef FUZZ_PIXELS
#define FUZZ_PIXELS 100'000
#endif
constexpr std::int64_t kMostPixels = FUZZ_PIXELS;  // larger pictures only cost time

#ifdef FUZZ_SIZES
constexpr std::array kSizes = {FUZZ_SIZES};
constexpr int kMostLines = 2;

// The input's length says which size it gets.
std::int64_t file_size(std::size_t input) { return kSizes[input % kSizes.size()]; }
#else
constexpr int kMostLines = std::min<int>(kMostPixels, 4'000);
std::int64_t file_size(std::size_t input) { return std::int64_t(input); }
#endif

bool is_worth_reading(const img_file& file) {
  if (std::ranges::find(kFormats, file.format) == kFormats.end()) return false;
  return file.width <= kMostPixels && file.height <= kMostPixels &&
         std::int64_t{file.width} * file.height <= kMostPixels;
}

// A line that fails does not end the file for a caller who goes on, up to a point.
void read_lines(img_file& file) {
  constexpr int most_failures = 10;
  img_line* const line = ka_img_line_alloc(&file);
  const int lines = std::min(file.height, kMostLines);
  for (int y = 0, failed = 0; y < lines && failed < most_failures; ++y) {
    failed += ka_img_line_read(&file, line) == 0;
  }
  ka_mem_release(line);
}

void read_pixels(img_image* image) {
  float color[4];
  for (int y = 0; y < image->height; ++y) {
    for (int x = 0; x < image->width; ++x) ka_img_get_color(image, color, x, y);
  }
}

// Only map files can be mapped.
void read_mapping(img_file& file) {
  img_image* const image = ka_img_mmap_address(&file);
  if (!image) return;
  img_image* level = image;
  for (int k = 0; level; ka_img_pyramid_set_level(&level, image, ++k)) {
    read_pixels(level);
    img_image* below = nullptr;  // the directory of a level leads to those below it
    ka_img_pyramid_set_level(&below, level, 1);
    if (below) read_pixels(below);
  }
  ka_img_image_release(image);
}

void read_image(img_file& file) {
  if (file.height > kMostLines) return read_lines(file);
  img_image* const image = ka_img_image_alloc(&file);
  if (image) ka_img_image_read(&file, image);
  ka_img_image_release(image);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = fuzz::start_library();
  const fuzz::MemoryFile input(data, size, file_size(size));
  img_file file{};
  if (ka_img_open(&file, input.name(), IMG_TYPE_FILE) && is_worth_reading(file)) {
    read_lines(file);
    read_mapping(file);
  }
  ka_img_close(&file);
  if (ka_img_open(&file, input.name(), IMG_TYPE_RGBA) && is_worth_reading(file)) read_image(file);
  ka_img_close(&file);
  return 0;
}
