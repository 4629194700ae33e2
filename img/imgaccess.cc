// Colours of single pixels: clipping, and the way between a colour and the samples of an image.
#include "imgaccess.h"

#include <algorithm>
#include <cmath>

#include <ka/detail/scope.h>
#include <ka/random.h>

namespace {

constexpr float kLargestByte = 255.0F, kLargestWord = 65535.0F, kLargestBit = 1.0F;
constexpr int kFloatBits = 32;

// Images that hold any colour are not clipped.
bool holds_any_color(const img_image* image) {
  return image->bits == kFloatBits || image->type == IMG_TYPE_RGBE;
}

bool needs_gamma(const ImageContext& context, const img_image* image) {
  return context.gamma_active && image->bits < kFloatBits;
}

bool is_within(float value, float limit) { return value >= 0.0F && value <= limit; }

void desaturate(float color[3], float max) {
  for (std::size_t i = 0; i < 3; ++i) {
    if (std::isnan(color[i])) color[i] = 0.0F;
  }
  const float grey = 0.299F * color[0] + 0.587F * color[1] + 0.114F * color[2];
  if (grey < 0.0F) return void(std::fill_n(color, 3, 0.0F));
  if (grey > max) return void(std::fill_n(color, 3, max));
  float share = 1.0F;  // of the distance from grey that stays
  bool changes = false;
  for (std::size_t i = 0; i < 3; ++i) {
    if (is_within(color[i], max)) continue;
    changes = true;
    const float bound = color[i] > max ? max : 0.0F;
    share = std::min(share, (bound - grey) / (color[i] - grey));
  }
  if (!changes) return;
  for (std::size_t i = 0; i < 3; ++i) {
    color[i] = ka::clamp_to(grey + (color[i] - grey) * share, max);
  }
}

void clip(const ImageContext& context, float color[4]) {
  float alpha = color[3] > 0.0F ? color[3] : 0.0F;
  if (context.color_clip == IMG_CLIP_RAISE_ALPHA) {
    for (std::size_t i = 0; i < 3; ++i) alpha = color[i] > alpha ? color[i] : alpha;
  }
  color[3] = ka::clamp_to(alpha, 1.0F);
  const float limit = context.color_clip == IMG_CLIP_TO_ALPHA ? color[3] : 1.0F;
  if (!context.desaturate) {
    for (std::size_t i = 0; i < 3; ++i) color[i] = ka::clamp_to(color[i], limit);
  } else if (!std::all_of(color, color + 3, [limit](float c) { return is_within(c, limit); })) {
    desaturate(color, limit);
  }
}

// Calls `take` with the sample of each component that the image holds, in the order of components.
template <typename Sample, typename Function>
void for_each_sample(const img_image* image, int x, int y, Function take) {
  if (image->components == 1) {
    take(0, ka::plane_in<Sample>(image, y, ka::single_slot(image))[x]);
    return;
  }
  for (std::size_t slot = 0; slot < 3; ++slot) {
    take(slot, ka::plane_in<Sample>(image, y, slot)[x]);
  }
  if (image->components == 4) take(3, ka::plane_in<Sample>(image, y, 3)[x]);
}

template <typename Sample>
void fetch(const img_image* image, int x, int y, float scale, float color[4]) {
  color[3] = 1.0F;
  for_each_sample<Sample>(image, x, y, [=](std::size_t i, Sample sample) {
    color[i] = static_cast<float>(sample) * scale;
  });
  if (image->components == 1) color[1] = color[2] = color[0];
}

void fetch_bit(const img_image* image, int x, int y, float color[4]) {
  const bool is_set = ka::bit_at(ka::plane_in<std::uint8_t>(image, y, ka::single_slot(image)), x);
  std::fill_n(color, 3, is_set ? 1.0F : 0.0F);
  color[3] = 1.0F;
}

void fetch_rgbe(const img_image* image, int x, int y, float color[4]) {
  const auto byte = [=](std::size_t slot) { return ka::plane_in<std::uint8_t>(image, y, slot)[x]; };
  ka_img_hdr_to_rgb(&color[0], &color[1], &color[2], byte(0), byte(1), byte(2), byte(3));
  color[3] = 1.0F;
}

// `offset` of a sample's step is added before rounding.
template <typename Sample>
void store(img_image* image, int x, int y, float largest, float offset, const float color[4]) {
  for_each_sample<Sample>(image, x, y, [=](std::size_t i, Sample& sample) {
    sample = ka::nearest_sample<Sample>(color[i] * largest + offset, largest);
  });
}

void store_bit(img_image* image, int x, int y, float offset, float value) {
  const auto sample = ka::nearest_sample<std::uint8_t>(value * kLargestBit + offset, kLargestBit);
  ka::set_bit_at(ka::plane_in<std::uint8_t>(image, y, ka::single_slot(image)), x, sample != 0);
}

void store_floats(img_image* image, int x, int y, const float color[4]) {
  for_each_sample<float>(image, x, y, [=](std::size_t i, float& sample) { sample = color[i]; });
}

void store_rgbe(img_image* image, int x, int y, const float color[4]) {
  const auto at = [=](std::size_t slot) { return ka::plane_in<std::uint8_t>(image, y, slot) + x; };
  ka_img_rgb_to_hdr(at(0), at(1), at(2), at(3), color[0], color[1], color[2]);
}

// Threads draw from states of their own, so that no number is waited for.
float dither_offset(const ImageContext& context) {
  return context.dither ? ka_taskrandom(ka_thread_get()) - 0.5F : 0.0F;
}

}  // namespace

