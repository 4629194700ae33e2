// Thread table: gives every thread a small number and a context.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

#include <ka/detail/context.h>
#include <ka/detail/mutex.h>
#include <ka/detail/pins.h>
#include <ka/detail/scope.h>
#include <ka/detail/start.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>
#include <ka/version.h>

#include "threadtable.h"

namespace {

constexpr std::size_t kSlots = 1025;  // 0 to 1023: ordinary threads, 1024: the network thread
constexpr int kNetworkSlot = kSlots - 1;
constexpr int kStandAloneHost = -1;

// A module stack as every thread finds it, and as it is when the thread ends, whatever its function
// has left there.
constexpr void start_modules(ka_context& context) {
  context.depth = 1;
  context.modules[0] = KA_MSG;
  context.modules[1] = KA_MSG;
}

// A context as every thread finds it: one module on the stack, all tags those of the defaults.
constexpr void start_context(ka_context& context, std::size_t slot) {
  context.thread = std::int32_t(slot);
  context.host = kStandAloneHost;
  start_modules(context);
}

// Serves before the first thread is registered. Constant initialisation makes it ready before
// anything runs.
struct StaticContext : ka_context {
  constexpr StaticContext() : ka_context{} { host = kStandAloneHost; }
};
constinit StaticContext static_context;

struct Slot {
  ka_context* context;  // null: the slot is free
  ka_thread_function function;
  void* argument;
  pthread_t system_thread;
};

pthread_key_t key;  // its value in each registered thread is the thread's context
ka_mutex table_lock;
std::array<Slot, kSlots> table KA_GUARDED_BY(table_lock);
// No slot from here on was ever taken.
std::size_t slots_used KA_GUARDED_BY(table_lock) = 0;
// What ka_msg_tls_info hands out.
std::array<ka_context*, kSlots + 1> contexts KA_GUARDED_BY(table_lock);
// The thread that has called ka_msg_tls_info and holds the lock until ka_msg_tls_info_end; or null.
std::atomic<const ka_context*> reader{nullptr};
// Of threads that have ended.
std::array<std::uint16_t, ka_context::kPinSlots> pins KA_GUARDED_BY(table_lock);

// Threads without a context of their own share the static one: while they come and go, one at a
// time may use it.
ka::Mutex static_context_guard;

bool is_registered() { return ka::current_context != &static_context; }

bool set_context(ka_context* context) {
  if (pthread_setspecific(key, context) != 0) return false;
  ka::current_context = context;
  return true;
}

Slot* first_free_slot() KA_REQUIRES(table_lock) {
  for (Slot& slot : table) {
    if (!slot.context) return &slot;
  }
  return nullptr;
}

// A slot with a zeroed context that has the thread's number; null after an error message when all
// are taken.
Slot* allocate_slot(ka_thread_function function, void* argument) {
  const ka::LockScope locked(table_lock);
  Slot* const slot = first_free_slot();
  if (!slot) {
    ka_nerror(100, "too many threads");
    return nullptr;
  }
  *slot = {.context = static_cast<ka_context*>(ka_mem_allocate_raw(sizeof(ka_context))),
           .function = function,
           .argument = argument,
           .system_thread = {}};
  const auto number = std::size_t(slot - table.data());
  slots_used = std::max(slots_used, number + 1);
  start_context(*slot->context, number);
  return slot;
}

// Takes the context out of the table. Pins that an ordinary thread still holds stay counted.
void clear_slot(const ka_context& context) {
  const ka::LockScope locked(table_lock);
  if (context.thread > 0 && context.thread < kNetworkSlot) {
    for (std::size_t i = 0; i < pins.size(); ++i)
      pins[i] = std::uint16_t(pins[i] + context.pins[i]);
  }
  table[std::size_t(context.thread)] = {};
}

// The calling thread leaves the table; its context goes last, because locks and messages need it
// until then.
void end_thread() {
  if (!is_registered()) return;
  start_modules(*ka::current_context);
  ka_trans_default();  // the last thread of an ended transaction releases it
  ka_context_pop(nullptr);
  ka_context* const context = ka::current_context;
  clear_slot(*context);
  const ka::MutexScope guarded(static_context_guard);
  pthread_setspecific(key, nullptr);
  ka::current_context = &static_context;
  ka_mem_release_raw(context);
}

void* run_thread(void* argument) {
  auto* const slot = static_cast<Slot*>(argument);
  const int number = slot->context->thread;
  if (!set_context(slot->context))
    ka_nfatal(108, "cannot set thread specific data for thread %d", number);
  slot->system_thread = pthread_self();
  ka_trans_default();
  ka_debug("thread %d running", number);
  slot->function(slot->argument);
  start_modules(ka::context());
  ka_debug("thread %d finished", number);
  end_thread();
  return nullptr;
}

bool create_detached(Slot* slot) {
  pthread_t thread;  // the new thread writes its own identifier into the slot
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  const int failure = pthread_create(&thread, &attributes, run_thread, slot);
  pthread_attr_destroy(&attributes);
  return failure == 0;
}

bool is_reader() { return reader.load(std::memory_order_relaxed) == &ka::context(); }

// All contexts, with a null after the last one.
ka_context* const* list_contexts() KA_REQUIRES(table_lock) {
  std::size_t count = 0;
  for (const Slot& slot : table) {
    if (slot.context) contexts[count++] = slot.context;
  }
  contexts[count] = nullptr;
  return contexts.data();
}

// Modulo 65536: a thread may take back the pin of another one, and its own counter wraps.
std::uint16_t sum_of_pins(std::uint16_t slot) KA_REQUIRES(table_lock) {
  std::uint16_t sum = pins[slot];
  for (std::size_t i = 0; i < slots_used; ++i) {
    if (!table[i].context) continue;
    sum = std::uint16_t(sum + std::atomic_ref(table[i].context->pins[slot]).load());
  }
  return sum;
}

// Waits for a reader of the table, unless it is the calling thread, and returns the earlier value.
bool set_areas_hidden(bool hidden) {
  ka_context& context = ka::context();
  if (!table_lock.handle || is_reader()) return std::exchange(context.areas_hidden, hidden);
  const ka::LockScope locked(table_lock);
  return std::exchange(context.areas_hidden, hidden);
}

}  // namespace

