// Colors of single pixels: clipping, and the way between a color and the samples of an image.
#include "pixelcolors.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <ka/detail/scope.h>
#include <ka/random.h>

#include "texturecache.h"

using ka::ColorVector;

namespace {

using Samples = std::int32_t __attribute__((vector_size(16)));  // of R, G, B and A

constexpr float kLargestByte = 255.0F, kLargestWord = 65535.0F, kLargestBit = 1.0F;
constexpr int kFloatBits = 32;

ColorVector gathered(const float color[4]) {
  return ColorVector{color[0], color[1], color[2], color[3]};
}

void spread(ColorVector from, float color[4]) {
  for (int i = 0; i < 4; ++i) color[i] = from[i];
}

// Images that hold any color are not clipped.
bool holds_any_color(const img_image* image) {
  return image->bits == kFloatBits || image->type == IMG_TYPE_RGBE;
}

bool needs_gamma(const ka::ImageContext& context, const img_image* image) {
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

ColorVector clip(const ka::ImageContext& context, ColorVector color) {
  const ColorVector positive = color > 0.0F ? color : ColorVector{};
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
    color = ColorVector{rgb[0], rgb[1], rgb[2]};
  }
  color[3] = alpha;
  return color;
}

// Where the components of one pixel are. Offsets are copied once: a byte that is stored could be
// any of them.
template <typename Sample>
class Pixel {
 public:
  Pixel(const img_image* image, int x, int y)
      : image_(image), line_(ka::line_table(image)[y]), x_(x), components_(image->components) {}

  explicit constexpr operator bool() const { return true; }
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

// The same in an image whose planes the texture cache holds; false when it does not have them.
template <typename Sample>
class CachedPixel {
 public:
  CachedPixel(const img_image* image, int x, int y) : components_(image->components) {
    const std::size_t first = components_ == 1 ? ka::single_slot(image) : 0;
    for (std::size_t i = 0; i < std::size_t(components_); ++i) {
      samples_[i] = ka::sample_at<Sample>(image, x, y, first + i);
      if (!samples_[i]) return;
    }
    is_there_ = true;
  }

  explicit operator bool() const { return is_there_; }
  [[nodiscard]] int components() const { return components_; }
  [[nodiscard]] Sample& single() const { return *samples_[0]; }
  [[nodiscard]] Sample& at(std::size_t slot) const { return *samples_[slot]; }

