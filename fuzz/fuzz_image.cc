// Fuzz target of one family of image formats: opens a file made of the input, reads it line by line
// in the file's own pixel type, every pixel of its mapping if it can be mapped, and as a whole in
// rgba, closes it whatever happened. FUZZ_FORMATS lists the family's formats; of others only the
// header is read. FUZZ_SIZES lists the file sizes of a format without a header: inputs become files
// of one of them, zero after the input, and only the first lines are read, in rgba. FUZZ_PIXELS is the size
// of the largest pictures that are read.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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
constexpr bool kReadsOwnType = false;

// A frame of one of the sizes, zero after the input, whose length says which. Each stays, and has a
// name by which the format is known at once: what it takes to make a file is most of the time.
class Frame {
 public:
  Frame(const std::uint8_t* data, std::size_t size)
      : kept_(kept(size % kSizes.size())),
        used_(std::min(size, std::size_t(kSizes[size % kSizes.size()]))) {
    if (pwrite(kept_.file, data, used_, 0) != static_cast<ssize_t>(used_)) std::abort();
  }
  ~Frame() {
    const std::vector<std::uint8_t> zeros(used_);
    if (pwrite(kept_.file, zeros.data(), used_, 0) != static_cast<ssize_t>(used_)) std::abort();
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  [[nodiscard]] const char* name() const { return kept_.name.c_str(); }

 private:
  struct Kept {
    explicit Kept(std::int64_t size) : file(memfd_create("frame", 0)) {
      const std::string process = std::to_string(getpid());
      name = "/tmp/fuzz_frame_" + process + "_" + std::to_string(size) + ".qnt";
      const std::string target = "/proc/" + process + "/fd/" + std::to_string(file);
      if (file < 0 || ftruncate(file, size) != 0) std::abort();
      if (symlink(target.c_str(), name.c_str()) != 0) std::abort();
    }
    ~Kept() { unlink(name.c_str()); }

    int file;
    std::string name;
  };
  static const Kept& kept(std::size_t index) {
    static const std::array<Kept, kSizes.size()> frames{Kept(kSizes[0]), Kept(kSizes[1])};
    return frames[index];
  }

  const Kept& kept_;
  std::size_t used_;
};
using Input = Frame;
#else
constexpr bool kReadsOwnType = true;
constexpr int kMostLines = std::min<int>(kMostPixels, 4'000);
using Input = fuzz::MemoryFile;
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

void read_entry(void* /*context*/, const char* name, const char* value) {
  if (std::strlen(name) == 0 || std::strlen(value) >= 65536) std::abort();
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
  const Input input(data, size);
  img_file file{};
  if (kReadsOwnType && ka_img_open(&file, input.name(), IMG_TYPE_FILE) && is_worth_reading(file)) {
    read_lines(file);
    read_mapping(file);
  }
  ka_img_close(&file);
  if (ka_img_open(&file, input.name(), IMG_TYPE_RGBA) && is_worth_reading(file)) {
    ka_img_header(&file, read_entry, nullptr);
    read_image(file);
    ka_img_header(&file, read_entry, nullptr);
  }
  ka_img_close(&file);
  return 0;
}
