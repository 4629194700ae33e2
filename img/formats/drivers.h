// The built-in drivers, as the format tables list them. A family that several formats share tells
// them apart by handle->format.
#pragma once

#include "imgcall.h"

// Declares the six operations of a family.
#define KA_IMAGE_DRIVER(family)                                      \
  int img_test_##family(img_file* handle, const std::uint8_t* head); \
  int img_open_##family(img_file* handle, const std::uint8_t* head); \
  int img_create_##family(img_file* handle);                         \
  int img_close_##family(img_file* handle);                          \
  int img_read_##family(img_file* handle, img_line* line);           \
  int img_write_##family(img_file* handle, img_line* line)

KA_IMAGE_DRIVER(bmp);
KA_IMAGE_DRIVER(ct);
KA_IMAGE_DRIVER(iff);
KA_IMAGE_DRIVER(pic);
KA_IMAGE_DRIVER(ppm);
KA_IMAGE_DRIVER(rgb);
KA_IMAGE_DRIVER(rla);
KA_IMAGE_DRIVER(targa);
KA_IMAGE_DRIVER(tiff);

// Makes a file that is being written complete up to its last line.
int img_flush_tiff(img_file* handle);

inline constexpr img_driver kBmpDriver = {.test = img_test_bmp,
                                          .open = img_open_bmp,
                                          .create = img_create_bmp,
                                          .close = img_close_bmp,
                                          .read = img_read_bmp,
                                          .write = img_write_bmp};
inline constexpr img_driver kCtDriver = {.test = img_test_ct,
                                         .open = img_open_ct,
                                         .create = img_create_ct,
                                         .close = img_close_ct,
                                         .read = img_read_ct,
                                         .write = img_write_ct};
inline constexpr img_driver kIffDriver = {.test = img_test_iff,
                                          .open = img_open_iff,
                                          .create = img_create_iff,
                                          .close = img_close_iff,
                                          .read = img_read_iff,
                                          .write = img_write_iff};
inline constexpr img_driver kPicDriver = {.test = img_test_pic,
                                          .open = img_open_pic,
                                          .create = img_create_pic,
                                          .close = img_close_pic,
                                          .read = img_read_pic,
                                          .write = img_write_pic};
inline constexpr img_driver kPpmDriver = {.test = img_test_ppm,
                                          .open = img_open_ppm,
                                          .create = img_create_ppm,
                                          .close = img_close_ppm,
                                          .read = img_read_ppm,
                                          .write = img_write_ppm};
inline constexpr img_driver kRgbDriver = {.test = img_test_rgb,
                                          .open = img_open_rgb,
                                          .create = img_create_rgb,
                                          .close = img_close_rgb,
                                          .read = img_read_rgb,
                                          .write = img_write_rgb};
inline constexpr img_driver kRlaDriver = {.test = img_test_rla,
                                          .open = img_open_rla,
                                          .create = img_create_rla,
                                          .close = img_close_rla,
                                          .read = img_read_rla,
                                          .write = img_write_rla};
inline constexpr img_driver kTargaDriver = {.test = img_test_targa,
                                            .open = img_open_targa,
                                            .create = img_create_targa,
                                            .close = img_close_targa,
                                            .read = img_read_targa,
                                            .write = img_write_targa};
inline constexpr img_driver kTiffDriver = {.test = img_test_tiff,
                                           .open = img_open_tiff,
                                           .create = img_create_tiff,
                                           .close = img_close_tiff,
                                           .read = img_read_tiff,
                                           .write = img_write_tiff};
