// Colors of indexes of a byte each: the look-up for each instruction set.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <ka/detail/targets.h>

namespace ka {

struct Color {
  std::uint8_t r, g, b, a;
};

// The same colors one by one and plane by plane: which is faster to look up depends on the kernel.
struct ColorTable {
  std::array<Color, 256> colors{};
  std::array<std::array<std::uint8_t, 256>, 4> planes{};
};

// Stores the colors of `count` indexes; a null plane is left out. The indexes are in none of the
// planes.
using LookUpKernel = void (*)(const ColorTable& table, const std::uint8_t* indexes,
                              std::size_t count, const std::array<std::uint8_t*, 4>& planes);
extern const KernelTable<LookUpKernel> look_up_kernels;

}  // namespace ka
