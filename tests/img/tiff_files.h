// TIFF files put together from entries and strips.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "pictures.h"

namespace test {

constexpr int kShort = 3, kLong = 4;  // types of entries

struct TiffEntry {
  int tag, type;
  std::vector<unsigned> values;
};

struct Tiff {
  std::vector<TiffEntry> entries{};   // in any order; those of the strips are added
  std::vector<std::string> strips{};  // their bytes
  bool is_big = false;                // byte order
  int strip_type = kLong;             // of both tables
};

inline std::string number(unsigned value, std::size_t bytes, bool is_big) {
  std::string text;
  for (std::size_t i = 0; i < bytes; ++i) {
    text += char(value >> 8 * (is_big ? bytes - 1 - i : i) & 255);
  }
  return text;
}

// Header, directory, values that do not fit their entry, strips.
inline std::string tiff(Tiff file) {
  const auto size = [](const TiffEntry& entry) {
    return entry.values.size() * (entry.type == kShort ? 2 : 4);
  };
  std::vector<unsigned> counts;
  for (const std::string& strip : file.strips) counts.push_back(unsigned(strip.size()));
  if (!counts.empty()) {
    file.entries.push_back({273, file.strip_type, counts});  // offsets come below
    file.entries.push_back({279, file.strip_type, counts});
  }
  std::ranges::stable_sort(file.entries, {}, &TiffEntry::tag);
  std::size_t behind = 8 + 2 + 12 * file.entries.size() + 4, strip = behind;
  for (const TiffEntry& entry : file.entries) strip += size(entry) > 4 ? size(entry) : 0;
  for (TiffEntry& entry : file.entries) {
    if (entry.tag != 273 || counts.empty()) continue;
    for (std::size_t i = 0; i < counts.size(); strip += counts[i++]) {
      entry.values[i] = unsigned(strip);
    }
  }

  const auto put = [&](unsigned value, std::size_t bytes) {
    return number(value, bytes, file.is_big);
  };
  std::string head = (file.is_big ? "MM" : "II") + put(42, 2) + put(8, 4);
  std::string values;
  head += put(unsigned(file.entries.size()), 2);
  for (const TiffEntry& entry : file.entries) {
    std::string field;
    for (const unsigned value : entry.values) field += put(value, entry.type == kShort ? 2 : 4);
    head += put(unsigned(entry.tag), 2) + put(unsigned(entry.type), 2);
    head += put(unsigned(entry.values.size()), 4);
    if (field.size() > 4) {
      head += put(unsigned(behind + values.size()), 4);
      values += field;
    } else {
      field.resize(4);
      head += field;
    }
  }
  std::string text = head + put(0, 4) + values;
  for (const std::string& part : file.strips) text += part;
  return text;
}

constexpr unsigned kPackBits = 32773;
constexpr unsigned kWhiteIsZero = 0, kBlackIsZero = 1, kRgb = 2, kPalette = 3;

// Entries of a picture of one component, and of red, green, blue and perhaps alpha.
inline std::vector<TiffEntry> one(unsigned width, unsigned height, unsigned bits,
                                  unsigned photometric, std::vector<TiffEntry> more = {}) {
  more.insert(more.end(), {{256, kLong, {width}},
                           {257, kLong, {height}},
                           {258, kShort, {bits}},
                           {262, kShort, {photometric}},
                           {277, kShort, {1}}});
  return more;
}
inline std::vector<TiffEntry> colors(unsigned width, unsigned height, unsigned components,
                                     unsigned bits, std::vector<TiffEntry> more = {}) {
  more.insert(more.end(), {{256, kLong, {width}},
                           {257, kShort, {height}},
                           {258, kShort, std::vector<unsigned>(components, bits)},
                           {262, kShort, {kRgb}},
                           {277, kShort, {components}}});
  if (bits == 32) more.push_back({339, kShort, std::vector<unsigned>(components, 3)});
  return more;
}

}  // namespace test
