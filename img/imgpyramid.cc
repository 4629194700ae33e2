// Image pyramids: the size of a block with all its levels, their layout, and the box filter that
// computes them.
#include "imgpyramid.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <type_traits>

#include <ka/detail/assertion.h>
#include <ka/detail/scope.h>
#include <ka/message.h>

#include "pixelcolors.h"
#include "texturecache.h"

namespace {

// A side of 2^20 in both directions passes the largest image, so the directory holds all levels.
constexpr int kLargestLevels = std::size(img_image{}.level_offset);
static_assert(std::uint64_t{1} << 2 * kLargestLevels > ka::kLargestImage);

// The part of a line or column of source pixels that one destination pixel covers.
class Cover {
 public:
  // Destination pixel `i` of ones that are `size` source pixels long, of `count` source pixels.
  Cover(int i, float size, int count)
      : begin_(std::min(double{size} * i, double(count) - 1.0)),
        end_(std::min(double{size} * (i + 1), double(count))) {}

  [[nodiscard]] int first() const { return int(begin_); }
  [[nodiscard]] int behind() const { return int(std::ceil(end_)); }
  // How much of a source pixel is covered, 0 to 1.
  [[nodiscard]] float weight(int pixel) const {
    return float(std::min(end_, pixel + 1.0) - std::max(begin_, double(pixel)));
  }

 private:
  double begin_, end_;
};

// Means of two by two samples, rounded to the nearest sample: one by one, fetching and storing
// colors without settings computes the same.
template <typename Sample>
void halve_line(Sample* out, std::size_t count, const Sample* lower, const Sample* upper) {
  constexpr bool is_integer = std::is_integral_v<Sample>;
  constexpr float largest = is_integer ? float{std::numeric_limits<Sample>::max()} : 1.0F;
  const auto value = [](Sample sample) { return float(sample) * (1.0F / largest); };
  for (std::size_t x = 0; x < count; ++x) {
    const float sum = value(lower[2 * x]) + value(lower[2 * x + 1]) + value(upper[2 * x]) +
                      value(upper[2 * x + 1]);
    const float mean = 0.25F * sum;
    out[x] = static_cast<Sample>(is_integer ? mean * largest + 0.5F : mean);
  }
}

class LevelFilter {
 public:
  LevelFilter(const ka::ImageContext& context, img_image* destination, const img_image* source)
      : context_(context), destination_(destination), source_(source) {}

  void run() const {
    const bool is_exact =
        destination_->width * 2 == source_->width && destination_->height * 2 == source_->height;
    const bool is_plain =
        is_exact && has_plain_samples() && !ka::is_cached(source_) && !ka::is_cached(destination_);
    for (int y = 0; y < destination_->height; ++y) {
      if (is_plain) {
        halve_plain_line(y);
        continue;
      }
      for (int x = 0; x < destination_->width; ++x) {
        const ka::ColorVector mean = is_exact ? mean_of_four(2 * x, 2 * y) : mean_of_cover(x, y);
        ka::img_store_color(context_, destination_, mean, x, y);
      }
    }
  }

 private:
  [[nodiscard]] ka::ColorVector fetch(int x, int y) const {
    return ka::img_fetch_color(context_, source_, x, y);
  }

  [[nodiscard]] ka::ColorVector mean_of_four(int x, int y) const {
    return 0.25F * (fetch(x, y) + fetch(x + 1, y) + fetch(x, y + 1) + fetch(x + 1, y + 1));
  }

  // True when colors are their samples at another scale: no setting changes those between 0 and 1.
  [[nodiscard]] bool has_plain_samples() const {
    if (context_.unpremultiply || source_->type == IMG_TYPE_RGBE) return false;
    if (source_->bits == 32) return true;
    return (source_->bits == 8 || source_->bits == 16) && !context_.gamma_active &&
           !context_.dither && context_.color_clip == IMG_CLIP_EACH;
  }

  void halve_plain_line(int y) const {
    const bool is_single = source_->components == 1;
    for (std::size_t i = 0; i < std::size_t(source_->components); ++i) {
      const std::size_t to = is_single ? ka::single_slot(destination_) : i;
      const std::size_t from = is_single ? ka::single_slot(source_) : i;
      switch (source_->bits) {
        case 8:
          halve_plane<std::uint8_t>(y, to, from);
          break;
        case 16:
          halve_plane<std::uint16_t>(y, to, from);
          break;
        default:
          halve_plane<float>(y, to, from);
      }
    }
  }

