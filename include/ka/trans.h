/* Per-thread context: the module stack, and private areas that modules register once and every
 * thread receives. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Every public operation pushes the number of its module and pops it on return. A program pushes
 * KA_MAIN once. The stack holds 20480 entries; what is pushed above is counted, and told apart by
 * nobody. A pop of the empty stack does nothing. */
void ka_module_push(int module);
void ka_module_pop(void);
/* The module on top of the calling thread's stack. */
int ka_module_current(void);

int ka_thread_get(void); /* the thread's number */
int ka_host_get(void);   /* the host number; -1: not part of a network of hosts */

/* Called with a fresh zeroed area, or with one that is about to be released. */
typedef void (*ka_area_function)(void* area);

/* Registers a private area of `size` bytes for a module: one per thread (context), or one per
 * transaction, session or world. To be called at start-up, before threads run; the areas of the
 * defaults are made by ka_trans_init. A null function keeps the one registered earlier; size 0: no
 * area. The module is one of enum ka_module. */
void ka_context_register_module(int module, ka_area_function init, ka_area_function exit,
                                size_t size);
void ka_transaction_register_module(int module, ka_area_function init, ka_area_function exit,
                                    size_t size);
void ka_session_register_module(int module, ka_area_function init, ka_area_function exit,
                                size_t size);
void ka_world_register_module(int module, ka_area_function init, ka_area_function exit,
                              size_t size);

/* The calling thread's area of a module, made on first use; null for a module that registered no
 * size, or that does not exist. It stays the library's. */
void* ka_context_mem(int module);

/* Detaches the thread's areas and returns them, so that the next ka_context_mem starts a fresh set.
 * They are the caller's until he hands them to ka_context_pop, in the same thread; null: there were
 * none. */
void** ka_context_push(void);
/* Releases the thread's areas, exit functions first, and reinstates `saved` (null: none). */
void ka_context_pop(void** saved);

/* Reports the registered context areas as debug messages; ka_context_exit is its counterpart. */
void ka_context_init(void);
void ka_context_exit(void);

/* Makes the default world, session and transaction with the registered areas and attaches the
 * calling thread. */
void ka_trans_init(void);
/* Attaches the calling thread to the defaults. */
void ka_trans_default(void);
/* Releases the areas of the defaults, exit functions first. */
void ka_trans_wst_exit(void);
/* Releases the defaults themselves. */
void ka_trans_exit(void);

KA_END_DECLS
