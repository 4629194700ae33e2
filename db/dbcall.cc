// Scene database: start and exit of the element store, and its elements.
#include <ka/detail/store.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/version.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <ka/detail/owned.h>

#include "store.h"

namespace {

constexpr unsigned kFetchPoll = 50000;  // microseconds between looks at an element being fetched

bool is_started = false;

ka_mutex delete_lock;
bool is_delayed KA_GUARDED_BY(delete_lock) = false;

// Deletions that wait: which element, and whose it was.
struct Delayed {
  std::uint32_t tag;
  std::uint64_t serial;
  ka::Owner owner;
};
ka::vector<Delayed>* delayed KA_GUARDED_BY(delete_lock) KA_PT_GUARDED_BY(delete_lock) = nullptr;

bool belongs_to(ka_db_entry& entry, const ka::Owner& owner) {
  return ka::shared(entry.owner).load() == owner.tag &&
         ka::shared(entry.owner_serial).load() == owner.serial;
}

// Deletes an element whoever owns it.
bool delete_element(std::uint32_t tag, ka_db_entry& entry) {
  const std::uint64_t serial = ka::shared(entry.serial).load();
  if (ka::is_job_tag(tag)) return ka::delete_job(tag, entry, serial);
  void* const data = ka::shared(entry.data).load();
  if (!ka::remove_entry(tag, serial)) return false;
  ka_mem_release(data);
  return true;
}

// Deletes an element of the current transaction.
bool delete_owned(std::uint32_t tag, ka_db_entry& entry) {
  const std::uint32_t place = entry.list_place;
  if (!delete_element(tag, entry)) return false;
  ka::trans_clear_tag(tag, place);
  return true;
}

// Queues a deletion while they are delayed. False: they are not.
bool delay(std::uint32_t tag, ka_db_entry& entry) {
  const ka::LockScope locked(delete_lock);
  if (!is_delayed) return false;
  const ka::Owner owner = ka::current_owner();
  ka_debug("entering delete delayed: tag %#x, trans %#x", tag, owner.tag);
  if (!delayed) delayed = ka::make_owned<ka::vector<Delayed>>().release();
  delayed->push_back({tag, ka::shared(entry.serial).load(), owner});
  return true;
}

// Delays deletions from now on, or no longer. Then the queued ones pass to the caller.
ka::Owned<ka::vector<Delayed>> set_delayed(bool on) {
  const ka::LockScope locked(delete_lock);
  is_delayed = on;
  return ka::Owned<ka::vector<Delayed>>(on ? nullptr : std::exchange(delayed, nullptr));
}

// Carries a queued deletion out. False: the element is in use.
bool delete_delayed(const Delayed& deletion) {
  ka_db_entry& entry = *ka::entry_at(deletion.tag);
  if (ka::shared(entry.serial).load() != deletion.serial) return true;  // it has gone already
  if (!belongs_to(entry, deletion.owner)) return true;
  const ka::Owner current = ka::current_owner();
  return belongs_to(entry, current) ? delete_owned(deletion.tag, entry)
                                    : delete_element(deletion.tag, entry);
}

// What transactions need of the store.

std::uint32_t create_for_default(int type, const std::uint32_t* words, std::size_t count,
                                 std::uint32_t now) {
  const ka::ModuleScope scope(KA_DB);
  const std::size_t size = count * sizeof *words;
  void* const data = ka_mem_allocate(std::max<std::size_t>(size, 1));
  if (size > 0) std::memcpy(data, words, size);
  return ka::add_entry(type, {},
                       {ka::Content::kData, data, std::max<std::size_t>(size, 1), nullptr}, now);
}

bool read_copy(std::uint32_t tag, ka::StoredElement& element) {
  ka_db_entry* const entry = ka::entry_at(tag);
  if (!entry || ka::is_job_tag(tag)) return false;
  return ka::read_entry(*entry, element);
}

std::uint64_t serial_of(std::uint32_t tag) {
  ka_db_entry* const entry = ka::entry_at(tag);
  return entry ? ka::shared(entry->serial).load() : 0;
}

void remove_element(std::uint32_t tag, std::uint64_t serial) {
  ka_db_entry* const entry = ka::entry_at(tag);
  if (!entry) return;
  void* const data = ka::shared(entry->data).load();
  if (ka::remove_entry(tag, serial)) ka_mem_release(data);
}

void release_owned(std::uint32_t tag, std::uint64_t owner_serial) {
  const ka::ModuleScope scope(KA_DB);
  ka_db_entry* const entry = ka::entry_at(tag);
  if (!entry || !ka::is_used(*entry)) return;
  const std::uint64_t serial = ka::shared(entry->serial).load();
  if (ka::shared(entry->owner_serial).load() != owner_serial) return;
  if (delete_element(tag, *entry) || ka::shared(entry->serial).load() != serial) return;
  ka_debug("element %#x is in use and passes to the default transaction", tag);
  ka::shared(entry->owner).store(0);
  ka::shared(entry->owner_serial).store(0);
  entry->list_place = 0;
}

constexpr ka::StoreOperations kOperations = {.create = create_for_default,
                                             .read = read_copy,
                                             .serial = serial_of,
                                             .remove = remove_element,
                                             .release = release_owned,
                                             .time = ka::stamp};

[[noreturn]] void end_access(std::uint32_t tag, ka::Production result, int type) {
  switch (result) {
    case ka::Production::kGone:
      ka_nfatal(11, "accessed invalid (deleted?) DB tag %#x", tag);
    case ka::Production::kFailed:
      ka_nfatal(37, "database job execution failed");
    case ka::Production::kNothing:
      ka_debug("job execution for tag %#x type %d yields nothing, trying network.", tag, type);
      [[fallthrough]];
    default:
      ka_nfatal(0, "accessing unknown tag %#x", tag);
  }
}

void* access_job(std::uint32_t tag, ka_db_entry& entry) {
  const ka::Pinned pinned = ka::pin(entry);
  if (pinned.data) return pinned.data;
  const ka::Produced produced = ka::produce(tag, entry, pinned.slot);
  if (produced.data) return produced.data;
  end_access(tag, produced.result, ka::shared(entry.type).load());
}

void* access_data(std::uint32_t tag, ka_db_entry& entry) {
  while (ka::shared(entry.state).load() == KA_DB_FETCHING) ka_msg_usleep(kFetchPoll);
  void* const data = ka::shared(entry.data).load();
  if (data) return data;
  end_access(tag, ka::is_used(entry) ? ka::Production::kUnread : ka::Production::kGone, 0);
}

void* access(std::uint32_t tag, ka_db_entry& entry) {
  return ka::is_job_tag(tag) ? access_job(tag, entry) : access_data(tag, entry);
}

}  // namespace

