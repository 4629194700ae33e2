/* Image files and image buffers: opens, creates, reads and writes one image file of any supported
 * format, line by line or whole, in the pixel type that the caller asks for. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* File formats: index into the format tables. Custom formats follow the built-in ones. */
typedef enum img_format {
  IMG_FORMAT_RLA,
  IMG_FORMAT_RLB,
  IMG_FORMAT_PIC,
  IMG_FORMAT_ALIAS,
  IMG_FORMAT_RGB,
  IMG_FORMAT_CT,
  IMG_FORMAT_CT16,
  IMG_FORMAT_ST,
  IMG_FORMAT_ST16,
  IMG_FORMAT_VT,
  IMG_FORMAT_WT,
  IMG_FORMAT_ZT,
  IMG_FORMAT_NT,
  IMG_FORMAT_TT,
  IMG_FORMAT_TIF,
  IMG_FORMAT_TIFU,
  IMG_FORMAT_TIF3,
  IMG_FORMAT_TIF3U,
  IMG_FORMAT_PICTURE,
  IMG_FORMAT_PPM,
  IMG_FORMAT_CTFP,
  IMG_FORMAT_MAP,
  IMG_FORMAT_TGA,
  IMG_FORMAT_BMP,
  IMG_FORMAT_QNTPAL,
  IMG_FORMAT_QNTNTSC,
  IMG_FORMAT_ZPIC,
  IMG_FORMAT_NULL,
  IMG_FORMAT_MT,
  IMG_FORMAT_BIT,
  IMG_FORMAT_TIF16,
  IMG_FORMAT_TIF16U,
  IMG_FORMAT_TIF16_3,
  IMG_FORMAT_TIF16_3U,
  IMG_FORMAT_JPG,
  IMG_FORMAT_LWI,
  IMG_FORMAT_PS,
  IMG_FORMAT_EPS,
  IMG_FORMAT_CTH,
  IMG_FORMAT_HDR,
  IMG_FORMAT_STFP,
  IMG_FORMAT_IFF,
  IMG_FORMAT_CUSTOM, /* the first of 16 slots for formats registered at run time */
  IMG_FORMAT_COUNT = IMG_FORMAT_CUSTOM + 16
} img_format;

/* Pixel types. ka_img_nbits and ka_img_ncomp tell their bits per component and their components.
 * Samples are in the host's byte order. Those of 8 and 16 bits are unsigned integers, except the
 * two components of texture vectors, IMG_TYPE_VTA and IMG_TYPE_VTS, which are signed: 32767 is 1.
 * Those of 32 bits are IEEE floats, of IMG_TYPE_TAG unsigned integers. Planes of IMG_TYPE_BIT have
 * eight pixels to a byte: pixel x is bit x % 8 of byte x / 8, bit 0 being the lowest. */
typedef enum img_type {
  IMG_TYPE_RGBA,
  IMG_TYPE_RGBA_16,
  IMG_TYPE_RGB,
  IMG_TYPE_RGB_16,
  IMG_TYPE_A,
  IMG_TYPE_A_16,
  IMG_TYPE_S,
  IMG_TYPE_S_16,
  IMG_TYPE_VTA,
  IMG_TYPE_VTS,
  IMG_TYPE_Z,
  IMG_TYPE_N,
  IMG_TYPE_TAG,
  IMG_TYPE_RGBA_FP,
  IMG_TYPE_M,
  IMG_TYPE_BIT,
  IMG_TYPE_RGB_FP,
  IMG_TYPE_COVERAGE,
  IMG_TYPE_RGBE,
  IMG_TYPE_A_FP,
  IMG_TYPE_S_FP,
  IMG_TYPE_COUNT,    /* also: a name that matches no type */
  IMG_TYPE_FILE = 99 /* on opening: the file's own type */
} img_type;

