// Thread table: gives every thread a small number and a context.
#include <pthread.h>

#include <array>

#include <ka/detail/context.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>
#include <ka/version.h>

#include "msg.h"

namespace {

constexpr std::size_t kSlots = 1025;  // 0 to 1023: ordinary threads, 1024: the network thread
constexpr int kStandAloneHost = -1;

// A context as every thread finds it: one module on the stack, all tags those of the defaults.
constexpr void start_context(ka_context& context, int thread) {
  context.thread = thread;
  context.host = kStandAloneHost;
  context.depth = 1;
  context.modules[0] = KA_MSG;
  context.modules[1] = KA_MSG;
}

// Serves before the first thread is registered. Constant initialisation puts it in the program's
// image, so nothing has to run before the first message.
struct StaticContext : ka_context {
  constexpr StaticContext() : ka_context{} { host = kStandAloneHost; }
};
constinit StaticContext static_context;

pthread_key_t key;    // its value in each registered thread is the thread's context
ka_mutex table_lock;  // guards `table`
std::array<ka_context*, kSlots> table;  // null: free slot

void set_context(ka_context* context) {
  if (pthread_setspecific(key, context) != 0) ka_nfatal(16, "cannot set thread local storage");
  ka::current_context = context;
}

// A zeroed context in the first free slot; null when all are taken.
ka_context* allocate_slot() {
  const ka::LockScope locked(table_lock);
  for (std::size_t slot = 0; slot < kSlots; ++slot) {
    if (table[slot]) continue;
    table[slot] = static_cast<ka_context*>(ka_mem_allocate_raw(sizeof(ka_context)));
    start_context(*table[slot], int(slot));
    return table[slot];
  }
  return nullptr;
}

void release_slot(ka_context* context) {
  const ka::LockScope locked(table_lock);
  table[std::size_t(context->thread)] = nullptr;
  ka_mem_release_raw(context);
}

}  // namespace

constinit thread_local ka_context* ka::current_context = &static_context;

void ka_msg_early_init() {
  start_context(static_context, 0);
  if (pthread_key_create(&key, nullptr) != 0) {
    ka_nfatal(15, "cannot create key for thread local storage");
  }
  set_context(&static_context);
  ka_init_lock(&table_lock);
  set_context(allocate_slot());
}

void ka_msg_late_exit() {
  ka_context_pop(nullptr);
  ka_context* const context = ka::current_context;
  set_context(&static_context);
  release_slot(context);
  ka_delete_lock(&table_lock);
  pthread_key_delete(key);
}

int ka_lumoralib_attach_process() {
  ka_lib_init_subverbosity();
  ka_msg_early_init();
  return 1;
}

void ka_lumoralib_detach_process() { ka_msg_late_exit(); }

int ka_msg_my_thread_id() { return ka::context().thread; }

const char* ka_msg_version() { return ka::module_version(ka::kMsgVersion); }
