#include "pngfilter.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace drivers {
namespace {

// One pixel in the low lanes of a vector. What a pixel needs of the one to its left is a chain of a
// few instructions, which bounds the speed; the compiler does not find it in scalar loops.
using Bytes = std::uint8_t __attribute__((vector_size(16)));
using Lanes = std::int16_t __attribute__((vector_size(16)));
using Words = std::uint64_t __attribute__((vector_size(16)));

template <std::size_t PixelBytes>
using Word = std::conditional_t<
    PixelBytes == 1, std::uint8_t,
    std::conditional_t<PixelBytes == 2, std::uint16_t,
                       std::conditional_t<PixelBytes <= 4, std::uint32_t, std::uint64_t>>>;

// Where a word is in the first lane: its first byte comes first on every host.
template <std::size_t PixelBytes>
constexpr int kShift = std::endian::native == std::endian::little
                           ? 0
                           : 64 - 8 * int(sizeof(Word<PixelBytes>));

// Reads up to the bytes of a word; those after the pixel do not matter.
template <std::size_t PixelBytes>
Bytes load(const std::uint8_t* pixel) {
  Word<PixelBytes> word;
  std::memcpy(&word, pixel, sizeof word);
  return reinterpret_cast<Bytes>(Words{std::uint64_t{word} << kShift<PixelBytes>, 0});
}

template <std::size_t PixelBytes>
void store(std::uint8_t* pixel, Bytes value, std::size_t count) {
  const auto word = Word<PixelBytes>(reinterpret_cast<Words>(value)[0] >> kShift<PixelBytes>);
  std::memcpy(pixel, &word, count);
}

// Calls `next(filtered, above)` for each pixel, from the left. What is stored after a pixel is
// overwritten by the next one, whose bytes have been loaded before.
template <std::size_t PixelBytes, typename Next>
void each_pixel(std::uint8_t* row, const std::uint8_t* above, std::size_t count, Next next) {
  if (count == 0) return;
  Bytes filtered = load<PixelBytes>(row);
  for (; count > PixelBytes; count -= PixelBytes) {
    const Bytes following = load<PixelBytes>(row + PixelBytes);
    store<PixelBytes>(row, next(filtered, load<PixelBytes>(above)), sizeof(Word<PixelBytes>));
    filtered = following;
    row += PixelBytes;
    above += PixelBytes;
  }
  store<PixelBytes>(row, next(filtered, load<PixelBytes>(above)), PixelBytes);
}

Lanes widened(Bytes bytes) {
  return reinterpret_cast<Lanes>(__builtin_shufflevector(bytes, Bytes{}, 0, 16, 1, 17, 2, 18, 3, 19,
                                                         4, 20, 5, 21, 6, 22, 7, 23));
}

// The low byte of each lane, the smaller of lanes; narrowed expects lanes of 0 to 255. Compilers make
// several instructions of the general forms.
#if defined(__SSE2__)
Bytes narrowed(Lanes lanes) {
  return reinterpret_cast<Bytes>(_mm_packus_epi16(__m128i(lanes), __m128i(lanes)));
}
Lanes smaller(Lanes a, Lanes b) { return Lanes(_mm_min_epi16(__m128i(a), __m128i(b))); }
Lanes magnitude(Lanes lanes) { return Lanes(_mm_max_epi16(__m128i(lanes), __m128i(-lanes))); }
#else
Bytes narrowed(Lanes lanes) {
  const auto bytes = reinterpret_cast<Bytes>(lanes);
  constexpr int low = std::endian::native == std::endian::little ? 0 : 1;
  return __builtin_shufflevector(bytes, bytes, low, low + 2, low + 4, low + 6, low + 8, low + 10,
                                 low + 12, low + 14, low, low, low, low, low, low, low, low);
}
Lanes smaller(Lanes a, Lanes b) { return a < b ? a : b; }
Lanes magnitude(Lanes lanes) { return lanes > -lanes ? lanes : -lanes; }
#endif

template <std::size_t PixelBytes>
void undo_sub(std::uint8_t* row, const std::uint8_t* above, std::size_t count) {
  Bytes left{};
  each_pixel<PixelBytes>(row, above, count,
                         [&](Bytes filtered, Bytes) { return left += filtered; });
}

void undo_up(std::uint8_t* __restrict row, const std::uint8_t* __restrict above,
             std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) row[i] = std::uint8_t(row[i] + above[i]);
}

