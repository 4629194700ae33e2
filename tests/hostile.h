// Pictures made to cost more than their size justifies: a few bytes that claim many pixels, data
// that is read again and again, data that represents nothing.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace test {

struct HostilePair {
  std::string name;           // of what they do, fit for a file name
  std::string first, second;  // contents of the files, often the same

  friend void PrintTo(const HostilePair& pair, std::ostream* out) { *out << pair.name; }
};

// One pair for each kind of cost. vel_diff compares them or refuses them.
std::vector<HostilePair> hostile_pairs();

}  // namespace test
