#include "picture.h"

#include <sys/stat.h>

#include <algorithm>

#include "tool.h"

FileStamp stamp_of(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return {};
  return {.device = std::int64_t(status.st_dev),
          .file = std::int64_t(status.st_ino),
          .size = status.st_size,
          .seconds = status.st_mtim.tv_sec,
          .nanoseconds = status.st_mtim.tv_nsec};
}

bool OpenFile::open(const std::string& name, const std::string& layer) {
  std::copy_n(layer.c_str(), layer.size() + 1, file_.layer);
  if (!ka_img_open(&file_, name.c_str(), IMG_TYPE_FILE)) return false;
  file_.pyramid = 0;  // only the picture itself is shown
  return true;
}

std::unique_ptr<Picture> Picture::load(const std::string& name, const std::string& layer,
                                       std::string& failure) {
  OpenFile file;
  const bool is_open = file.open(name, layer);
  auto picture = std::make_unique<Picture>();
  if (is_open) {
    picture->path_ = file->path ? file->path : name;
    picture->stamp_ = stamp_of(picture->path_);
    picture->image_.reset(file->lacks_lines ? nullptr : ka_img_image_alloc(&*file));
    if (file->lacks_lines) {  // its first line says why
      const ka::LineBuffer line(ka_img_line_alloc(&*file));
      (void)ka_img_line_read(&*file, line.get());
    }
  }
  if (!picture->image_ || !ka_img_image_read(&*file, picture->image_.get())) {
    failure = failure_text(*file);
    return nullptr;
  }
  picture->width_ = file->width;
  picture->height_ = file->height;
  picture->type_ = file->type;
  if (has_range(picture->type_)) {
    for (int y = 0; y < picture->height_; ++y) {
      widen_range(picture->range_, picture->type_, picture->row(y), picture->width_);
    }
  }
  return picture;
}