std::uint32_t ka::add_own_entry(int type, const Content& content) {
  const std::uint32_t tag = add_entry(type, current_owner(), content, stamp());
  entry_at(tag)->list_place = trans_add_tag(tag);
  return tag;
}

void ka_db_init() {
  const ka::ModuleScope scope(KA_DB);
  ka::pages_start();
  ka::swap_start();
  ka_init_lock(&delete_lock);
  is_started = true;
  ka::set_store_operations(&kOperations);
  ka::handle_limits();
  ka_mem_database_reports(ka_db_summary, ka_db_dump);
}

void ka_db_exit() {
  const ka::ModuleScope scope(KA_DB);
  ka_mem_database_reports(nullptr, nullptr);
  ka::ignore_limits();
  ka::set_store_operations(nullptr);
  (void)set_delayed(false);
  ka::for_each_entry(ka::kFirstJobPage, ka::kPageCount,
                     [](std::uint32_t tag, ka_db_entry& entry) { ka::release_job(tag, entry); });
  ka::for_each_entry(ka::kFirstDataPage, ka::kFirstJobPage,
                     [](std::uint32_t, ka_db_entry& entry) { ka_mem_release(entry.data); });
  ka_delete_lock(&delete_lock);
  ka::swap_end();
  ka::pages_end();
  is_started = false;
}

void* ka_db_create(std::uint32_t* tag, int type, std::size_t size) {
  const ka::ModuleScope scope(KA_DB);
  size = std::max<std::size_t>(size, 1);
  void* const data = ka_mem_allocate(size);
  *tag = ka::add_own_entry(type, {ka::Content::kData, data, size, nullptr});
  return data;
}