/* Errors of a handle. ka_img_err_msg tells them as messages. */
typedef enum img_errcode {
  IMG_ERR_NONE = 0,
  IMG_ERR_READ = 1,        /* the file ends early, or the system failed to read it */
  IMG_ERR_WRITE = 2,       /* the system failed to write, or the line is beyond the height */
  IMG_ERR_CORRUPT = 3,     /* pixels or header are not what the format allows */
  IMG_ERR_COMPRESS = 4,    /* pixels could not be compressed */
  IMG_ERR_FORMAT = 5,      /* not an image file */
  IMG_ERR_SUBTYPE = 6,     /* a kind of the format that is not supported */
  IMG_ERR_CREATE = 7,      /* the file could not be created */
  IMG_ERR_OPEN = 8,        /* the file could not be opened */
  IMG_ERR_CLOSE = 9,       /* the file could not be closed, it may be incomplete */
  IMG_ERR_ARGUMENT = 10,   /* the caller passed a format or type out of range */
  IMG_ERR_NOT_OPEN = 11,   /* the handle is not open, or not at its first line */
  IMG_ERR_NOT_CLOSED = 12, /* the handle was open already */
  IMG_ERR_SIZE = 13        /* the file's size does not fit its header */
} img_errcode;

enum {
  IMG_HEAD_SIZE = 256,
  IMG_DISPLAY_NAME_SIZE = 64,
  IMG_REASON_SIZE = 128,
  IMG_ERROR_TEXT_SIZE = 512, /* room for every text of ka_img_error_text */
  IMG_LAYER_SIZE = 128,
  IMG_PARAMETERS = 8,
  IMG_SLOTS = 4
};

/* One line of pixels, the left one first: for R, G, B and A the distance in bytes from this record
 * to the plane, 0 for an absent one. Types with one component keep their plane in the A slot,
 * except z, tag and coverage, which keep it in the R slot. A file without alpha can be read into a
 * line of a type with alpha that lacks this plane. */
typedef struct img_line {
  intptr_t offset[IMG_SLOTS];
} img_line;

/* One open image file. The caller owns the record and clears it to zero bytes before
 * its first use. */
typedef struct img_file {
  int width;         /* pixels per line */
  int height;        /* lines */
  int bits;          /* per component of the file's pixel type */
  int components;    /* of the file's pixel type */
  int pyramid;       /* nonzero: images allocated for this file carry reduced levels; kept by
                        ka_img_create. "map" files store it: one that is created with it gets
                        reduced levels, opening one restores it */
  int topdown;       /* 1: the file's first line is the image's top line, 0: its bottom line */
  int64_t file_size; /* bytes, of a file opened for reading and of a created "map" file */
  /* ka_img_create makes both 1; what the caller sets between then and the first line goes to the
   * file. After ka_img_open they are those of the file: RLA files have both, "pic" files the
   * aspect; 1 where a file does not say, and in all other formats. */
  float gamma;
  float aspect; /* of a pixel */
  /* Settings of drivers, set at the same time: ka_img_create clears all but the third, ka_img_open
   * all. Two exist, each a float in the bits of the word. The first: the quality of a JPEG file, 1
   * to 100, 0 for the usual one. The second: the fields in the header of a "pic" file, 1 odd, 2
   * even, 3 and 0 both. Drivers of ka/drivers.h have others: docs/formats.md. */
  uint32_t parameters[IMG_PARAMETERS];
  /* Of a file with several pictures or layers, the one that is read: set before ka_img_open, which
   * keeps it. "" is the format's default. Formats without layers do not look at it; docs/formats.md
   * has the others. */
  char layer[IMG_LAYER_SIZE];
  /* What the file says about the meaning of its samples (gamma, color profile), as a checksum: files
   * that say the same have the same one. 0: nothing. The samples are given as they are in the file. */
  uint32_t profile;
  int type;          /* img_type of the lines that the caller passes */
  int format;        /* img_format of the file */
  int error;         /* img_errcode of the last failure */
  int os_error;      /* the system's error number that belongs to it, 0 for none */
  uint32_t magic;    /* IMG_MAGIC while the handle is open */
  int line_count;    /* lines read or written so far; -1: created with its header written already */
  int writing;       /* 1: made by ka_img_create; any failure discards what was written */
  uint8_t file_type; /* img_type of the file */
  uint8_t has_header;    /* the driver has read or written it */
  uint8_t has_new_error; /* `error` has not been acted on yet */
  uint8_t lacks_lines;   /* 1: the file is too short for a single one of its very long lines, or for
                            the memory that one takes: each fails, and its planes are not touched */
  FILE* stream;          /* the open file, or null */
  char* name;            /* as the caller gave it; owned by the handle */
  char* path;            /* what the name stands for; of a file that is being written, where
                            ka_img_close puts it, null for one that is written directly; owned by the
                            handle */
  char* unfinished;      /* where a file that is being written can be found until then, for programs
                            that are ended by signals: they remove it. Null when there is nothing to
                            remove: unnamed files vanish by themselves; devices, standard streams and
                            what links lead to stay. Owned by the handle */
  /* A line of the file's type, when lines are converted; owned by the handle. */
  img_line* conversion;
  union {
    void* p; /* the driver's own state */
  } data;
  char display_name[IMG_DISPLAY_NAME_SIZE]; /* for messages: the name, or "..." and its last 60
                                               characters */
  char reason[IMG_REASON_SIZE]; /* why the driver refused, for people to read: what the file has and
                                   mostly what would be read, such as "16 bits per pixel; 1, 4, 8,
                                   24 and 32 are read". It belongs to `error`; "" where that says
                                   all. Printable ASCII, kept until the next error or until the
                                   handle is opened or created again */
} img_file;

