// Job elements: pins, producing data once for all who wait, giving them back.
#include <ka/mem.h>
#include <ka/message.h>

#include <cstring>
#include <utility>

#include <ka/detail/assertion.h>
#include <ka/detail/context.h>
#include <ka/detail/owned.h>
#include <ka/detail/pins.h>

#include "store.h"

// How the data of a job element are produced. Guarded by the entry's lock, `module` and
// `parameters` stay as they are.
struct ka_job {
  int module;
  ka::Owned<std::uint8_t> parameters;
  ka::string format;     // of the parameters, for ka_swap
  void* fresh;           // while the job is executed: what it has of the element's own memory
  std::size_t job_size;  // bytes that the element costs in all; 0: no data
  bool is_fixed;         // the data cannot move to disk
  bool is_foreign;       // the data are not the element's own
};

namespace {

std::array<std::atomic<ka_job_callback>, KA_MODULE_COUNT> callbacks;
std::atomic<std::uint64_t> flushes{0};  // of data that a job can produce again

ka_job_call call_of(std::uint32_t tag, const ka_job& job) {
  ka_job_call call{};
  call.tag = tag;
  call.parameters = job.parameters.get();
  return call;
}

int call_back(int operation, const ka_job& job, ka_job_call& call) {
  const ka_job_callback callback = callbacks[std::size_t(job.module)].load();
  return callback ? callback(operation, &call) : 0;
}

// Takes over what an execution has left in `call`.
void take_data(ka_db_entry& entry, ka_job& job, const ka_job_call& call) {
  void* const own = std::exchange(job.fresh, nullptr);
  job.is_foreign = call.data != nullptr && call.data != own;
  job.is_fixed = job.is_foreign || call.fixed != 0;
  void* const data = job.is_foreign ? call.data : own;
  if (data != own) ka_mem_release(own);
  const std::size_t size = job.is_foreign ? call.size : own ? ka_mem_dogetsize(own) : 0;
  job.job_size = call.job_size != 0 ? call.job_size : size;
  ka::shared(entry.size).store(size);
  ka::shared(entry.data).store(data);
}

// Executes the job of an element without data. The caller holds the entry's lock.
ka::Production execute(std::uint32_t tag, ka_db_entry& entry) {
  if (!entry.job) return ka::Production::kFailed;
  ka_job& job = *entry.job;
  ka_job_call call = call_of(tag, job);
  ka::shared(entry.producer).store(&ka::context());
  const bool done = call_back(KA_JOB_EXECUTE, job, call) != 0;
  ka::shared(entry.producer).store(nullptr);
  if (done) {
    take_data(entry, job, call);
  } else {
    ka_mem_release(std::exchange(job.fresh, nullptr));
    ka::shared(entry.size).store(0);
  }
  auto attempts = ka::shared(entry.attempts);
  attempts.fetch_add(1);
  if (!done) return ka::Production::kFailed;
  return entry.data ? ka::Production::kDone : ka::Production::kNothing;
}

bool is_producer(ka_db_entry& entry) { return ka::shared(entry.producer).load() == &ka::context(); }

// As for produce, of an entry whose lock the caller holds. `attempts` is how often the job had been
// executed when the caller began to wait.
ka::Production produce_locked(std::uint32_t tag, ka_db_entry& entry, std::uint32_t attempts) {
  if (entry.data) return ka::Production::kDone;
  if (entry.state == KA_DB_ON_DISK) ka::page_in(entry);
  if (entry.state == KA_DB_ON_DISK) return ka::Production::kUnread;
  if (entry.data) return ka::Production::kDone;
  // Those who waited for an execution that failed share its failure.
  if (entry.attempts != attempts) return ka::Production::kFailed;
  return execute(tag, entry);
}

// Gives the data that were hidden away. The caller holds the entry's lock.
void release_data(std::uint32_t tag, ka_db_entry& entry, void* data) {
  ka_job* const job = entry.job;
  bool is_taken = false;
  if (job) {
    ka_job_call call = call_of(tag, *job);
    call.data = data;
    call.size = entry.size;
    call.job_size = std::exchange(job->job_size, 0);
    call.fixed = job->is_fixed;
    is_taken = call_back(KA_JOB_DELETE, *job, call) != 0 || job->is_foreign;
    job->is_foreign = job->is_fixed = false;
  }
  if (!is_taken) ka_mem_release(data);
  ka::shared(entry.size).store(0);
}

// Tells a job that it is there.
void begin_job(std::uint32_t tag, ka_job& job) {
  ka_job_call call = call_of(tag, job);
  call_back(KA_JOB_BEGIN, job, call);
}

// Gives an element another job.
bool replace_job(std::uint32_t tag, ka_db_entry& entry, ka::Owned<ka_job> job) {
  const ka::LockScope locked(entry.lock);
  if (!ka::is_used(entry)) return false;
  if (entry.data && !ka::flush_locked(tag, entry)) return false;
  if (ka::is_pinned(entry)) return false;
  if (entry.state == KA_DB_ON_DISK) ka::drop_swap_file(entry);
  ka::end_job(tag, entry);
  entry.job = job.release();
  begin_job(tag, *entry.job);
  return true;
}

std::uint32_t add_job(int type, ka::Owned<ka_job> job) {
  ka_job* const fresh = job.release();
  const std::uint32_t tag = ka::add_own_entry(type, {ka::Content::kJob, nullptr, 0, fresh});
  ka_db_entry& entry = *ka::entry_at(tag);
  const ka::LockScope locked(entry.lock);
  if (entry.job == fresh) begin_job(tag, *fresh);
  return tag;
}

// Calls the job of an element for an operation that only asks. False: it has none.
bool ask_job(std::uint32_t tag, int operation, ka_job_call& call) {
  ka_db_entry& entry = ka::find_entry(tag);
  if (!ka::is_job_tag(tag)) return false;
  const ka::LockScope locked(entry.lock);
  if (!entry.job) return false;
  call = call_of(tag, *entry.job);
  call_back(operation, *entry.job, call);
  return true;
}

}  // namespace

