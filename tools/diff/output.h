// The difference image as a file: its name and format, writing it, showing it in the viewer. Every
// failure is reported and ends the process.
#pragma once

#include <ka/img.h>

#include <string>

#include "options.h"

// Where a difference image goes. A temporary file goes away with this object, or when the process
// ends early; a file that was to be replaced is then as it was.
class OutputFile {
 public:
  // From the output name and type of the options; without a name a temporary file for the viewer.
  explicit OutputFile(const Options& options);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Writes the lowest `height` lines of an image.
  void write(img_image* image, int height);

  // Shows the file in the viewer and waits for it. What becomes of the viewer is not looked at.
  void show(const Options& options) const;

 private:
  [[noreturn]] void fail(const char* format);
  void create(int width, int height);
  void make_temporary();

  std::string name_;
  int format_;
  int temporary_ = -1;  // descriptor of the temporary file
  img_file file_{};
};