ka::HiddenAreas::HiddenAreas() : were_hidden_(set_areas_hidden(true)) {}
ka::HiddenAreas::~HiddenAreas() { set_areas_hidden(were_hidden_); }

constinit thread_local ka_context* ka::current_context = &static_context;

void ka_msg_early_init() {
  start_context(static_context, 0);
  if (pthread_key_create(&key, nullptr) != 0) {
    ka_nfatal(15, "cannot create key for thread local storage");
  }
  if (!set_context(&static_context)) ka_nfatal(16, "cannot set thread local storage");
  ka_init_lock(&table_lock);
  Slot* const slot = allocate_slot(nullptr, nullptr);
  slot->system_thread = pthread_self();
  set_context(slot->context);
  ka_trans_default();
}

void ka_msg_late_exit() {
  end_thread();
  ka_delete_lock(&table_lock);
  pthread_key_delete(key);
}

int ka_lumoralib_attach(int version, unsigned records) {
  if (version / 10000 != KA_VERSION_MAJOR || records != KA_RECORDS) {
    const ka::ModuleScope scope(KA_MSG);
    ka_fatal("compiled for records %u of release %d.%d.%d, but run with %u of %d.%d.%d", records,
             version / 10000, version / 100 % 100, version % 100, KA_RECORDS, KA_VERSION_MAJOR,
             KA_VERSION_MINOR, KA_VERSION_PATCH);
  }
  if (table_lock.handle) return 1;
  ka_lib_init_subverbosity();
  ka_msg_early_init();
  ka::start_lib();
  return 1;
}

