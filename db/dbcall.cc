// Scene database: start and exit of the element store.
#include <array>

#include <ka/db.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>
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
  ka_mem_database_reports(ka_db_summary, ka_db_dump);
}

void ka_db_exit() {
  const ka::ModuleScope scope(KA_DB);
  ka_mem_database_reports(nullptr, nullptr);
  for (ka_mutex* lock : kLocks) ka_delete_lock(lock);
}

void ka_db_summary() {
  const ka::ModuleScope scope(KA_DB);
  ka_info("database elements by module:");
  ka_info("database elements by type:");
}

void ka_db_dump() {
  const ka::ModuleScope scope(KA_DB);
  ka_info(
      "host  mod        tag      addr   ctrans    size pidx fj v priv refs    type          ka "
      "name");
}

const char* ka_db_version() { return ka::module_version(ka::kDbVersion); }
