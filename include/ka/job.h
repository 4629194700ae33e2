/* Jobs: how the data of job elements are produced. A job is executed once, by the first thread that
 * accesses its element; other threads that need the data wait. Data that no thread has pinned may be
 * given back under memory pressure, and the next access executes the job again.
 *   Threads  any number of them. A callback runs in the thread that needs it; the element is locked
 *            meanwhile, so a job must not access an element whose job needs this one. */
#pragma once

#include <ka/db.h>

KA_BEGIN_DECLS

/* What a callback is asked for. */
enum ka_job_operation {
  KA_JOB_EXECUTE = 0,  /* produce the data */
  KA_JOB_SCHEDULE = 1, /* say what the job costs: fill `schedule` */
  KA_JOB_DESCRIBE = 2, /* say what the job does: write a text to `text` */
  KA_JOB_BEGIN = 3,    /* the job has been created or recreated */
  KA_JOB_DELETE = 4,   /* the data go away. Where they are not fixed, a purge may ask for it in the
                          middle of any operation: the callback tries locks then, as a limit handler
                          does, and calls nothing of the store */
  KA_JOB_END = 5       /* the job goes away, after its data */
};

/* Hints for a scheduler. */
typedef struct ka_job_schedule {
  float cost;       /* of executing the job, relative */
  float importance; /* relative */
  float reserved[4];
  int mode; /* 1: on this host only; 2: on any host */
} ka_job_schedule;

enum { KA_JOB_TEXT_SIZE = 128 };

/* The subject of one call. */
typedef struct ka_job_call {
  uint32_t tag;     /* of the job element */
  void* parameters; /* the job's own copy; stays until the job is deleted */
  /* KA_JOB_EXECUTE: starts with the element's data (null unless ka_db_realloc was called for `tag`)
   * and their size; the callback may set others, which the store never frees, resizes or swaps.
   * KA_JOB_DELETE: the data and their size; null for data that are lost with their swap file. */
  void* data;
  size_t size;
  size_t job_size; /* KA_JOB_EXECUTE: bytes that the element costs in all; starts as 0, which counts
                      as `size`. KA_JOB_DELETE: the same number */
  int fixed;       /* KA_JOB_EXECUTE: set to 1 when the data must stay where they are until the job
                      is deleted: no purge swaps them out or gives them back. Always so for data that
                      are not the element's own. KA_JOB_DELETE: the same flag */
  ka_job_schedule schedule;    /* KA_JOB_SCHEDULE: zeroed, to be filled */
  char text[KA_JOB_TEXT_SIZE]; /* KA_JOB_DESCRIBE */
} ka_job_call;

/* Carries out an operation.
 *   Returns  KA_JOB_EXECUTE: 1, or 0 when the job has failed; 1 without data is a job that yields
 *            nothing. KA_JOB_DELETE: 1 when the callback has taken charge of the data, 0 when the
 *            store is to release them. Else 1, or 0 for operations that it does not know. */
typedef int (*ka_job_callback)(int operation, ka_job_call* call);

/* Registers the callback of all jobs of a module; at start-up. Null removes it: the data that its
 * jobs have produced are given back first, as by ka_job_flush. */
void ka_job_register(int module, ka_job_callback callback);

/* Creates a job element owned by the current transaction; where `*tag` is not 0, the existing job
 * element gets this job instead, and its data go away.
 *   Takes    the element's type, the module whose callback serves it, the parameters, which are
 *            copied, and their ka_swap format, for other hosts (null: none).
 *   Returns  1; 0 when the existing element is not a job element, is pinned or is being produced:
 *            it stays then. */
int ka_job_create(uint32_t* tag, int type, int module, const void* parameters, size_t size,
                  const char* format);

/* The data of a job element as ka_db_access gives them, but a job that fails is no end.
 *   Returns  the data, pinned; null, and no pin, when the job fails or yields nothing, or its swap
 *            file cannot be read, for all threads that were waiting for it, and for a tag that does
 *            not exist. A later call tries again. Data elements give their data. */
void* ka_job_access(uint32_t tag);

/* Gives the data of a job element back, also fixed ones; the job stays. Returns 1, or 0 when there
 * are none in memory, or the element is pinned or in use. Never waits. */
int ka_job_flush(uint32_t tag);

/* What the element costs in all, in bytes, as its last execution said; 0: no data. */
size_t ka_job_size(uint32_t tag);
/* Asks the job for its hints, and for its text, "" where it has none. Return 0 for an element
 * without a job. */
int ka_job_get_schedule(uint32_t tag, ka_job_schedule* schedule);
int ka_job_describe(uint32_t tag, char text[KA_JOB_TEXT_SIZE]);

KA_END_DECLS
