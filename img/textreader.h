// Lines of text of an open file.
#pragma once

#include <ka/detail/textlines.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

#include "stream.h"

namespace ka {

[[nodiscard]] inline std::string_view as_text(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The next line with its line feed, valid until the next call of the reader; what has more than
// `most` characters comes in pieces. Empty at the end of the file, and when the system failed, with
// the reason in errno (0 for the end).
[[nodiscard]] inline std::string_view read_text(FileReader& in, std::size_t most) {
  std::string_view ahead = as_text(in.ahead(most)).substr(0, most);
  return as_text(in.take(take_line(ahead).size()));
}

// Goes on after the next line feed. False when there is none, as FileReader::get is kEnd then.
[[nodiscard]] inline bool skip_line(FileReader& in) {
  int c = 0;
  while (c != '\n' && c != FileReader::kEnd) c = in.get();
  return c == '\n';
}

}  // namespace ka
