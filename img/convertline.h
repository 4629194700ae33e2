// Lines of one pixel type to lines of another: what the conversions of all types share, and the
// table that they fill.
#pragma once

#include <ka/img.h>

#include <algorithm>
#include <array>

#include "convertkernels.h"
#include "imageplanes.h"

namespace ka {

// Converts `width` pixels. A plane that the destination lacks is left out; where the source lacks
// one, the planes that need it stay as they are.
using ConvertKernel = void (*)(img_line* dst, const img_line* src, const float* weights,
                               std::size_t width);
// The conversions of one source type by destination type. An empty entry leaves the destination as
// it is.
using ConvertRow = std::array<ConvertKernel, IMG_TYPE_COUNT>;

extern const ConvertRow rgba_row, rgba_16_row, rgba_fp_row;
extern const ConvertRow rgb_row, rgb_16_row, rgb_fp_row;
extern const ConvertRow scalar_row, scalar_16_row, scalar_fp_row;  // alpha and luminance alike
extern const ConvertRow vector_row, normal_row;                    // vta, vts; n, m
extern const ConvertRow z_row, tag_row, coverage_row, bit_row, rgbe_row;

// A source class describes how its lines are seen as a color:
//   Sample                             of its planes
//   kSampleBits                        from one pixel to the next
//   kSlots                             the planes that R, G, B and A are made of, kFullSlot: none
//   view<To, Channel>(from, to, n)     makes n samples of a channel
inline constexpr std::size_t kFullSlot = IMG_SLOTS;  // the channel is full on

template <typename Source, typename To, std::size_t Channel>
void view_channel(img_line* dst, const img_line* src, std::size_t width) {
  To* const to = plane_of<To>(dst, Channel);
  if (!to) return;
  if constexpr (Source::kSlots[Channel] == kFullSlot) {
    std::fill_n(to, width, kFull<To>);
  } else {
    const auto* const from = plane_of<const typename Source::Sample>(src, Source::kSlots[Channel]);
    if (from) Source::template view<To, Channel>(from, to, width);
  }
}

template <typename Source, typename To, std::size_t Channels>
void to_color(img_line* dst, const img_line* src, const float* /*weights*/, std::size_t width) {
  view_channel<Source, To, 0>(dst, src, width);
  view_channel<Source, To, 1>(dst, src, width);
  view_channel<Source, To, 2>(dst, src, width);
  if constexpr (Channels == 4) view_channel<Source, To, 3>(dst, src, width);
}

// The alpha plane, or the one plane, to the one plane of a scalar type.
template <typename Source, typename To>
void to_alpha(img_line* dst, const img_line* src, const float* /*weights*/, std::size_t width) {
  view_channel<Source, To, 3>(dst, src, width);
}

// Makes a plane of bits: bit x is test(x), bits after the last pixel are 0.
template <typename Test>
void pack_bits(std::uint8_t* to, std::size_t width, Test test) {
  for (std::size_t first = 0; first < width; first += 64) {
    const std::size_t count = std::min<std::size_t>(64, width - first);
    std::array<std::uint8_t, 64> is_set{};
    for (std::size_t i = 0; i < count; ++i) is_set[i] = test(first + i);
    for (std::size_t i = 0; i < count; i += 8) {
      std::uint64_t eight = 0;
      for (std::size_t bit = 0; bit < 8; ++bit) {
        eight |= std::uint64_t{is_set[i + bit]} << (8 * bit);
      }
      // The factor brings bit 8 n of the eight to bit 56 + n; no two of its products meet.
      *to++ = std::uint8_t((eight * 0x0102040810204080) >> 56);
    }
  }
}

// Sets the bits of pixels with a sample in one of the planes that is not 0.
template <typename Sample, std::size_t... Slots>
void any_to_bit(img_line* dst, const img_line* src, const float* /*weights*/, std::size_t width) {
  auto* const to = plane_of<std::uint8_t>(dst, 3);
  if (!to || ((src->offset[Slots] == 0) || ...)) return;
  pack_bits(to, width, [... from = plane_of<const Sample>(src, Slots)](std::size_t x) {
    return bool(((from[x] != Sample{}) | ...));  // without branches
  });
}

// Shared-exponent colors are converted by way of floats, a block of pixels at a time.
class FloatBlock {
 public:
  static constexpr std::size_t kPixels = 256;
  using Samples = std::array<std::array<float, kPixels>, 3>;

