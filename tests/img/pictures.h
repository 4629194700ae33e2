// Small pictures: files spelled out byte by byte and what is read of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support.h"

namespace test {

// Samples as numbers, plane by plane without the absent ones; floats as their bits, bits as bytes.
using Planes = std::vector<std::vector<std::uint32_t>>;
using Lines = std::vector<Planes>;  // the bottom line first

Planes planes_of(const img_image* image, int y);
Lines lines_of(const img_image* image);
Planes flat(std::size_t width, std::initializer_list<std::uint32_t> values);  // one in each plane
Image make_picture(int type, int width, const Lines& lines);

// A number of so many bytes, the highest or the lowest of them first.
std::string be(int count, std::int64_t value);
std::string le(int count, std::int64_t value);

// The bytes of a file that is written with its own type that of the image.
std::string written(int format, img_image* image);
std::string written(int format, int type, const Lines& lines);

// A file that is a picture: opened in its own type.
struct Picture {
  const char* name;
  std::string file;
  int format, type;
  Lines lines;
};
void expect_picture(const Picture& picture);

struct Shown {
  const char* name;
  std::string file;
  Lines lines;
};
void expect_pictures(int format, int type, const std::vector<Shown>& pictures);

constexpr int kOpening = -1;

// A file that is refused: when it is opened, or at a line in file order after those that are read.
struct Refusal {
  const char* name;
  std::string file;
  int error;
  int line = kOpening;
};
void expect_refusal(const Refusal& refusal);
void expect_refusals(const std::vector<Refusal>& refusals);

// What each line in file order is read with: its error, or 0.
std::vector<int> line_errors(const std::string& file);

}  // namespace test
