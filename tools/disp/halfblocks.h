// Pictures as text: a terminal's character is two pixels, one above the other.
#pragma once

#include <string>
#include <vector>

#include "look.h"
#include "view.h"

struct Tile {
  Size size;
  std::vector<Color> pixels;  // from the top left corner
};

// Tiles side by side, a column between them.
[[nodiscard]] std::string half_blocks(const std::vector<Tile>& tiles);

// Columns and lines of the terminal that standard output is; else those of COLUMNS and LINES, else
// 80 and 24.
[[nodiscard]] Size terminal_size();

// The size of a picture in a space, not enlarged, with pixels on each side that it has pixels on.
[[nodiscard]] Size fitted(Size picture, Size space);
