// Colours of single pixels: clipping, and the way between a colour and the samples of an image.
#include "imgaccess.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <ka/detail/scope.h>
#include <ka/random.h>

using ka::Color;

namespace {

using Samples = std::int32_t __attribute__((vector_size(16)));  // of R, G, B and A

constexpr float kLargestByte = 255.0F, kLargestWord = 65535.0F, kLargestBit = 1.0F;
constexpr int kFloatBits = 32;

Color gathered(const float color[4]) { return Color{color[0], color[1], color[2], color[3]}; }

void spread(Color from, float color[4]) {
  for (int i = 0; i < 4; ++i) color[i] = from[i];
}

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

Color clip(const ImageContext& context, Color color) {
  const Color positive = color > 0.0F ? color : Color{};
  float alpha = positive[3];
  if (context.color_clip == IMG_CLIP_RAISE_ALPHA) {
    for (int i = 0; i < 3; ++i) alpha = std::max(alpha, positive[i]);
  }
  alpha = std::min(alpha, 1.0F);
  const float limit = context.color_clip == IMG_CLIP_TO_ALPHA ? alpha : 1.0F;
  if (!context.desaturate) {
    color = ka::clamp_to(positive, limit);
  } else if (!is_within(color[0], limit) || !is_within(color[1], limit) ||
             !is_within(color[2], limit)) {
    std::array<float, 3> rgb = {color[0], color[1], color[2]};
    desaturate(rgb.data(), limit);
    color = Color{rgb[0], rgb[1], rgb[2]};
  }
  color[3] = alpha;
  return color;
}

// Where the components of one pixel stand. Offsets are copied once: a byte that is stored could be
// any of them.
template <typename Sample>
class Pixel {
 public:
  Pixel(const img_image* image, int x, int y)
      : image_(image), line_(ka::line_table(image)[y]), x_(x), components_(image->components) {}

  [[nodiscard]] int components() const { return components_; }
  [[nodiscard]] Sample& single() const { return at(ka::single_slot(image_)); }
  [[nodiscard]] Sample& at(std::size_t slot) const {
    return ka::plane_at<Sample>(image_, line_.offset[slot])[x_];
  }

 private:
  const img_image* image_;
  img_image_line line_;
  int x_, components_;
};

template <typename Sample>
Color fetch(const Pixel<Sample>& pixel, float scale) {
  if (pixel.components() == 1) {
    const float value = static_cast<float>(pixel.single()) * scale;
    return Color{value, value, value, 1.0F};
  }
  const auto value = [&](std::size_t slot) { return static_cast<float>(pixel.at(slot)) * scale; };
  return Color{value(0), value(1), value(2), pixel.components() == 4 ? value(3) : 1.0F};
}

Color fetch_bit(const img_image* image, int x, int y) {
  const bool is_set = ka::bit_at(ka::plane_in<std::uint8_t>(image, y, ka::single_slot(image)), x);
  const float value = is_set ? 1.0F : 0.0F;
  return Color{value, value, value, 1.0F};
}

Color fetch_rgbe(const Pixel<std::uint8_t>& pixel) {
  float r, g, b;
  ka_img_hdr_to_rgb(&r, &g, &b, pixel.at(0), pixel.at(1), pixel.at(2), pixel.at(3));
  return Color{r, g, b, 1.0F};
}

// Samples of a vector's type, floats or the integers that samples are cut to.
template <typename Sample, typename Values>
void store(const Pixel<Sample>& pixel, Values values) {
  const auto sample = [values](int i) { return static_cast<Sample>(values[i]); };
  if (pixel.components() == 1) {
    pixel.single() = sample(0);
    return;
  }
  pixel.at(0) = sample(0);
  pixel.at(1) = sample(1);
  pixel.at(2) = sample(2);
  if (pixel.components() == 4) pixel.at(3) = sample(3);
}

void store_bit(img_image* image, int x, int y, bool value) {
  ka::set_bit_at(ka::plane_in<std::uint8_t>(image, y, ka::single_slot(image)), x, value);
}

void store_rgbe(const Pixel<std::uint8_t>& pixel, Color color) {
  ka_img_rgb_to_hdr(&pixel.at(0), &pixel.at(1), &pixel.at(2), &pixel.at(3), color[0], color[1],
                    color[2]);
}

// Threads draw from states of their own, so that no number is waited for.
float dither_offset(const ImageContext& context) {
  return context.dither ? ka_taskrandom(ka_thread_get()) - 0.5F : 0.0F;
}

// The samples from 0 to `largest` that are nearest to a colour, after a random offset.
Samples nearest(const ImageContext& context, Color color, float largest) {
  return __builtin_convertvector(
      ka::clamp_to(color * largest + dither_offset(context), largest) + 0.5F, Samples);
}

Color through(const ka::GammaCurve& curve, Color color) {
  return Color{curve.at(color[0]), curve.at(color[1]), curve.at(color[2]), curve.at(color[3])};
}

// R, G and B times a factor.
Color scaled(Color color, float factor) { return color * Color{factor, factor, factor, 1.0F}; }

Color fetch_samples(const img_image* image, int x, int y) {
  if (image->type == IMG_TYPE_RGBE) return fetch_rgbe({image, x, y});
  switch (image->bits) {
    case 8:
      return fetch<std::uint8_t>({image, x, y}, 1.0F / kLargestByte);
    case 16:
      return fetch<std::uint16_t>({image, x, y}, 1.0F / kLargestWord);
    case kFloatBits:
      return fetch<float>({image, x, y}, 1.0F);
    default:
      return fetch_bit(image, x, y);
  }
}

}  // namespace

