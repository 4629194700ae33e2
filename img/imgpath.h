// Names of image files, and the streams that they lead to.
#pragma once

#include <ka/subst.h>

#include <cstdio>

namespace ka {

// What a caller calls a file, and where that is. The name is substituted once: what is done with
// the file later goes by the same path, whatever becomes of the environment.
struct ImagePath {
  explicit ImagePath(const char* name);
  // An open file, which no path leads to.
  ImagePath(const char* name, int descriptor);

  const char* name;                  // the caller's
  char path[KA_PATH_SIZE + 1] = "";  // one character more shows that a path does not fit
  int fault = 0;                     // system error of a name that leads nowhere, 0: none
  int descriptor = -1;               // of the open file
};

// The system error of a path that would lead to another file since it was cut, or lacks a part; 0:
// none.
[[nodiscard]] int path_fault(const ImagePath& path);

// The stream of an open file, which is closed when there is none. Null with errno, also for -1.
[[nodiscard]] std::FILE* stream_of(int file, const char* mode);

// Opens a file for reading without waiting for the other end of a pipe. Null with errno.
[[nodiscard]] std::FILE* open_for_reading(const ImagePath& path);

}  // namespace ka
