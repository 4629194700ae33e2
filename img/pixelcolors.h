// Colors of single pixels for the rest of the library: with the thread's settings at hand, inside
// the image, and without a place on the module stack.
#pragma once

#include "imageplanes.h"
#include "imgcontext.h"

namespace ka {

// R, G, B and A, worked on at once. Comparing gives a mask for the conditional operator.
using ColorVector = float __attribute__((vector_size(16)));

inline bool is_inside(const img_image* image, int x, int y) {
  return image && x >= 0 && x < image->width && y >= 0 && y < image->height;
}

// The pixel at (x, y) and its neighbours to the right, above, and above to the right; at the last
// column and line, that column and line again.
struct Square {
  std::array<int, 4> x, y;
};
inline Square square_at(const img_image* image, int x, int y) {
  const int right = x + 1 < image->width ? x + 1 : x;
  const int above = y + 1 < image->height ? y + 1 : y;
  return {.x = {x, right, x, right}, .y = {y, y, above, above}};
}

// The bit of pixel x in a plane of bits.
inline bool bit_at(const std::uint8_t* plane, int x) { return (plane[x / 8] >> (x % 8) & 1) != 0; }
inline void set_bit_at(std::uint8_t* plane, int x, bool value) {
  const unsigned mask = 1U << (x % 8);
  plane[x / 8] = std::uint8_t((plane[x / 8] & ~mask) | (value ? mask : 0U));
}

// A value from 0 to `limit`; what is not a number is 0.
inline float clamp_to(float value, float limit) {
  const float low = value > 0.0F ? value : 0.0F;
  return low < limit ? low : limit;
}
inline ColorVector clamp_to(ColorVector value, float limit) {
  const ColorVector low = value > 0.0F ? value : ColorVector{};
  const ColorVector limits = {limit, limit, limit, limit};
  return low < limits ? low : limits;
}

// Images with two components hold no colors.
inline bool img_has_color(const img_image* image) { return image->components != 2; }

ColorVector img_fetch_color(const ImageContext& context, const img_image* image, int x, int y);
void img_store_color(const ImageContext& context, img_image* image, ColorVector color, int x,
                     int y);

}  // namespace ka
