// The calling thread's color pipeline, for the length of a block.
#pragma once

#include <ka/imgaccess.h>

#include <array>

namespace test {

// Nothing but clipping, unless something is said.
struct Settings {
  int desaturate = 0, dither = 0, premultiply = 0;
  int color_clip = IMG_CLIP_EACH;
  float gamma = 1;
  float red = 0.299F;  // weight in the luminance
};

class Mode {
 public:
  explicit Mode(const Settings& settings) { set(settings); }
  ~Mode() { set({}); }
  Mode(const Mode&) = delete;
  Mode& operator=(const Mode&) = delete;

  static void set(const Settings& s) {
    const img_options options = {.desaturate = s.desaturate,
                                 .dither = s.dither,
                                 .premultiply = s.premultiply,
                                 .color_clip = s.color_clip,
                                 .gamma = s.gamma,
                                 .luminance = {s.red, 0.587F, 0.114F, 0.0F}};
    ka_img_mode_options(&options);
  }
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
