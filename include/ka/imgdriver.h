/* What format drivers outside the library need besides ka_img_custom_format: reading and writing the
 * open file, rows of samples to planes and back. It is what the library's own drivers use. Numbers
 * out of bytes: ka/imgbytes.h. A reader or a writer belongs to one thread at a time. */
#pragma once

#include <ka/img.h>

KA_BEGIN_DECLS

/* Reads a file through a buffer of its own, from any offset on. Several readers of one file do not
 * disturb each other. */
typedef struct img_reader img_reader;

/* A reader of the handle's file that starts at a byte offset.
 *   Before   the handle is open for reading, as in a driver's open operation.
 *   Takes    the most bytes that one call of ka_img_reader_take or _ahead will ask for; 0: 128 KiB.
 *   Memory   the caller's, released with ka_img_reader_release before the handle is closed; at most
 *            the file's size. */
img_reader* ka_img_reader_alloc(img_file* handle, int64_t offset, size_t most);
void ka_img_reader_release(img_reader* reader); /* null: nothing happens */

/* The next `count` bytes, valid until the next call; null when fewer are left or the system failed,
 * with the reason in errno (0: the file ends). Nothing is taken then. */
const uint8_t* ka_img_reader_take(img_reader* reader, size_t count);

/* The bytes from here on without taking them, valid until the next call. Stores in *count how many
 * there are: at least as many as it held, fewer only at the end of the file and where the system
 * failed. */
const uint8_t* ka_img_reader_ahead(img_reader* reader, size_t* count);

/* Goes on at another byte offset; the offset; the bytes from there to the end of the file, as large
 * as it was when it was opened. */
void ka_img_reader_seek(img_reader* reader, int64_t offset);
int64_t ka_img_reader_position(const img_reader* reader);
int64_t ka_img_reader_left(const img_reader* reader);

/* Writes a file through a buffer of its own. Offsets count from where the picture begins. The first
 * failure of the system is kept, and nothing is written after it. */
typedef struct img_writer img_writer;

/* A writer of the handle's file.
 *   Before   the handle was created, as in a driver's create operation.
 *   Memory   the caller's, released with ka_img_writer_release before the handle is closed; what has
 *            not been flushed is lost then. */
img_writer* ka_img_writer_alloc(img_file* handle);
void ka_img_writer_release(img_writer* writer); /* null: nothing happens */

/* Copies bytes to the file; goes on at another byte offset; the offset. */
void ka_img_writer_put(img_writer* writer, const void* bytes, size_t count);
void ka_img_writer_seek(img_writer* writer, int64_t offset);
int64_t ka_img_writer_position(const img_writer* writer);

/* Hands everything to the system.
 *   Returns  the error number of the first failure, 0 for none. ka_img_writer_error returns it
 *            without writing. */
int ka_img_writer_flush(img_writer* writer);
int ka_img_writer_error(const img_writer* writer);

/* Order of the bytes of a sample. */
enum { IMG_ORDER_LITTLE = 0, IMG_ORDER_BIG = 1 };
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#define IMG_ORDER_HOST IMG_ORDER_BIG
#else
#define IMG_ORDER_HOST IMG_ORDER_LITTLE
#endif

/* Moves `width` pixels of a row, one after the other, to the planes of a line, and back. Samples have
 * the size of `type`, which has 8, 16 or 32 bits, not IMG_TYPE_BIT; a pixel in the row has as many as
 * the type has components. The row needs no alignment. The line has all planes of the type. */
void ka_img_line_unpack(img_line* line, int type, const void* row, int width, int order);
void ka_img_line_pack(const img_line* line, int type, void* row, int width, int order);

KA_END_DECLS
