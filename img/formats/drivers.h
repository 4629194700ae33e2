// The built-in drivers, as the format tables list them. A family that several formats share tells
// them apart by handle->format.
#pragma once

#include "imgcall.h"

namespace ka {

// Declares the six operations of a family, and its driver img_driver_<family>.
#define KA_IMAGE_DRIVER(family)                                                     \
  int img_test_##family(img_file* handle, const std::uint8_t* head);                \
  int img_open_##family(img_file* handle, const std::uint8_t* head);                \
  int img_create_##family(img_file* handle);                                        \
  int img_close_##family(img_file* handle);                                         \
  int img_read_##family(img_file* handle, img_line* line);                          \
  int img_write_##family(img_file* handle, img_line* line);                         \
  inline constexpr img_driver img_driver_##family = {.test = img_test_##family,     \
                                                     .open = img_open_##family,     \
                                                     .create = img_create_##family, \
                                                     .close = img_close_##family,   \
                                                     .read = img_read_##family,     \
                                                     .write = img_write_##family}

KA_IMAGE_DRIVER(alias);
KA_IMAGE_DRIVER(bmp);
KA_IMAGE_DRIVER(catia);
KA_IMAGE_DRIVER(ct);
KA_IMAGE_DRIVER(hdr);
KA_IMAGE_DRIVER(iff);
KA_IMAGE_DRIVER(jfif);
KA_IMAGE_DRIVER(lwi);
KA_IMAGE_DRIVER(map);
KA_IMAGE_DRIVER(null);
KA_IMAGE_DRIVER(pic);
KA_IMAGE_DRIVER(ppm);
KA_IMAGE_DRIVER(ps);
KA_IMAGE_DRIVER(qnt);
KA_IMAGE_DRIVER(rgb);
KA_IMAGE_DRIVER(rla);
KA_IMAGE_DRIVER(targa);
KA_IMAGE_DRIVER(tiff);
KA_IMAGE_DRIVER(zpic);

// The lines of Encapsulated PostScript are those of PostScript.
int img_test_eps(img_file* handle, const std::uint8_t* head);
int img_open_eps(img_file* handle, const std::uint8_t* head);
int img_create_eps(img_file* handle);
int img_close_eps(img_file* handle);
inline constexpr img_driver img_driver_eps = {.test = img_test_eps,
                                              .open = img_open_eps,
                                              .create = img_create_eps,
                                              .close = img_close_eps,
                                              .read = img_read_ps,
                                              .write = img_write_ps};

// Makes a TIFF file that is being written complete up to its last line.
int img_flush_tiff(img_file* handle);

}  // namespace ka
