#include "linekernels.h"

#include <utility>

namespace ka {
namespace {

// Samples of files are at any address.
template <typename Sample>
struct [[gnu::packed, gnu::may_alias]] Unaligned {
  Sample value;
};

KA_KERNEL std::uint8_t swapped(std::uint8_t value) { return value; }
KA_KERNEL std::uint16_t swapped(std::uint16_t value) { return __builtin_bswap16(value); }
KA_KERNEL std::uint32_t swapped(std::uint32_t value) { return __builtin_bswap32(value); }

// The loops name each plane by a separate pointer: the compiler then knows that they do not
// overlap.
template <typename Sample, bool Swap, std::size_t... C>
KA_KERNEL void split_loop(const Unaligned<Sample>* __restrict packed, std::size_t count,
                          std::index_sequence<C...>, auto* __restrict... planes) {
  constexpr std::size_t n = sizeof...(C);
  for (std::size_t i = 0; i < count; ++i) {
    ((planes[i] = Swap ? swapped(packed[n * i + C].value) : packed[n * i + C].value), ...);
  }
}

template <typename Sample, bool Swap, std::size_t... C>
KA_KERNEL void pack_loop(Unaligned<Sample>* __restrict packed, std::size_t count,
                         std::index_sequence<C...>, const auto* __restrict... planes) {
  constexpr std::size_t n = sizeof...(C);
  for (std::size_t i = 0; i < count; ++i) {
    ((packed[n * i + C].value = Swap ? swapped(planes[i]) : planes[i]), ...);
  }
}

template <typename Sample, bool Swap, std::size_t... C>
KA_KERNEL void split_planes(const void* packed, void* const* planes, std::size_t count,
                            std::index_sequence<C...> sequence) {
  split_loop<Sample, Swap>(static_cast<const Unaligned<Sample>*>(packed), count, sequence,
                           static_cast<Sample*>(planes[C])...);
}

template <typename Sample, bool Swap, std::size_t... C>
KA_KERNEL void pack_planes(void* packed, const void* const* planes, std::size_t count,
                           std::index_sequence<C...> sequence) {
  pack_loop<Sample, Swap>(static_cast<Unaligned<Sample>*>(packed), count, sequence,
                          static_cast<const Sample*>(planes[C])...);
}

template <typename Sample, std::size_t N, bool Swap>
struct Split {
  KA_KERNEL static void run(const void* packed, void* const* planes, std::size_t count) {
    split_planes<Sample, Swap>(packed, planes, count, std::make_index_sequence<N>());
  }
};

template <typename Sample, std::size_t N, bool Swap>
struct Pack {
  KA_KERNEL static void run(void* packed, const void* const* planes, std::size_t count) {
    pack_planes<Sample, Swap>(packed, planes, count, std::make_index_sequence<N>());
  }
};

// [components - 1][log2 of the bytes per sample][swap]
template <template <typename, std::size_t, bool> typename Kernel, typename Function>
using Cube = std::array<std::array<std::array<KernelTable<Function>, 2>, 3>, 4>;

template <template <typename, std::size_t, bool> typename Kernel, typename Function>
constexpr Cube<Kernel, Function> make_cube() {
  return [&]<std::size_t... N>(std::index_sequence<N...>) {
    return Cube<Kernel, Function>{{{{{kernels_of<Kernel<std::uint8_t, N + 1, false>::run>,
                                      kernels_of<Kernel<std::uint8_t, N + 1, false>::run>},
                                     {kernels_of<Kernel<std::uint16_t, N + 1, false>::run>,
                                      kernels_of<Kernel<std::uint16_t, N + 1, true>::run>},
                                     {kernels_of<Kernel<std::uint32_t, N + 1, false>::run>,
                                      kernels_of<Kernel<std::uint32_t, N + 1, true>::run>}}}...}};
  }
  (std::make_index_sequence<4>());
}

constexpr auto kSplit = make_cube<Split, SplitKernel>();
constexpr auto kPack = make_cube<Pack, PackKernel>();

std::size_t log2_of(std::size_t sample_bytes) {
  return std::size_t(std::countr_zero(sample_bytes));
}

}  // namespace

const KernelTable<SplitKernel>& split_kernels(std::size_t components, std::size_t sample_bytes,
                                              bool swap) {
  return kSplit[components - 1][log2_of(sample_bytes)][swap];
}

const KernelTable<PackKernel>& pack_kernels(std::size_t components, std::size_t sample_bytes,
                                            bool swap) {
  return kPack[components - 1][log2_of(sample_bytes)][swap];
}

SplitKernel split_kernel(std::size_t components, std::size_t sample_bytes, bool swap) {
  return best_kernel(split_kernels(components, sample_bytes, swap));
}

PackKernel pack_kernel(std::size_t components, std::size_t sample_bytes, bool swap) {
  return best_kernel(pack_kernels(components, sample_bytes, swap));
}

}  // namespace ka
