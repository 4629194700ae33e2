// vel_diff compares two pictures pixel by pixel. It starts the library as every program of the
// system does.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include <ka/db.h>
#ifdef LUMORA_DRIVERS
#include <ka/drivers.h>
#endif
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/stubs.h>
#include <ka/trans.h>
#include <ka/version.h>

#include "compare.h"
#include "options.h"

namespace {

constexpr std::uint32_t kQuiet = KA_FATAL | KA_ERROR;
constexpr std::uint32_t kVerbose = kQuiet | KA_WARNING | KA_INFO | KA_PROGRESS;
constexpr char kToolVersion[] = "2.2";

void error() { ka_fatal("failed to allocate memory"); }

// An image that is opened while a standard stream is closed would get its number, and messages
// would end up in the image. What is put in for a closed one refuses to be written, so that a lost
// result is noticed.
void reserve_standard_streams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) == -1) (void)open("/dev/null", O_RDONLY);
  }
}

// A reader that went away and a file that may not grow are failures to be reported, not ends without a
// word.
void refuse_deadly_signals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

void print_banner() {
  ka_info("Lumora image tools");
  ka_info("pixel by pixel difference of two images");
  ka_info("vel_diff version %s", kToolVersion);
  ka_version();
}

void start_library() {
  ka_mem_init();
  ka_par_init(0);
  ka_db_init();
  ka_scene_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
#ifdef LUMORA_DRIVERS
  ka_drivers_register();
#endif
}

[[noreturn]] void usage(const char* program) {
  print_usage(program);
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  reserve_standard_streams();
  refuse_deadly_signals();
  ka_mem_error_handler(error);
  std::set_new_handler(error);
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
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