template <std::size_t PixelBytes>
void undo_average(std::uint8_t* row, const std::uint8_t* above, std::size_t count) {
  Bytes left{};
  each_pixel<PixelBytes>(row, above, count, [&](Bytes filtered, Bytes up) {
    const Bytes half = reinterpret_cast<Bytes>(reinterpret_cast<Words>(left ^ up) >> 1) & 0x7f;
    return left = filtered + (left & up) + half;
  });
}

template <std::size_t PixelBytes>
void undo_paeth(std::uint8_t* row, const std::uint8_t* above, std::size_t count) {
  Lanes left{}, corner{};
  each_pixel<PixelBytes>(row, above, count, [&](Bytes filtered, Bytes above_it) {
    const Lanes up = widened(above_it);
    const Lanes from_up = left - corner, from_left = up - corner;
    const Lanes to_left = magnitude(from_left), to_up = magnitude(from_up),
                to_corner = magnitude(from_left + from_up);
    const Lanes least = smaller(to_corner, smaller(to_left, to_up));
    const Lanes is_left = least == to_left, is_up = least == to_up;
    const Lanes other = (is_up & up) | (~is_up & corner);
    const Lanes guess = (is_left & left) | (~is_left & other);
    corner = up;
    left = reinterpret_cast<Lanes>(reinterpret_cast<Bytes>(widened(filtered)) +
                                   reinterpret_cast<Bytes>(guess));
    return narrowed(left);
  });
}

template <std::size_t PixelBytes>
void undo(PngFilter filter, std::uint8_t* row, const std::uint8_t* above, std::size_t count) {
  if (filter == kPngSub) undo_sub<PixelBytes>(row, above, count);
  if (filter == kPngUp) undo_up(row, above, count);
  if (filter == kPngAverage) undo_average<PixelBytes>(row, above, count);
  if (filter == kPngPaeth) undo_paeth<PixelBytes>(row, above, count);
}

// In 16 bits, of which a vector has more.
std::uint8_t paeth(std::int16_t left, std::int16_t up, std::int16_t corner) {
  const auto distance = [](int value) { return std::int16_t(value < 0 ? -value : value); };
  const std::int16_t to_left = distance(std::int16_t(up - corner)),
                     to_up = distance(std::int16_t(left - corner)),
                     to_corner = distance(std::int16_t(up + left - 2 * corner));
  const std::int16_t other = to_up <= to_corner ? up : corner;
  const std::int16_t least = to_up <= to_corner ? to_up : to_corner;
  return std::uint8_t(to_left <= least ? left : other);
}

}  // namespace

void png_unfilter(PngFilter filter, std::size_t pixel_bytes, std::uint8_t* row,
                  const std::uint8_t* above, std::size_t count) {
  switch (pixel_bytes) {
    case 1:
      return undo<1>(filter, row, above, count);
    case 2:
      return undo<2>(filter, row, above, count);
    case 3:
      return undo<3>(filter, row, above, count);
    case 4:
      return undo<4>(filter, row, above, count);
    case 6:
      return undo<6>(filter, row, above, count);
    default:
      return undo<8>(filter, row, above, count);
  }
}

void png_filter(PngFilter filter, std::size_t pixel_bytes, const std::uint8_t* __restrict row,
                const std::uint8_t* __restrict above, std::size_t count,
                std::uint8_t* __restrict out) {
  const std::size_t first = std::min(pixel_bytes, count);  // has nothing to its left
  const std::uint8_t *const left = row - pixel_bytes, *const corner = above - pixel_bytes;
  if (filter == kPngSub) {
    std::copy_n(row, first, out);
    for (std::size_t i = first; i < count; ++i) out[i] = std::uint8_t(row[i] - left[i]);
  } else if (filter == kPngUp) {
    for (std::size_t i = 0; i < count; ++i) out[i] = std::uint8_t(row[i] - above[i]);
  } else if (filter == kPngPaeth) {
    for (std::size_t i = 0; i < first; ++i) out[i] = std::uint8_t(row[i] - above[i]);
    for (std::size_t i = first; i < count; ++i) {
      out[i] = std::uint8_t(row[i] - paeth(left[i], above[i], corner[i]));
    }
  } else {
    std::copy_n(row, count, out);
  }
}

}  // namespace drivers