int(ka_lumoralib_attach_process)() { return ka_lumoralib_attach_process(); }

void ka_lumoralib_detach_process() { ka_msg_late_exit(); }

int ka_msg_register_thread() {
  if (is_registered()) return ka_msg_my_thread_id();
  const ka::MutexScope guarded(static_context_guard);
  const ka::ModuleScope scope(KA_MSG);  // on the stack of the static context
  Slot* const slot = allocate_slot(nullptr, nullptr);
  if (!slot) {
    ka_nerror(103, "cannot allocate thread");
    return -1;
  }
  slot->system_thread = pthread_self();
  const int number = slot->context->thread;
  if (!set_context(slot->context))
    ka_nfatal(108, "cannot set thread specific data for thread %d", number);
  ka_trans_default();
  ka_context_push();
  return number;
}

void ka_msg_unregister_thread() { end_thread(); }

int ka_msg_start_thread(ka_thread_function function, void* argument) {
  const ka::ModuleScope scope(KA_MSG);
  Slot* const slot = allocate_slot(function, argument);
  if (!slot) {
    ka_nerror(101, "cannot allocate thread");
    return -1;
  }
  ka_context* const context = slot->context;
  const int number = context->thread;  // the thread may have ended when the next line returns
  if (create_detached(slot)) return number;
  ka_nerror(107, "pthread_create failed");
  ka_nerror(102, "cannot start thread");
  clear_slot(*context);
  ka_mem_release_raw(context);
  return -1;
}

void ka_msg_set_netthread() {
  const ka::ModuleScope scope(KA_MSG);
  ka_context& context = ka::context();
  if (!is_registered() || context.thread == kNetworkSlot) return;
  const ka::LockScope locked(table_lock);
  if (table[kNetworkSlot].context) return ka_nerror(100, "too many threads");
  table[kNetworkSlot] = std::exchange(table[std::size_t(context.thread)], {});
  slots_used = kSlots;
  context.thread = kNetworkSlot;
}

// Returns with the lock, which ka_msg_tls_info_end gives back.
KA_NO_THREAD_SAFETY_ANALYSIS ka_context* const* ka_msg_tls_info() {
  const ka::ModuleScope scope(KA_MSG);
  if (!table_lock.handle || !ka::try_lock(table_lock)) return nullptr;
  reader.store(&ka::context(), std::memory_order_relaxed);
  return list_contexts();
}

KA_NO_THREAD_SAFETY_ANALYSIS void ka_msg_tls_info_end() {
  reader.store(nullptr, std::memory_order_relaxed);
  ka::unlock(table_lock);
}

int ka_msg_my_thread_id() { return ka::context().thread; }

// A reader has the lock already.
KA_NO_THREAD_SAFETY_ANALYSIS bool ka::slot_is_pinned(std::uint16_t slot) {
  if (is_reader()) return sum_of_pins(slot) != 0;
  const LockScope locked(table_lock);
  return sum_of_pins(slot) != 0;
}

unsigned ka_msg_pins(int slot) {
  const ka::LockScope locked(table_lock);
  return pins[std::size_t(slot)];
}

void ka_msg_advise_threads(int n) { pthread_setconcurrency(n + 1); }

int ka_msg_no_of_cpus() {
  const ka::ModuleScope scope(KA_MSG);
  constexpr char kKeyword[] = "processor";
  std::FILE* const file = std::fopen("/proc/cpuinfo", "re");
  if (!file) {
    ka_nwarning(100, "reading /proc/cpuinfo failed, continue with 1 thread");
    return 1;
  }
  int count = 0;
  for (char line[80]; std::fgets(line, sizeof line, file);) {
    if (std::strncmp(line, kKeyword, sizeof kKeyword - 1) == 0) ++count;
  }
  std::fclose(file);
  return count >= 1 ? count : 1;
}

const char* ka_msg_version() { return ka::module_version(ka::kMsgVersion); }