void img_fetch_color(const ImageContext& context, const img_image* image, int x, int y,
                     float color[4]) {
  if (image->type == IMG_TYPE_RGBE) {
    fetch_rgbe(image, x, y, color);
  } else if (image->bits == 8) {
    fetch<std::uint8_t>(image, x, y, 1.0F / kLargestByte, color);
  } else if (image->bits == 16) {
    fetch<std::uint16_t>(image, x, y, 1.0F / kLargestWord, color);
  } else if (image->bits == kFloatBits) {
    fetch<float>(image, x, y, 1.0F, color);
  } else {
    fetch_bit(image, x, y, color);
  }
  if (context.unpremultiply && color[3] != 0.0F) {
    for (std::size_t i = 0; i < 3; ++i) color[i] *= color[3];
  }
  if (needs_gamma(context, image)) {
    const ka::GammaCurve& curve = img_gamma_tables(context).inverse;
    for (std::size_t i = 0; i < 4; ++i) color[i] = curve.at(color[i]);
  }
}

void img_store_color(const ImageContext& context, img_image* image, const float given[4], int x,
                     int y) {
  float color[4] = {given[0], given[1], given[2], given[3]};
  if (!holds_any_color(image)) clip(context, color);
  if (needs_gamma(context, image)) {
    const ka::GammaCurve& curve = img_gamma_tables(context).gamma;
    for (float& component : color) component = curve.at(component);
  }
  if (context.unpremultiply && color[3] != 0.0F) {
    const float factor = 1.0F / color[3];
    for (std::size_t i = 0; i < 3; ++i) color[i] *= factor;
  }
  if (image->type == IMG_TYPE_RGBE) {
    store_rgbe(image, x, y, color);
  } else if (image->bits == 8) {
    store<std::uint8_t>(image, x, y, kLargestByte, dither_offset(context), color);
  } else if (image->bits == 16) {
    store<std::uint16_t>(image, x, y, kLargestWord, dither_offset(context), color);
  } else if (image->bits == kFloatBits) {
    store_floats(image, x, y, color);
  } else {
    store_bit(image, x, y, dither_offset(context), color[0]);
  }
}

void ka_img_clip_color(const img_image* image, float color[4]) {
  const ka::ModuleScope scope(KA_IMG);
  if (!image || !holds_any_color(image)) clip(img_context(), color);
}

void ka_img_desaturate_rgb(float color[3], float max) {
  const ka::ModuleScope scope(KA_IMG);
  desaturate(color, max);
}

void ka_img_put_color(img_image* image, const float color[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!ka::is_inside(image, x, y) || !img_has_color(image)) return;
  img_store_color(img_context(), image, color, x, y);
}

void ka_img_get_color(const img_image* image, float color[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!color) return;
  if (!ka::is_inside(image, x, y)) return void(std::fill_n(color, 4, 0.0F));
  if (img_has_color(image)) img_fetch_color(img_context(), image, x, y, color);
}

void ka_img_get_color_square(const img_image* image, float color[4][4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!img_has_color(image)) return;
  const ImageContext& context = img_context();
  const ka::Square square = ka::square_at(image, x, y);
  for (std::size_t i = 0; i < 4; ++i) {
    img_fetch_color(context, image, square.x[i], square.y[i], color[i]);
  }
}
