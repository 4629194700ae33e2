/* Texture cache: large textures in map files are not read whole. Only the headers and line tables of
 * their levels are in memory; the pixels come from the file on demand, in pages of about 16 KB that
 * all threads share. The operations on pixels and lines use the cache for these images by
 * themselves; this header is for callers who read the planes in place. */
#pragma once

#include <ka/img.h>

KA_BEGIN_DECLS

/* The pixel data at `offset` bytes from the start of `image`, as in the image's line table: a plane
 * that begins at a line table's offset is readable to its end.
 *   Takes    one level of a cached image; other levels have other headers.
 *   Returns  null when `image` is not, or no longer, a level of a cached image (its memory is not
 *            read then), when the offset is not inside its pixels, and when the file cannot be read
 *            or is not the file that was cached, after one error message for the file.
 *   Memory   the cache's. The address stays readable while the calling thread uses fewer than 256
 *            other pages, until it ends; when the image has been removed, until the thread's next
 *            call for any image.
 *   Threads  any number of them. The address is the calling thread's; other threads call
 *            themselves. Pixels that are stored through it are seen by all threads, and are lost
 *            when the page is dropped.
 *   Cost     no lock while a thread stays in one page. */
void* ka_img_cache_get(const img_image* image, uint32_t offset);

/* Sets the calling thread's request: above 2, textures in map files that it loads are cached
 * whatever their size; 0, where every thread starts, caches the large ones. */
void ka_img_cache_request(int mode);

/* Pages are counted as 16 KB each. */
typedef struct ka_img_cache_counts {
  int budget;        /* pages that the cache is meant to hold */
  int allocated;     /* pages in memory, of all threads */
  int max_allocated; /* the most there ever were */
  int flushes;       /* pages that were dropped */
} ka_img_cache_counts;
void ka_img_cache_get_counts(ka_img_cache_counts* counts);

KA_END_DECLS
