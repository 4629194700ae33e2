#include "output.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include <ka/message.h>
#include <ka/subst.h>

#include "doomed_file.h"
#include "explain.h"
#include "viewer.h"

namespace {

bool is_link(const char* path) {
  struct stat status;
  return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

// The path of an open file; empty of a device and of none.
std::string path_of(FILE* stream) {
  struct stat status;
  if (!stream || fstat(fileno(stream), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  std::array<char, PATH_MAX> path;
  const std::string entry = "/proc/self/fd/" + std::to_string(fileno(stream));
  const ssize_t length = readlink(entry.c_str(), path.data(), path.size() - 1);
  return {path.data(), std::size_t(std::max(length, ssize_t{0}))};
}

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

OutputFile::~OutputFile() { remove_doomed_file(); }

void OutputFile::make_temporary() {
  name_ = temporary_folder() + "/veldiffXXXXXX";
  const HeldSignals held;
  const int file = name_.size() < KA_PATH_SIZE ? mkstemp(name_.data()) : -1;
  if (file < 0) ka_fatal("cannot create %s", name_.c_str());
  close(file);
  is_temporary_ = true;
  doom_file(name_);
}

void OutputFile::fail(const char* format) {
  ka_img_err_msg(&file_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  ka_fatal(format, name_.c_str());
#pragma GCC diagnostic pop
}

// Like the library when a file cannot be written, signals leave devices and links alone.
void OutputFile::create(int width, int height) {
  const HeldSignals held;
  if (!ka_img_create(&file_, name_.c_str(), IMG_TYPE_RGBA, format_, width, height)) {
    fail("cannot create %s");
  }
  if (!is_temporary_ && !is_link(name_.c_str())) doom_file(path_of(file_.stream));
}

void OutputFile::write(img_image* image, int height) {
  create(image->width, height);
  if (!ka_img_image_write(&file_, image)) fail("cannot write %s");
  if (!ka_img_close(&file_)) fail("cannot close %s");
  if (!is_temporary_) spare_doomed_file();
}

void OutputFile::show(const Options& options) const {
  if (options.verbose) ka_progress("displaying %s", name_.c_str());
  run_viewer(std::string(options.first) + " - " + options.second, name_);
}
