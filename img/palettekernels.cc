#include "palettekernels.h"

#include <algorithm>
#include <iterator>

#include "linekernels.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace ka {
namespace {

constexpr std::size_t kPiece = 256;  // pixels that are looked up before they are distributed

// Eight colors at a time: what a loop costs is as much as a look-up.
void fetch(const std::array<Color, 256>& table, const std::uint8_t* indexes, std::size_t count,
           std::array<Color, kPiece>& colors) {
  constexpr std::size_t together = 8;
  std::size_t i = 0;
  for (; i + together <= count; i += together) {
    for (std::size_t k = 0; k < together; ++k) colors[i + k] = table[indexes[i + k]];
  }
  for (; i < count; ++i) colors[i] = table[indexes[i]];
}

// Whole colors are looked up and then distributed: a load and a store for each pixel instead of
// four.
void look_up_colors(const ColorTable& table, const std::uint8_t* indexes, std::size_t count,
                    const std::array<std::uint8_t*, 4>& planes) {
  std::array<Color, kPiece> colors;
  std::array<std::uint8_t, kPiece> unwanted;
  for (std::size_t done = 0; done < count; done += kPiece) {
    const std::size_t pixels = std::min(count - done, kPiece);
    fetch(table.colors, indexes + done, pixels, colors);
    std::array<std::uint8_t*, 4> to;
    for (std::size_t c = 0; c < to.size(); ++c) {
      to[c] = planes[c] ? planes[c] + done : unwanted.data();
    }
    split<std::uint8_t, 4>(reinterpret_cast<const std::uint8_t*>(colors.data()), to, pixels);
  }
}

#if defined(__x86_64__)
constexpr std::size_t kVectorBytes = 64;

// One plane of the table fills four vectors; a permutation takes bytes out of two of them by the
// low 7 bits of the indexes, the highest bit tells which two.
KA_TARGET_AVX512 void look_up_plane(const std::array<std::uint8_t, 256>& table,
                                    const std::uint8_t* indexes, std::size_t count,
                                    std::uint8_t* plane) {
  __m512i parts[4];
  for (std::size_t i = 0; i < std::size(parts); ++i) {
    parts[i] = _mm512_loadu_si512(table.data() + i * kVectorBytes);
  }
  for (std::size_t i = 0; i < count; i += kVectorBytes) {
    const std::size_t bytes = std::min(count - i, kVectorBytes);
    const __mmask64 used = ~std::uint64_t{0} >> (kVectorBytes - bytes);
    const __m512i index = _mm512_maskz_loadu_epi8(used, indexes + i);
    const __m512i low = _mm512_permutex2var_epi8(parts[0], index, parts[1]);
    const __m512i high = _mm512_permutex2var_epi8(parts[2], index, parts[3]);
    const __m512i samples = _mm512_mask_mov_epi8(low, _mm512_movepi8_mask(index), high);
    _mm512_mask_storeu_epi8(plane + i, used, samples);
  }
}

void look_up_planes(const ColorTable& table, const std::uint8_t* indexes, std::size_t count,
                    const std::array<std::uint8_t*, 4>& planes) {
  for (std::size_t c = 0; c < planes.size(); ++c) {
    if (planes[c]) look_up_plane(table.planes[c], indexes, count, planes[c]);
  }
}
#endif

}  // namespace

#if defined(__x86_64__)
constinit const KernelTable<LookUpKernel> look_up_kernels = {look_up_colors, look_up_colors,
                                                             look_up_planes};
#else
constinit const KernelTable<LookUpKernel> look_up_kernels = {look_up_colors};
#endif

}  // namespace ka
