#include "output.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <ka/message.h>
#include <ka/subst.h>

namespace {

// A file that is not whole yet, or that only the viewer needs, goes away with the process, whether
// a fatal message ends it or a signal. Empty: none. A plain array, since signals may come any time.
std::array<char, KA_PATH_SIZE> doomed_file;

void remove_doomed_file() {
  if (doomed_file[0] != '\0') unlink(doomed_file.data());
  doomed_file[0] = '\0';
}

void end_by_signal(int number) {
  remove_doomed_file();
  signal(number, SIG_DFL);
  raise(number);  // delivered on return
}

// Devices stay, as they do when the library removes what it could not write.
void doom(const std::string& name) {
  struct stat status;
  if (lstat(name.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  if (name.size() >= doomed_file.size()) return;
  std::atexit(remove_doomed_file);
  for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
    if (signal(number, end_by_signal) == SIG_IGN) signal(number, SIG_IGN);
  }
  // The first character last: a signal finds no name or all of it.
  std::copy(name.begin() + 1, name.end(), doomed_file.begin() + 1);
  std::atomic_signal_fence(std::memory_order_release);
  doomed_file[0] = name[0];
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
  if (format < 0) ka_fatal("unknown extension \"%s\"", type);
  return format;
}

// The type that a name or an option states, with its dot or whatever its first character is.
const char* type_text(const Options& options) {
  if (options.output_type) return options.output_type;
  const char* const dot = std::strrchr(options.output, '.');
  if (!dot) ka_fatal("missing output image file type");
  return dot;
}

// Inside double quotes the shell leaves all but these alone.
std::string in_double_quotes(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (std::strchr("\"\\$`", c) && c) quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

bool is_plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("/._-+,:@%=").find(c) != std::string_view::npos;
}

// A file name as one word. A leading dash would make it an option.
std::string as_word(std::string name) {
  if (name.starts_with('-')) name.insert(0, "./");
  for (const char c : name) {
    if (!is_plain(c)) return in_double_quotes(name);
  }
  return name;
}

// The viewer finds the signals as a shell would leave them.
class DefaultSignals {
 public:
  DefaultSignals() : pipe_(signal(SIGPIPE, SIG_DFL)), size_(signal(SIGXFSZ, SIG_DFL)) {}
  ~DefaultSignals() {
    signal(SIGPIPE, pipe_);
    signal(SIGXFSZ, size_);
  }
  DefaultSignals(const DefaultSignals&) = delete;
  DefaultSignals& operator=(const DefaultSignals&) = delete;

 private:
  void (*pipe_)(int);
  void (*size_)(int);
};

}  // namespace

std::string viewer_command(const std::string& first, const std::string& second,
                           const std::string& output) {
  return "vel_disp -imgtitle " + in_double_quotes(first + " - " + second) + " " + as_word(output);
}

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
  const int file = mkstemp(name_.data());
  if (file < 0) ka_fatal("cannot create %s", name_.c_str());
  close(file);
  is_temporary_ = true;
  doom(name_);
}

void OutputFile::fail(const char* format) {
  ka_img_err_msg(&file_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  ka_fatal(format, name_.c_str());
#pragma GCC diagnostic pop
}

void OutputFile::write(img_image* image, int height) {
  if (!ka_img_create(&file_, name_.c_str(), IMG_TYPE_RGBA, format_, image->width, height)) {
    fail("cannot create %s");
  }
  std::array<char, KA_PATH_SIZE> path;
  ka_string_substitute(path.data(), name_.c_str(), path.size());
  if (!is_temporary_) doom(path.data());
  if (!ka_img_image_write(&file_, image)) fail("cannot write %s");
  if (!ka_img_close(&file_)) fail("cannot close %s");
  if (!is_temporary_) doomed_file[0] = '\0';
}

void OutputFile::show(const Options& options) const {
  if (options.verbose) ka_progress("displaying %s", name_.c_str());
  const DefaultSignals signals;
  (void)!std::system(viewer_command(options.first, options.second, name_).c_str());
}
