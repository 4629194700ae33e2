// Data of single pixels: scalars, vectors, normals, depths and labels, stored without the settings
// of colors.
#include <algorithm>
#include <cmath>
#include <limits>

#include <ka/detail/scope.h>

#include "pixelcolors.h"
#include "texturecache.h"

namespace {

constexpr float kLargestByte = 255.0F, kLargestWord = 65535.0F, kLargestShort = 32767.0F;

bool has_scalars(const img_image* image) {
  return image->components == 1 || image->components == 4;
}

std::size_t scalar_slot(const img_image* image) {
  return image->components == 1 ? ka::single_slot(image) : 3;
}

template <typename Sample>
float scalar_at(const img_image* image, int x, int y, float largest) {
  const auto* const sample = ka::sample_at<Sample>(image, x, y, scalar_slot(image));
  return sample ? float(*sample) / largest : 0.0F;
}

float bit_scalar(const img_image* image, int x, int y) {
  const auto* const plane = ka::sample_at<std::uint8_t>(image, 0, y, scalar_slot(image));
  return plane && ka::bit_at(plane, x) ? 1.0F : 0.0F;
}

float fetch_scalar(const img_image* image, int x, int y) {
  switch (image->bits) {
    case 8:
      return scalar_at<std::uint8_t>(image, x, y, kLargestByte);
    case 16:
      return scalar_at<std::uint16_t>(image, x, y, kLargestWord);
    case 32:
      return scalar_at<float>(image, x, y, 1.0F);
    default:
      return bit_scalar(image, x, y);
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

template <typename Sample>
void put(const img_image* image, int x, int y, std::size_t slot, Sample value) {
  if (auto* const place = ka::sample_at<Sample>(image, x, y, slot)) *place = value;
}

// The first plane's sample.
template <typename Sample>
Sample first_or(Sample otherwise, const img_image* image, int x, int y) {
  if (!has_first_plane(image, x, y)) return otherwise;
  const auto* const place = ka::sample_at<Sample>(image, x, y, 0);
  return place ? *place : otherwise;
}

// The first `Count` planes' samples as numbers; all 0 when one of them is out of reach.
template <typename Sample, std::size_t Count>
void get(const img_image* image, int x, int y, float values[3]) {
  for (std::size_t slot = 0; slot < Count; ++slot) {
    const auto* const place = ka::sample_at<Sample>(image, x, y, slot);
    if (!place) return void(std::fill_n(values, 3, 0.0F));
    values[slot] = float(*place);
  }
}

std::int16_t to_short(float value) {
  const float clamped = std::isnan(value) ? 0.0F : std::clamp(value, -1.0F, 1.0F);
  return std::int16_t(std::floor(clamped * kLargestShort + 0.5F));
}

}  // namespace

void ka_img_put_scalar(img_image* image, float scalar, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!ka::is_inside(image, x, y) || !has_scalars(image)) return;
  const std::size_t slot = scalar_slot(image);
  switch (image->bits) {
    case 8:
      return put(image, x, y, slot, nearest_sample<std::uint8_t>(scalar, kLargestByte));
    case 16:
      return put(image, x, y, slot, nearest_sample<std::uint16_t>(scalar, kLargestWord));
    case 32:
      return put(image, x, y, slot, scalar);
    default:
      if (auto* const plane = ka::sample_at<std::uint8_t>(image, 0, y, slot)) {
        ka::set_bit_at(plane, x, scalar >= 0.5F);
      }
  }
}

void ka_img_get_scalar(const img_image* image, float* scalar, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  *scalar = ka::is_inside(image, x, y) && has_scalars(image) ? fetch_scalar(image, x, y) : 0.0F;
}

void ka_img_get_scalar_square(const img_image* image, float scalar[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (image->components != 1) return;
  const ka::Square square = ka::square_at(image, x, y);
  for (std::size_t i = 0; i < 4; ++i) {
    scalar[i] = fetch_scalar(image, square.x[i], square.y[i]);
  }
}

void ka_img_put_vector(img_image* image, const float vector[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!has_vectors(image, x, y)) return;
  for (std::size_t slot = 0; slot < 2; ++slot) put(image, x, y, slot, to_short(vector[slot]));
}

void ka_img_get_vector(const img_image* image, float vector[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  std::fill_n(vector, 3, 0.0F);
  if (!has_vectors(image, x, y)) return;
  get<std::int16_t, 2>(image, x, y, vector);
  for (std::size_t slot = 0; slot < 2; ++slot) vector[slot] /= kLargestShort;
}

void ka_img_put_normal(img_image* image, const float normal[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!has_normals(image, x, y)) return;
  for (std::size_t slot = 0; slot < 3; ++slot) put(image, x, y, slot, normal[slot]);
}

void ka_img_get_normal(const img_image* image, float normal[3], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  std::fill_n(normal, 3, 0.0F);
  if (has_normals(image, x, y)) get<float, 3>(image, x, y, normal);
}

void ka_img_put_depth(img_image* image, float depth, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (has_first_plane(image, x, y)) put(image, x, y, 0, depth);
}

void ka_img_get_depth(const img_image* image, float* depth, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  *depth = first_or(std::numeric_limits<float>::max(), image, x, y);
}

void ka_img_put_label(img_image* image, std::uint32_t label, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (has_first_plane(image, x, y)) put(image, x, y, 0, label);
}

void ka_img_get_label(const img_image* image, std::uint32_t* label, int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  *label = first_or(std::uint32_t{0}, image, x, y);
}
