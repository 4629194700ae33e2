#include "canvas.h"

#include <algorithm>
#include <cstddef>

#include <ka/detail/cleantext.h>

#include "font.h"

namespace {

// Calls the function with each character and its place.
template <typename Function>
void each_character(std::string_view text, Function take) {
  for (int place = 0; !text.empty(); ++place) {
    const std::size_t length = std::max<std::size_t>(ka::utf8_length(text), 1);
    const bool is_known = text[0] >= kFirstGlyph && text[0] <= kLastGlyph;
    take(place, is_known ? text[0] : '?');
    text.remove_prefix(length);
  }
}

}  // namespace

void fill(const Canvas& canvas, int x, int y, int width, int height, Color color) {
  const int from = std::max(x, 0), to = std::min(x + width, canvas.width);
  for (int line = std::max(y, 0); line < std::min(y + height, canvas.height); ++line) {
    if (from < to) std::fill(canvas.row(line) + from, canvas.row(line) + to, color);
  }
}

void darken(const Canvas& canvas, int x, int y, int width, int height) {
  const int from = std::max(x, 0), to = std::min(x + width, canvas.width);
  for (int line = std::max(y, 0); line < std::min(y + height, canvas.height); ++line) {
    for (int column = from; column < to; ++column) {
      Color& color = canvas.row(line)[column];
      color = color >> 2 & 0x3f3f3f;
    }
  }
}

void write_text(const Canvas& canvas, int x, int y, int scale, std::string_view text, Color color) {
  each_character(text, [&](int place, char character) {
    const Glyph& glyph = kGlyphs[std::size_t(character - kFirstGlyph)];
    const int left = x + place * kCharacterWidth * scale;
    for (int column = 0; column < int(glyph.size()); ++column) {
      for (int line = 0; line < 8; ++line) {
        if (!(glyph[std::size_t(column)] >> line & 1)) continue;
        fill(canvas, left + column * scale, y + line * scale, scale, scale, color);
      }
    }
  });
}

int text_length(std::string_view text) {
  int length = 0;
  each_character(text, [&](int, char) { ++length; });
  return length;
}
