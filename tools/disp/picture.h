// A picture in memory, in the pixel type of its file, and whether the file has changed since.
#pragma once

#include <ka/imgowner.h>

#include <cstdint>
#include <memory>
#include <string>

#include "samples.h"

// What changes when a file is written or replaced.
struct FileStamp {
  std::int64_t device = 0, file = 0, size = -1, seconds = 0, nanoseconds = 0;
  bool operator==(const FileStamp&) const = default;
};
[[nodiscard]] FileStamp stamp_of(const std::string& path);  // that of no file: size -1

class Picture {
 public:
  // Reads a whole file. Returns null with the reason in `failure`: it cannot be opened, is no picture
  // or is incomplete.
  [[nodiscard]] static std::unique_ptr<Picture> load(const std::string& name,
                                                     const std::string& layer,
                                                     std::string& failure);

  [[nodiscard]] int width() const { return width_; }
  [[nodiscard]] int height() const { return height_; }
  [[nodiscard]] int type() const { return type_; }
  [[nodiscard]] const Range& range() const { return range_; }
  [[nodiscard]] const std::string& path() const { return path_; }
  // The stamp from before the file was read.
  [[nodiscard]] const FileStamp& stamp() const { return stamp_; }

  // The planes of a line; 0 is the top one.
  [[nodiscard]] RowPlanes row(int y) const { return planes_of(image_.get(), height_ - 1 - y); }

 private:
  int width_ = 0, height_ = 0, type_ = 0;
  Range range_;
  std::string path_;
  FileStamp stamp_;
  ka::ImageBuffer image_;
};

// An image file that is closed at the end of the block.
class OpenFile {
 public:
  OpenFile() = default;
  ~OpenFile() { ka_img_close(&file_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  // Opens it in its own pixel type. On failure the reason is failure_text of the handle.
  [[nodiscard]] bool open(const std::string& name, const std::string& layer);
  img_file* operator->() { return &file_; }
  img_file& operator*() { return file_; }

 private:
  img_file file_{};
};
