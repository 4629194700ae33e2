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

// Opens a file for reading without waiting for the other end of a pipe. Null with errno.
[[nodiscard]] std::FILE* open_for_reading(const ImagePath& path);

struct OutputStream {
  std::FILE* stream;  // null with errno
  bool is_at_path;    // false: the file was open already, and is not ours to remove
};

// Creates or empties a file for writing. A pipe must have a reader. A file that standard output or
// standard error writes to is continued where that is, so that nothing in it is lost.
[[nodiscard]] OutputStream open_for_writing(const ImagePath& path);

}  // namespace ka
