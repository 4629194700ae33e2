// What the tests of drivers share: the pixels of a file as text, and programs that make files.
#pragma once

#include <ka/img.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

#include "support.h"

namespace test {

// A number of so many bytes, the lowest first.
inline std::string little(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += char(value >> 8 * i);
  return text;
}

// Runs of equal pixels and others, so that rows are packed in both ways.
inline Image runs_picture(int type, int width, int height) {
  Image image = make_image(type, width, height);
  const std::size_t size = std::size_t(ka_img_nbits[type]) / 8;
  std::mt19937 random(1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width;) {
      const int end = std::min(width, x + 1 + int(random() % 3 == 0 ? random() % 200 : 0));
      const auto seed = random();
      for (; x < end; ++x) {
        for (std::size_t i = 0; i < IMG_SLOTS * size; ++i) {
          std::uint8_t* const samples = plane(image.get(), y, i / size);
          if (!samples) continue;
          samples[std::size_t(x) * size + i % size] =
              std::uint8_t(seed >> (3 * (i / size) + 8 * (i % size)));
        }
      }
    }
  }
  return image;
}

// The picture as rows of samples, the top line first.
inline std::string samples_of(const img_image* image, std::size_t components) {
  const std::size_t size = std::size_t(image->bits) / 8;
  std::string samples;
  for (int y = image->height - 1; y >= 0; --y) {
    for (std::size_t x = 0; x < std::size_t(image->width); ++x) {
      for (std::size_t i = 0; i < components * size; ++i) {
        samples += char(plane(image, y, i / size)[x * size + i % size]);
      }
    }
  }
  return samples;
}

// Whether two pictures have the same size and samples.
inline void expect_equal(const Image& a, const Image& b) {
  ASSERT_TRUE(a && b);
  ASSERT_EQ(a->width, b->width);
  ASSERT_EQ(a->height, b->height);
  ASSERT_EQ(a->bits, b->bits);
  const auto components = std::size_t(std::min(a->components, b->components));
  EXPECT_TRUE(samples_of(a.get(), components) == samples_of(b.get(), components));
}

// Runs a command line that has to succeed and returns what it prints.
inline std::string shell(const std::string& command) {
  const Outcome outcome = run("/bin/sh", {.arguments = {"-c", command}});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  return outcome.out;
}

struct Decoded {
  int error;
  int lines;  // that were read before the first failure
  int format, type;
  std::string pixels;  // hexadecimal, components together, in file order; a blank after each line
};

inline Decoded decode(const std::string& path) {
  Handle file;
  Decoded result{};
  if (!ka_img_open(file, path.c_str(), IMG_TYPE_FILE)) return {file->error, 0, file->format, 0, {}};
  const Line line(ka_img_line_alloc(file));
  const std::size_t size = std::size_t(file->bits) / 8;
  for (; result.lines < file->height && ka_img_line_read(file, line.get()); ++result.lines) {
    for (std::size_t x = 0; x < std::size_t(file->width); ++x) {
      for (std::size_t i = 0; i < std::size_t(file->components) * size; ++i) {
        char digits[3];
        const std::size_t byte = size - 1 - i % size;  // the host is little-endian
        std::snprintf(digits, sizeof digits, "%02x", plane(line.get(), i / size)[x * size + byte]);
        result.pixels += digits;
      }
    }
    result.pixels += ' ';
  }
  result.error = file->error;
  result.format = file->format;
  result.type = file->file_type;
  return result;
}

// Runs a command line in which %s is a file that is made, and that file's pixels.
inline Image made_by(const std::string& command, const Scratch& scratch, const std::string& name) {
  const std::string path = scratch.path(name);
  shell("cd " + scratch.path("") + " && " + command + " " + path);
  return read_image(path, IMG_TYPE_FILE);
}

}  // namespace test
