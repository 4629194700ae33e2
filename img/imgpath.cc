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

// The stream of an open file, which it closes when there is none. Null with errno.
std::FILE* stream_of(int file, const char* mode) {
  if (file < 0) return nullptr;
  std::FILE* const stream = fdopen(file, mode);
  if (stream) return stream;
  if (errno == ENOMEM) ka::memory_refused();
  refuse(file, errno);
  return nullptr;
}

// A path that was cut, or lacks a part, would lead to another file. Sets errno.
bool leads_nowhere(const ka::ImagePath& path) {
  errno = path.fault != 0 ? path.fault : ENAMETOOLONG;
  return path.fault != 0 || std::strlen(path.path) >= KA_PATH_SIZE;
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

// A pipe that is opened for reading as well would be its own reader, and never full for nobody.
int open_pipe(const char* path) {
  const int file = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);  // ENXIO: it has no reader
  if (file < 0) return -1;
  const int flags = fcntl(file, F_GETFL);
  if (flags < 0 || fcntl(file, F_SETFL, flags & ~O_NONBLOCK) != 0) return refuse(file, errno);
  return file;
}

// The standard stream whose file this is, -1: none.
int standard_stream_of(const struct stat& wanted) {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    struct stat status;
    if (S_ISREG(wanted.st_mode) && fstat(stream, &status) == 0 && status.st_dev == wanted.st_dev &&
        status.st_ino == wanted.st_ino) {
      return stream;
    }
  }
  return -1;
}

// A copy of an open file, at the place where writing goes on.
int copy_of(int descriptor) {
  const int file = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (file >= 0 && (fcntl(file, F_GETFL) & O_APPEND) != 0) (void)lseek(file, 0, SEEK_END);
  return file;
}

bool is_pipe(int file) {
  struct stat status;
  return file >= 0 && fstat(file, &status) == 0 && S_ISFIFO(status.st_mode);
}

ka::OutputStream write_to_copy(int descriptor) {
  const int file = copy_of(descriptor);
  const bool is_readable = file >= 0 && (fcntl(file, F_GETFL) & O_ACCMODE) == O_RDWR;
  return {stream_of(file, is_readable ? "r+b" : "wb"), false};
}

}  // namespace

ka::ImagePath::ImagePath(const char* name_)
    : name(name_), fault(substitute_path(path, name_, sizeof path)) {}

ka::ImagePath::ImagePath(const char* name_, int descriptor_)
    : name(name_), descriptor(descriptor_) {
  std::strncpy(path, name, sizeof path - 1);  // for messages
}

std::FILE* ka::open_for_reading(const ImagePath& path) {
  return leads_nowhere(path) ? nullptr : stream_of(open_readable(path.path), "rb");
}

ka::OutputStream ka::open_for_writing(const ImagePath& path) {
  if (path.descriptor >= 0) return write_to_copy(path.descriptor);
  if (leads_nowhere(path)) return {nullptr, false};
  struct stat status;
  const bool exists = stat(path.path, &status) == 0;
  const int standard_stream = exists ? standard_stream_of(status) : -1;
  if (standard_stream >= 0) return write_to_copy(standard_stream);
  if (exists && S_ISFIFO(status.st_mode)) return {stream_of(open_pipe(path.path), "wb"), true};
  int file = open(path.path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (is_pipe(file)) file = refuse(file, ENXIO);  // it came in between
  return {stream_of(file, "w+b"), true};
}
