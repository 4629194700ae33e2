// Small pictures: files spelled out byte by byte and what is read of them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
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
std::string repeated(std::size_t count, std::string_view text);

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

constexpr int kOpening = -1;

// A file that is refused when it is opened, or at a line in file order after those that are read,
// and not by the system. The error is a message as well if it is to be reported; a reason that is not
// empty is the handle's.
struct Refusal {
  const char* name;
  std::string file;
  int error;
  int line = kOpening;
  bool is_reported = false;
  std::string reason = {};
};
void expect_refusal(const Refusal& refusal);
void expect_refusals(const std::vector<Refusal>& refusals);

// What an operation returned: 1 for done, 0 for failed, nothing else.
bool is_done(int result);

// A file that is opened, and the line of it that was read last.
class OpenFile {
 public:
  explicit OpenFile(const std::string& file, int type = IMG_TYPE_FILE);

  img_file* operator->() { return file_; }
  operator img_file*() { return file_; }
  [[nodiscard]] const std::string& path() const { return path_; }

  [[nodiscard]] bool is_open() const { return is_open_; }
  bool read_line() { return is_done(ka_img_line_read(file_, &line_)); }
  [[nodiscard]] Planes planes() const { return planes_of(image_.get(), 0); }

 private:
  Scratch scratch_;
  const std::string path_;
  Handle file_;
  bool is_open_;
  Image image_;
  img_line line_;
};

// Makes a line of a picture a line for operations on lines.
void point_at(img_line& line, const img_image* image, int y);

// A file that is created with the type of its pixels, and a black line for it.
class NewFile {
 public:
  NewFile(int format, int type, int width, int height);

  img_file* operator->() { return file_; }
  operator img_file*() { return file_; }
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string contents();  // also before it is closed, when it gets its name

  [[nodiscard]] img_line* line() { return line_.get(); }
  bool write_line() { return is_done(ka_img_line_write(file_, line_.get())); }
  bool close() { return is_done(ka_img_close(file_)); }

 private:
  Scratch scratch_;
  const std::string path_ = scratch_.path("a");
  Handle file_;
  Line line_;
};

}  // namespace test
