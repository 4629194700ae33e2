// Private areas that modules register: what to allocate for a thread, a transaction, a session or a
// world, and which functions to call when one comes and goes.
#pragma once

#include <array>

#include <ka/trans.h>

namespace ka {

class AreaTable {
 public:
  // Remembers a module's area; a null function keeps the one that was given earlier.
  void add(int module, ka_area_function init, ka_area_function exit, std::size_t size);

  std::size_t size(int module) const { return entries_[std::size_t(module)].size; }

  // Makes the module's zeroed area, unless there is one, and stores it before its init function
  // runs as KA_TRANS; nothing for a module without one. Another thread may look for the area
  // meanwhile.
  void create(void*& area, int module) const;

  // Releases every area of a table of pointers, exit functions first, which run as KA_TRANS.
  // Returns whether there was any.
  bool release_all(void** pointers) const;

  // A zeroed table of KA_MODULE_COUNT area pointers, a raw allocation.
  static void** make_pointers();

 private:
  struct Entry {
    ka_area_function init, exit;
    std::size_t size;  // bytes, 0: the module has no area
  };
  std::array<Entry, KA_MODULE_COUNT> entries_{};  // indexed by module
};

}  // namespace ka