  template <typename Sample>
  void halve_plane(int y, std::size_t to, std::size_t from) const {
    halve_line(ka::plane_in<Sample>(destination_, y, to), std::size_t(destination_->width),
               ka::plane_in<Sample>(source_, 2 * y, from),
               ka::plane_in<Sample>(source_, 2 * y + 1, from));
  }

  // Weighs each source pixel by the area that the destination pixel covers of it.
  [[nodiscard]] ka::ColorVector mean_of_cover(int x, int y) const {
    const Cover columns(x, ratio(source_->width, destination_->width), source_->width);
    const Cover lines(y, ratio(source_->height, destination_->height), source_->height);
    ka::ColorVector sum = {};
    float area = 0.0F;
    for (int line = lines.first(); line < lines.behind(); ++line) {
      for (int column = columns.first(); column < columns.behind(); ++column) {
        const float weight = columns.weight(column) * lines.weight(line);
        sum += weight * fetch(column, line);
        area += weight;
      }
    }
    return sum * (1.0F / area);
  }

  static float ratio(int source, int destination) { return float(source) / float(destination); }

  const ka::ImageContext& context_;
  img_image* destination_;
  const img_image* source_;
};

std::uint32_t bytes_of(const img_image& level) {
  const auto bytes = ka::level_bytes(level.width, level.height, level.bits, level.components);
  return std::uint32_t(bytes.value_or(0));
}

// Level k of an image whose own directory and whose levels above are complete.
void create_level(img_image* image, int k) {
  const auto& offsets = image->level_offset;
  const img_image above = *ka::image_at(image, offsets[k - 1]);
  img_image* const level = ka::image_at(image, offsets[k]);
  *level = {};
  level->filter = image->filter;
  level->levels = image->levels - k;
  for (int j = k; j < image->levels; ++j) level->level_offset[j - k] = offsets[j] - offsets[k];
  level->width = above.width / 2;
  level->height = above.height / 2;
  level->bits = image->bits;
  level->components = image->components;
  level->type = image->type;
  ka::lay_out(level);
}

}  // namespace

int ka::img_pyramid_levels(const img_file* ifp) {
  KA_ASSERT(ifp);
  int levels = 0;
  for (int side = std::min(ifp->width, ifp->height); side > 0; side /= 2) ++levels;
  return levels;
}

std::optional<std::uint64_t> ka::img_pyramid_size(int width, int height, int bits, int components,
                                                  bool pyramid) {
  std::uint64_t sum = 0;
  do {
    const auto bytes = ka::level_bytes(width, height, bits, components);
    if (!bytes) return std::nullopt;
    sum += *bytes;
    width /= 2;
    height /= 2;
  } while (pyramid && width > 0 && height > 0);
  return sum <= ka::kLargestImage ? std::optional(sum) : std::nullopt;
}

void ka::img_pyramid_create_directory(const img_file* ifp, img_image* image) {
  KA_ASSERT(ifp);
  image->levels = ka::img_pyramid_levels(ifp);
  std::ranges::fill(image->level_offset, 0U);
  img_image shape = *image;
  for (int k = 1; k < image->levels; ++k, shape.width /= 2, shape.height /= 2) {
    image->level_offset[k] = image->level_offset[k - 1] + bytes_of(shape);
  }
  for (int k = 1; k < image->levels; ++k) create_level(image, k);
}

void ka_img_pyramid_filter_levels(img_image* image) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::CacheOperation operation(image);
  ka_debug("starting to filter image pyramid");
  const ka::ImageContext& context = ka::img_context();
  const int levels = ka::img_has_color(image) ? std::min(image->levels, kLargestLevels) : 0;
  for (int k = 0; k + 1 < levels; ++k) {
    img_image* source = nullptr;
    img_image* destination = nullptr;
    ka_img_pyramid_set_level(&source, image, k);
    ka_img_pyramid_set_level(&destination, image, k + 1);
    LevelFilter(context, destination, source).run();
  }
  ka_debug("image pyramid finished");
}

void ka_img_pyramid_set_level(img_image** result, img_image* image, int level) {
  const ka::ModuleScope scope(KA_IMG);
  const bool is_there =
      level == 0 || (level > 0 && level < image->levels && level < kLargestLevels);
  *result = is_there ? ka::image_at(image, image->level_offset[level]) : nullptr;
}

void ka_img_pyramid_set_filter(img_image* image, float value) {
  const ka::ModuleScope scope(KA_IMG);
  image->filter = value;
}
