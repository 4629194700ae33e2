// The pixel types: what a line of each consists of.
#pragma once

#include <ka/img.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ka {

enum class PixelKind : std::uint8_t { kColor, kData };  // nothing is converted into data

constexpr int kNoType = -1;

struct PixelType {
  const char* name;
  std::uint8_t bits;        // of a component
  std::uint8_t components;  // each in a separate plane
  std::uint8_t first_slot;  // of the planes; a scalar has its only one in the slot of alpha
  PixelKind kind;
  std::int8_t compatible;  // the type whose lines have the same layout, kNoType: none
};

// Indexed by type. IMG_TYPE_A_FP shares its name with IMG_TYPE_A_16; it and IMG_TYPE_S_FP are
// compatible with themselves only, so that lines between the two are converted.
constexpr std::array<PixelType, IMG_TYPE_COUNT> kPixelTypes = {{
    {"rgba", 8, 4, 0, PixelKind::kColor, kNoType},
    {"rgba_16", 16, 4, 0, PixelKind::kColor, kNoType},
    {"rgb", 8, 3, 0, PixelKind::kColor, kNoType},
    {"rgb_16", 16, 3, 0, PixelKind::kColor, kNoType},
    {"a", 8, 1, 3, PixelKind::kColor, IMG_TYPE_S},
    {"a_16", 16, 1, 3, PixelKind::kColor, IMG_TYPE_S_16},
    {"s", 8, 1, 3, PixelKind::kColor, IMG_TYPE_A},
    {"s_16", 16, 1, 3, PixelKind::kColor, IMG_TYPE_A_16},
    {"vta", 16, 2, 0, PixelKind::kData, IMG_TYPE_VTS},
    {"vts", 16, 2, 0, PixelKind::kData, IMG_TYPE_VTA},
    {"z", 32, 1, 0, PixelKind::kData, IMG_TYPE_COVERAGE},
    {"n", 32, 3, 0, PixelKind::kData, IMG_TYPE_M},
    {"tag", 32, 1, 0, PixelKind::kData, kNoType},
    {"rgba_fp", 32, 4, 0, PixelKind::kColor, kNoType},
    {"m", 32, 3, 0, PixelKind::kData, IMG_TYPE_N},
    {"bit", 1, 1, 3, PixelKind::kColor, kNoType},
    {"rgb_fp", 32, 3, 0, PixelKind::kColor, kNoType},
    {"coverage", 32, 1, 0, PixelKind::kColor, IMG_TYPE_Z},
    {"rgbe", 8, 4, 0, PixelKind::kColor, kNoType},
    {"a_16", 32, 1, 3, PixelKind::kColor, IMG_TYPE_A_FP},
    {"s_fp", 32, 1, 3, PixelKind::kColor, IMG_TYPE_S_FP},
}};

// Whether a number is that of a pixel type.
constexpr bool is_pixel_type(int type) { return type >= 0 && type < IMG_TYPE_COUNT; }

// Before: the number is that of a pixel type.
constexpr const PixelType& pixel_type(int type) { return kPixelTypes[std::size_t(type)]; }

constexpr int compatible_type(int type) {
  return is_pixel_type(type) ? pixel_type(type).compatible : kNoType;
}

}  // namespace ka
