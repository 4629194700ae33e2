/* Pixels of image buffers as colors, scalars, vectors, normals, depths and labels, whatever the
 * buffer's pixel type. Colors pass a pipeline that each thread sets for itself: clipping, gamma,
 * division by alpha, dithering.
 *   Shape    colors are R, G, B, A, normalised: 1 is the full sample. x counts from the left, y
 *            from the bottom line.
 *   Outside  putting does nothing without an image or outside of it; getting gives 0, or what is
 *            said.
 *   Threads  any number of them; two that put into one pixel at the same time are not kept
 *            apart. */
#pragma once

#include <ka/img.h>

KA_BEGIN_DECLS

/* How colors that no sample can hold are clipped. Alpha is clamped to 0 and 1 in all of them. */
typedef enum img_color_clip {
  IMG_CLIP_RAISE_ALPHA, /* alpha is raised to the largest component, components end at 1 */
  IMG_CLIP_TO_ALPHA,    /* components end at alpha */
  IMG_CLIP_EACH         /* components end at 1; also for any other number */
} img_color_clip;

/* The part of a scene's options that says how its pictures are stored. */
typedef struct img_options {
  int desaturate;     /* colors out of range are pulled towards their grey instead of clamped */
  int dither;         /* samples of 8 and 16 bits get a random offset of up to half a step */
  int premultiply;    /* colors are premultiplied with alpha: except with IMG_CLIP_EACH they are
                         divided by it in images, and multiplied when they are fetched */
  int color_clip;     /* img_color_clip */
  float gamma;        /* exponent of stored colors, of images below 32 bits per component; 0 and
                         below count as 1 */
  float luminance[4]; /* weights of R, G, B, A where a color becomes one scalar */
} img_options;

/* Sets the calling thread's color pipeline. A thread that never does has everything off,
 * IMG_CLIP_EACH and the weights 0.299, 0.587, 0.114, 0.
 *   Before   ka_img_init and ka_trans_init, when the gamma is not 1.
 *   Threads  those that work in one transaction at the same time use one gamma. */
void ka_img_mode_options(const img_options* options);

/* Clips a color in place for an image that will hold it; images of 32 bits per component and of
 * IMG_TYPE_RGBE hold any color. What is not a number becomes 0. A null image clips. */
void ka_img_clip_color(const img_image* image, float color[4]);
/* Pulls R, G and B towards their luminance until they lie between 0 and `max`. */
void ka_img_desaturate_rgb(float color[3], float max);

/* Stores and fetches one pixel's color.
 *   Shape    images with one component hold R, and give it as R, G and B; without an alpha plane
 *            alpha is 1. Images with two components hold no colors: nothing is stored, `color`
 *            stays as it is. */
void ka_img_put_color(img_image* image, const float color[4], int x, int y);
void ka_img_get_color(const img_image* image, float color[4], int x, int y);
/* Fetches the pixels at (x, y), (x + 1, y), (x, y + 1) and (x + 1, y + 1), of which (x, y) is
 * inside the image; right of the last column and above the last line, that column
 * and line again. */
void ka_img_get_color_square(const img_image* image, float color[4][4], int x, int y);

/* One scalar of images with one component, or the alpha of images with four; others hold none and
 * give 0. Below 32 bits it is clamped to 0 and 1. Neither gamma nor dithering apply. */
void ka_img_put_scalar(img_image* image, float scalar, int x, int y);
void ka_img_get_scalar(const img_image* image, float* scalar, int x, int y);
/* As ka_img_get_color_square, of images with one component; others leave `scalar` as it is. */
void ka_img_get_scalar_square(const img_image* image, float scalar[4], int x, int y);

/* Two components between -1 and 1, of images of 16 bits with two or more; the third is 0. */
void ka_img_put_vector(img_image* image, const float vector[3], int x, int y);
void ka_img_get_vector(const img_image* image, float vector[3], int x, int y);

/* Three components, of images of 32 bits with three or more. */
void ka_img_put_normal(img_image* image, const float normal[3], int x, int y);
void ka_img_get_normal(const img_image* image, float normal[3], int x, int y);

/* The first plane of images of 32 bits, when it is not alpha: a depth, outside the largest float;
 * a label. */
void ka_img_put_depth(img_image* image, float depth, int x, int y);
void ka_img_get_depth(const img_image* image, float* depth, int x, int y);
void ka_img_put_label(img_image* image, uint32_t label, int x, int y);
void ka_img_get_label(const img_image* image, uint32_t* label, int x, int y);

KA_END_DECLS
