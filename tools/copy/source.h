// The picture that is copied: the lines of a file, cropped and resized.
#pragma once

#include <ka/img.h>
#include <ka/imgowner.h>

#include <memory>
#include <optional>
#include <string>

#include "options.h"
#include "resample.h"

class Source {
 public:
  // Opens the file. What cannot be done with it ends the process.
  explicit Source(const Options& options);
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  [[nodiscard]] const img_file& file() const { return file_; }
  [[nodiscard]] Size size() const { return size_; }
  [[nodiscard]] int line_type() const { return file_.type; }  // after start

  // Decides the type that lines come in, for a file of the type `to`.
  void start(int to);

  // Reads the next line of size().width pixels, in the order of the file: file().topdown. A failure
  // ends the process.
  void read(img_line* line);

  void close();

 private:
  void open_standard_input();
  void check_window();
  void check_lines();
  img_line* read_whole();          // the next line of the file
  void read_part(img_line* line);  // of the window

  img_file file_{};
  Window window_{};  // in the file
  Size size_{};
  bool is_cropped_ = false, is_resized_ = false;
  int skipped_ = 0;  // lines before the window, in the order of the file
  ka::LineBuffer whole_, part_;
  std::unique_ptr<Resampler> resampler_;
};

// An image file in name only, for lines and images of any shape.
[[nodiscard]] img_file shape_of(Size size, int type);
