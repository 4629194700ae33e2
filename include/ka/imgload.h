/* The two things that programs which only want pixels do most: load a file, find a plane. */
#pragma once

#include <ka/img.h>

KA_BEGIN_DECLS

/* Loads a whole file as one image, without reduced levels.
 *   Takes    the pixel type that the image shall have, or IMG_TYPE_FILE for the file's own.
 *   Returns  null after an error message: the file cannot be opened, is no image, or is not whole.
 *   Memory   the caller's, released with ka_img_image_release.
 *   Threads  any number of them. */
img_image* ka_img_load(const char* name, int type);

/* The first sample of a plane of line y of an image in memory; line 0 is the bottom one.
 *   Takes    the component, counted from 0, in whichever slot its plane is: R, G, B and A of a
 *            color; 0 is the only one of a type with one component. ka_img_access takes slots.
 *   Shape    image->width samples of image->bits: unsigned integers of 8 and 16 bits, 32 bits as
 *            the pixel type has them; IMG_TYPE_BIT has one bit per pixel.
 *   Returns  null: the image has no such line or component, or its pixels are in the texture cache.
 *   Memory   the image's. */
void* ka_img_plane(const img_image* image, int y, int component);

KA_END_DECLS
