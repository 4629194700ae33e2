/* How a program uses the runtime of the library: start, modules, messages, memory, threads, private
 * areas, exit. Each step is explained in docs/library.md. */
#include <inttypes.h>
#include <stdlib.h>

#include <ka/db.h>
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/subst.h>
#include <ka/trans.h>

enum { kModule = 6, kThreads = 3, kNumbers = 1000 }; /* this program works as module "TASK" */

/* Every thread that asks for it gets one of these. */
typedef struct counter {
  int blocks;
} counter;

typedef struct work {
  ka_mutex lock; /* guards `sum` */
  int64_t sum;
} work;

static void counter_exit(void* area) {
  ka_debug("a thread has used %d blocks", ((const counter*)area)->blocks);
}

/* Sums up some numbers in accounted memory. Runs on several threads. */
static void add_numbers(void* argument) {
  ka_module_push(kModule); /* messages and memory are charged to it */
  work* const shared = argument;
  counter* const mine = ka_context_mem(kModule);
  int64_t* const numbers = ka_mem_allocate(kNumbers * sizeof *numbers);
  ++mine->blocks;
  int64_t sum = 0;
  for (int i = 0; i < kNumbers; ++i) {
    numbers[i] = i;
    sum += numbers[i];
  }
  ka_mem_release(numbers);
  ka_progress("thread %d has its sum", ka_msg_my_thread_id());
  ka_lock(shared->lock);
  shared->sum += sum;
  ka_unlock(shared->lock);
  ka_module_pop();
}

/* Threads of the library are never joined: they are gone when they have left its table. */
static int other_threads_run(void) {
  struct ka_context* const* contexts = ka_msg_tls_info();
  if (!contexts) return 1; /* one of them is using the table */
  const int result = contexts[1] != NULL;
  ka_msg_tls_info_end();
  return result;
}

static void start_library(void) {
  if (!ka_lumoralib_attach_process()) abort();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_FATAL | KA_ERROR | KA_WARNING | KA_INFO);
  ka_mem_init();
  ka_db_init();
  ka_img_init();
  ka_context_register_module(kModule, NULL, counter_exit, sizeof(counter));
  ka_context_init();
  ka_trans_init();
}

static void stop_library(void) {
  ka_context_pop(NULL);
  ka_trans_wst_exit();
  ka_trans_exit();
  ka_context_exit();
  ka_img_exit();
  ka_db_exit();
  ka_lib_subst_exit();
  ka_mem_exit();
  ka_module_pop();
  ka_lumoralib_detach_process();
}

int main(void) {
  start_library();
  work shared = {.sum = 0};
  ka_init_lock(&shared.lock);
  for (int i = 0; i < kThreads; ++i) {
    if (ka_msg_start_thread(add_numbers, &shared) < 0) ka_fatal("cannot start thread %d", i);
  }
  while (other_threads_run()) ka_msg_usleep(1000);
  ka_info("the sum is %" PRId64, shared.sum);
  ka_delete_lock(&shared.lock);
  stop_library();
  return 0;
}
