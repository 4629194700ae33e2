#include "areas.h"

#include <atomic>

#include <ka/detail/assertion.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>

void ka::AreaTable::add(int module, ka_area_function init, ka_area_function exit,
                        std::size_t size) {
  KA_ASSERT(module >= 0 && module < KA_MODULE_COUNT);
  Entry& entry = entries_[std::size_t(module)];
  entry.size = size;
  if (init) entry.init = init;
  if (exit) entry.exit = exit;
}

void ka::AreaTable::create(void*& area, int module) const {
  const Entry& entry = entries_[std::size_t(module)];
  if (entry.size == 0) return;
  void* const fresh = ka_mem_allocate_raw(entry.size);
  void* none = nullptr;
  if (!std::atomic_ref(area).compare_exchange_strong(none, fresh)) {
    ka_mem_release_raw(fresh);  // a limit handler has made it meanwhile
    return;
  }
  if (!entry.init) return;
  const ka::CallbackScope scope(KA_TRANS);
  entry.init(fresh);
}

bool ka::AreaTable::release_all(void** pointers) const {
  bool any = false;
  for (std::size_t module = 0; module < KA_MODULE_COUNT; ++module) {
    void* const area = pointers[module];
    if (!area) continue;
    any = true;
    if (entries_[module].exit) {
      const ka::CallbackScope scope(KA_TRANS);
      entries_[module].exit(area);
    }
    pointers[module] = nullptr;
    ka_mem_release_raw(area);
  }
  return any;
}

void** ka::AreaTable::make_pointers() {
  return static_cast<void**>(ka_mem_allocate_raw(KA_MODULE_COUNT * sizeof(void*)));
}
