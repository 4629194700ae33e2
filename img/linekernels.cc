#include "linekernels.h"

#include <ka/detail/targets.h>

namespace {

KA_KERNEL void split_3x8_body(const std::uint8_t* __restrict packed, std::uint8_t* __restrict first,
                              std::uint8_t* __restrict second, std::uint8_t* __restrict third,
                              std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    first[i] = packed[3 * i];
    second[i] = packed[3 * i + 1];
    third[i] = packed[3 * i + 2];
  }
}

KA_KERNEL void pack_3x8_body(std::uint8_t* __restrict packed, const std::uint8_t* __restrict first,
                             const std::uint8_t* __restrict second,
                             const std::uint8_t* __restrict third, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    packed[3 * i] = first[i];
    packed[3 * i + 1] = second[i];
    packed[3 * i + 2] = third[i];
  }
}

KA_DEFINE_KERNELS(split_3x8, split_3x8_body,
                  (const std::uint8_t* packed, std::uint8_t* first, std::uint8_t* second,
                   std::uint8_t* third, std::size_t count),
                  (packed, first, second, third, count));
KA_DEFINE_KERNELS(pack_3x8, pack_3x8_body,
                  (std::uint8_t * packed, const std::uint8_t* first, const std::uint8_t* second,
                   const std::uint8_t* third, std::size_t count),
                  (packed, first, second, third, count));

}  // namespace

void ka::split_3x8(const std::uint8_t* packed, std::uint8_t* first, std::uint8_t* second,
                   std::uint8_t* third, std::size_t count) {
  static const auto kernel = best_kernel(split_3x8_kernels);
  kernel(packed, first, second, third, count);
}

void ka::pack_3x8(std::uint8_t* packed, const std::uint8_t* first, const std::uint8_t* second,
                  const std::uint8_t* third, std::size_t count) {
  static const auto kernel = best_kernel(pack_3x8_kernels);
  kernel(packed, first, second, third, count);
}