// The slot may get another element while it is being pinned, and that another counter.
ka::Pinned ka::pin(ka_db_entry& entry) {
  for (;;) {
    const std::uint16_t slot = shared(entry.pin_slot).load();
    shared(context().pins[slot]).fetch_add(1);
    void* const data = shared(entry.data).load();
    if (shared(entry.pin_slot).load() == slot) {
      shared(entry.time).store(stamp(), std::memory_order_relaxed);
      return {data, slot};
    }
    unpin(slot);
  }
}
void ka::unpin(std::uint16_t slot) { shared(context().pins[slot]).fetch_sub(1); }

bool ka::is_pinned(ka_db_entry& entry) { return slot_is_pinned(shared(entry.pin_slot).load()); }

// Whoever pins the element after the exchange finds no data and waits; whoever pinned it before is
// counted.
ka::HiddenData::HiddenData(ka_db_entry& entry)
    : entry_(entry), data_(shared(entry.data).exchange(nullptr)) {
  if (data_ && is_pinned(entry)) {
    shared(entry_.data).store(data_);
    data_ = nullptr;
  }
}

ka::HiddenData::~HiddenData() {
  if (data_) shared(entry_.data).store(data_);
}

ka::Produced ka::produce(std::uint32_t tag, ka_db_entry& entry, std::uint16_t pin_slot) {
  if (is_producer(entry)) return {entry.job->fresh, Production::kDone};
  const std::uint32_t attempts = shared(entry.attempts).load();
  const LockScope locked(entry.lock);
  if (!is_used(entry) || entry.pin_slot != pin_slot) return {nullptr, Production::kGone};
  const Production result = produce_locked(tag, entry, attempts);
  return {result == Production::kDone ? entry.data : nullptr, result};
}

bool ka::flush_locked(std::uint32_t tag, ka_db_entry& entry) {
  HiddenData hidden(entry);
  if (!hidden) return false;
  release_data(tag, entry, hidden.data());
  hidden.take();
  ++flushes;
  return true;
}

std::uint64_t ka::flush_count() { return flushes; }
void ka::reset_flush_count() { flushes = 0; }

bool ka::can_move(const ka_db_entry& entry) { return !entry.job || !entry.job->is_fixed; }

void ka::end_job(std::uint32_t tag, ka_db_entry& entry) {
  const Owned<ka_job> job(std::exchange(entry.job, nullptr));
  if (!job) return;
  ka_job_call call = call_of(tag, *job);
  call_back(KA_JOB_END, *job, call);
}