  FloatBlock() {
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      set_plane(&line_, slot, slot < 3 ? samples_[slot].data() : nullptr);
    }
  }
  FloatBlock(const FloatBlock&) = delete;
  FloatBlock& operator=(const FloatBlock&) = delete;

  img_line* line() { return &line_; }  // of type rgb_fp
  // Fills the block from a line of type rgbe; false when it lacks a plane.
  [[nodiscard]] bool decode(const img_line& from, std::size_t count);
  // Writes the block to a line of type rgbe and leaves other samples behind.
  void encode(const img_line& to, std::size_t count);

 private:
  img_line line_;
  Samples samples_{};
};

using DecodeKernel = void (*)(const std::array<const std::uint8_t*, IMG_SLOTS>& from,
                              FloatBlock::Samples& colors, std::size_t count);
using EncodeKernel = void (*)(FloatBlock::Samples& colors,
                              const std::array<std::uint8_t*, IMG_SLOTS>& to, std::size_t count);
extern const KernelTable<DecodeKernel> decode_kernels;
extern const KernelTable<EncodeKernel> encode_kernels;

// Decodes shared exponents to bytes.
using DecodeBytesKernel = void (*)(const std::array<const std::uint8_t*, IMG_SLOTS>& from,
                                   const std::array<std::uint8_t*, 3>& to, std::size_t count);
extern const KernelTable<DecodeBytesKernel> decode_bytes_kernels;

// The line from pixel `first` on, which is a multiple of 8.
inline img_line rest_of(const img_line* line, std::size_t sample_bits, std::size_t first) {
  img_line rest;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    const auto* const plane = plane_of<const std::uint8_t>(line, slot);
    set_plane(&rest, slot, plane ? plane + first * sample_bits / 8 : nullptr);
  }
  return rest;
}

template <typename Source>
void to_rgbe(img_line* dst, const img_line* src, const float* weights, std::size_t width) {
  for (std::size_t channel = 0; channel < 3; ++channel) {
    if (src->offset[Source::kSlots[channel]] == 0) return;
  }
  FloatBlock block;
  for (std::size_t first = 0; first < width; first += FloatBlock::kPixels) {
    const std::size_t count = std::min(width - first, FloatBlock::kPixels);
    const img_line from = rest_of(src, Source::kSampleBits, first);
    to_color<Source, float, 3>(block.line(), &from, weights, count);
    block.encode(rest_of(dst, 8, first), count);
  }
}

// Fills the part of a row that has scalars as destinations, of 8, 16 bits and float.
constexpr void set_scalars(ConvertRow& row, const std::array<ConvertKernel, 3>& kernels) {
  row[IMG_TYPE_A] = row[IMG_TYPE_S] = kernels[0];
  row[IMG_TYPE_A_16] = row[IMG_TYPE_S_16] = kernels[1];
  row[IMG_TYPE_A_FP] = row[IMG_TYPE_S_FP] = kernels[2];
}

// The part of a row that has colors as destinations.
template <typename Source>
constexpr ConvertRow color_columns() {
  ConvertRow row{};
  row[IMG_TYPE_RGBA] = to_color<Source, std::uint8_t, 4>;
  row[IMG_TYPE_RGBA_16] = to_color<Source, std::uint16_t, 4>;
  row[IMG_TYPE_RGBA_FP] = to_color<Source, float, 4>;
  row[IMG_TYPE_RGB] = to_color<Source, std::uint8_t, 3>;
  row[IMG_TYPE_RGB_16] = to_color<Source, std::uint16_t, 3>;
  row[IMG_TYPE_RGB_FP] = to_color<Source, float, 3>;
  row[IMG_TYPE_RGBE] = to_rgbe<Source>;
  return row;
}

}  // namespace ka
