#include "imgpath.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <ka/detail/memory.h>
#include <ka/detail/paths.h>

namespace {

// Closes a file that turned out to be of no use. Returns -1 with errno.
int refuse(int file, int failure) {
  close(file);
  errno = failure;
  return -1;
}

int open_readable(const char* path) {
  const int file = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return -1;
  struct stat status;
  if (fstat(file, &status) != 0) return refuse(file, errno);
  if (S_ISDIR(status.st_mode)) return refuse(file, EISDIR);
  if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)) {
    return refuse(file, ESPIPE);  // drivers need to seek
  }
  return file;
}

}  // namespace

ka::ImagePath::ImagePath(const char* name_)
    : name(name_), fault(substitute_path(path, name_, sizeof path)) {}

ka::ImagePath::ImagePath(const char* name_, int descriptor_)
    : name(name_), descriptor(descriptor_) {
  std::strncpy(path, name, sizeof path - 1);  // for messages
}

int ka::path_fault(const ImagePath& path) {
  if (path.fault != 0) return path.fault;
  return std::strlen(path.path) >= KA_PATH_SIZE ? ENAMETOOLONG : 0;
}

std::FILE* ka::stream_of(int file, const char* mode) {
  if (file < 0) return nullptr;
  std::FILE* const stream = fdopen(file, mode);
  if (stream) return stream;
  if (errno == ENOMEM) ka::memory_refused();
  refuse(file, errno);
  return nullptr;
}

std::FILE* ka::open_for_reading(const ImagePath& path) {
  errno = path_fault(path);
  return errno != 0 ? nullptr : stream_of(open_readable(path.path), "rb");
}
