/* Scene database: the element store of the rendering system. Elements are addressed by 32-bit tags.
 * The data of a data element exist from its creation; those of a job element (ka/job.h) are produced
 * when a thread first accesses it, stay in memory while a thread has it pinned, and may be swapped
 * out to a file in between.
 *   Errors   a tag that is 0 (8), of another host (51) or without an element (52) ends the process
 *            with a fatal message, except where something else is said.
 *   Threads  any number of them. Two threads that write to the data of one element, or delete an
 *            element that another one still uses, need an agreement of their own. */
#pragma once

#include <ka/msg.h>
#include <ka/trans.h>

KA_BEGIN_DECLS

/* Types of elements that this library creates itself, beside those of enum ka_trans_type. Programs
 * use other numbers up to 255. */
enum ka_db_element_type {
  KA_DB_IMAGE = 13,
  KA_DB_STRING = 29 /* a file name or another text with its closing zero */
};

/* States of an element. */
enum ka_db_state {
  KA_DB_UNUSED = 0,
  KA_DB_IN_MEMORY = 1, /* or, for a job element without data, not produced yet */
  KA_DB_FETCHING = 2,  /* being read from its swap file */
  KA_DB_ON_DISK = 5
};

struct ka_job;

/* What the store knows of one element. Read it through ka_db_accessinfo; it belongs to the store,
 * and its fields change while other threads work with the element. */
typedef struct ka_db_entry {
  ka_mutex lock;         /* of job elements: held while the data are produced or read from disk */
  void* data;            /* null: none in memory */
  size_t size;           /* bytes of data, at least 1 for a data element */
  uint64_t serial;       /* tells elements apart that had the same tag one after the other */
  uint64_t owner_serial; /* of the owner's element */
  uint32_t time;         /* stamp of the last creation, job access or unpin */
  uint32_t creation;     /* stamp of the creation */
  uint32_t owner;        /* tag of the transaction that was current at the creation */
  uint32_t list_place;   /* 1 + the element's place in its owner's tag list; 0: in none */
  uint16_t pin_slot;     /* of a job element: which of a thread's pin counters is its */
  uint8_t type;
  uint8_t module; /* that created the element */
  uint8_t state;  /* enum ka_db_state */
  uint8_t shared; /* changes must be sent to other hosts: 0, there are none */
  uint8_t private_level;
  uint8_t is_fixed;          /* of a job element: no purge moves its data */
  uint32_t attempts;         /* how often the job has been executed */
  const void* producer;      /* the thread in which it is being executed, or null */
  struct ka_job* job;        /* how the data of a job element are produced, or null */
  struct ka_swap_file* file; /* where the data are while the element is on disk */
} ka_db_entry;

/* Starts the store; after the memory manager. ka_db_exit releases every element, with its data and
 * its swap file, whether it is pinned or not; after ka_trans_exit and ka_img_exit. */
void ka_db_init(void);
void ka_db_exit(void);

/* Creates a data element of at least 1 byte, zeroed, owned by the current transaction.
 *   Returns  its data, which stay where they are until ka_db_realloc or the deletion, and its tag.
 *            When all tags are in use the process ends with a fatal message, 16. */
void* ka_db_create(uint32_t* tag, int type, size_t size);

/* Creates a job element without data. ka_job_create does this and says how the data are produced.
 *   Returns  the entry, and its tag. Fatal 16 as above. */
ka_db_entry* ka_db_jobcreate(uint32_t* tag, int type);

/* The same for an element that belongs to no transaction: whoever makes it deletes it, from any
 * transaction, with ka_db_delete_private. ka_db_delete refuses it. */
void* ka_db_create_private(uint32_t* tag, int type, size_t size);
int ka_db_delete_private(uint32_t tag);

/* The data of an element. A job element is pinned, and its data are produced or read from disk where
 * they are missing; each access needs a ka_db_unpin. The data of a job element stay valid until then.
 *   Returns  never null. The process ends with a fatal message for tag 0 (8), an unknown tag (52), a
 *            tag of another host (51), an element that was deleted meanwhile (11), a job that
 *            fails (37), and one that yields no data or whose data cannot be read from disk (0):
 *            ka_db_exists and ka_job_access are for those who expect that.
 *   Cost     no lock where the data are in memory. */
