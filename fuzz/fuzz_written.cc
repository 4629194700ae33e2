// Fuzz target of writing: a picture made of the input is written in any format and type, and comes
// back where the format keeps it. Input: format, type, width and height in two bytes each, then
// samples, which are repeated to the end of the picture; an odd type changes them each time.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <ka/img.h>
#include <ka/imgload.h>

#include "pictures.h"

namespace {

constexpr std::size_t kInputHeader = 6;
#ifdef FUZZ_SEARCH  // larger pictures only cost time, and so do frames, whose size is fixed
constexpr int kMostPixels = 1'000;
constexpr bool kWritesFrames = false;
#else  // seeds have blocks of pixels
constexpr int kMostPixels = 300'000;
constexpr bool kWritesFrames = true;
#endif

bool is_worth_writing(int format, std::int64_t pixels) {
  const bool is_frame = format == IMG_FORMAT_QNTPAL || format == IMG_FORMAT_QNTNTSC;
  return pixels <= kMostPixels && (kWritesFrames || !is_frame);
}

// Fills the planes one after the other.
class Paint {
 public:
  Paint(const std::uint8_t* samples, std::size_t count, bool changes)
      : samples_(samples), count_(count), changes_(changes) {}

  void fill(std::uint8_t* plane, std::size_t bytes) {
    while (bytes > 0 && count_ > 0) {
      const std::size_t part = std::min(bytes, count_ - next_);
      const auto mask = static_cast<std::uint8_t>(changes_ ? round_ >> 24 : 0);
      for (std::size_t i = 0; i < part; ++i) plane[i] = samples_[next_ + i] ^ mask;
      plane += part;
      bytes -= part;
      next_ = (next_ + part) % count_;
      if (next_ == 0) round_ = round_ * 1664525 + 1013904223;
    }
  }

 private:
  const std::uint8_t* samples_;
  std::size_t count_, next_ = 0;
  bool changes_;
  std::uint32_t round_ = 0;
};

ka::ImageBuffer make_picture(int type, int width, int height, Paint paint) {
  img_file shape{};
  shape.type = type;
  shape.width = width;
  shape.height = height;
  ka::ImageBuffer image(ka_img_image_alloc(&shape));
  if (!image) std::abort();
  for (int y = 0; y < height; ++y) {
    for (int component = 0; component < image->components; ++component) {
      auto* const plane = static_cast<std::uint8_t*>(ka_img_plane(image.get(), y, component));
      paint.fill(plane, fuzz::plane_bytes(type, width));
    }
  }
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = fuzz::start_library();
  if (size < kInputHeader) return 0;
  const int format = data[0] % IMG_FORMAT_CUSTOM, type = data[1] / 2 % IMG_TYPE_COUNT;
  const int width = 1 + (data[2] | data[3] << 8), height = 1 + (data[4] | data[5] << 8);
  if (!is_worth_writing(format, std::int64_t{width} * height)) return 0;
  const Paint paint(data + kInputHeader, size - kInputHeader, data[1] % 2 != 0);
  const ka::ImageBuffer image = make_picture(type, width, height, paint);
  if (!fuzz::write_and_compare(image.get(), format, type)) std::abort();
  return 0;
}
