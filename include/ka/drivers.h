/* Drivers for formats beyond the library's own: they fill custom slots, from IMG_FORMAT_CUSTOM on.
 * docs/formats.md describes them. They are a library of their own, lumora_drivers. */
#pragma once

#include <ka/img.h>

KA_BEGIN_DECLS

/* Formats of ka_drivers_register. Their names are in brackets. */
enum {
  KA_DRIVERS_PNG = IMG_FORMAT_CUSTOM, /* [png] */
  KA_DRIVERS_EXR,                     /* [exr] OpenEXR; its library is loaded with the first file */
  KA_DRIVERS_WEBP,                    /* [webp] */
  KA_DRIVERS_TIFZ,                    /* [tifz] TIFF files that the built-in driver refuses */
  KA_DRIVERS_BMP5                     /* [bmp5] BMP files that the built-in driver refuses */
};

/* Registers all of them, after ka_img_init. No codec starts before a file of its format is met.
 *   Returns  1, or 0 when a slot could not be filled. */
int ka_drivers_register(void);

KA_END_DECLS
