// What the least comparisons share: the mapping of a file, and the number of differing pixels, the
// sum and the maximum of their squared distances in one vectorised loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace least {

struct Sums {
  std::uint64_t count, total;
  std::int32_t most;
};

// Adds pixels of three samples each. measure() is the loop for this processor.
using Measure = void (*)(const std::uint8_t* a, const std::uint8_t* b, std::size_t pixels,
                         Sums& sums);
Measure measure();

// Returns the exit status.
int print(const Sums& sums);

// Ends the program with the system's reason.
[[noreturn]] void fail(const char* name);

std::span<const std::uint8_t> map_file(const char* name);

}  // namespace least