void* ka_db_access(uint32_t tag);
void* ka_db_access_type(uint8_t* type, uint32_t tag); /* also stores the type */
/* The entry of an element, which this neither pins nor produces. Fatal 8, 51 and 52 as above. */
ka_db_entry* ka_db_accessinfo(uint32_t tag);
/* Takes the calling thread's pin of a job element back; does nothing for a data element. */
void ka_db_unpin(uint32_t tag);

/* 1 when there is an element with this tag, else 0; also for tag 0. */
int ka_db_exists(uint32_t tag);

/* Resizes the data to at least 1 byte; added bytes are zero.
 *   Before   no other thread uses the data. A job element is pinned and its data are not fixed, or
 *            its job is running in the calling thread: it gets its first data in this way.
 *   Returns  the data, which may have moved. */
void* ka_db_realloc(uint32_t tag, size_t size);

int ka_db_type(uint32_t tag);
void ka_db_set_type(uint32_t tag, int type);
/* Bytes of data; a job element is accessed and unpinned for it. */
size_t ka_db_size(uint32_t tag);
/* 1 for the tag of a job element, else 0; it need not exist. */
int ka_db_isjob(uint32_t tag);

/* Deletes an element of the current transaction.
 *   Returns  1, also when the deletion is only queued (ka_db_delete_delay); 0 when the element
 *            belongs to another transaction, or is a job element that a thread has pinned or is
 *            producing: it stays then. */
int ka_db_delete(uint32_t tag);
/* Delays deletions while `on` is not 0, as a renderer does while its threads use the scene. With 0
 * the queued ones are carried out. */
void ka_db_delete_delay(int on);

/* Swapping of job elements to disk. The first of the calls below reads the settings: the folder from
 * the environment variable KA_LUM_SWAPDIR, else from the registry entry {_KA_REG_SWAPDIR}, else it
 * is /tmp; the limit from KA_LUM_SWAPLIMIT, else from {_KA_REG_SWAPLIMIT}, in MB, else it is 0: no
 * swapping. From then on, while there is a limit, the memory manager's purge swaps out job elements
 * that no thread has pinned.
 *   Files    are created exclusively, readable by their owner only, and removed with the element,
 *            at ka_db_exit, or by a later process when this one has died. */

/* Replaces the folder (null: keeps it) and the limit in KB (negative: keeps it), and removes the
 * files of dead processes from the folder. Elements that are on disk stay where they are.
 *   Returns  1; 0 before ka_db_init. */
int ka_db_swap_config(const char* folder, int limit);
/* Writes the data of a job element to disk and releases them.
 *   Takes    the element's entry, data and size.
 *   Returns  1; 0 when the limit would be reached, after errors 3 and 4 (the file cannot be created
 *            or written), for a data element, and for one that is pinned, in use or not in memory:
 *            the element is as it was. */
int ka_db_disk_pageout(uint32_t tag, ka_db_entry* entry, void* data, size_t size);
/* Reads them back, which an access does by itself.
 *   Returns  1; 0 after errors 5 to 7: the element stays on disk; 0 after error 8: it has no data,
 *            and its job produces them again. */
int ka_db_disk_pagein(uint32_t tag);
/* Removes the swap file of a job element that is on disk: its job produces the data again. */
void ka_db_disk_delete(uint32_t tag);
/* Removes the swap files of processes that no longer exist from the folder. */
void ka_db_disk_cleanup(void);

/* Counts of the store. */
typedef struct ka_db_counts {
  uint64_t tags; /* in use */
  uint64_t creations, reallocations, deletions;
  uint64_t requests, errors; /* of other hosts: 0 in a process that stands alone */
  uint64_t flushes;          /* times that data were given back which a job can produce again */
  uint64_t disk, disk_max;   /* KB on disk now, and at most */
  uint64_t swapped_out, swapped_in, swap_failed; /* KB */
} ka_db_counts;
void ka_db_get_counts(ka_db_counts* counts);

/* Print, as information, the elements by module and by type, and the list of all elements. Parts of
 * the memory manager's post-mortem from ka_db_init to ka_db_exit. */
void ka_db_summary(void);
void ka_db_dump(void);

KA_END_DECLS
