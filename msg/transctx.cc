// Per-thread context: the module stack and the context areas.
#include <atomic>

#include <ka/detail/context.h>
#include <ka/detail/hooks.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>

#include "areas.h"
#include "threadtable.h"

namespace {
ka::AreaTable areas;                     // context areas of all modules
ka_area_function before_push = nullptr;  // gets the area of `before_push_module`
int before_push_module = KA_NULL;

// The thread's table of areas. A purge by another thread looks at the table and its entries: they
// are stored and loaded as atomics.
void** own_table(ka_context& context) {
  if (context.context_areas) return context.context_areas;
  const ka::ModuleScope scope(KA_TRANS);
  void** const table = ka::AreaTable::make_pointers();
  if (context.context_areas) {  // making it ran a purge, and a limit handler asked for an area
    ka_mem_release_raw(table);
  } else {
    std::atomic_ref(context.context_areas).store(table);
  }
  return context.context_areas;
}
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

void ka::call_before_context_push(int module, ka_area_function function) {
  before_push_module = module;
  before_push = function;
}

void* ka_context_mem(int module) {
  if (module < 0 || module >= KA_MODULE_COUNT) return nullptr;
  void*& entry = own_table(ka::context())[module];
  const std::atomic_ref area(entry);
  if (!area.load(std::memory_order_acquire)) {
    const ka::ModuleScope scope(KA_TRANS);
    areas.create(entry, module);
  }
  return area.load(std::memory_order_acquire);
}

void** ka_context_push() {
  const ka::ModuleScope scope(KA_TRANS);
  ka_context& context = ka::context();
  void** const saved = context.context_areas;
  if (before_push && saved && saved[before_push_module]) before_push(saved[before_push_module]);
  std::atomic_ref(context.context_areas).store(nullptr);
  return saved;
}

void ka_context_pop(void** saved) {
  const ka::ModuleScope scope(KA_TRANS);
  const ka::HiddenAreas hidden;
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
  const ka::ModuleScope scope(KA_TRANS);
  for (int module = 1; module < KA_MODULE_COUNT; ++module) {
    if (areas.size(module) == 0) continue;
    ka_debug("module %s registered for %d byte context area", ka_modname[module],
             int(areas.size(module)));
  }
}

void ka_context_exit() {}
