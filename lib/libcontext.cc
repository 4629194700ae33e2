// The context area of this room, and its start.
#include "libcontext.h"

#include <ka/detail/start.h>
#include <ka/random.h>
#include <ka/trans.h>

ka::LibContext& ka::lib_context() { return *static_cast<ka::LibContext*>(ka_context_mem(KA_LIB)); }

void ka::start_lib() {
  ka_context_register_module(KA_LIB, nullptr, nullptr, sizeof(ka::LibContext));
  ka_random_init();
}
