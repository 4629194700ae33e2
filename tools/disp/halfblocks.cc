#include "halfblocks.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "commandline.h"

namespace {

constexpr char kUpperHalf[] = "\xe2\x96\x80";
constexpr char kReset[] = "\x1b[0m";
constexpr Size kUsual{80, 24};
constexpr int kLargest = 1000;

// A line of text with colors that change only where they have to.
class ColoredLine {
 public:
  void put(Color upper, std::optional<Color> lower) {
    if (upper_ != upper) add("\x1b[38;2;", upper);
    if (lower && lower_ != lower) add("\x1b[48;2;", *lower);
    if (!lower && lower_) text_ += "\x1b[49m";
    upper_ = upper;
    lower_ = lower;
    text_ += kUpperHalf;
  }
  void space(int count) {
    reset();
    text_.append(std::size_t(count), ' ');
  }
  [[nodiscard]] std::string end() {
    reset();
    return text_ + '\n';
  }

 private:
  void add(const char* start, Color color) {
    text_ += start + std::to_string(color >> 16) + ';' + std::to_string(color >> 8 & 255) + ';' +
             std::to_string(color & 255) + 'm';
  }
  void reset() {
    if (upper_) text_ += kReset;
    upper_ = lower_ = std::nullopt;
  }

  std::string text_;
  std::optional<Color> upper_, lower_;
};

void put_line(const Tile& tile, int y, ColoredLine& line) {
  if (y >= tile.size.height) return line.space(tile.size.width);
  const auto width = std::size_t(tile.size.width);
  const Color* const upper = tile.pixels.data() + std::size_t(y) * width;
  for (std::size_t x = 0; x < width; ++x) {
    line.put(upper[x], y + 1 < tile.size.height ? std::optional(upper[width + x]) : std::nullopt);
  }
}

int side(unsigned short of_terminal, const char* variable, int usual) {
  if (of_terminal > 0) return std::min<int>(of_terminal, kLargest);
  const char* const text = std::getenv(variable);
  const auto number = text ? parse_integer(text) : std::nullopt;
  return number && *number > 0 ? std::min(*number, kLargest) : usual;
}

}  // namespace

std::string half_blocks(const std::vector<Tile>& tiles) {
  int height = 0;
  for (const Tile& tile : tiles) height = std::max(height, tile.size.height);
  std::string text;
  for (int y = 0; y < height; y += 2) {
    ColoredLine line;
    for (const Tile& tile : tiles) {
      if (&tile != &tiles.front()) line.space(1);
      put_line(tile, y, line);
    }
    text += line.end();
  }
  return text;
}

Size terminal_size() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) size = {};
  return {side(size.ws_col, "COLUMNS", kUsual.width), side(size.ws_row, "LINES", kUsual.height)};
}

Size fitted(Size picture, Size space) {
  const double scale = std::min({1.0, double(space.width) / std::max(picture.width, 1),
                                 double(space.height) / std::max(picture.height, 1)});
  const auto shown = [=](int side) {
    return side == 0 ? 0 : std::max(1, int(std::lround(side * scale)));
  };
  return {shown(picture.width), shown(picture.height)};
}
