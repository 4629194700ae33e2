// One of the two pictures: a file that is read as 8-bit RGBA.
#pragma once

#include <ka/imgowner.h>

#include <string>

#include "measure.h"

class Picture {
 public:
  // `extra_lines`: lines that a buffer of this picture has above it.
  Picture(const char* name, int extra_lines);

  // Opens the file and checks that a buffer can hold it. After a failure the caller ends with
  // report_error.
  [[nodiscard]] bool open();
  // Tells the file's error and ends the process with a fatal message about the step that failed.
  [[noreturn]] void report_error();

  // Whether the file can be opened and has the size of another picture. Tells nothing.
  [[nodiscard]] bool would_open_as_large_as(const Picture& other) const;

  // Reads everything into a buffer and closes the file. A failure is reported and ends the process.
  [[nodiscard]] ka::ImageBuffer read();

  // Reads the next line, in file order, into the picture's own line record.
  [[nodiscard]] bool read_line();
  // Reads the remaining lines, only to know that they can be read. A failure is reported and ends
  // the process.
  void read_rest();
  // Closes the file. A failure is reported and ends the process.
  void close();

  [[nodiscard]] ka::LinePlanes planes() const;  // of the line that was read last
  [[nodiscard]] int line_number() const;        // its number in the picture, 0 at the bottom
  [[nodiscard]] const char* name() const { return name_; }
  [[nodiscard]] int width() const { return file_.width; }
  [[nodiscard]] int height() const { return file_.height; }
  // Lines without pixels beyond the bytes of the file take none of them, and are all alike.
  [[nodiscard]] int lines_to_read() const;
  [[nodiscard]] std::string size_text() const;  // with the name, for messages
  [[nodiscard]] bool same_size(const Picture& other) const;
  // Warns when the files say different things about the meaning of their samples, which are compared
  // as they are.
  void compare_profile(const Picture& other) const;
  // Whether both files hold their lines in the same order.
  [[nodiscard]] bool same_order(const Picture& other) const;

 private:
  const char* name_;
  int extra_lines_;
  const char* failed_step_ =
      nullptr;  // fatal message of the step that is under way; its "%s" is the name
  img_file file_{};
  ka::LineBuffer line_;
};
