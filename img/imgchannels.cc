// Data of single pixels: scalars, vectors, normals, depths and labels, stored without the settings
// of colours.
#include <algorithm>
#include <cmath>
#include <limits>

#include <ka/detail/scope.h>

#include "imgaccess.h"

namespace {

constexpr float kLargestByte = 255.0F, kLargestWord = 65535.0F, kLargestShort = 32767.0F;

bool has_scalars(const img_image* image) {
  return image->components == 1 || image->components == 4;
}

std::size_t scalar_slot(const img_image* image) {
  return image->components == 1 ? ka::single_slot(image) : 3;
}

float fetch_scalar(const img_image* image, int x, int y) {
  const std::size_t slot = scalar_slot(image);
  switch (image->bits) {
    case 8:
      return static_cast<float>(ka::plane_in<std::uint8_t>(image, y, slot)[x]) / kLargestByte;
    case 16:
      return static_cast<float>(ka::plane_in<std::uint16_t>(image, y, slot)[x]) / kLargestWord;
    case 32:
      return ka::plane_in<float>(image, y, slot)[x];
    default:
      return ka::bit_at(ka::plane_in<std::uint8_t>(image, y, slot), x) ? 1.0F : 0.0F;
  }
}

// What the planes of an image must be for a kind of data; another kind would run over their ends.
bool has_vectors(const img_image* image, int x, int y) {
  return ka::is_inside(image, x, y) && image->components > 1 && image->bits == 16;
}
bool has_normals(const img_image* image, int x, int y) {
  return ka::is_inside(image, x, y) && image->components > 2 && image->bits == 32;
}
bool has_first_plane(const img_image* image, int x, int y) {
  return ka::is_inside(image, x, y) && image->bits == 32 &&
         (image->components > 1 || ka::single_slot(image) == 0);
}

template <typename Sample>
Sample nearest_sample(float value, float largest) {
  return static_cast<Sample>(ka::clamp_to(value * largest, largest) + 0.5F);
}

std::int16_t to_short(float value) {
  const float clamped = std::isnan(value) ? 0.0F : std::clamp(value, -1.0F, 1.0F);
  return static_cast<std::int16_t>(std::floor(clamped * kLargestShort + 0.5F));
}

}  // namespace

void ka_img_put_scalar(img_image* image, float scalar, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!ka::is_inside(image, x, y) || !has_scalars(image)) return;
  const std::size_t slot = scalar_slot(image);
  const auto sample = [scalar]<typename Sample>(Sample& place, float largest) {
    place = nearest_sample<Sample>(scalar, largest);
  };
  switch (image->bits) {
    case 8:
      return sample(ka::plane_in<std::uint8_t>(image, y, slot)[x], kLargestByte);
    case 16:
      return sample(ka::plane_in<std::uint16_t>(image, y, slot)[x], kLargestWord);
    case 32:
      ka::plane_in<float>(image, y, slot)[x] = scalar;
      return;
    default:
      ka::set_bit_at(ka::plane_in<std::uint8_t>(image, y, slot), x, scalar >= 0.5F);
  }
}

void ka_img_get_scalar(const img_image* image, float* scalar, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  *scalar = ka::is_inside(image, x, y) && has_scalars(image) ? fetch_scalar(image, x, y) : 0.0F;
}

void ka_img_get_scalar_square(const img_image* image, float scalar[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (image->components != 1) return;
  const ka::Square square = ka::square_at(image, x, y);
  for (std::size_t i = 0; i < 4; ++i) {
    scalar[i] = fetch_scalar(image, square.x[i], square.y[i]);
  }
}

void ka_img_put_vector(img_image* image, const float vector[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!has_vectors(image, x, y)) return;
  for (std::size_t slot = 0; slot < 2; ++slot) {
    ka::plane_in<std::int16_t>(image, y, slot)[x] = to_short(vector[slot]);
  }
}

void ka_img_get_vector(const img_image* image, float vector[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  std::fill_n(vector, 3, 0.0F);
  if (!has_vectors(image, x, y)) return;
  for (std::size_t slot = 0; slot < 2; ++slot) {
    vector[slot] =
        static_cast<float>(ka::plane_in<std::int16_t>(image, y, slot)[x]) / kLargestShort;
  }
}

void ka_img_put_normal(img_image* image, const float normal[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!has_normals(image, x, y)) return;
  for (std::size_t slot = 0; slot < 3; ++slot) {
    ka::plane_in<float>(image, y, slot)[x] = normal[slot];
  }
}

void ka_img_get_normal(const img_image* image, float normal[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const bool any = has_normals(image, x, y);
  for (std::size_t slot = 0; slot < 3; ++slot) {
    normal[slot] = any ? ka::plane_in<float>(image, y, slot)[x] : 0.0F;
  }
}

void ka_img_put_depth(img_image* image, float depth, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (has_first_plane(image, x, y)) ka::plane_in<float>(image, y, 0)[x] = depth;
}

void ka_img_get_depth(const img_image* image, float* depth, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  *depth = has_first_plane(image, x, y) ? ka::plane_in<float>(image, y, 0)[x]
                                        : std::numeric_limits<float>::max();
}

void ka_img_put_label(img_image* image, std::uint32_t label, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (has_first_plane(image, x, y)) ka::plane_in<std::uint32_t>(image, y, 0)[x] = label;
}

void ka_img_get_label(const img_image* image, std::uint32_t* label, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  *label = has_first_plane(image, x, y) ? ka::plane_in<std::uint32_t>(image, y, 0)[x] : 0;
}
