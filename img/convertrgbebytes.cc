// Shared exponents to bytes, for each instruction set. A byte is (255 mantissa + 127.5) / 2^shift
// rounded down, at most 255, where the shift is 136 less the exponent. The half changes it for
// negative shifts only, which give 255 whatever the mantissa is, so that 16 bits are enough.
#include <bit>

#include "convertline.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace ka {
namespace {

constexpr int kUnshifted = 136;      // exponent of shift 0
constexpr std::size_t kPiece = 256;  // pixels whose factors stay in the nearest cache

// Shifts are products with a power of two of which the upper half remains. That of shift 0 is one
// too large for 16 bits. With the one below, 127 comes out as 126, whose last bit is then set,
// and what is larger is past 255 anyhow.
KA_KERNEL void decode_piece(const std::array<const std::uint8_t*, IMG_SLOTS>& from,
                            const std::array<std::uint8_t*, 3>& to, std::size_t start,
                            std::size_t count) {
  alignas(64) std::array<std::uint16_t, kPiece> factors, set_bits, levels;
  const std::uint8_t* const exponents = from[3] + start;
  for (std::size_t x = 0; x < count; ++x) {
    const std::int32_t exponent = std::min<std::uint8_t>(exponents[x], kUnshifted);
    const auto power = std::bit_cast<float>((exponent - kUnshifted + 16 + 127) << 23);
    factors[x] = std::uint16_t(std::min(std::int32_t(power), 0xffff));
  }
  for (std::size_t x = 0; x < count; ++x) {
    set_bits[x] =
        std::uint16_t((exponents[x] > kUnshifted ? 255 : 0) | (exponents[x] == kUnshifted ? 1 : 0));
  }
  for (std::size_t slot = 0; slot < to.size(); ++slot) {
    const std::uint8_t* const mantissas = from[slot] + start;
    std::uint8_t* const bytes = to[slot] + start;
    for (std::size_t x = 0; x < count; ++x) {
      const std::uint32_t level = mantissas[x] * 255U + 127U;
      levels[x] = std::uint16_t(level * factors[x] >> 16);
    }
    for (std::size_t x = 0; x < count; ++x) {
      const auto level = std::uint16_t(levels[x] | set_bits[x]);
      bytes[x] = std::uint8_t(level < 255 ? level : 255);
    }
  }
}

KA_KERNEL void decode_body(const std::array<const std::uint8_t*, IMG_SLOTS>& from,
                           const std::array<std::uint8_t*, 3>& to, std::size_t count) {
  for (std::size_t start = 0; start < count; start += kPiece) {
    decode_piece(from, to, start, std::min(count - start, kPiece));
  }
}

constexpr auto& decode_bytes_loop_kernels = kernels_of<decode_body>;

#if defined(__x86_64__)
constexpr std::size_t kVector = 32;  // samples of 16 bits

KA_TARGET_AVX512 inline __m512i load(const std::uint8_t* bytes, __mmask32 used) {
  return _mm512_cvtepu8_epi16(_mm256_maskz_loadu_epi8(used, bytes));
}

// Shifts of 16 bits by as many places as each sample wants, which no loop is compiled to.
KA_TARGET_AVX512 void decode_vectors(const std::array<const std::uint8_t*, IMG_SLOTS>& from,
                                     const std::array<std::uint8_t*, 3>& to, std::size_t count) {
  const __m512i unshifted = _mm512_set1_epi16(kUnshifted), most = _mm512_set1_epi16(255),
                half = _mm512_set1_epi16(127);
  for (std::size_t x = 0; x < count; x += kVector) {
    const __mmask32 used = ~std::uint32_t{0} >> (kVector - std::min(count - x, kVector));
    const __m512i exponents = load(from[3] + x, used);
    const __m512i shifts = _mm512_subs_epu16(unshifted, exponents);
    const __mmask32 is_brightest = _mm512_cmpgt_epu16_mask(exponents, unshifted);
    for (std::size_t slot = 0; slot < to.size(); ++slot) {
      const __m512i level =
          _mm512_add_epi16(_mm512_mullo_epi16(load(from[slot] + x, used), most), half);
      const __m512i shifted = _mm512_min_epu16(_mm512_srlv_epi16(level, shifts), most);
      const __m512i bytes = _mm512_mask_mov_epi16(shifted, is_brightest, most);
      _mm256_mask_storeu_epi8(to[slot] + x, used, _mm512_maskz_cvtepi16_epi8(used, bytes));
    }
  }
}
#endif

}  // namespace

#if defined(__x86_64__)
constinit const KernelTable<DecodeBytesKernel> decode_bytes_kernels = {
    decode_bytes_loop_kernels.base, decode_bytes_loop_kernels.avx2, decode_vectors};
#else
constinit const KernelTable<DecodeBytesKernel> decode_bytes_kernels = decode_bytes_loop_kernels;
#endif

}  // namespace ka
