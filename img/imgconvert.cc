// Pixel type to pixel type, one line at a time: a table of kernels, found by source and
// destination.
#include <algorithm>
#include <array>
#include <cstring>

#include <ka/message.h>

#include "convertline.h"
#include "imageplanes.h"
#include "imgcall.h"
#include "pixeltypes.h"

namespace {

// One property of all types, as the public arrays have it.
template <auto Property>
constexpr auto kColumn = [] {
  std::array<std::int32_t, IMG_TYPE_COUNT> column{};
  std::ranges::transform(ka::kPixelTypes, column.begin(), Property);
  return column;
}();

constexpr int kRefusedNumber = 6;  // of the message about a destination that nothing converts to

constexpr auto kRows = [] {  // by source type
  std::array<const ka::ConvertRow*, IMG_TYPE_COUNT> rows{};
  rows[IMG_TYPE_RGBA] = &ka::rgba_row;
  rows[IMG_TYPE_RGBA_16] = &ka::rgba_16_row;
  rows[IMG_TYPE_RGBA_FP] = &ka::rgba_fp_row;
  rows[IMG_TYPE_RGB] = &ka::rgb_row;
  rows[IMG_TYPE_RGB_16] = &ka::rgb_16_row;
  rows[IMG_TYPE_RGB_FP] = &ka::rgb_fp_row;
  rows[IMG_TYPE_A] = rows[IMG_TYPE_S] = &ka::scalar_row;
  rows[IMG_TYPE_A_16] = rows[IMG_TYPE_S_16] = &ka::scalar_16_row;
  rows[IMG_TYPE_A_FP] = rows[IMG_TYPE_S_FP] = &ka::scalar_fp_row;
  rows[IMG_TYPE_VTA] = rows[IMG_TYPE_VTS] = &ka::vector_row;
  rows[IMG_TYPE_N] = rows[IMG_TYPE_M] = &ka::normal_row;
  rows[IMG_TYPE_Z] = &ka::z_row;
  rows[IMG_TYPE_TAG] = &ka::tag_row;
  rows[IMG_TYPE_COVERAGE] = &ka::coverage_row;
  rows[IMG_TYPE_BIT] = &ka::bit_row;
  rows[IMG_TYPE_RGBE] = &ka::rgbe_row;
  return rows;
}();

}  // namespace

const std::int32_t* const ka_img_nbits = kColumn<&ka::PixelType::bits>.data();
const std::int32_t* const ka_img_ncomp = kColumn<&ka::PixelType::components>.data();

void ka::img_convert(img_line* dst, const img_line* src, int dst_type, int src_type,
                     const float* weights, int width) {
  if (ka::is_pixel_type(dst_type) && ka::pixel_type(dst_type).kind == ka::PixelKind::kData) {
    ka_nerror(kRefusedNumber, "cannot convert to vector,Z,normal,motion,tag");
    return;
  }
  if (width <= 0 || src_type == dst_type || !ka::is_pixel_type(src_type) ||
      !ka::is_pixel_type(dst_type))
    return;
  const auto kernel = (*kRows[std::size_t(src_type)])[std::size_t(dst_type)];
  if (kernel) kernel(dst, src, weights, std::size_t(width));
}

bool ka::img_adds_alpha_only(int dst_type, int src_type) {
  return (dst_type == IMG_TYPE_RGBA && src_type == IMG_TYPE_RGB) ||
         (dst_type == IMG_TYPE_RGBA_16 && src_type == IMG_TYPE_RGB_16) ||
         (dst_type == IMG_TYPE_RGBA_FP && src_type == IMG_TYPE_RGB_FP);
}

void ka::img_fill_alpha(img_line* line, int type, int width) {
  if (line->offset[3] == 0) return;
  if (type == IMG_TYPE_RGBA_FP) {
    std::fill_n(ka::plane_of<float>(line, 3), width, ka::kFull<float>);
  } else {
    std::memset(ka::plane_of<std::uint8_t>(line, 3), 0xff, ka::plane_bytes(type, width));
  }
}
