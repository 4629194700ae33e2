#include "exrpixels.h"

#include <ka/imgdriver.h>

#include <bit>
#include <cstring>

#ifdef __x86_64__
#define _Bool bool  // in the C library's header, which clang takes for C++
#include <sys/platform/x86.h>
#undef _Bool
#include <immintrin.h>
#endif

namespace drivers {

namespace {

constexpr bool kIsSwapped = IMG_ORDER_HOST == IMG_ORDER_BIG;
constexpr std::uint8_t kBias = 128;  // of a difference between bytes

std::uint16_t swapped(std::uint16_t value) { return kIsSwapped ? __builtin_bswap16(value) : value; }
std::uint32_t swapped(std::uint32_t value) { return kIsSwapped ? __builtin_bswap32(value) : value; }

template <typename Word>
Word load(const std::uint8_t* row, std::size_t index) {
  Word word = 0;
  std::memcpy(&word, row + index * sizeof word, sizeof word);
  return swapped(word);
}
template <typename Word>
void store(std::uint8_t* row, std::size_t index, Word word) {
  word = swapped(word);
  std::memcpy(row + index * sizeof word, &word, sizeof word);
}

// All ones or none. Bits are chosen by masks below, not by conditions, so that compilers use vectors.
std::uint32_t mask_if(bool condition) { return 0U - std::uint32_t{condition}; }
std::uint32_t select(std::uint32_t mask, std::uint32_t chosen, std::uint32_t other) {
  return other ^ ((other ^ chosen) & mask);
}

// A subnormal half gets the exponent of the
// smallest normal one, which is taken off as a number.
float float_of_half(std::uint16_t half) {
  const std::uint32_t magnitude = half & 0x7fffU, sign = (half & 0x8000U) << 16;
  const std::uint32_t normal = (magnitude << 13) + (112U << 23);
  const std::uint32_t special = (magnitude << 13) + (224U << 23);  // infinity, NaN
  const std::uint32_t subnormal = std::bit_cast<std::uint32_t>(
      std::bit_cast<float>((magnitude << 13) + (113U << 23)) - 0x1p-14F);
  std::uint32_t bits = select(mask_if(magnitude < 0x400U), subnormal, normal);
  bits = select(mask_if(magnitude >= 0x7c00U), special, bits);
  return std::bit_cast<float>(bits | sign);
}

// Adding 0.5 leaves a subnormal half in the lowest bits of the sum, rounded.
std::uint16_t half_of_float(float value) {
  const auto bits = std::bit_cast<std::uint32_t>(value);
  const std::uint32_t magnitude = bits & 0x7fffffffU, sign = bits >> 16 & 0x8000U;
  const std::uint32_t normal = (magnitude - (112U << 23) + 0xfffU + (magnitude >> 13 & 1U)) >> 13;
  const std::uint32_t subnormal =
      std::bit_cast<std::uint32_t>(std::bit_cast<float>(magnitude) + 0.5F) - (126U << 23);
  const std::uint32_t not_a_number = 0x7e00U | (magnitude >> 13 & 0x3ffU);
  std::uint32_t half = select(mask_if(magnitude < 113U << 23), subnormal, normal);
  half = select(mask_if(magnitude >= 143U << 23), 0x7c00U, half);  // 65536 and above
  half = select(mask_if(magnitude > 255U << 23), not_a_number, half);
  return std::uint16_t(half | sign);
}

void from_half(const std::uint8_t* row, float* plane, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) plane[i] = float_of_half(load<std::uint16_t>(row, i));
}

#ifdef __x86_64__
// Ten times as fast where the processor converts halves by itself.
[[gnu::target("avx,f16c")]] void from_half_f16c(const std::uint8_t* row, float* plane,
                                                std::size_t count) {
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const auto* const halves = reinterpret_cast<const __m128i*>(row + 2 * i);
    _mm256_storeu_ps(plane + i, _mm256_cvtph_ps(_mm_loadu_si128(halves)));
  }
  from_half(row + 2 * i, plane + i, count - i);
}