#define IMG_MAGIC 0xdeadbeefu

/* An image in memory: this header, `height` entries of the line table, and the planes, in one
 * block. All offsets count from the start of the block, so that it can be in a file as it is.
 * Line 0 is the bottom line of the picture. */
typedef struct img_image {
  float filter;
  int32_t levels;            /* pyramid levels from this one down, 0: a plain image */
  uint32_t level_offset[20]; /* of the further levels, from the start of the block */
  int32_t width;             /* pixels per line */
  int32_t height;            /* lines */
  int32_t bits;              /* per component */
  int32_t components;
  uint8_t flags[4];  /* the first: ka_img_image_is_writable; the third: planes are held by the
                       texture cache */
  int32_t type;      /* img_type */
  uint32_t words[2]; /* the first: ka_img_image_name */
} img_image;

/* Entry of the line table: offsets of the planes of R, G, B and A from the start of the block, 0:
 * absent. */
typedef struct img_image_line {
  uint32_t offset[IMG_SLOTS];
} img_image_line;

/* Bits per component and components of the 21 pixel types, indexed by img_type. */
extern const int32_t* const ka_img_nbits;
extern const int32_t* const ka_img_ncomp;

/* Starts the image library, once, after the memory manager. ka_img_exit is its counterpart, after
 * ka_trans_exit and before ka_db_exit: it gives back the pixels of textures that no thread has
 * pinned, and the texture cache. */
void ka_img_init(void);
void ka_img_exit(void);
const char* ka_img_version(void);

/* Opens an existing file for reading.
 *   Before   `handle` is cleared, or was closed. A handle that is still open is closed without
 *            notice.
 *   Takes    the pixel type that the caller wants its lines in, or IMG_TYPE_FILE for the file's
 *            own.
 *   Returns  1, or 0 with handle->error: 5 not an image, 8 cannot be opened, 10 no such type, or
 *            what the format's driver found: 1, 3, 6, 13. The handle is closed with ka_img_close in
 *            every case.
 *   Threads  one thread per handle. */
int ka_img_open(img_file* handle, const char* name, int type);

/* Creates a file for writing. A regular file gets its name with ka_img_close, when it is complete:
 * until then one that had the name before stays as it was, whatever ends the work. The new one has
 * its permissions, and takes the place of what a link leads to. Written directly, and emptied at
 * once, are devices, pipes, standard streams, files with several names or of another owner, mounted
 * files, those in a folder that takes no new ones, and the format "null".
 *   Takes    the pixel type of the lines that the caller will pass, the format and the size in
 *            pixels. The file's own type is handle->file_type as the caller left it (0 is rgba)
 *            where the format can write it, else the format's best type, with a warning.
 *   Returns  1, or 0 with handle->error: 7 cannot be created, 10 no such type or format, or
 *            a side below 0. A "map" file gets its space on the disk at once: 2 the system refuses
 *            it, 6 more than 4 GiB - 1 bytes, 8 it cannot be mapped. */
