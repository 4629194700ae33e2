// The file that is written.
#pragma once

#include <ka/img.h>

#include <string>

#include "options.h"

class Target {
 public:
  // Settles what the options leave open, from the file that is read; `size` is that of the
  // picture. What the format cannot take ends the process.
  Target(const Options& options, const img_file& from, Size size);
  ~Target();
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  [[nodiscard]] int type() const { return type_; }
  // Whether the first line that is written is the top line.
  [[nodiscard]] bool is_topdown() const;
  // Whether it is the file that is read.
  [[nodiscard]] bool is_same(const img_file& from) const;

  // Creates the file for lines of a type. A failure ends the process, here and below.
  void create(Size size, int line_type, const img_file& from);
  void write(img_line* line);
  void write(img_image* image);
  void close();

 private:
  void check_standard_output() const;
  void warn_of_losses(const img_file& from, Size size) const;
  void set_header(const img_file& from);

  const Options& options_;
  std::string name_;  // for messages
  int type_;
  img_file file_{};
};
