#include "tool.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <ka/message.h>

#include "explain.h"
#include "printed.h"
#include "start.h"

namespace {

constexpr std::uint32_t kQuiet = KA_FATAL | KA_ERROR | KA_WARNING;
constexpr std::uint32_t kVerbose = kQuiet | KA_INFO | KA_PROGRESS;

const char* name = "";

void report_no_memory() {
  std::fprintf(stderr, "%s: failed to allocate memory\n", name);  // asks for none
  std::exit(kFailed);
}

// The library's fatal messages still show in full after this.
void report_message(std::uint32_t level, const char* /*line*/, const char* text, int /*code*/) {
  if (level == KA_FATAL) return;
  std::fprintf(stderr, level == KA_WARNING ? "%s: warning: %s\n" : "%s: %s\n", name, text);
}

}  // namespace

void start_tool(const char* tool) {
  name = tool;
  prepare_process(report_no_memory);
  ka_set_verbosity(kQuiet);
  ka_errorhandler(report_message);
}

void set_verbose() { ka_set_verbosity(kVerbose); }

const char* tool_name() { return name; }

void report(const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", name, printed(text).c_str());
}

void fail(const std::string& text) {
  report(text);
  std::exit(kFailed);
}

std::string failure_text(const img_file& file) {
  std::array<char, IMG_ERROR_TEXT_SIZE> text{};
  ka_img_error_text(&file, text.data(), text.size());
  std::string result = text.data();
  if (file.reason[0]) {
    result += std::string(": ") + file.reason;
  } else if (file.error == IMG_ERR_FORMAT) {
    result += ": not in one of the formats " + read_formats();
  }
  return result;
}

void finish_output() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    fail(std::string("cannot write to standard output (") + ka_strerror() + ")");
  }
}
