/* The memory manager: all dynamic memory of the system, charged to the module that asked for it,
 * with an estimate of the heap, a limit for it, and a way to get memory back from the modules when
 * it runs out. Sizes are bytes where nothing else is said. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Sets up what follows; later calls do nothing. Memory can be had before, but blocks are counted
 * for their modules, limits are kept and pages are handed out only from here to ka_mem_exit. At
 * start-up, before threads run. */
void ka_mem_init(void);
/* Releases all pages and what ka_mem_init made. Blocks stay valid. */
void ka_mem_exit(void);

/* Accounted memory.
 *
 * Memory charged to the module that calls, the one on top of the module stack. The file and line of
 * the calling place serve a debugger.
 *   Shape    any size, also 0; aligned for any type; zeroed (of a larger block only the added bytes
 *            are).
 *   Returns  never null: after 1000 failed attempts the process ends with a fatal message. Between
 *            attempts the modules and the error handler are asked to make room.
 *   Memory   the caller's, given back with ka_mem_int_release.
 *            Up to 4 small blocks (1032 bytes) of a size that a thread has released stay with it
 *            for its next requests; they go back when it ends or the system refuses memory.
 *   Threads  any; a block may be released by another thread. */
void* ka_mem_int_allocate(const char* file, int line, size_t size);
/* Resizes a block, which may move; null allocates. The block stays charged to its module. */
void* ka_mem_int_reallocate(const char* file, int line, void* memory, size_t size);
void ka_mem_int_release(const char* file, int line, void* memory);     /* null is ignored */
char* ka_mem_int_strdup(const char* file, int line, const char* text); /* null gives null */

/* The same with one attempt, for blocks that the caller can do without. Null on failure; a block
 * that could not be resized is as it was. */
void* ka_mem_int_test_allocate(const char* file, int line, size_t size);
void* ka_mem_int_test_reallocate(const char* file, int line, void* memory, size_t size);

/* The same again, charged to a module that is named, for wrappers of these functions. `zero` 0
 * leaves the contents open. */
void* ka_mem_doalloc(const char* file, int line, int module, size_t size, int zero);
void* ka_mem_dorealloc(const char* file, int line, int module, void* memory, size_t size);
void ka_mem_dorelease(const char* file, int line, int module, void* memory);
size_t ka_mem_dogetsize(const void* memory); /* the size that was asked for */

#define ka_mem_allocate(size) ka_mem_int_allocate(__FILE__, __LINE__, size)
#define ka_mem_reallocate(memory, size) ka_mem_int_reallocate(__FILE__, __LINE__, memory, size)
#define ka_mem_release(memory) ka_mem_int_release(__FILE__, __LINE__, memory)
#define ka_mem_strdup(text) ka_mem_int_strdup(__FILE__, __LINE__, text)
#define ka_mem_test_allocate(size) ka_mem_int_test_allocate(__FILE__, __LINE__, size)
#define ka_mem_test_reallocate(memory, size) \
  ka_mem_int_test_reallocate(__FILE__, __LINE__, memory, size)

/* Raw memory.
 *
 * Memory without accounting, zeroed, never null; for what the runtime itself stands on. */
void* ka_mem_allocate_raw(size_t size);
/* Resizes a block; null allocates. The contents of added bytes are open. */
void* ka_mem_reallocate_raw(void* memory, size_t size);
void ka_mem_release_raw(void* memory); /* null is ignored */

/* Running out of memory.
 *
 * The heap is estimated in units of 8 bytes: rounded up when a block comes, a unit less than that
 * when it goes, and raw memory is never taken off. When the estimate passes the limit, or the
 * system refuses memory, a purge asks the modules to give some back: those with a limit handler, in
 * the order of their numbers, KA_JOB last, until the heap is down to 7/8 of the limit (of its own
 * size after a refusal). One purge runs at a time; other threads go on meanwhile. */

/* Called after every failed attempt to get memory: it may make room, or end the process. Null:
 * none. */
typedef void (*ka_mem_error_function)(void);
void ka_mem_error_handler(ka_mem_error_function handler);

/* Asks a module to release about `wanted` bytes. Called once for every thread that has a context
 * area of the module, with ka_context_mem giving that thread's areas, or once as it is when no
 * thread has one. The threads themselves go on: what they share with the handler needs a lock,
 * which the handler tries rather than waits for, since the caller may hold it.
 *   Returns  0 when the areas of further threads need not be asked. */
typedef int (*ka_mem_limit_function)(int64_t wanted);
/* Installs the limit handler of a module, null removes it. */
void ka_mem_limit_handler(int module, ka_mem_limit_function handler);

/* Limits the heap estimate, which it tells as information; 0: no limit; a negative value changes
 * and says nothing. Returns the limit until now in units of 8 bytes. Without one, the first
 * refusal of the system sets it to 7/8 of the heap. */
int64_t ka_mem_memory_limit(int64_t bytes);

/* KB that the limit leaves, 0 and up; KA_MEM_UNLIMITED without a limit. */
#define KA_MEM_UNLIMITED ((size_t)0xffffffff)
size_t ka_mem_getremain(void);

