// Planes of a line from interleaved samples of a row, and back: flat loops over whole rows.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include <ka/detail/targets.h>

namespace ka {

// `planes` are as many as a pixel has components; `packed` has the same number of samples for each
// of `count` pixels, in the stated sample size, one pixel after the other. Packed samples need no
// alignment. The two do not overlap.
using SplitKernel = void (*)(const void* packed, void* const* planes, std::size_t count);
using PackKernel = void (*)(void* packed, const void* const* planes, std::size_t count);

// Kernels by components (1 to 4), bytes per sample (1, 2, 4) and whether the file's byte order is
// not the host's.
[[nodiscard]] const KernelTable<SplitKernel>& split_kernels(std::size_t components,
                                                            std::size_t sample_bytes, bool swap);
[[nodiscard]] const KernelTable<PackKernel>& pack_kernels(std::size_t components,
                                                          std::size_t sample_bytes, bool swap);

// The best of them for this processor.
[[nodiscard]] SplitKernel split_kernel(std::size_t components, std::size_t sample_bytes, bool swap);
[[nodiscard]] PackKernel pack_kernel(std::size_t components, std::size_t sample_bytes, bool swap);

// Distributes a row over planes. Before: `packed` holds planes.size() samples for each of `count`
// pixels.
template <typename Sample, std::size_t Components>
void split(const std::uint8_t* packed, const std::array<Sample*, Components>& planes,
           std::size_t count, std::endian order = std::endian::native) {
  static const SplitKernel same = split_kernel(Components, sizeof(Sample), false);
  static const SplitKernel swapped = split_kernel(Components, sizeof(Sample), true);
  std::array<void*, Components> addresses;
  for (std::size_t c = 0; c < Components; ++c) addresses[c] = planes[c];
  (order == std::endian::native ? same : swapped)(packed, addresses.data(), count);
}

// Gathers a row from planes. Before: `packed` has room for planes.size() samples for each of
// `count` pixels.
template <typename Sample, std::size_t Components>
void pack(std::uint8_t* packed, const std::array<Sample*, Components>& planes, std::size_t count,
          std::endian order = std::endian::native) {
  static const PackKernel same = pack_kernel(Components, sizeof(Sample), false);
  static const PackKernel swapped = pack_kernel(Components, sizeof(Sample), true);
  std::array<const void*, Components> addresses;
  for (std::size_t c = 0; c < Components; ++c) addresses[c] = planes[c];
  (order == std::endian::native ? same : swapped)(packed, addresses.data(), count);
}

// Which byte of a sample, counted from the highest, is at address `i` of the sample.
template <std::size_t SampleBytes>
constexpr std::size_t in_memory(std::size_t i) {
  return std::endian::native == std::endian::little ? SampleBytes - 1 - i : i;
}

// Samples from planes of their bytes, and back: the planes of the highest, ..., the lowest bytes
// stand `stride` bytes apart. The two do not overlap.
template <typename Sample>
void join_bytes(const std::uint8_t* bytes, std::size_t stride, Sample* samples, std::size_t count) {
  constexpr std::size_t size = sizeof(Sample);
  if constexpr (size == 1) {
    std::memcpy(samples, bytes, count);
  } else {
    std::array<const std::uint8_t*, size> planes;
    for (std::size_t i = 0; i < size; ++i) planes[i] = bytes + in_memory<size>(i) * stride;
    pack<const std::uint8_t, size>(reinterpret_cast<std::uint8_t*>(samples), planes, count);
  }
}
template <typename Sample>
void part_bytes(const Sample* samples, std::uint8_t* bytes, std::size_t stride, std::size_t count) {
  constexpr std::size_t size = sizeof(Sample);
  if constexpr (size == 1) {
    std::memcpy(bytes, samples, count);
  } else {
    std::array<std::uint8_t*, size> planes;
    for (std::size_t i = 0; i < size; ++i) planes[i] = bytes + in_memory<size>(i) * stride;
    split<std::uint8_t, size>(reinterpret_cast<const std::uint8_t*>(samples), planes, count);
  }
}

// Drops the first `count` samples of a plane.
template <typename Sample>
void drop_front(std::span<Sample>& plane, std::size_t count) {
  plane = plane.subspan(count);
}

// Gives the first `count` samples of a plane one value, and drops them.
template <typename Sample>
void fill_front(std::span<Sample>& plane, std::size_t count, Sample value) {
  std::fill_n(plane.data(), count, value);
  drop_front(plane, count);
}

}  // namespace ka
