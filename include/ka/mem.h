/* Accounted memory: all dynamic memory of the system, charged to the module that asked for it. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* Sets up accounting per module; later calls do nothing. Memory can be had before it. */
void ka_mem_init(void);
void ka_mem_exit(void);

/* Called after every failed attempt to get memory: it may make room, or end the process. Null:
 * none. */
typedef void (*ka_mem_error_function)(void);
void ka_mem_error_handler(ka_mem_error_function handler);

/* Memory charged to the module that calls. The file and line of the calling place serve a debugger.
 *   Shape    any size, also 0; aligned for any type; zeroed (of a larger block only the added bytes
 * are). Returns  never null: after 1000 failed attempts the process ends with a fatal message.
 *   Memory   the caller's, given back with ka_mem_int_release.
 *   Threads  any; a block may be released by another thread. */
void* ka_mem_int_allocate(const char* file, int line, size_t size);
void* ka_mem_int_reallocate(const char* file, int line, void* memory,
                            size_t size);                              /* null allocates */
void ka_mem_int_release(const char* file, int line, void* memory);     /* null is ignored */
char* ka_mem_int_strdup(const char* file, int line, const char* text); /* null gives null */

/* The same for an explicit module, with one attempt and null on failure. `zero` 0 leaves the
 * contents open. */
void* ka_mem_doalloc(const char* file, int line, int module, size_t size, int zero);
void ka_mem_dorelease(const char* file, int line, int module, void* memory);
size_t ka_mem_dogetsize(const void* memory); /* the size that was asked for */

/* Memory without accounting, zeroed, never null; for what the runtime itself stands on. */
void* ka_mem_allocate_raw(size_t size);
void ka_mem_release_raw(void* memory);

/* Block pools: records of one small size, carved from chunks of 8 KB without a header of their own.
 *   Shape    elements are aligned to 8 bytes; their size is rounded up to a multiple of 8.
 *   Memory   chunks are charged to the module whose call needed them. They stay with the pool until
 *            ka_mem_blkdelete, however few elements are in use.
 *   Threads  the f-forms take no lock: they are for pools that one thread owns. */
typedef struct ka_mem_pool ka_mem_pool;

/* Makes an empty pool; the element size is at least 1. Never null. */
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
 * order. It may release the element that it is called with, and no other. Cost     for each chunk
 * one walk over the free elements. Threads  takes no lock: no other thread may use the pool
 * meanwhile. */
void ka_mem_blkenumerate(ka_mem_pool* pool, void (*function)(void* element));
void ka_mem_blkenumerate_x(ka_mem_pool* pool, void (*function)(void* element, void* argument),
                           void* argument);

#define ka_mem_blkcreate(element_size) ka_mem_int_blkcreate(__FILE__, __LINE__, element_size)
#define ka_mem_allocate(size) ka_mem_int_allocate(__FILE__, __LINE__, size)
#define ka_mem_reallocate(memory, size) ka_mem_int_reallocate(__FILE__, __LINE__, memory, size)
#define ka_mem_release(memory) ka_mem_int_release(__FILE__, __LINE__, memory)
#define ka_mem_strdup(text) ka_mem_int_strdup(__FILE__, __LINE__, text)

KA_END_DECLS
