// Pixels of a window, and text on them.
#pragma once

#include <string_view>

#include "look.h"

// Pixels of the caller.
struct Canvas {
  Color* pixels;
  int width, height;
  [[nodiscard]] Color* row(int y) const { return pixels + std::ptrdiff_t(y) * width; }
};

// Characters of the built-in font with the space around them, at scale 1.
inline constexpr int kCharacterWidth = 6, kCharacterHeight = 9;

void fill(const Canvas& canvas, int x, int y, int width, int height, Color color);

// Half of the brightness, as a background for text.
void darken(const Canvas& canvas, int x, int y, int width, int height);

// Writes printable ASCII; other bytes are "?", and a character of UTF-8 is one. What is outside the
// canvas is left out.
void write_text(const Canvas& canvas, int x, int y, int scale, std::string_view text, Color color);
// The characters that a text takes.
[[nodiscard]] int text_length(std::string_view text);
