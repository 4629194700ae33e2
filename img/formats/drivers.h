// The built-in drivers, as the format tables list them.
#pragma once

#include "imgcall.h"

int img_test_ppm(img_file* handle, const uint8_t* head);
int img_open_ppm(img_file* handle, const uint8_t* head);
int img_create_ppm(img_file* handle);
int img_close_ppm(img_file* handle);
int img_read_ppm(img_file* handle, img_line* line);
int img_write_ppm(img_file* handle, img_line* line);

inline constexpr img_driver kPpmDriver = {.test = img_test_ppm,
                                          .open = img_open_ppm,
                                          .create = img_create_ppm,
                                          .close = img_close_ppm,
                                          .read = img_read_ppm,
                                          .write = img_write_ppm};