bool has_f16c() { return CPU_FEATURE_ACTIVE(AVX) && CPU_FEATURE_ACTIVE(F16C); }
#endif

using FromHalf = decltype(&from_half);
FromHalf fastest_from_half() {
#ifdef __x86_64__
  if (has_f16c()) return from_half_f16c;
#endif
  return from_half;
}

// Differences to bytes, in place.
void add_differences(std::span<std::uint8_t> parts) {
  std::uint8_t last = kBias;  // takes the bias off the first byte, which has none
  std::size_t i = 0;
#ifdef __x86_64__
  const __m128i bias = _mm_set1_epi8(char(kBias));
  for (; i + 16 <= parts.size(); i += 16) {
    auto* const at = reinterpret_cast<__m128i*>(parts.data() + i);
    __m128i sums = _mm_xor_si128(_mm_loadu_si128(at), bias);
    // The sum of the block does not wait for those inside it.
    const __m128i totals = _mm_sad_epu8(sums, _mm_setzero_si128());
    const int total = _mm_cvtsi128_si32(totals) + _mm_extract_epi16(totals, 4);
    sums = _mm_add_epi8(sums, _mm_slli_si128(sums, 1));
    sums = _mm_add_epi8(sums, _mm_slli_si128(sums, 2));
    sums = _mm_add_epi8(sums, _mm_slli_si128(sums, 4));
    sums = _mm_add_epi8(sums, _mm_slli_si128(sums, 8));
    _mm_storeu_si128(at, _mm_add_epi8(sums, _mm_set1_epi8(char(last))));
    last = std::uint8_t(last + total);
  }
#endif
  for (; i < parts.size(); ++i) {
    last = std::uint8_t(last + parts[i] - kBias);
    parts[i] = last;
  }
}

}  // namespace

void exr_from_half(const std::uint8_t* row, float* plane, std::size_t count) {
  static const FromHalf convert = fastest_from_half();
  convert(row, plane, count);
}

void exr_from_half_plain(const std::uint8_t* row, float* plane, std::size_t count) {
  from_half(row, plane, count);
}

void exr_from_float(const std::uint8_t* row, float* plane, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    plane[i] = std::bit_cast<float>(load<std::uint32_t>(row, i));
  }
}

void exr_from_uint(const std::uint8_t* row, float* plane, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) plane[i] = float(load<std::uint32_t>(row, i));
}

void exr_to_half(const float* plane, std::uint8_t* row, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) store(row, i, half_of_float(plane[i]));
}

void exr_to_float(const float* plane, std::uint8_t* row, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) store(row, i, std::bit_cast<std::uint32_t>(plane[i]));
}

void exr_merge_bytes(std::span<std::uint8_t> parts, std::uint8_t* bytes) {
  add_differences(parts);
  const std::size_t pairs = parts.size() / 2, evens = parts.size() - pairs;
  const std::uint8_t* const even = parts.data();
  const std::uint8_t* const odd = even + evens;
  for (std::size_t i = 0; i < pairs; ++i) {
    bytes[2 * i] = even[i];
    bytes[2 * i + 1] = odd[i];
  }
  if (evens > pairs) bytes[2 * pairs] = even[pairs];
}

void exr_split_bytes(std::span<const std::uint8_t> bytes, std::uint8_t* parts) {
  const std::size_t pairs = bytes.size() / 2, evens = bytes.size() - pairs;
  for (std::size_t i = 0; i < evens; ++i) parts[i] = bytes[2 * i];
  for (std::size_t i = 0; i < pairs; ++i) parts[evens + i] = bytes[2 * i + 1];
  for (std::size_t i = bytes.size(); i-- > 1;) {
    parts[i] = std::uint8_t(parts[i] - parts[i - 1] + kBias);
  }
}

}  // namespace drivers
