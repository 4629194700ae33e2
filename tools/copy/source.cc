#include "source.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <ka/drivers.h>
#include <ka/message.h>

#include "formats.h"
#include "tool.h"

namespace {

constexpr char kStandardInput[] = "standard input";

[[noreturn]] void fail_spooling(const char* what) {
  fail(std::string(kStandardInput) + ": " + what + " (" + std::strerror(errno) + ")");
}

// Drivers seek: what comes through a pipe is kept in a file without a name, which ends with the
// process.
int spooled_input() {
  std::FILE* const file = std::tmpfile();
  if (!file) fail_spooling("cannot keep it in a temporary file");
  std::array<char, std::size_t{64} << 10> bytes;
  while (true) {
    const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail_spooling("cannot read it");
    if (count == 0) break;
    if (std::fwrite(bytes.data(), 1, std::size_t(count), file) != std::size_t(count)) {
      fail_spooling("cannot keep it in a temporary file");
    }
  }
  if (std::fflush(file) != 0) fail_spooling("cannot keep it in a temporary file");
  return fileno(file);
}

std::string text_of(Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

// The type that lines are resized in.
int filtered_type(int type) {
  if (type == IMG_TYPE_RGBE) return IMG_TYPE_RGB_FP;
  return type == IMG_TYPE_BIT ? IMG_TYPE_S_FP : type;
}

// Copies pixels from x on. All planes of `from` are as long as the file is wide.
void copy_part(img_line* to, const img_line* from, int type, int x, int width) {
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    auto* const out = static_cast<std::uint8_t*>(ka_img_line_plane(to, slot));
    const auto* const in = static_cast<const std::uint8_t*>(ka_img_line_plane(from, slot));
    if (!in || !out) continue;
    if (type != IMG_TYPE_BIT) {
      const auto bytes = std::size_t(ka_img_nbits[type] / 8);
      std::copy_n(in + std::size_t(x) * bytes, std::size_t(width) * bytes, out);
      continue;
    }
    std::fill_n(out, (width + 7) / 8, std::uint8_t{0});
    for (int i = 0; i < width; ++i) {
      const int bit = in[(x + i) / 8] >> (x + i) % 8 & 1;
      out[i / 8] = std::uint8_t(out[i / 8] | bit << i % 8);
    }
  }
}

}  // namespace

img_file shape_of(Size size, int type) {
  img_file shape{};
  shape.width = size.width;
  shape.height = size.height;
  shape.type = type;
  shape.writing = 1;
  return shape;
}

Source::Source(const Options& options) {
  std::ranges::copy(options.layer, file_.layer);
  if (options.input == "-") {
    open_standard_input();
  } else if (!ka_img_open(&file_, options.input.c_str(), IMG_TYPE_FILE)) {
    fail(failure_text(file_));
  }
  if (!options.layer.empty() && file_.format != KA_DRIVERS_EXR) {
    fail(std::string(file_.display_name) + ": " + ka_img_format_name(file_.format) +
         " files have no layers");
  }
  window_ = options.window.value_or(Window{0, 0, {file_.width, file_.height}});
  check_window();
  is_cropped_ = options.window.has_value();
  size_ = options.size.value_or(window_.size);
  is_resized_ = size_.width != window_.size.width || size_.height != window_.size.height;
  skipped_ = file_.topdown ? window_.y : file_.height - window_.size.height - window_.y;
  ka_progress("reading %s: %dx%d, %s, %s", file_.display_name, file_.width, file_.height,
              ka_img_format_name(file_.format), type_name(file_.file_type).c_str());
}

Source::~Source() { ka_img_close(&file_); }

void Source::open_standard_input() {
  const std::string name = "/proc/self/fd/" + std::to_string(spooled_input());
  const int opened = ka_img_open(&file_, name.c_str(), IMG_TYPE_FILE);
  std::ranges::copy(kStandardInput, file_.display_name);
  if (!opened) fail(failure_text(file_));
}

void Source::check_window() {
  if (file_.width < 1 || file_.height < 1) {
    fail(std::string(file_.display_name) + ": the picture has no pixels");
  }
  const auto& [x, y, size] = window_;
  if (x <= file_.width - size.width && y <= file_.height - size.height) return;
  fail(std::string(file_.display_name) + ": the picture has " +
       text_of({file_.width, file_.height}) + " pixels, not all of " + text_of(size) + " from " +
       std::to_string(x) + "," + std::to_string(y) + " on");
}

// A file that is too short for as many lines as it claims is refused before memory or space on the
// disk is asked for. Too large an image matters only to those who keep it whole.
void Source::check_lines() {
  if (ka_img_image_size(&file_) == 0 && file_.error == IMG_ERR_READ) fail(failure_text(file_));
  file_.error = IMG_ERR_NONE;
}

void Source::start(int to) {
  if (is_resized_ && file_.file_type == IMG_TYPE_TAG) {
    fail(std::string(file_.display_name) + ": tags cannot be resized");
  }
  file_.type = is_resized_ ? filtered_type(file_.file_type) : to;
  check_lines();
  if (is_resized_) {
    const bool as_bits = file_.file_type == IMG_TYPE_BIT && to == IMG_TYPE_BIT;
    resampler_ = std::make_unique<Resampler>(window_.size.width, window_.size.height, size_.width,
                                             size_.height, file_.type, as_bits);
  }
}

img_line* Source::read_whole() {
  if (!whole_) whole_.reset(ka_img_line_alloc(&file_));
  if (!ka_img_line_read(&file_, whole_.get())) fail(failure_text(file_));
  return whole_.get();
}

void Source::read_part(img_line* line) {
  for (; skipped_ > 0; --skipped_) read_whole();
  copy_part(line, read_whole(), file_.type, window_.x, window_.size.width);
}

void Source::read(img_line* line) {
  if (is_resized_) {
    const auto next = [this]() -> const img_line* {
      if (!is_cropped_) return read_whole();
      if (!part_) {
        img_file shape = shape_of(window_.size, file_.type);
        part_.reset(ka_img_line_alloc(&shape));
      }
      read_part(part_.get());
      return part_.get();
    };
    resampler_->read(next, line);
  } else if (is_cropped_) {
    read_part(line);
  } else if (file_.lacks_lines) {
    read_whole();  // which fails
  } else if (!ka_img_line_read(&file_, line)) {
    fail(failure_text(file_));
  }
}

void Source::close() {
  if (!ka_img_close(&file_)) fail(failure_text(file_));
}
