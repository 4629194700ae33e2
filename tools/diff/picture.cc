#include "picture.h"

#include <algorithm>
#include <climits>

#include <ka/detail/imagelines.h>
#include <ka/message.h>

#include "explain.h"

namespace {

// While one of these lives the handle's height includes the lines above the picture.
class RaisedHeight {
 public:
  RaisedHeight(img_file& file, int lines) : file_(file), height_(file.height) {
    file_.height = std::min(height_, INT_MAX - lines) + lines;
  }
  ~RaisedHeight() { file_.height = height_; }
  RaisedHeight(const RaisedHeight&) = delete;
  RaisedHeight& operator=(const RaisedHeight&) = delete;

 private:
  img_file& file_;
  int height_;
};

// Of the built-in formats people know that deeper samples are reduced.
void note_depth(const img_file& file) {
  constexpr int compared = 8;
  if (file.format < IMG_FORMAT_CUSTOM || file.bits <= compared) return;
  ka_warning("%s: samples of %d bits are compared as %d bits", file.display_name, file.bits,
             compared);
}

}  // namespace

Picture::Picture(const char* name, int extra_lines) : name_(name), extra_lines_(extra_lines) {}

bool Picture::open() {
  failed_step_ = "cannot open %s";
  if (!ka_img_open(&file_, name_, IMG_TYPE_RGBA)) return false;
  file_.pyramid = 0;  // only the picture itself is compared
  ka_progress("reading %s: %dx%d", name_, file_.width, file_.height);
  note_depth(file_);
  failed_step_ = "cannot allocate frame buffer";
  const RaisedHeight raised(file_, extra_lines_);
  return ka_img_image_size(&file_) != 0;
}

bool Picture::would_open_as_large_as(const Picture& other) const {
  const std::uint32_t verbosity = ka_get_verbosity();
  ka_set_verbosity(0);
  img_file file{};
  const bool result = ka_img_open(&file, name_, IMG_TYPE_RGBA) && file.width == other.width() &&
                      file.height == other.height();
  ka_img_close(&file);
  ka_set_verbosity(verbosity);
  return result;
}

void Picture::report_error() {
  ka_img_err_msg(&file_);
  explain_failure(file_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
  ka_fatal(failed_step_, name_);
#pragma GCC diagnostic pop
}

ka::ImageBuffer Picture::read() {
  if (file_.lacks_lines) read_rest();  // which fails without a buffer
  const auto allocate = [&] {
    const RaisedHeight raised(file_, extra_lines_);
    return ka::ImageBuffer(ka_img_image_alloc(&file_));
  };
  ka::ImageBuffer image = allocate();
  if (!image) report_error();
  failed_step_ = "cannot read %s";
  if (!ka_img_image_read(&file_, image.get())) report_error();
  close();
  return image;
}

bool Picture::read_line() {
  if (!line_) line_.reset(ka_img_line_alloc(&file_));
  failed_step_ = "cannot read %s";
  return ka_img_line_read(&file_, line_.get()) != 0;
}

void Picture::read_rest() {
  while (file_.line_count < lines_to_read()) {
    if (!read_line()) report_error();
  }
}

int Picture::lines_to_read() const {
  return ka::lines_to_read(file_.width, file_.height, file_.file_size);
}

void Picture::close() {
  failed_step_ = "cannot close %s";
  if (!ka_img_close(&file_)) report_error();
}

ka::LinePlanes Picture::planes() const {
  ka::LinePlanes planes;
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    planes[std::size_t(slot)] =
        static_cast<const std::uint8_t*>(ka_img_line_plane(line_.get(), slot));
  }
  return planes;
}

int Picture::line_number() const {
  const int read = file_.line_count - 1;
  return file_.topdown ? file_.height - 1 - read : read;
}

std::string Picture::size_text() const {
  return file_.display_name + (": " + std::to_string(width())) + "x" + std::to_string(height());
}

bool Picture::same_size(const Picture& other) const {
  return file_.width == other.file_.width && file_.height == other.file_.height;
}

bool Picture::same_order(const Picture& other) const {
  return file_.topdown == other.file_.topdown;
}

void Picture::compare_profile(const Picture& other) const {
  if (file_.profile == other.file_.profile) return;
  ka_warning(
      "%s and %s have different gammas or color profiles; their samples are compared as they are",
      file_.display_name, other.file_.display_name);
}
