// The command line of vel_copy.
#pragma once

#include <optional>
#include <string>

struct Size {
  int width, height;  // pixels, lines
};

// A part of a picture; x and y count from the top left.
struct Window {
  int x, y;
  Size size;
};

struct Options {
  std::string input, output;  // "-": a standard stream
  int format = -1;
  std::optional<int> type;  // of the file that is written
  bool pyramid = false;
  std::optional<Size> size;
  std::optional<Window> window;
  std::optional<float> gamma, aspect, quality, fields;
  std::optional<bool> as_float;  // samples of an OpenEXR file: floats, not halves
  std::string layer;
  bool verbose = false;
};

// Ends the process where the command line asks for a list or for help, or is wrong.
//   Before   the library has started.
[[nodiscard]] Options parse_options(int argc, char** argv);
