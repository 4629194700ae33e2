/* Threads and locks: a thin layer over POSIX threads. A lock that fails is corrupt, so failures end
 * the process. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* A mutual exclusion lock, passed by value to take and give it. A null handle means "no lock". Not
 * recursive. */
typedef struct ka_mutex {
  void* handle;
} ka_mutex;

int ka_init_lock(ka_mutex* lock);    /* creates the lock and returns 1 */
void ka_delete_lock(ka_mutex* lock); /* destroys it and clears the handle */
void ka_lock(ka_mutex lock);         /* waits for it */
void ka_unlock(ka_mutex lock);
int ka_trylock(ka_mutex lock); /* 1: taken, 0: another thread holds it */

/* Attaches the calling thread, as thread 0, to the library. The first call of every program that
 * uses it. Returns  1; a system that cannot give a thread-specific key ends the process. */
int ka_lumoralib_attach_process(void);
/* Releases what the calling thread holds of the library. Nothing of the library is used afterwards.
 */
void ka_lumoralib_detach_process(void);

/* The calling thread's number: 0 for the thread that attached the process. */
int ka_msg_my_thread_id(void);

KA_END_DECLS