void* ka_db_create_private(std::uint32_t* tag, int type, std::size_t size) {
  const ka::ModuleScope scope(KA_DB);
  size = std::max<std::size_t>(size, 1);
  void* const data = ka_mem_allocate(size);
  *tag = ka::add_entry(type, ka::kNobody, {ka::Content::kData, data, size, nullptr}, ka::stamp());
  return data;
}

int ka_db_delete_private(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  ka_db_entry& entry = ka::find_entry(tag);
  return belongs_to(entry, ka::kNobody) && delete_element(tag, entry);
}

ka_db_entry* ka_db_jobcreate(std::uint32_t* tag, int type) {
  const ka::ModuleScope scope(KA_DB);
  *tag = ka::add_own_entry(type, {ka::Content::kJob, nullptr, 0, nullptr});
  return ka::entry_at(*tag);
}

void* ka_db_access(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  return access(tag, ka::find_entry(tag));
}

void* ka_db_access_type(std::uint8_t* type, std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  ka_db_entry& entry = ka::find_entry(tag);
  void* const data = access(tag, entry);
  *type = ka::shared(entry.type).load();
  return data;
}

ka_db_entry* ka_db_accessinfo(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  return &ka::find_entry(tag);
}

void ka_db_unpin(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  if (!ka::is_job_tag(tag)) return;
  ka_db_entry& entry = ka::find_entry(tag);
  ka::shared(entry.time).store(ka::stamp(), std::memory_order_relaxed);
  ka::unpin(ka::shared(entry.pin_slot).load());
}

int ka_db_exists(std::uint32_t tag) {
  ka_db_entry* const entry = tag != 0 ? ka::entry_at(tag) : nullptr;
  return entry && ka::is_used(*entry);
}

void* ka_db_realloc(std::uint32_t tag, std::size_t size) {
  const ka::ModuleScope scope(KA_DB);
  size = std::max<std::size_t>(size, 1);
  ka_db_entry& entry = ka::find_entry(tag);
  ka::count_reallocation();
  if (ka::is_job_tag(tag)) return ka::realloc_job(entry, size);
  void* const data = ka_mem_reallocate(ka::shared(entry.data).load(), size);
  ka::shared(entry.data).store(data);
  ka::shared(entry.size).store(size);
  return data;
}

int ka_db_type(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  return ka::shared(ka::find_entry(tag).type).load();
}

void ka_db_set_type(std::uint32_t tag, int type) {
  const ka::ModuleScope scope(KA_DB);
  ka::shared(ka::find_entry(tag).type).store(std::uint8_t(type));
}

std::size_t ka_db_size(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  ka_db_entry& entry = ka::find_entry(tag);
  if (!ka::is_job_tag(tag)) return ka::shared(entry.size).load();
  (void)access(tag, entry);
  const std::size_t size = ka::shared(entry.size).load();
  ka_db_unpin(tag);
  return size;
}

int ka_db_isjob(std::uint32_t tag) { return ka::is_job_tag(tag); }

int ka_db_delete(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_DB);
  ka_db_entry& entry = ka::find_entry(tag);
  if (!belongs_to(entry, ka::current_owner())) return 0;
  return delay(tag, entry) || delete_owned(tag, entry);
}

void ka_db_delete_delay(int on) {
  const ka::ModuleScope scope(KA_DB);
  auto queue = set_delayed(on != 0);
  if (!queue) return;
  std::erase_if(*queue, delete_delayed);
  if (queue->empty()) return;
  const ka::LockScope locked(delete_lock);  // elements in use wait for the next time
  if (!delayed) {
    delayed = queue.release();
  } else {
    delayed->insert(delayed->end(), queue->begin(), queue->end());
  }
}

int ka_db_swap_config(const char* folder, int limit) {
  const ka::ModuleScope scope(KA_DB);
  if (!is_started) return 0;
  ka::configure_swap(folder, limit);
  return 1;
}

const char* ka_db_version() { return ka::module_version(ka::kDbVersion); }
