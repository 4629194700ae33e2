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

/* Worlds, sessions and transactions.
 *
 * A world contains sessions, a session contains transactions. Each is known by the tag of its
 * element in the scene database, which other threads attach to; tag 0 represents the default world,
 * session and transaction of the process, which are always there. Each world has a default session
 * and a default transaction with the world's tag, each session a default transaction with its own.
 * Elements belong to the transaction that was current at their creation.
 *   Threads  each is in one world, session and transaction. What a thread ends is unknown to all
 *            from then on; threads that are still attached keep its private areas until they leave,
 *            and its elements with them. */
enum ka_trans_type { KA_TRANS_WORLD = 35, KA_TRANS_SESSION = 36, KA_TRANS_TRANSACTION = 37 };

/* Makes the default world, session and transaction with the registered areas and attaches the
 * calling thread. */
void ka_trans_init(void);
/* Attaches the calling thread to the defaults. */
void ka_trans_default(void);
/* Releases the areas of all transactions, sessions and worlds, exit functions first. The calling
 * thread is the last one. */
void ka_trans_wst_exit(void);
/* Releases the defaults themselves, and what has not been ended with its elements; before
 * ka_db_exit. */
void ka_trans_exit(void);

/* Begins a world, a session in the current world, or a transaction in the current session, and
 * attaches the calling thread to it.
 *   Before   ka_db_init.
 *   Returns  1, or 0 after an error message, with the thread where it was: 5 no such type, 6 no
 *            element can be made, 7 it cannot be attached to. A session inside 64 others gets
 *            warning 7 and forgets the innermost. */
int ka_trans_begin(int type);

/* Attaches the calling thread to a world and its defaults, to a session, its world and its default
 * transaction, or to a transaction, its session and its world. Tag 0: to the defaults.
 *   Returns  1, or 0 after an error message, with the thread where it was: 1 to 4 not found, 8 no
 *            such type. */
int ka_trans_attach(uint32_t tag, int type);

/* Ends the current transaction, session or world and attaches the calling thread to the default of
 * what contains it. Elements that were created in it and are left are deleted.
 *   Returns  1; 0 after an error message, with the thread where it was: 11 no such type, 13 to 15
 *            it is a default, 9 and 10 a session or transaction is open in it (of a world 10 and
 *            17), 17 and 18 its default session or transaction is gone; 0 after error 16, another
 *            thread has ended it, with the thread in the default of what contains it. Where that is
 *            gone, too, the thread is in the defaults of tag 0, after error 13. */
int ka_trans_end(int type);

/* The smallest begin time among transactions that are no defaults, 0xffffffff without one. */
uint32_t ka_trans_get_lowttime(void);

/* The calling thread's transaction, session and world; 0: the default. */
uint32_t ka_transaction_get(void);
uint32_t ka_session_get(void);
uint32_t ka_world_get(void);

/* The area of a module in the calling thread's transaction, session or world; null for a module
 * that registered no size, or that does not exist. It stays the library's, and there as long as the
 * thread stays attached. */
void* ka_transaction_mem(int module);
void* ka_session_mem(int module);
void* ka_world_mem(int module);

KA_END_DECLS
