// Command line of vel_disp.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct Options {
  std::optional<std::string> title{};
  std::string layer{};  // "": the file's default
  bool terminal = false;
  bool verbose = false;
  std::optional<float> exposure{};  // stops
  std::optional<float> gamma{};
  std::vector<std::string> names;  // one or two
};

// Ends the process after --help, --version and with status 2 after a wrong command line.
[[nodiscard]] Options parse_options(int argc, char** argv);
