// Scene database: start and exit of the element store.
#include <array>

#include <ka/db.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/version.h>

namespace {

// What each lock of the store guards.
ka_mutex database_lock;    // creation, removal, statistics, the time stamps
ka_mutex delete_lock;      // the queue of delayed deletions
ka_mutex page_table_lock;  // creation of page tables, pages and entry locks
ka_mutex swap_lock;        // the swap directory, its limit and its counters

constexpr std::array kLocks = {&database_lock, &delete_lock, &page_table_lock, &swap_lock};

}  // namespace

void ka_db_init() {
  const ka::ModuleScope scope(KA_DB);
  for (ka_mutex* lock : kLocks) ka_init_lock(lock);
}

void ka_db_exit() {
  const ka::ModuleScope scope(KA_DB);
  for (ka_mutex* lock : kLocks) ka_delete_lock(lock);
}

const char* ka_db_version() { return ka::module_version(ka::kDbVersion); }