int ka_img_create(img_file* handle, const char* name, int type, int format, int width, int height);

/* The same for a file that is open already, which is written where its position is. No name leads to
 * it: `name` is for messages, and a failure removes nothing.
 *   Takes    a descriptor that can be written to, of an empty file for "map" files; it stays the
 *            caller's. */
int ka_img_create_in(img_file* handle, int descriptor, const char* name, int type, int format,
                     int width, int height);

/* Ends the work with a file.
 *   Returns  1, also for a handle that is not open; 0 with handle->error when the file may be
 *            incomplete: what was written is then discarded. The handle is closed in every
 *            case. What was written without an error gets its name.
 *            A picture that lacks lines is no failure, except in "map" files and in JPEG files of
 *            at least one: 1, and it gets its name, too; without any line the file is empty. A
 *            caller that stops before the last line removes it itself. */
int ka_img_close(img_file* handle);

/* Lists what the header of an opened file says beside size and type: comments, windows, compression,
 * texts, the names of channels. docs/formats.md, "Entries of headers", has the names.
 *   Before   `handle` is open for reading; any number of its lines may have been read. The header is
 *            read again for this, and reading goes on as if nothing had happened.
 *   Calls    `take` with `context` for each entry, in the order of the file; a name may come several
 *            times. Values are text as the file has it, of any bytes but 0 and not always UTF-8, and
 *            numbers in their shortest form, several with blanks between them. Both strings are valid
 *            during the call, in which the handle is not used otherwise. What cannot be read is left
 *            out, and what passes 64 KiB of a value, or 64 KiB and 4 times the file's size of all.
 *   Returns  1, also for a format or a header without entries, or 0 with handle->error 11. */
typedef void (*img_header_callback)(void* context, const char* name, const char* value);
int ka_img_header(img_file* handle, img_header_callback take, void* context);

/* Reads the next line, in file order, into a line of handle->type; writes the next line from one.
 * File order is from the top down where handle->topdown is set, else from the bottom up.
 *   Returns  1, or 0 with handle->error: 1 to 4, 6 or 7 when the format has no such header, or 11
 *            when the handle is not open for reading or writing, or its header could not be read. A
 *            failing write discards the file. Writes are buffered: one that the system refuses may
 *            fail a later line, or ka_img_close. A line beyond the height is error 2, except in
 *            formats that keep no lines; with a height of 0 every line is taken and only the header
 *            written, but JPEG files have no such header.
 *            Colors cannot be read as vectors, depths, normals, motions or labels: each line gives
 *            an error message (number 6) and 1, and stays as it was. Written as such they give the
 *            message, and zeros in the file. */
int ka_img_line_read(img_file* handle, img_line* line);
int ka_img_line_write(img_file* handle, img_line* line);

/* A line record of handle->type and handle->width with its planes after it, zeroed; without planes
 * where handle->lacks_lines is set.
 *   Returns  null with handle->error 10 when handle->type is no type, as after a failed open.
 *   Memory   the caller's, released with ka_mem_release. */
img_line* ka_img_line_alloc(img_file* handle);

/* A plane of a line record: `slot` is that of R, G, B or A, 0 to 3. Null for an absent one.
 * ka_img_plane finds those of an image. */
void* ka_img_line_plane(const img_line* line, int slot);

/* An image of handle->width, handle->height and handle->type, its pixels zero; with handle->pyramid
 * followed by its reduced levels in the same block.
 *   Returns  null with handle->error: 6 its block would pass 4 GiB - 1 bytes, 1 an opened file is
 *            too short for as many lines as it claims, 10 handle->type is no type.
 *   Memory   the caller's, released with ka_img_image_release. The system backs it with pages as
 *            lines arrive. An image of ka_img_mmap_address is released in the same way. */
img_image* ka_img_image_alloc(img_file* handle);
void ka_img_image_release(img_image* image);

