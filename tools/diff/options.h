// Command line of vel_diff.
#pragma once

#include <optional>

struct Options {
  std::optional<double> gamma;    // -g: of the difference image
  int tolerance = 3;              // -m: channel differences up to this size are ignored
  bool brighten = false;          // -s: scale by the largest difference found
  bool ignore_alpha = false;      // -a
  bool write_if_equal = false;    // -e
  bool false_color = false;       // -f
  bool underlay = false;          // -u: the first image shows where nothing differs
  bool no_histogram = false;      // -n
  bool display = false;           // -d
  double threshold = 1.0;         // -t: percent from which the pair is "different"
  bool signed_intensity = false;  // -i
  bool verbose = false;           // -v

  // Names, each in the argument vector; the last two may be absent.
  const char* first = nullptr;
  const char* second = nullptr;
  const char* output = nullptr;
  const char* output_type = nullptr;
};

// Reads the options and moves the names after them. Returns false for a request for help and for
// an option that is not known or lacks its argument.
bool parse_options(int argc, char** argv, Options& options);

// Takes the two to four names that parse_options left. Returns false for any other number of them.
bool take_names(int argc, char** argv, Options& options);

// Prints the usage text on standard error.
void print_usage(const char* program);
