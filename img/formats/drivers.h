// The built-in drivers, as the format tables list them. A family that several formats share tells
// them apart by handle->format.
#pragma once

#include "imgcall.h"

namespace ka {

// Declares the operations of a family, and its driver img_driver_<family>. The last argument is the one
// that lists the header, nullptr where it says no more than size and type.
#define KA_IMAGE_DRIVER(family, header_operation)                                   \
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
                                                     .write = img_write_##family,   \
                                                     .header = header_operation}

void img_header_alias(img_file* handle, img_header* header);
void img_header_bmp(img_file* handle, img_header* header);
void img_header_catia(img_file* handle, img_header* header);
void img_header_ct(img_file* handle, img_header* header);
void img_header_hdr(img_file* handle, img_header* header);
void img_header_iff(img_file* handle, img_header* header);
void img_header_jfif(img_file* handle, img_header* header);
void img_header_map(img_file* handle, img_header* header);
void img_header_pic(img_file* handle, img_header* header);
void img_header_ppm(img_file* handle, img_header* header);
void img_header_ps(img_file* handle, img_header* header);
void img_header_rgb(img_file* handle, img_header* header);
void img_header_rla(img_file* handle, img_header* header);
void img_header_targa(img_file* handle, img_header* header);
void img_header_tiff(img_file* handle, img_header* header);

KA_IMAGE_DRIVER(alias, img_header_alias);
KA_IMAGE_DRIVER(bmp, img_header_bmp);
KA_IMAGE_DRIVER(catia, img_header_catia);
KA_IMAGE_DRIVER(ct, img_header_ct);
KA_IMAGE_DRIVER(hdr, img_header_hdr);
KA_IMAGE_DRIVER(iff, img_header_iff);
KA_IMAGE_DRIVER(jfif, img_header_jfif);
KA_IMAGE_DRIVER(lwi, nullptr);
KA_IMAGE_DRIVER(map, img_header_map);
KA_IMAGE_DRIVER(null, nullptr);
KA_IMAGE_DRIVER(pic, img_header_pic);
KA_IMAGE_DRIVER(ppm, img_header_ppm);
KA_IMAGE_DRIVER(ps, img_header_ps);
KA_IMAGE_DRIVER(qnt, nullptr);
KA_IMAGE_DRIVER(rgb, img_header_rgb);
KA_IMAGE_DRIVER(rla, img_header_rla);
KA_IMAGE_DRIVER(targa, img_header_targa);
KA_IMAGE_DRIVER(tiff, img_header_tiff);
KA_IMAGE_DRIVER(zpic, nullptr);

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
                                              .write = img_write_ps,
                                              .header = img_header_ps};

// Makes a TIFF file that is being written complete up to its last line.
int img_flush_tiff(img_file* handle);

}  // namespace ka
