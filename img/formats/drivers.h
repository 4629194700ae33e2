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

KA_IMAGE_DRIVER(alias);
KA_IMAGE_DRIVER(ct);
KA_IMAGE_DRIVER(ppm);
KA_IMAGE_DRIVER(ps);
KA_IMAGE_DRIVER(qnt);
KA_IMAGE_DRIVER(rgb);
KA_IMAGE_DRIVER(targa);

// The lines of Encapsulated PostScript are those of PostScript.
int img_test_eps(img_file* handle, const std::uint8_t* head);
int img_open_eps(img_file* handle, const std::uint8_t* head);
int img_create_eps(img_file* handle);
int img_close_eps(img_file* handle);

inline constexpr img_driver kAliasDriver = {.test = img_test_alias,
                                            .open = img_open_alias,
                                            .create = img_create_alias,
                                            .close = img_close_alias,
                                            .read = img_read_alias,
                                            .write = img_write_alias};
inline constexpr img_driver kCtDriver = {.test = img_test_ct,
                                         .open = img_open_ct,
                                         .create = img_create_ct,
                                         .close = img_close_ct,
                                         .read = img_read_ct,
                                         .write = img_write_ct};
inline constexpr img_driver kEpsDriver = {.test = img_test_eps,
                                          .open = img_open_eps,
                                          .create = img_create_eps,
                                          .close = img_close_eps,
                                          .read = img_read_ps,
                                          .write = img_write_ps};
inline constexpr img_driver kPpmDriver = {.test = img_test_ppm,
                                          .open = img_open_ppm,
                                          .create = img_create_ppm,
                                          .close = img_close_ppm,
                                          .read = img_read_ppm,
                                          .write = img_write_ppm};
inline constexpr img_driver kPsDriver = {.test = img_test_ps,
                                         .open = img_open_ps,
                                         .create = img_create_ps,
                                         .close = img_close_ps,
                                         .read = img_read_ps,
                                         .write = img_write_ps};
inline constexpr img_driver kQntDriver = {.test = img_test_qnt,
                                          .open = img_open_qnt,
                                          .create = img_create_qnt,
                                          .close = img_close_qnt,
                                          .read = img_read_qnt,
                                          .write = img_write_qnt};
inline constexpr img_driver kRgbDriver = {.test = img_test_rgb,
                                          .open = img_open_rgb,
                                          .create = img_create_rgb,
                                          .close = img_close_rgb,
                                          .read = img_read_rgb,
                                          .write = img_write_rgb};
inline constexpr img_driver kTargaDriver = {.test = img_test_targa,
                                            .open = img_open_targa,
                                            .create = img_create_targa,
                                            .close = img_close_targa,
                                            .read = img_read_targa,
                                            .write = img_write_targa};
