// Per-thread context: the module stack and the context areas.
#include <array>

#include <ka/detail/context.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>

#include "areas.h"

namespace {
AreaTable areas;  // context areas of all modules
}  // namespace

void ka_module_push(int module) { ka::push_module(ka::context(), module); }
void ka_module_pop() { ka::pop_module(ka::context()); }
int ka_module_current() { return ka::module_at(ka::context(), 0); }

int ka_thread_get() { return ka::context().thread; }
int ka_host_get() { return ka::context().host; }

void ka_context_register_module(int module, ka_area_function init, ka_area_function exit,
                                std::size_t size) {
  areas.add(module, init, exit, size);
}

void* ka_context_mem(int module) {
  ka_context& context = ka::context();
  if (!context.context_areas) context.context_areas = AreaTable::make_pointers();
  void*& area = context.context_areas[module];
  if (!area) areas.create(area, module);
  return area;
}

void** ka_context_push() {
  ka_context& context = ka::context();
  void** const saved = context.context_areas;
  context.context_areas = nullptr;
  return saved;
}

void ka_context_pop(void** saved) {
  ka_context& context = ka::context();
  if (context.context_areas) {
    // An exit function may ask for another module's area: go on until a pass finds nothing to
    // release.
    for (int pass = 0; pass < KA_MODULE_COUNT && areas.release_all(context.context_areas); ++pass) {
    }
    ka_mem_release_raw(context.context_areas);
  }
  context.context_areas = saved;
}

void ka_context_init() {
  for (int module = 1; module < KA_MODULE_COUNT; ++module) {
    if (areas.size(module) == 0) continue;
    ka_debug("module %s registered for %d byte context area", ka_modname[module],
             int(areas.size(module)));
  }
}

void ka_context_exit() {}
