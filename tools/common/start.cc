#include "start.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

#include <ka/db.h>
#ifdef LUMORA_DRIVERS
#include <ka/drivers.h>
#endif
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/stubs.h>
#include <ka/trans.h>

namespace {

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

}  // namespace

void prepare_process(void (*memory_error)()) {
  reserve_standard_streams();
  refuse_deadly_signals();
  ka_mem_error_handler(memory_error);
  std::set_new_handler(memory_error);
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
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
