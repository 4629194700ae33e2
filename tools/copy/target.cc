#include "target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdint>

#include <ka/detail/heldsignals.h>
#include <ka/drivers.h>
#include <ka/message.h>
#include <ka/subst.h>

#include "formats.h"
#include "signalremoval.h"
#include "tool.h"
#include "types.h"

namespace {

enum Parameter { kQuality = 0, kFields = 1, kAsFloat = 3 };

bool is_pipe(const Options& options) { return options.output == "-"; }

// Where a name leads.
bool find_file(const std::string& name, struct stat& status) {
  std::array<char, KA_PATH_SIZE> path{};
  const std::uint32_t verbosity = ka_get_verbosity();
  ka_set_verbosity(0);  // creating the file says what is wrong with a name
  ka_string_substitute(path.data(), name.c_str(), path.size());
  ka_set_verbosity(verbosity);
  return stat(path.data(), &status) == 0;
}

// Whether samples of an OpenEXR file have to be floats to keep all. Bytes, too, do not come back from
// halves as they were: fractions are cut off.
bool needs_floats(const img_file& from) {
  return from.format != KA_DRIVERS_EXR || from.parameters[kAsFloat] != 0;
}

// Frames of video have one size.
bool passes_frame(int format, Size size) {
  const int height = format == IMG_FORMAT_QNTPAL ? 576 : 486;
  return (format == IMG_FORMAT_QNTPAL || format == IMG_FORMAT_QNTNTSC) &&
         (size.width > 720 || size.height > height);
}

}  // namespace

Target::Target(const Options& options, const img_file& from, Size size)
    : options_(options),
      name_(is_pipe(options) ? "standard output" : options.output),
      type_(options.type.value_or(type_in(options.format, from.file_type))) {
  if (is_pipe(options)) check_standard_output();
  if (!can_become(from.file_type, type_)) {
    fail(std::string(from.display_name) + ": pixels of type " + type_name(from.file_type) +
         " cannot become " + type_name(type_) + ", which " +
         (options.type ? "--type asks for"
                       : std::string(ka_img_format_name(options.format)) + " files hold"));
  }
  warn_of_losses(from, size);
}

Target::~Target() { ka_img_close(&file_); }

bool Target::is_topdown() const { return ka_img_format_is_topdown(options_.format) != 0; }

void Target::check_standard_output() const {
  if (isatty(STDOUT_FILENO)) fail("standard output is a terminal, pictures go to files and pipes");
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  const bool can_seek = lseek(STDOUT_FILENO, 0, SEEK_CUR) >= 0 && !(flags & O_APPEND);
  if (can_seek || is_sequential(options_.format)) return;
  fail(std::string("standard output is a pipe: ") + ka_img_format_name(options_.format) +
       " files cannot be written in sequence");
}

void Target::warn_of_losses(const img_file& from, Size size) const {
  std::string text = loss(options_.format, from.file_type, type_);
  const auto add = [&](const std::string& more) { text += (text.empty() ? "" : ", ") + more; };
  const int format = options_.format;
  if (options_.as_float == false && needs_floats(from)) add("samples become halves of 16 bits");
  if (passes_frame(format, size)) add("what passes the frame is cut off");
  if (from.pyramid && format != IMG_FORMAT_MAP) add("reduced levels are not kept");
  if (from.aspect != 1 && !knows(format, Setting::kAspect)) add("the pixel aspect is not kept");
  if (from.gamma != 1 && !knows(format, Setting::kGamma)) add("the gamma is not kept");
  if (from.profile != 0) add("gamma and color profile are not kept");
  if (!text.empty()) ka_warning("%s: %s", name_.c_str(), text.c_str());
}

bool Target::is_same(const img_file& from) const {
  struct stat ours, theirs;
  const bool is_found =
      is_pipe(options_) ? fstat(STDOUT_FILENO, &ours) == 0 : find_file(options_.output, ours);
  return is_found && fstat(fileno(from.stream), &theirs) == 0 && ours.st_dev == theirs.st_dev &&
         ours.st_ino == theirs.st_ino;
}

void Target::set_header(const img_file& from) {
  file_.gamma = options_.gamma.value_or(from.gamma);
  file_.aspect = options_.aspect.value_or(from.aspect);
  if (options_.quality)
    file_.parameters[kQuality] = std::bit_cast<std::uint32_t>(*options_.quality);
  if (options_.fields) file_.parameters[kFields] = std::bit_cast<std::uint32_t>(*options_.fields);
  if (options_.format == KA_DRIVERS_EXR) {
    file_.parameters[kAsFloat] = options_.as_float.value_or(needs_floats(from));
  }
}

void Target::create(Size size, int line_type, const img_file& from) {
  file_.file_type = std::uint8_t(type_);
  if (options_.format == IMG_FORMAT_MAP) file_.pyramid = options_.pyramid ? 1 : from.pyramid;
  const ka::HeldSignals held;
  const int created = is_pipe(options_)
                          ? ka_img_create_in(&file_, STDOUT_FILENO, name_.c_str(), line_type,
                                             options_.format, size.width, size.height)
                          : ka_img_create(&file_, name_.c_str(), line_type, options_.format,
                                          size.width, size.height);
  if (!created) fail(failure_text(file_));
  if (file_.unfinished) remove_on_signal(file_.unfinished);
  set_header(from);
  ka_progress("writing %s: %dx%d, %s, %s", file_.display_name, size.width, size.height,
              ka_img_format_name(options_.format), type_name(type_).c_str());
}

void Target::write(img_line* line) {
  if (!ka_img_line_write(&file_, line)) fail(failure_text(file_));
}

void Target::write(img_image* image) {
  if (!ka_img_image_write(&file_, image)) fail(failure_text(file_));
}

void Target::close() {
  if (!ka_img_close(&file_)) fail(failure_text(file_));
  keep_file();
}
