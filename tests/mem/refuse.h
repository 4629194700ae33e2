// A system that refuses memory on purpose: this program is linked so that the library's requests to
// the C library's allocator pass through here.
#pragma once

#include <cstddef>

namespace test {

// Refuses the next `count` requests for at least `least` bytes.
void refuse(int count, std::size_t least);

// Blocks of the C library that the library holds.
long live_blocks();

}  // namespace test
