// Job elements: pins, producing data once for all who wait, giving them back.
#include <ka/mem.h>
#include <ka/message.h>

#include <cstddef>
#include <cstring>
#include <utility>

#include <ka/detail/assertion.h>
#include <ka/detail/context.h>
#include <ka/detail/owned.h>
#include <ka/detail/pins.h>

#include "store.h"

// How the data of a job element are produced; the parameters follow it in the same block. Guarded by
// the entry's lock; `module` and the parameters stay as they are.
struct alignas(std::max_align_t) ka_job {
  int module;
  ka::string format;     // of the parameters, for ka_swap
  void* fresh;           // while the job is executed: what it has of the element's own memory
  std::size_t job_size;  // bytes that the element costs in all; 0: no data
  bool is_foreign;       // the data are not the element's own
  bool failed;           // the last execution did, else it yielded data or nothing

  [[nodiscard]] void* parameters() { return this + 1; }
};

namespace {

std::array<std::atomic<ka_job_callback>, KA_MODULE_COUNT> callbacks;
std::atomic<std::uint64_t> flushes{0};  // of data that a job can produce again

ka::Owned<ka_job> make_job(int module, const void* parameters, std::size_t size,
                           const char* format) {
  ka::Owned<ka_job> job(new (ka_mem_allocate(sizeof(ka_job) + size)) ka_job{});
  job->module = module;
  if (format) job->format = format;
  if (size > 0) std::memcpy(job->parameters(), parameters, size);
  return job;
}

ka_job_call call_of(std::uint32_t tag, ka_job& job) {
  ka_job_call call{};
  call.tag = tag;
  call.parameters = job.parameters();
  return call;
}

// Whether the calling thread is in a callback of the element's job, and holds its lock.
bool is_producer(ka_db_entry& entry) { return ka::shared(entry.producer).load() == &ka::context(); }

// Calls the job of an element, which is locked meanwhile: what the callback asks about it must not
// wait.
int call_back(int operation, ka_db_entry& entry, const ka_job& job, ka_job_call& call) {
  const ka_job_callback callback = callbacks[std::size_t(job.module)].load();
  if (!callback) return 0;
  const auto producer = ka::shared(entry.producer);
  const void* const outer = producer.exchange(&ka::context());
  const int result = callback(operation, &call);
  producer.store(outer);
  return result;
}

// Takes over what an execution has left in `call`.
void take_data(ka_db_entry& entry, ka_job& job, const ka_job_call& call) KA_REQUIRES(entry.lock) {
  void* const own = std::exchange(job.fresh, nullptr);
  job.is_foreign = call.data != nullptr && call.data != own;
  ka::shared(entry.is_fixed).store(job.is_foreign || call.fixed != 0);
  void* const data = job.is_foreign ? call.data : own;
  if (data != own) ka_mem_release(own);
  const std::size_t size = job.is_foreign ? call.size : own ? ka_mem_dogetsize(own) : 0;
  job.job_size = call.job_size != 0 ? call.job_size : size;
  ka::shared(entry.size).store(size);
  ka::shared(entry.data).store(data);
}

// Executes the job of an element without data.
ka::Production execute(std::uint32_t tag, ka_db_entry& entry) KA_REQUIRES(entry.lock) {
  if (!entry.job) return ka::Production::kFailed;
  ka_job& job = *entry.job;
  ka_job_call call = call_of(tag, job);
  const bool done = call_back(KA_JOB_EXECUTE, entry, job, call) != 0;
  job.failed = !done;
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

// As for produce. `attempts` is how often the job had been executed when the caller began to wait.
ka::Production produce_locked(std::uint32_t tag, ka_db_entry& entry, std::uint32_t attempts)
    KA_REQUIRES(entry.lock) {
  if (entry.data) return ka::Production::kDone;
  if (entry.state == KA_DB_ON_DISK) ka::page_in(tag, entry);
  if (entry.state == KA_DB_ON_DISK) return ka::Production::kUnread;
  if (entry.data) return ka::Production::kDone;
  // Those who waited for an execution that failed share its failure.
  if (entry.attempts != attempts && entry.job) {
    return entry.job->failed ? ka::Production::kFailed : ka::Production::kNothing;
  }
  return execute(tag, entry);
}

// Gives the data that were hidden away.
void release_data(std::uint32_t tag, ka_db_entry& entry, void* data) KA_REQUIRES(entry.lock) {
  ka_job* const job = entry.job;
  bool is_taken = false;
  if (job) {
    ka_job_call call = call_of(tag, *job);
    call.data = data;
    call.size = entry.size;
    call.job_size = std::exchange(job->job_size, 0);
    call.fixed = ka::shared(entry.is_fixed).exchange(0);
    is_taken = call_back(KA_JOB_DELETE, entry, *job, call) != 0 || job->is_foreign;
    job->is_foreign = false;
  }
  if (!is_taken) ka_mem_release(data);
  ka::shared(entry.size).store(0);
}

// Tells a job that it is there.
void begin_job(std::uint32_t tag, ka_db_entry& entry, ka_job& job) KA_REQUIRES(entry.lock) {
  ka_job_call call = call_of(tag, job);
  call_back(KA_JOB_BEGIN, entry, job, call);
}

// Gives an element another job.
bool replace_job(std::uint32_t tag, ka_db_entry& entry, int type, ka::Owned<ka_job> job) {
  if (is_producer(entry)) return false;
  const ka::LockScope locked(entry.lock);
  if (!ka::is_used(entry)) return false;
  if (entry.data && !ka::flush_locked(tag, entry)) return false;
  if (ka::is_pinned(entry)) return false;
  if (entry.state == KA_DB_ON_DISK) ka::drop_disk_data(tag, entry);
  ka::end_job(tag, entry);
  entry.job = job.release();
  ka::shared(entry.type).store(std::uint8_t(type));
  begin_job(tag, entry, *entry.job);
  return true;
}

std::uint32_t add_job(int type, ka::Owned<ka_job> job) {
  ka_job* const fresh = job.release();
  const std::uint32_t tag = ka::add_own_entry(type, {ka::Content::kJob, nullptr, 0, fresh});
  ka_db_entry& entry = *ka::entry_at(tag);
  const ka::LockScope locked(entry.lock);
  if (entry.job == fresh) begin_job(tag, entry, *fresh);
  return tag;
}

// Calls the job of an element for an operation that only asks. False: it has none.
bool ask_job(std::uint32_t tag, int operation, ka_job_call& call) {
  ka_db_entry& entry = ka::find_entry(tag);
  if (!ka::is_job_tag(tag) || is_producer(entry)) return false;
  const ka::LockScope locked(entry.lock);
  if (!entry.job) return false;
  call = call_of(tag, *entry.job);
  call_back(operation, entry, *entry.job, call);
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
  if (is_producer(entry)) return {entry.job ? entry.job->fresh : nullptr, Production::kDone};
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
  return true;
}

void ka::count_flush() { ++flushes; }
std::uint64_t ka::flush_count() { return flushes; }
void ka::reset_flush_count() { flushes = 0; }

void ka::report_lost_data(std::uint32_t tag, ka_db_entry& entry) {
  if (!entry.job) return;
  ka_job_call call = call_of(tag, *entry.job);
  call.job_size = std::exchange(entry.job->job_size, 0);
  call_back(KA_JOB_DELETE, entry, *entry.job, call);
}

void ka::drop_disk_data(std::uint32_t tag, ka_db_entry& entry) {
  drop_swap_file(entry);
  report_lost_data(tag, entry);
}

void ka::end_job(std::uint32_t tag, ka_db_entry& entry) {
  const Owned<ka_job> job(std::exchange(entry.job, nullptr));
  if (!job) return;
  ka_job_call call = call_of(tag, *job);
  call_back(KA_JOB_END, entry, *job, call);
}

void* ka::realloc_job(ka_db_entry& entry, std::size_t size) {
  if (is_producer(entry)) {
    void*& fresh = entry.job->fresh;
    fresh = ka_mem_reallocate(fresh, size);
    shared(entry.size).store(size);
    return fresh;
  }
  const LockScope locked(entry.lock);
  KA_ASSERT(!shared(entry.is_fixed).load());
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
  if (entry.state == KA_DB_ON_DISK) drop_disk_data(tag, entry);
  end_job(tag, entry);
  return remove_entry(tag, serial);
}

void ka::release_job(std::uint32_t tag, ka_db_entry& entry) {
  const LockScope locked(entry.lock);
  if (entry.data) release_data(tag, entry, entry.data);
  if (entry.state == KA_DB_ON_DISK) drop_disk_data(tag, entry);
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
  auto job = make_job(module, parameters, size, format);
  if (*tag == 0) {
    *tag = add_job(type, std::move(job));
    return 1;
  }
  ka_db_entry& entry = ka::find_entry(*tag);
  return ka::is_job_tag(*tag) && replace_job(*tag, entry, type, std::move(job));
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
  if (!ka::try_lock(entry->lock)) return 0;
  const bool done = entry->job && ka::flush_locked(tag, *entry);
  ka::unlock(entry->lock);
  if (done) ka::count_flush();
  return done;
}

std::size_t ka_job_size(std::uint32_t tag) {
  const ka::ModuleScope scope(KA_JOB);
  ka_db_entry& entry = ka::find_entry(tag);
  if (!ka::is_job_tag(tag)) return ka::shared(entry.size).load();
  if (is_producer(entry)) return 0;
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