/* Bytes of the block that ka_img_image_alloc makes for this handle; 0 with
 * handle->error as there. */
size_t ka_img_image_size(img_file* handle);

/* The image in the memory mapping of a "map" file that is open for reading: nothing is read or
 * converted, pixels come from the file when they are touched, and all its levels are there.
 *   Before   handle->type is the file's own; handle->pyramid is not 0 where levels are needed: the
 *            caller may set it after ka_img_open.
 *   Returns  null, after a warning: the file has the other byte order, another pixel type, or no
 *            levels; with handle->error: 1 or 8 it could not be mapped, 3 its levels or line tables
 *            contradict each other; or for another format. Lines can be read all the same.
 *   Memory   the caller's, released with ka_img_image_release; it outlives the handle. It must not
 *            be written to. A program that shortens or rewrites the file meanwhile can end this
 *            process with SIGBUS or SIGSEGV: files that others may change are read instead. A new
 *            file that replaces it does no harm. */
img_image* ka_img_mmap_address(img_file* handle);

/* Reads every line of an opened file into `image`; writes every line of `image` to a created file.
 * Whatever the line order of the file is, line 0 of `image` is the bottom line.
 *   Before   no line has been read or written yet.
 *   Returns  1, or 0 with handle->error: 11 not in that state, else as of the line that failed;
 *            lines read before the failure stay in `image`. With handle->pyramid reading ends with
 *            ka_img_pyramid_filter_levels, also when lines are missing, but not when all are.
 *            Writing followed by ka_img_close leaves a whole file where both return 1, else none.
 *   Memory   allocates nothing per line; `image` remains the caller's. */
int ka_img_image_read(img_file* handle, img_image* image);
int ka_img_image_write(img_file* handle, img_image* image);

/* Pyramids: level k + 1 has half the width and half the height of level k, rounded down, as long as
 * both stay above 0; each level is an image of its own inside the block of level 0.
 * ka_img_pyramid_filter_levels computes every level from the one above it: each pixel is the mean
 * of the pixels that it covers, fetched and stored as ka_img_get_color and ka_img_put_color do. */
void ka_img_pyramid_filter_levels(img_image* image);
/* Stores the address of a level of `image`, 0 being the image itself; null for one
 * that it lacks. */
void ka_img_pyramid_set_level(img_image** result, img_image* image, int level);
/* Sets the filter value of an image, which says how far textures are blurred. */
void ka_img_pyramid_set_filter(img_image* image, float value);

/* Fetches line y of an image into the caller's line record, converted to `type`. Types whose
 * samples are the same, such as a and s, or vta and vts, are copied. Other types become no vectors,
 * depths, normals, motions or labels: that gives an error message, 1, and `line` as it was.
 *   Returns  1 and the type's components and bits; 0, and `line` as it was, when there is no such
 *            type or the texture cache cannot give the line. */
int ka_img_convert(img_line* line, int* components, int* bits, const img_image* image, int y,
                   int type);

/* Formats and types by name, names by number. Unknown format: -1; unknown type: IMG_TYPE_COUNT, and
 * a null name. The others take a format below IMG_FORMAT_COUNT: ka_img_format_takes is 1 where its
 * files can have the pixel type as their own when they are written, ka_img_format_is_topdown where
 * their first line is then the top line. */
int ka_img_format_identify(const char* name);
const char* ka_img_format_name(int format);
int ka_img_best_type(int format);
int ka_img_format_takes(int format, int type);
int ka_img_format_is_topdown(int format);
int ka_img_type_identify(const char* name);
const char* ka_img_type_name(int type);

/* Reports a handle's error as an error message, then calls the callback. Nothing happens without an
 * error. */
void ka_img_err_msg(img_file* handle);
typedef void (*img_err_callback)(img_file* handle);
void ka_img_err_handler(img_err_callback callback); /* null removes it */

/* The text of that message: the display name, what failed, and in brackets the system's error. The
 * driver's reason, handle->reason, is not in it.
 *   Returns  the length of the whole text, 0 without an error. What does not fit into `size` bytes
 *            with its closing zero is cut. */
