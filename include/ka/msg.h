/* Threads and locks: a thin layer over POSIX threads. A lock that fails is corrupt, so failures end
 * the process with a fatal message of module "MSG". */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* A type whose objects clang's analysis of threads knows as locks, in C++. */
#if defined(__cplusplus) && defined(__clang__)
#define KA_LOCK_TYPE __attribute__((capability("mutex")))
#else
#define KA_LOCK_TYPE
#endif

/* A mutual exclusion lock, passed by value to take and give it. A null handle means "no lock",
 * which nobody can take or give. Not recursive: a thread that takes it twice waits for ever. */
typedef struct KA_LOCK_TYPE ka_mutex {
  void* handle;
} ka_mutex;

/* Failures are fatal: 422 on creation, 424 to 427 later. */
int ka_init_lock(ka_mutex* lock);    /* creates the lock and returns 1 */
void ka_delete_lock(ka_mutex* lock); /* destroys it and clears the handle; "no lock" stays that */
void ka_lock(ka_mutex lock);         /* waits for it */
void ka_unlock(ka_mutex lock);       /* by the thread that has taken it */
int ka_trylock(ka_mutex lock);       /* 1: taken, 0: another thread holds it; never waits */

/* A lock that many readers or one writer hold. */
typedef struct ka_rwlock {
  void* handle;
} ka_rwlock;

/* Creates a lock that nobody holds; a failure is fatal, 432. */
void ka_rwlock_init(ka_rwlock* lock);
/* Destroys a lock that nobody holds and clears the handle; a lock in use is fatal, 433. */
void ka_rwlock_delete(ka_rwlock* lock);
/* Waits for the lock, for writing with `writer` not 0. The second argument is not looked at. A
 * failure is fatal, 434 for a reader, 435 for a writer. */
void ka_rwlock_lock(ka_rwlock lock, int unused, int writer);
/* Returns what the system returns: 0, or an error number. */
int ka_rwlock_unlock(ka_rwlock lock);

/* A wait channel: one thread sleeps until another wakes it. A channel that was woken before lets
 * the next sleeper pass at once. Sleepers poll, so a channel is for waits that are
 * short or rare. */
typedef struct ka_waitchan ka_waitchan;

void ka_init_waitchan(ka_waitchan** channel);   /* makes one that nobody has woken */
void ka_delete_waitchan(ka_waitchan** channel); /* nobody sleeps on it; clears the address */
void ka_sleep(ka_waitchan* channel);            /* returns once woken; the channel is then as new */
void ka_wakeup(ka_waitchan* channel);           /* wakes one sleeper, now or later */

/* Suspends the calling thread for at least so long, whatever signals come meanwhile. */
void ka_msg_usleep(unsigned microseconds);

/* Attaches the calling thread, as thread 0, to the library. The first call of every program that
 * uses it; a further one changes nothing. A program whose headers have other public records than
 * the library, or belong to another major release, is ended with a fatal message.
 *   Returns  1; a system that cannot give a thread-specific key ends the process. */
int ka_lumoralib_attach_process(void);
int ka_lumoralib_attach(int version, unsigned records);
/* Calls go here, with what the caller was compiled with; the address is that of the function. */
#define ka_lumoralib_attach_process() ka_lumoralib_attach(KA_VERSION, KA_RECORDS)
/* Releases what the calling thread holds of the library. Nothing of the library
 * is used afterwards. */
void ka_lumoralib_detach_process(void);

/* Starts a detached thread that runs `function` with `argument`, in the default transaction.
 *   Returns  the thread's number, or -1 after an error message: no number is free, or the system
 *            refused. */
typedef void (*ka_thread_function)(void* argument);
int ka_msg_start_thread(ka_thread_function function, void* argument);

/* Gives the calling thread, which something else has started, a number and a context; before it
 * uses anything else of the library. Returns the number, which is the same when it is called again,
 * or -1 after errors 100 and 103: no number is free. The counterpart is called before the thread
 * ends; it does nothing for a thread that has no number. */
int ka_msg_register_thread(void);
void ka_msg_unregister_thread(void);

/* Makes the calling thread the network thread: number 1024, "n" in messages. Error 100 when another
 * thread has that number. */
void ka_msg_set_netthread(void);

/* The calling thread's number: 0 for the thread that attached the process. */
int ka_msg_my_thread_id(void);

/* The contexts of all threads, null-terminated, in the order of their numbers; no thread comes or
 * goes until ka_msg_tls_info_end. Null, with nothing to end, when another thread is at it. */
struct ka_context;
struct ka_context* const* ka_msg_tls_info(void);
void ka_msg_tls_info_end(void);

/* Pins of job elements that threads left behind when they ended, by pin slot, 0 to 32766. */
unsigned ka_msg_pins(int slot);

/* Tells the system to expect n + 1 threads that run at the same time. */
void ka_msg_advise_threads(int n);
/* Processors of this machine, at least 1; warning 100 where the system does not tell them. */
int ka_msg_no_of_cpus(void);

/* Ignores SIGPIPE. Without `no_catch`, signals that end a process end it with a fatal message, 501,
 * and SIGHUP is only told as a debug message; a child of the calling process passes its signals on
 * to it. Error 502 for each signal that cannot be caught. */
void ka_msg_sigset_init(int no_catch);

KA_END_DECLS
