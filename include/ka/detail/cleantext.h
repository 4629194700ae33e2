// Texts of unknown origin, such as file names, on their way to a terminal or into a line of a log.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>

namespace ka {

// The bytes of the UTF-8 character that the text begins with; 0: it begins with none.
inline std::size_t utf8_length(std::span<const char> text) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
  };
  const auto continues = [&](std::size_t i) { return (byte(i) & 0xc0) == 0x80; };
  const unsigned lead = byte(0);
  if (lead < 0x80) return text.empty() ? 0 : 1;
  if (lead < 0xc2 || lead > 0xf4 || !continues(1)) return 0;
  if (lead < 0xe0) return 2;
  if ((lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xf0 && byte(1) < 0x90)) return 0;  // overlong
  if (!continues(2)) return 0;
  return lead < 0xf0 ? 3 : continues(3) ? 4 : 0;
}

// Replaces control characters except tabs by blanks: a line stays one line, and a terminal gets no
// escape sequences. The second set of controls, 0x80 to 0x9f, is replaced both as characters of
// UTF-8 and as single bytes.
inline void clean_text(std::span<char> text) {
  while (!text.empty()) {
    const std::size_t length = std::max<std::size_t>(utf8_length(text), 1);
    const auto first = static_cast<unsigned char>(text[0]);
    const bool is_control = length == 1
                                ? (first < 0x20 && first != '\t') || (first >= 0x7f && first < 0xa0)
                                : first == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0;
    if (is_control) std::ranges::fill(text.first(length), ' ');
    text = text.subspan(length);
  }
}

}  // namespace ka