size_t ka_img_error_text(const img_file* handle, char* text, size_t size);

/* Diagnostics: nonzero reports every failure at once, above 2 also every failed line. */
void ka_img_debug(int level);

/* The six operations of a format driver. Each returns 1 for success and 0 for failure, the test 1
 * for its format.
 *   test     gets the first 256 bytes of the file, zero-filled past the end of a shorter one.
 *   open     gets the same with the stream at byte 0; sets width and height, may state the file's
 *            type by setting file_type to IMG_TYPE_COUNT + type, keeps its state in data.p.
 *   create   writes the header, just before the first line.
 *   read, write  move the next line in file order, in the file's type.
 *   close    finishes the file and releases data.p.
 * Files are read and written through handle->stream: a file that is being written has its name only
 * later. When a driver has written its header and nothing came through the stream, it has opened the
 * file by its name, and ka_img_close leaves that alone. */
typedef int (*img_test_function)(img_file* handle, const uint8_t* head);
typedef int (*img_open_function)(img_file* handle, const uint8_t* head);
typedef int (*img_create_function)(img_file* handle);
typedef int (*img_close_function)(img_file* handle);
typedef int (*img_read_function)(img_file* handle, img_line* line);
typedef int (*img_write_function)(img_file* handle, img_line* line);

/* A seventh, which formats may have: hands the entries of ka_img_header to ka_img_header_put
 * (ka/imgheader.h). It reads the file through a reader of its own and leaves the handle as it is. */
typedef struct img_header img_header;
typedef void (*img_header_function)(img_file* handle, img_header* header);

/* Registers a driver in a custom slot, IMG_FORMAT_CUSTOM to IMG_FORMAT_COUNT - 1; a later
 * registration replaces it.
 *   Takes    the operations, null for one that the format lacks; `extra_types` has bit t set for
 *            each writable type t besides the best type. What the format lacks, and what fails
 *            without an error of its own, is error 6 on opening, 7 on creating, 1 on reading, 2 on
 *            writing, 9 on closing. Errors of a test that declines are dropped.
 *   Returns  1, or 0 for a slot or best type out of range or a null name: nothing changes then. */
int ka_img_custom_format(int format, img_test_function test, img_create_function create,
                         img_open_function open, img_close_function close, img_read_function read,
                         img_write_function write, int topdown, const char* name,
                         uint32_t extra_types, int best_type);

/* Lets a custom format stand in for a built-in one: it is not asked for files by itself, but after the
 * built-in driver's open operation has failed with error 6, with the same file. When its test
 * declines or its open operation fails, the built-in driver's error stands, with the reason that the
 * open operation gives. It is asked as well, last of all, for files that no
 * other driver accepts: newer variants of a format may begin with other bytes. A registration of the
 * slot ends it.
 *   Returns  1, or 0 when `format` is no custom slot or `built_in` is no built-in format. */
int ka_img_custom_format_stand_in(int format, int built_in);

/* Gives a custom format an operation for ka_img_header. A registration of the slot ends it.
 *   Returns  1, or 0 when `format` is no custom slot. */
int ka_img_custom_format_header(int format, img_header_function header);

/* Sets a handle's error; for drivers outside the library. The operation that has called the driver
 * reports it and discards the file. Returns 0, so that a driver can return it. */
int ka_img_custom_format_error(img_file* handle, int code, int os_error);

/* The same with handle->reason. A longer reason is cut, and bytes that are no printable ASCII become
 * "?". Where `os_error` says why the system failed, no reason is kept. */
int ka_img_custom_format_refuse(img_file* handle, int code, int os_error, const char* reason);

/* Shared-exponent colors: four bytes, three mantissas and an exponent. A component that is not a
 * number counts as 0, one of 2^127 and above as the brightest that there is. */
void ka_img_rgb_to_hdr(uint8_t* r_out, uint8_t* g_out, uint8_t* b_out, uint8_t* e_out, float r,
                       float g, float b);
void ka_img_hdr_to_rgb(float* r_out, float* g_out, float* b_out, uint8_t r, uint8_t g, uint8_t b,
                       uint8_t e);

KA_END_DECLS
