// How many lines of a file are read: for the library, and for tools that read line by line.
#pragma once

#include <algorithm>
#include <cstdint>

namespace ka {

// Of a file of so many bytes. Lines without pixels take none of them, or one each at least: those
// beyond the size of the file are all alike. They are not read.
[[nodiscard]] inline int lines_to_read(int width, int height, std::int64_t file_size) {
  return width > 0 ? height : int(std::min<std::int64_t>(height, file_size));
}

}  // namespace ka