 private:
  std::array<Sample*, IMG_SLOTS> samples_{};
  int components_;
  bool is_there_ = false;
};

template <typename Sample, template <typename> class Where>
ColorVector fetch(const Where<Sample>& pixel, float scale) {
  if (!pixel) return ColorVector{};
  if (pixel.components() == 1) {
    const float value = float(pixel.single()) * scale;
    return ColorVector{value, value, value, 1.0F};
  }
  const auto value = [&](std::size_t slot) { return float(pixel.at(slot)) * scale; };
  return ColorVector{value(0), value(1), value(2), pixel.components() == 4 ? value(3) : 1.0F};
}

// Bits have their plane addressed from its first byte on.
template <template <typename> class Where>
ColorVector fetch_bit(const Where<std::uint8_t>& plane, int x) {
  if (!plane) return ColorVector{};
  const float value = ka::bit_at(&plane.single(), x) ? 1.0F : 0.0F;
  return ColorVector{value, value, value, 1.0F};
}

template <template <typename> class Where>
ColorVector fetch_rgbe(const Where<std::uint8_t>& pixel) {
  if (!pixel) return ColorVector{};
  float r, g, b;
  ka_img_hdr_to_rgb(&r, &g, &b, pixel.at(0), pixel.at(1), pixel.at(2), pixel.at(3));
  return ColorVector{r, g, b, 1.0F};
}

// Samples of a vector's type, floats or the integers that samples are cut to.
template <typename Sample, template <typename> class Where, typename Values>
void store(const Where<Sample>& pixel, Values values) {
  if (!pixel) return;
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

template <template <typename> class Where>
void store_bit(const Where<std::uint8_t>& plane, int x, bool value) {
  if (plane) ka::set_bit_at(&plane.single(), x, value);
}

template <template <typename> class Where>
void store_rgbe(const Where<std::uint8_t>& pixel, ColorVector color) {
  if (!pixel) return;
  ka_img_rgb_to_hdr(&pixel.at(0), &pixel.at(1), &pixel.at(2), &pixel.at(3), color[0], color[1],
                    color[2]);
}

// Threads draw from states of their own, so that no number is waited for.
float dither_offset(const ka::ImageContext& context) {
  return context.dither ? ka_taskrandom(ka_thread_get()) - 0.5F : 0.0F;
}

// The samples from 0 to `largest` that are nearest to a color, after a random offset.
Samples nearest(const ka::ImageContext& context, ColorVector color, float largest) {
  return __builtin_convertvector(
      ka::clamp_to(color * largest + dither_offset(context), largest) + 0.5F, Samples);
}

ColorVector through(const ka::GammaCurve& curve, ColorVector color) {
  return ColorVector{curve.at(color[0]), curve.at(color[1]), curve.at(color[2]),
                     curve.at(color[3])};
}

// R, G and B times a factor.
ColorVector scaled(ColorVector color, float factor) {
  return color * ColorVector{factor, factor, factor, 1.0F};
}

template <template <typename> class Where>
ColorVector fetch_samples(const img_image* image, int x, int y) {
  using Byte = Where<std::uint8_t>;
  if (image->type == IMG_TYPE_RGBE) return fetch_rgbe(Byte(image, x, y));
  switch (image->bits) {
    case 8:
      return fetch(Byte(image, x, y), 1.0F / kLargestByte);
    case 16:
      return fetch(Where<std::uint16_t>(image, x, y), 1.0F / kLargestWord);
    case kFloatBits:
      return fetch(Where<float>(image, x, y), 1.0F);
    default:
      return fetch_bit(Byte(image, 0, y), x);
  }
}

template <template <typename> class Where>
void store_samples(const ka::ImageContext& context, img_image* image, ColorVector color, int x,
                   int y) {
  using Byte = Where<std::uint8_t>;
  if (image->type == IMG_TYPE_RGBE) return store_rgbe(Byte(image, x, y), color);
  switch (image->bits) {
    case 8:
      return store(Byte(image, x, y), nearest(context, color, kLargestByte));
    case 16:
      return store(Where<std::uint16_t>(image, x, y), nearest(context, color, kLargestWord));
    case kFloatBits:
      return store(Where<float>(image, x, y), color);
    default:
      return store_bit(Byte(image, 0, y), x, nearest(context, color, kLargestBit)[0] != 0);
  }
}

// Apart, so that images in memory do not pay for it.
[[gnu::noinline]] ColorVector fetch_cached(const img_image* image, int x, int y) {
  return fetch_samples<CachedPixel>(image, x, y);
}
[[gnu::noinline]] void store_cached(const ka::ImageContext& context, img_image* image,
                                    ColorVector color, int x, int y) {
  store_samples<CachedPixel>(context, image, color, x, y);
}

}  // namespace

ColorVector ka::img_fetch_color(const ka::ImageContext& context, const img_image* image, int x,
                                int y) {
  ColorVector color =
      ka::is_cached(image) ? fetch_cached(image, x, y) : fetch_samples<Pixel>(image, x, y);
  if (context.unpremultiply && color[3] != 0.0F) color = scaled(color, color[3]);
  if (needs_gamma(context, image)) color = through(ka::img_gamma_tables(context).inverse, color);
  return color;
}

void ka::img_store_color(const ka::ImageContext& context, img_image* image, ColorVector color,
                         int x, int y) {
  if (!holds_any_color(image)) color = clip(context, color);
  if (needs_gamma(context, image)) color = through(ka::img_gamma_tables(context).gamma, color);
  if (context.unpremultiply && color[3] != 0.0F) color = scaled(color, 1.0F / color[3]);
  if (ka::is_cached(image)) [[unlikely]]
    return store_cached(context, image, color, x, y);
  store_samples<Pixel>(context, image, color, x, y);
}

void ka_img_clip_color(const img_image* image, float color[4]) {
  const ka::ModuleScope scope(KA_IMG);
  if (!image || !holds_any_color(image)) spread(clip(ka::img_context(), gathered(color)), color);
}

void ka_img_desaturate_rgb(float color[3], float max) {
  const ka::ModuleScope scope(KA_IMG);
  desaturate(color, max);
}

void ka_img_put_color(img_image* image, const float color[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!ka::is_inside(image, x, y) || !ka::img_has_color(image)) return;
  ka::img_store_color(ka::img_context(), image, gathered(color), x, y);
}

void ka_img_get_color(const img_image* image, float color[4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!color) return;
  if (!ka::is_inside(image, x, y)) return void(std::fill_n(color, 4, 0.0F));
  if (ka::img_has_color(image)) spread(ka::img_fetch_color(ka::img_context(), image, x, y), color);
}

void ka_img_get_color_square(const img_image* image, float color[4][4], int x, int y) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  if (!ka::img_has_color(image)) return;
  const ka::ImageContext& context = ka::img_context();
  const ka::Square square = ka::square_at(image, x, y);
  for (std::size_t i = 0; i < 4; ++i) {
    spread(ka::img_fetch_color(context, image, square.x[i], square.y[i]), color[i]);
  }
}
