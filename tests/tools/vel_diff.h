// What the tests of vel_diff share: running it, and the texts that it prints.
#pragma once

#include <gtest/gtest.h>

#include <sstream>

#include "support.h"

// A name as messages of the image library show it.
inline std::string shown(const std::string& name) {
  return name.size() <= 63 ? name : "..." + name.substr(name.size() - 60);
}

// Module 10, errors 1, number 3: code 101003.
inline std::string image_error(const std::string& name, const std::string& text) {
  return "IMG   .0  error  101003: " + shown(name) + ": " + text + "\n";
}

inline std::string fatal(const std::string& text) { return "MAIN  .0  fatal: " + text + "\n"; }

inline std::string cannot_open(const std::string& name, const std::string& text) {
  return image_error(name, text) + fatal("cannot open " + name);
}

inline std::string cannot_read(const std::string& name, const std::string& text) {
  return image_error(name, text) + fatal("cannot read " + name);
}

inline constexpr char kMissing[] = "can't open file for reading (No such file or directory)";

inline std::string verdict(const std::string& a, const std::string& b, const std::string& word) {
  return "== \"" + a + "\" and \"" + b + "\" are " + word + "\n";
}

inline std::string no_differences(const std::string& a, const std::string& b) {
  return a + " " + b + ": no differences.\n" + verdict(a, b, "identical");
}

// The errors and fatal messages among what was printed.
inline std::string failures(const std::string& text) {
  std::istringstream in(text);
  std::string result;
  for (std::string line; std::getline(in, line);) {
    if (line.find(" error") < 12 || line.find(" fatal") < 12) result += line + "\n";
  }
  return result;
}

class VelDiff : public testing::Test {
 protected:
  [[nodiscard]] std::string ppm(const char* name, int width, int height,
                                const std::string& pixels) {
    return scratch.write(
        name, "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n" + pixels);
  }

  static test::Outcome run(std::vector<std::string> arguments) {
    return test::run(VEL_DIFF, {.arguments = std::move(arguments)});
  }

  static void expect_outcome(const test::Program& program, int status, const std::string& out,
                             const std::string& err) {
    const test::Outcome outcome = test::run(VEL_DIFF, program);
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
  }

  static void expect_failure(std::vector<std::string> arguments, const std::string& messages) {
    expect_outcome({.arguments = std::move(arguments)}, 1, "", messages);
  }

  test::Scratch scratch;
  // Two pixels; the second picture lacks the red one, in the third red is 4 less and 4 more.
  const std::string red = ppm("red.ppm", 2, 1, test::bytes({255, 0, 0, 9, 9, 9}));
  const std::string dark = ppm("dark.ppm", 2, 1, test::bytes({0, 0, 0, 9, 9, 9}));
  const std::string near = ppm("near.ppm", 2, 1, test::bytes({251, 0, 0, 13, 9, 9}));
};
