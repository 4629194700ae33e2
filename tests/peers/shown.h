// Pictures that are shown to programs of others.
#pragma once

#include <algorithm>
#include <random>
#include <string>

#include "support.h"

namespace test {

// Runs of equal pixels and others, so that rows are packed in both ways.
inline Image runs_picture(int type, int width, int height) {
  Image image = make_image(type, width, height);
  const std::size_t size = std::size_t(ka_img_nbits[type]) / 8;
  std::mt19937 random(1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width;) {
      const int end = std::min(width, x + 1 + int(random() % 3 == 0 ? random() % 200 : 0));
      const auto seed = random();
      for (; x < end; ++x) {
        for (std::size_t slot = 0; slot < std::size_t(ka_img_ncomp[type]); ++slot) {
          for (std::size_t i = 0; i < size; ++i) {
            plane(image.get(), y, slot)[std::size_t(x) * size + i] =
                std::uint8_t(seed >> (3 * slot + 8 * i));
          }
        }
      }
    }
  }
  return image;
}

// The picture as rows of samples, the top line first.
inline std::string samples_of(const img_image* image, std::size_t components, bool is_big) {
  const std::size_t size = std::size_t(image->bits) / 8;
  std::string samples;
  for (int y = image->height - 1; y >= 0; --y) {
    for (std::size_t x = 0; x < std::size_t(image->width); ++x) {
      for (std::size_t slot = 0; slot < components; ++slot) {
        const auto* const sample = plane(image, y, slot) + x * size;
        for (std::size_t i = 0; i < size; ++i) {
          samples += char(sample[is_big ? size - 1 - i : i]);
        }
      }
    }
  }
  return samples;
}

}  // namespace test
