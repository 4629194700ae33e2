// The context area of this room, and its start.
#include "libcontext.h"

#include <ka/detail/start.h>
#include <ka/random.h>
#include <ka/trans.h>

LibContext& lib_context() { return *static_cast<LibContext*>(ka_context_mem(KA_LIB)); }

void ka::start_lib() {
  ka_context_register_module(KA_LIB, nullptr, nullptr, sizeof(LibContext));
  ka_random_init();
}
