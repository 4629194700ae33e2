// The null format: takes every line and keeps nothing. Its file is created, so that a program finds
// out whether it could be, and removed when it is closed.
#include "drivers.h"

namespace ka {

int img_test_null(img_file* /*handle*/, const std::uint8_t* /*head*/) { return 1; }

int img_open_null(img_file* handle, const std::uint8_t* /*head*/) {
  return img_error(handle, IMG_ERR_OPEN, 0);
}

int img_create_null(img_file* /*handle*/) { return 1; }

int img_read_null(img_file* /*handle*/, img_line* /*line*/) { return 1; }

int img_write_null(img_file* /*handle*/, img_line* /*line*/) { return 1; }

int img_close_null(img_file* /*handle*/) { return 1; }

}  // namespace ka
