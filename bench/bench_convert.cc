// Conversions between pixel types: one line after the other of a whole picture, and one line that
// stays in the cache. A copy beside them moves as many bytes.
#include <benchmark/benchmark.h>
#include <ka/imgowner.h>
#include <ka/mem.h>

#include <memory>
#include <string>

#include "benchmarks.h"
#include "imageplanes.h"
#include "imgcall.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

constexpr float kWeights[4] = {0.299F, 0.587F, 0.114F, 0.0F};

using Image = std::shared_ptr<img_image>;

Image new_image(int type, int height) {
  img_file shape{};
  shape.width = kWidth;
  shape.height = height;
  shape.type = type;
  return {ka_img_image_alloc(&shape), ka::ReleaseImage()};
}

void convert(img_image* to, const img_image* from) {
  for (int y = 0; y < from->height; ++y) {
    img_line source, destination;
    ka::set_line(&source, from, y);
    ka::set_line(&destination, to, y);
    ka::img_convert(&destination, &source, to->type, from->type, kWeights, from->width);
  }
}

// Noise in any type that colors become.
Image noise(int type, int height) {
  Image bytes = new_image(IMG_TYPE_RGBA, height);
  for (int y = 0; y < height; ++y) {
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      fill_noise({ka::image_plane(bytes.get(), y, slot), std::size_t(kWidth)});
    }
  }
  if (type == IMG_TYPE_RGBA) return bytes;
  Image image = new_image(type, height);
  convert(image.get(), bytes.get());
  return image;
}

std::size_t plane_bytes(int type) {
  const int bits = ka_img_nbits[type] * ka_img_ncomp[type];
  return std::size_t(kWidth) * std::size_t(bits) / 8;
}

void add_pair(int from_type, int to_type, int height) {
  const std::size_t moved = plane_bytes(from_type) + plane_bytes(to_type);
  const std::string name = std::string("convert/") + ka_img_type_name(from_type) + "_to_" +
                           ka_img_type_name(to_type) + (height == 1 ? "/line" : "/picture");
  // A copy reads and writes each of its bytes.
  add(name, moved * std::size_t(height) / 2, [=, from = Image(), to = Image()]() mutable {
    if (!from) {  // made on first use
      from = noise(from_type, height);
      to = new_image(to_type, height);
    }
    convert(to.get(), from.get());
    benchmark::DoNotOptimize(to.get());
    benchmark::ClobberMemory();
  });
}

}  // namespace

void add_convert_benchmarks() {
  struct Pair {
    int from, to;
  };
  constexpr Pair kPairs[] = {{IMG_TYPE_RGB, IMG_TYPE_RGBA},
                             {IMG_TYPE_RGBA_16, IMG_TYPE_RGBA},
                             {IMG_TYPE_RGBA, IMG_TYPE_RGBA_16},
                             {IMG_TYPE_RGBA_FP, IMG_TYPE_RGBA},
                             {IMG_TYPE_RGBA, IMG_TYPE_RGBA_FP},
                             {IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP},
                             {IMG_TYPE_RGBA_FP, IMG_TYPE_RGBA_16},
                             {IMG_TYPE_RGB, IMG_TYPE_S},
                             {IMG_TYPE_RGB_16, IMG_TYPE_S_16},
                             {IMG_TYPE_RGB_FP, IMG_TYPE_S},
                             {IMG_TYPE_RGB_FP, IMG_TYPE_S_FP},
                             {IMG_TYPE_RGBE, IMG_TYPE_RGBA},
                             {IMG_TYPE_RGB_FP, IMG_TYPE_RGBE},
                             {IMG_TYPE_BIT, IMG_TYPE_RGBA},
                             {IMG_TYPE_S, IMG_TYPE_BIT}};
  for (const Pair& pair : kPairs) {
    for (const int height : {1, kHeight}) add_pair(pair.from, pair.to, height);
  }
}

}  // namespace bench
