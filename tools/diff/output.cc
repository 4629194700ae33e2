#include "output.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <ka/detail/heldsignals.h>
#include <ka/message.h>
#include <ka/subst.h>

#include "explain.h"
#include "signalremoval.h"
#include "viewer.h"

namespace {

bool is_folder(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

std::string temporary_folder() {
  if (is_folder("/usr/tmp")) return "/usr/tmp";
  const char* const wanted = std::getenv("TMPDIR");
  return wanted && is_folder(wanted) ? wanted : "/tmp";
}

int format_of(const char* type) {
  const int format = *type ? ka_img_format_identify(type + 1) : -1;
  if (format < 0) {
    explain("formats that are written: " + written_formats());
    ka_fatal("unknown extension \"%s\"", type);
  }
  return format;
}

// The type that a name or an option states, with its dot or whatever its first character is.
const char* type_text(const Options& options) {
  if (options.output_type) return options.output_type;
  const char* const dot = std::strrchr(options.output, '.');
  if (!dot) ka_fatal("missing output image file type");
  return dot;
}

}  // namespace

OutputFile::OutputFile(const Options& options) {
  if (!options.output) {
    format_ = IMG_FORMAT_RGB;
    make_temporary();
  } else {
    format_ = format_of(type_text(options));
    name_ = options.output;
  }
  if (options.verbose) ka_progress("writing %s", name_.c_str());
}

OutputFile::~OutputFile() {
  remove_file_now();
  if (temporary_ >= 0) close(temporary_);
}

void OutputFile::make_temporary() {
  name_ = temporary_folder() + "/veldiffXXXXXX";
  const ka::HeldSignals held;
  if (name_.size() < KA_PATH_SIZE) temporary_ = mkostemp(name_.data(), O_CLOEXEC);
  if (temporary_ < 0) ka_fatal("cannot create %s", name_.c_str());
  remove_on_signal(name_);
}

void OutputFile::fail(const char* format) {
  ka_img_err_msg(&file_);
  explain_failure(file_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  ka_fatal(format, name_.c_str());
#pragma GCC diagnostic pop
}

// The temporary file is written through the descriptor that made it: no other one can be put in
// its place.
void OutputFile::create(int width, int height) {
  const ka::HeldSignals held;
  const int created =
      temporary_ >= 0 ? ka_img_create_in(&file_, temporary_, name_.c_str(), IMG_TYPE_RGBA, format_,
                                         width, height)
                      : ka_img_create(&file_, name_.c_str(), IMG_TYPE_RGBA, format_, width, height);
  if (!created) fail("cannot create %s");
  if (file_.unfinished) remove_on_signal(file_.unfinished);
}

void OutputFile::write(img_image* image, int height) {
  create(image->width, height);
  if (!ka_img_image_write(&file_, image)) fail("cannot write %s");
  if (!ka_img_close(&file_)) fail("cannot close %s");
  if (temporary_ < 0) keep_file();
}

void OutputFile::show(const Options& options) const {
  if (options.verbose) ka_progress("displaying %s", name_.c_str());
  run_viewer(std::string(options.first) + " - " + options.second, name_);
}
