// The system allocator, without accounting.
#pragma once

#include <cstddef>

namespace ka {

// Null on failure. Zeroed memory of a large block is the system's own zeros, untouched.
[[nodiscard]] void* system_allocate(std::size_t size, bool zero);
[[nodiscard]] void* system_reallocate(void* memory, std::size_t size);

// Larger requests count as this one, which no system grants.
constexpr std::size_t kMaxRequest = std::size_t{1} << 62;

}  // namespace ka
