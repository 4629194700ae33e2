/* Images as elements of the scene database: textures that are loaded when a thread first needs their
 * pixels, images that are computed, and lightmaps, which several threads edit and the last of them
 * writes to its file.
 *   Threads  any number of them; an image handle belongs to one thread at a time. */
#pragma once

#include <ka/db.h>
#include <ka/img.h>
#include <ka/job.h>

KA_BEGIN_DECLS

/* Creates an image element of the handle's size and type, with reduced levels where handle->pyramid
 * is not 0, its pixels zero. A handle with a name gets a string element for it, whose tag the image
 * keeps: ka_img_image_name.
 *   Takes    `*tag` 0 for a new element, or the tag of an image element that is resized. No other
 *            thread uses that one.
 *   Returns  the image, which stays where it is until the element is resized or deleted; null with
 *            handle->error as ka_img_image_alloc. */
img_image* ka_img_image_dbcreate(img_file* ifp, uint32_t* tag);

/* The tag of the string element with the name of an image's file; 0: none. The image is an element's
 * data, not one of its levels. */
uint32_t ka_img_image_name(const img_image* image);

/* Images that ka_img_image_dbcreate has made may be written to; images that a texture job has read,
 * mapped or cached may not. The flag is only asked by ka_lightmap_edit. */
void ka_img_image_set_writable(img_image* image, int writable);
int ka_img_image_is_writable(const img_image* image);

/* Flags of ka_img_placeholder_dbcreate. */
enum { IMG_TEXTURE_LOCAL = 1 /* the file is on this host: only the messages differ */ };

/* Declares a texture: creates an element whose job loads the file when a thread first accesses it
 * with ka_job_access. Map files of the wanted type that have the levels asked for are mapped; they
 * are cached where they are large, the loading thread has asked for it (ka_img_cache_request), or
 * their byte order is not this machine's. All other files are read whole. A handle that is `writing`
 * declares an image that is made instead of loaded: width x height pixels, zero and writable.
 *   Takes    a cleared handle that is not open, of which these fields count: name, type (as for
 *            ka_img_open; 0 is rgba), pyramid (not 0: reduced levels are needed), writing, and for a
 *            writing one width, height and, with IMG_TYPE_FILE, bits: rgba of 8, 16 or 32 bits.
 *            `*tag` 0 for a new element, or the tag of a texture that gets this file instead.
 *   Memory   the element, and a string element with the name, are the current transaction's. The
 *            texture is not in use when that ends.
 *   Returns  1; 0 when the existing element is no job element or is in use. */
int ka_img_placeholder_dbcreate(const img_file* handle, uint32_t* tag, uint32_t flags);

/* The callback of texture jobs; ka_img_init registers it. Errors of loading: 1 "cannot open texture",
 * 2 "cannot read texture", each after the handle's own message. */
int ka_img_job_callback(int operation, ka_job_call* call);

/* Turns an image element that came from another host into one of this host.
 *   Takes    the element's data, as many bytes as they are, and whether the sender has the other byte
 *            order.
 *   Returns  1; 0 when the image contradicts itself or does not fit: its bytes are of no use. */
int ka_img_image_import(img_image* image, size_t size, int swap);

/* The first byte of a plane of a line of an image that is in memory; null: it has none. The planes of
 * cached images are reached through ka_img_cache_get. */
void* ka_img_access(const img_image* image, int line, int component);

/* Sets the calling thread's color pipeline from an element that holds an img_options record. */
void ka_img_mode(uint32_t options);

/* A lightmap that is being edited. */
typedef struct ka_lightmap ka_lightmap;

/* Begins to edit an image element. The first editor creates the file that the image names, in the
 * format of the name's extension, else as a map file, as rgba of 8, 16 or 32 bits per component as
 * the image has them. Without a name there is no file.
 *   Returns  the image, the same for all who edit it at a time, and in `*entry` what
 *            ka_lightmap_edit_end takes; null after error 21 (not writable), or 22 and the handle's
 *            own (the file cannot be created). */
img_image* ka_lightmap_edit(ka_lightmap** entry, uint32_t tag);
/* Ends it. The last editor, when no other one is left, computes the reduced levels and writes the
 * file. Who begins after that creates the file again. All have ended before ka_img_exit.
 *   Returns  1, or 0 after error 23 or 24: the file could not be written or closed, and is not
 *            there. */
int ka_lightmap_edit_end(ka_lightmap* entry);

KA_END_DECLS