void* ka::realloc_job(ka_db_entry& entry, std::size_t size) {
  if (is_producer(entry)) {
    void*& fresh = entry.job->fresh;
    fresh = ka_mem_reallocate(fresh, size);
    shared(entry.size).store(size);
    return fresh;
  }
  const LockScope locked(entry.lock);
  KA_ASSERT(!entry.job || !entry.job->is_fixed);
  void* const data = ka_mem_reallocate(entry.data, size);
  shared(entry.data).store(data);
  shared(entry.size).store(size);
  return data;
}

bool ka::delete_job(std::uint32_t tag, ka_db_entry& entry, std::uint64_t serial) {
  if (is_producer(entry)) return false;
  const LockScope locked(entry.lock);
  if (entry.serial != serial) return false;  // another thread has deleted it
  if (entry.data ? !flush_locked(tag, entry) : is_pinned(entry)) return false;
  if (entry.state == KA_DB_ON_DISK) drop_swap_file(entry);
  end_job(tag, entry);
  return remove_entry(tag, serial);
}

void ka::release_job(std::uint32_t tag, ka_db_entry& entry) {
  const LockScope locked(entry.lock);
  if (entry.data) release_data(tag, entry, entry.data);
  if (entry.state == KA_DB_ON_DISK) drop_swap_file(entry);
  end_job(tag, entry);
}

void ka_job_register(int module, ka_job_callback callback) {
  const ka::ModuleScope scope(KA_JOB);
  KA_ASSERT(module >= 0 && module < KA_MODULE_COUNT);
  if (!callback) {
    ka::for_each_entry(ka::kFirstJobPage, ka::kPageCount, [&](std::uint32_t tag, auto& entry) {
      const ka::LockScope locked(entry.lock);
      if (entry.job && entry.job->module == module) ka::flush_locked(tag, entry);
    });
  }
  callbacks[std::size_t(module)] = callback;
}

int ka_job_create(std::uint32_t* tag, int type, int module, const void* parameters,
                  std::size_t size, const char* format) {
  const ka::ModuleScope scope(KA_JOB);
  KA_ASSERT(module >= 0 && module < KA_MODULE_COUNT);
  auto job = ka::make_owned<ka_job>();
  job->module = module;
  job->parameters.reset(static_cast<std::uint8_t*>(ka_mem_allocate(size)));
  if (size > 0) std::memcpy(job->parameters.get(), parameters, size);
  if (format) job->format = format;
  if (*tag == 0) {
    *tag = add_job(type, std::move(job));
    return 1;
  }
  ka_db_entry& entry = ka::find_entry(*tag);
  if (!ka::is_job_tag(*tag) || !replace_job(*tag, entry, std::move(job))) return 0;
  ka_db_set_type(*tag, type);
  return 1;
}

void* ka_job_access(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_JOB);
  ka_db_entry* const entry = ka::entry_at(tag);
  if (tag == 0 || !entry || !ka::is_used(*entry)) return nullptr;
  if (!ka::is_job_tag(tag)) return ka::shared(entry->data).load();
  const ka::Pinned pinned = ka::pin(*entry);
  if (pinned.data) return pinned.data;
  void* const data = ka::produce(tag, *entry, pinned.slot).data;
  if (!data) ka::unpin(pinned.slot);
  return data;
}

int ka_job_flush(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_JOB);
  ka_db_entry* const entry = ka::entry_at(tag);
  if (tag == 0 || !entry || !ka::is_used(*entry) || !ka::is_job_tag(tag)) return 0;
  if (!ka_trylock(entry->lock)) return 0;
  const bool done = entry->job && ka::flush_locked(tag, *entry);
  ka_unlock(entry->lock);
  return done;
}

std::size_t ka_job_size(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_JOB);
  ka_db_entry& entry = ka::find_entry(tag);
  if (!ka::is_job_tag(tag)) return ka::shared(entry.size).load();
  const ka::LockScope locked(entry.lock);
  return entry.job ? entry.job->job_size : 0;
}

int ka_job_get_schedule(std::uint32_t tag, ka_job_schedule* schedule) {
  const ka::ModuleScope scope(KA_JOB);
  ka_job_call call{};
  const bool asked = ask_job(tag, KA_JOB_SCHEDULE, call);
  *schedule = call.schedule;
  return asked;
}

int ka_job_describe(std::uint32_t tag, char text[KA_JOB_TEXT_SIZE]) {
  const ka::ModuleScope scope(KA_JOB);
  ka_job_call call{};
  const bool asked = ask_job(tag, KA_JOB_DESCRIBE, call);
  std::memcpy(text, call.text, sizeof call.text);
  return asked;
}