Color img_fetch_color(const ImageContext& context, const img_image* image, int x, int y) {
  Color color = fetch_samples(image, x, y);
  if (context.unpremultiply && color[3] != 0.0F) color = scaled(color, color[3]);
  if (needs_gamma(context, image)) color = through(img_gamma_tables(context).inverse, color);
  return color;
}

void img_store_color(const ImageContext& context, img_image* image, Color color, int x, int y) {
  if (!holds_any_color(image)) color = clip(context, color);
  if (needs_gamma(context, image)) color = through(img_gamma_tables(context).gamma, color);
  if (context.unpremultiply && color[3] != 0.0F) color = scaled(color, 1.0F / color[3]);
  if (image->type == IMG_TYPE_RGBE) return store_rgbe({image, x, y}, color);
  switch (image->bits) {
    case 8:
      return store<std::uint8_t>({image, x, y}, nearest(context, color, kLargestByte));
    case 16:
      return store<std::uint16_t>({image, x, y}, nearest(context, color, kLargestWord));
    case kFloatBits:
      return store<float>({image, x, y}, color);
    default:
      return store_bit(image, x, y, nearest(context, color, kLargestBit)[0] != 0);
  }
}

void ka_img_clip_color(const img_image* image, float color[4]) {
  const ka::ModuleScope scope(KA_IMG);
  if (!image || !holds_any_color(image)) spread(clip(img_context(), gathered(color)), color);
}

void ka_img_desaturate_rgb(float color[3], float max) {
  const ka::ModuleScope scope(KA_IMG);
  desaturate(color, max);
}

void ka_img_put_color(img_image* image, const float color[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!ka::is_inside(image, x, y) || !img_has_color(image)) return;
  img_store_color(img_context(), image, gathered(color), x, y);
}

void ka_img_get_color(const img_image* image, float color[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!color) return;
  if (!ka::is_inside(image, x, y)) return void(std::fill_n(color, 4, 0.0F));
  if (img_has_color(image)) spread(img_fetch_color(img_context(), image, x, y), color);
}

void ka_img_get_color_square(const img_image* image, float color[4][4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  if (!img_has_color(image)) return;
  const ImageContext& context = img_context();
  const ka::Square square = ka::square_at(image, x, y);
  for (std::size_t i = 0; i < 4; ++i) {
    spread(img_fetch_color(context, image, square.x[i], square.y[i]), color[i]);
  }
}
