// Numbers of files: a cursor over bytes in memory, checked size arithmetic. Numbers are put
// together from bytes, so nothing here depends on the host's byte order.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

namespace ka {

// The product of sizes, empty when it does not fit.
template <std::integral... Factors>
[[nodiscard]] constexpr std::optional<std::uint64_t> checked_product(Factors... factors) {
  std::uint64_t product = 1;
  const bool fits =
      ((std::in_range<std::uint64_t>(factors) &&
        !__builtin_mul_overflow(product, static_cast<std::uint64_t>(factors), &product)) &&
       ...);
  return fits ? std::optional(product) : std::nullopt;
}

}  // namespace ka
