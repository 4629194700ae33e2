// A font of 5 by 7 pixels, with an eighth line for what goes below the others.
#pragma once

#include <array>
#include <cstdint>

// Columns from the left; bit 0 is the top pixel.
using Glyph = std::array<std::uint8_t, 5>;

inline constexpr char kFirstGlyph = ' ', kLastGlyph = '~';
extern const std::array<Glyph, kLastGlyph - kFirstGlyph + 1> kGlyphs;
