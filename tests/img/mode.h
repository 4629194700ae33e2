// The calling thread's colour pipeline, for the length of a block.
#pragma once

#include <ka/imgaccess.h>

#include <array>

namespace test {

constexpr img_options kPlain = {.desaturate = 0,
                                .dither = 0,
                                .premultiply = 0,
                                .color_clip = IMG_CLIP_EACH,
                                .gamma = 1.0F,
                                .luminance = {0.299F, 0.587F, 0.114F, 0.0F}};

class Mode {
 public:
  explicit Mode(const img_options& options) { ka_img_mode_options(&options); }
  ~Mode() { ka_img_mode_options(&kPlain); }
  Mode(const Mode&) = delete;
  Mode& operator=(const Mode&) = delete;
};

using Color = std::array<float, 4>;

inline void put(img_image* image, int x, int y, const Color& color) {
  ka_img_put_color(image, color.data(), x, y);
}

inline Color get(const img_image* image, int x, int y) {
  Color color;
  color.fill(-7.0F);  // what an operation that does nothing leaves
  ka_img_get_color(image, color.data(), x, y);
  return color;
}

}  // namespace test