/* Reports.
 *
 * Blocks of other threads count from their last merge: when they end, call one of the two below, or
 * set their context areas aside. */

/* Bytes live in accounted blocks, 16 more for each block. */
size_t ka_mem_getsize(void);
/* Prints as information what each module holds and has held at most, and the state of the heap. */
void ka_mem_summary(void);
/* Prints as information what is known when memory has run out; no message is forwarded to other
 * hosts from here on. */
void ka_mem_post_mortem(void);

/* The parts of the post-mortem that describe the scene database; null: none. */
typedef void (*ka_mem_report_function)(void);
void ka_mem_database_reports(ka_mem_report_function summary, ka_mem_report_function dump);

/* Adds the counters of the calling thread's context area of KA_MEM to those of the process. */
void ka_mem_merge_stats(void* area);

/* Print a debug line that says that they are not available. */
void ka_mem_check(void);
void ka_mem_dump(void);

/* Block pools.
 *
 * Records of one small size, carved from chunks of 8 KB without a header of their own.
 *   Shape    elements are aligned to 8 bytes; their size is rounded up to a multiple of 8.
 *   Memory   chunks are charged to the module whose call needed them. They stay with the pool until
 *            ka_mem_blkdelete, however few elements are in use.
 *   Threads  the f-forms take no lock: they are for pools that one thread owns. */
typedef struct ka_mem_pool ka_mem_pool;

/* Makes an empty pool; the element size is at least 1.
 *   Returns  never null.
 *   Memory   the caller's, released with ka_mem_blkdelete. */
ka_mem_pool* ka_mem_int_blkcreate(const char* file, int line, size_t element_size);
/* Releases the pool and with it every element. */
void ka_mem_blkdelete(ka_mem_pool* pool);

/* An element, zeroed, never null. The f-form leaves the contents open. */
void* ka_mem_blkallocate(ka_mem_pool* pool);
void* ka_mem_blkfallocate(ka_mem_pool* pool);
/* Gives an element back; null is ignored. The element released last is handed out first. */
void ka_mem_blkrelease(ka_mem_pool* pool, void* element);
void ka_mem_blkfrelease(ka_mem_pool* pool, void* element);
/* Makes every element free again; the pool keeps its memory. */
void ka_mem_blkclear(ka_mem_pool* pool);

/* Calls the function with every element in use, newest chunk first, within a chunk in address
 * order. It may release the element that it is called with, and no other. The second form hands
 * `argument` on.
 *   Cost     for each chunk one walk over the free elements.
 *   Threads  takes no lock: no other thread may use the pool meanwhile. */
void ka_mem_blkenumerate(ka_mem_pool* pool, void (*function)(void* element));
void ka_mem_blkenumerate_x(ka_mem_pool* pool, void (*function)(void* element, void* argument),
                           void* argument);

#define ka_mem_blkcreate(element_size) ka_mem_int_blkcreate(__FILE__, __LINE__, element_size)

/* Pages.
 *
 * Aligned pages of 8 KB, carved from megapages of 256 KB that are charged to the memory manager. */
#define KA_MEM_PAGE_SIZE 8192
#define KA_MEM_PAGE_PAYLOAD \
  (KA_MEM_PAGE_SIZE - 3 * sizeof(void*)) /* bytes for the user of a page */

typedef struct ka_mem_page {
  struct ka_mem_megapage* owner; /* not to be changed */
  struct ka_mem_page* next;      /* links in a list of the user's */
  struct ka_mem_page* previous;
  unsigned char payload[KA_MEM_PAGE_PAYLOAD];
} ka_mem_page;

/* A list of pages; zeroed: empty. */
typedef struct ka_mem_page_list {
  ka_mem_page* head;
  ka_mem_page* tail;
  int count;
} ka_mem_page_list;

/* Called by ka_mem_init and ka_mem_exit. */
void ka_mem_pages_initialize(void);
void ka_mem_pages_finish(void);

/* A page with a zeroed payload and cleared links. Never null: when memory runs out, the error
 * handler is asked to make room up to 1000 times, and without one the process ends at once. */
ka_mem_page* ka_mem_pages_get(void);
/* Gives a page back that is in no list. With the last page of a megapage the megapage goes back to
 * the system. */
void ka_mem_pages_put(ka_mem_page* page);
/* Releases all megapages, also those with pages that are in use. */
void ka_mem_pages_flush(void);

/* Lists of pages. They take no lock. */
void ka_mem_pages_link_head(ka_mem_page_list* list, ka_mem_page* page);
void ka_mem_pages_link_tail(ka_mem_page_list* list, ka_mem_page* page);
void ka_mem_pages_unlink(ka_mem_page_list* list, ka_mem_page* page); /* a page of the list */
ka_mem_page* ka_mem_pages_unlink_head(ka_mem_page_list* list);       /* null: the list is empty */
ka_mem_page* ka_mem_pages_unlink_tail(ka_mem_page_list* list);

KA_END_DECLS
