// vel_diff compares two pictures pixel by pixel. It starts the library as every program of the
// system does.
#include <cstdint>
#include <cstdlib>

#include <ka/img.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <ka/version.h>

#include "compare.h"
#include "options.h"
#include "start.h"

namespace {

constexpr std::uint32_t kQuiet = KA_FATAL | KA_ERROR;
constexpr std::uint32_t kVerbose = kQuiet | KA_WARNING | KA_INFO | KA_PROGRESS;
constexpr char kToolVersion[] = "2.2";

void report_no_memory() { ka_fatal("failed to allocate memory"); }

void print_banner() {
  ka_info("Lumora image tools");
  ka_info("pixel by pixel difference of two images");
  ka_info("vel_diff version %s", kToolVersion);
  ka_version();
}

[[noreturn]] void usage(const char* program) {
  print_usage(program);
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  prepare_process(report_no_memory);
  ka_set_verbosity(kQuiet);
  ka_img_debug(0);
  Options options;
  if (!parse_options(argc, argv, options)) usage(argv[0]);
  if (options.verbose) ka_set_verbosity(kVerbose);
  print_banner();
  start_library();
  if (!take_names(argc, argv, options)) usage(argv[0]);
  const int status = compare(options);
  ka_module_pop();
  return status;
}
