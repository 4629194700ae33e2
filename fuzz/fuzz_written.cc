// Fuzz target of writing: a picture made of the input is written, and comes back from what the
// format keeps. Input: the kind of picture, width and height in two bytes each, then samples, which
// are repeated to the end of the picture; the second kind changes them each time.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <ka/img.h>

#include "images.h"

namespace {

constexpr int kIsRead = -1;

struct Format {
  int format, type;
  int pixel_bytes;  // of a file that cannot be read, or kIsRead
};
constexpr std::array kFormats = {
    Format{IMG_FORMAT_PICTURE, IMG_TYPE_RGB, kIsRead}, Format{IMG_FORMAT_ZPIC, IMG_TYPE_Z, 4},
    Format{IMG_FORMAT_LWI, IMG_TYPE_RGB, 0}, Format{IMG_FORMAT_NULL, IMG_TYPE_RGBA_16, 0}};

constexpr std::size_t kInputHeader = 5;
constexpr int kMostPixels = 300'000;  // larger pictures only cost time
constexpr int kFewPixels = 20'000;    // what is above counts for blocks of pixels, and is rare

struct Release {
  void operator()(img_image* image) const { ka_img_image_release(image); }
};
using Image = std::unique_ptr<img_image, Release>;

std::uint8_t* plane(const img_image* image, int y, std::size_t slot) {
  auto* const start = reinterpret_cast<std::uint8_t*>(const_cast<img_image*>(image));
  const auto* const table = reinterpret_cast<const img_image_line*>(start + sizeof(img_image));
  const std::uint32_t offset = table[y].offset[slot];
  return offset == 0 ? nullptr : start + offset;
}

template <typename Use>
void for_planes(const img_image* image, Use use) {
  const auto bytes = std::size_t(image->width) * std::size_t(image->bits / 8);
  for (int y = 0; y < image->height; ++y) {
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      if (plane(image, y, slot)) use(y, slot, bytes);
    }
  }
}

void paint(img_image* image, const std::uint8_t* samples, std::size_t count, bool changes) {
  std::size_t i = 0;
  std::uint32_t round = 0;
  for_planes(image, [&](int y, std::size_t slot, std::size_t bytes) {
    for (std::size_t x = 0; x < bytes && count > 0; ++x) {
      plane(image, y, slot)[x] =
          static_cast<std::uint8_t>(samples[i] ^ (changes ? round >> 24 : 0));
      if (++i < count) continue;
      i = 0;
      round = round * 1664525 + 1013904223;
    }
  });
}

void expect_same(const img_image* written, const char* name) {
  img_file file{};
  if (!ka_img_open(&file, name, IMG_TYPE_FILE)) std::abort();
  if (file.width != written->width || file.height != written->height) std::abort();
  const Image read(ka_img_image_alloc(&file));
  if (!read || !ka_img_image_read(&file, read.get())) std::abort();
  for_planes(written, [&](int y, std::size_t slot, std::size_t bytes) {
    if (std::memcmp(plane(written, y, slot), plane(read.get(), y, slot), bytes) != 0) std::abort();
  });
  ka_img_close(&file);
}

void write_picture(const Format& format, int width, int height, bool changes,
                   const std::uint8_t* samples, std::size_t count) {
  const fuzz::MemoryFile memory(nullptr, 0);
  img_file file{};
  file.file_type = static_cast<std::uint8_t>(format.type);
  if (!ka_img_create(&file, memory.name(), format.type, format.format, width, height)) std::abort();
  const Image image(ka_img_image_alloc(&file));
  paint(image.get(), samples, count, changes);
  if (!ka_img_image_write(&file, image.get()) || !ka_img_close(&file)) std::abort();
  if (format.pixel_bytes == kIsRead) {
    expect_same(image.get(), memory.name());
  } else if (memory.size() != std::int64_t{width} * height * format.pixel_bytes) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = fuzz::start_library();
  if (size < kInputHeader) return 0;
  const int width = 1 + (data[1] | data[2] << 8), height = 1 + (data[3] | data[4] << 8);
  const std::int64_t pixels = std::int64_t{width} * height;
  if (pixels > kMostPixels || (pixels > kFewPixels && pixels % 512 != 0)) return 0;
  const Format& format = kFormats[data[0] / 2 % kFormats.size()];
  write_picture(format, width, height, data[0] % 2 != 0, data + kInputHeader, size - kInputHeader);
  return 0;
}
