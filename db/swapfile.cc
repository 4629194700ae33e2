#include "swapfile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <utility>

namespace {

// A file of that name may be left of a process that had this one's number: it makes room, once. A
// link goes, not what it leads to.
int create_file(const char* path) {
  constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  constexpr mode_t owner_only = S_IRUSR | S_IWUSR;
  const int file = open(path, flags, owner_only);
  if (file >= 0 || errno != EEXIST || unlink(path) != 0) return file;
  return open(path, flags, owner_only);
}

int open_file(const char* path, const ka::SwapFileIdentity& identity, std::size_t& size) {
  ka::SwapDescriptor file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file || fstat(file.number(), &status) != 0) return -1;
  if (status.st_dev != identity.device || status.st_ino != identity.inode ||
      status.st_uid != geteuid() || !S_ISREG(status.st_mode)) {
    errno = ESTALE;
    return -1;
  }
  size = std::size_t(status.st_size);
  return dup(file.number());
}

}  // namespace

ka::SwapDescriptor::~SwapDescriptor() {
  const int failure = errno;
  close();
  errno = failure;
}

int ka::SwapDescriptor::close() {
  const int number = std::exchange(number_, -1);
  return number >= 0 ? ::close(number) : 0;
}

ka::SwapWriter::SwapWriter(const char* path) : path_(path), file_(create_file(path)) {}

ka::SwapWriter::~SwapWriter() {
  if (is_finished_ || !file_) return;
  const int failure = errno;
  unlink(path_);
  errno = failure;
}

bool ka::SwapWriter::write(const void* data, std::size_t size) {
  std::array<std::uint8_t, kSwapHeaderBytes> header{};
  std::memcpy(header.data(), &kSwapVersion, sizeof kSwapVersion);
  const auto write_all = [this](const std::uint8_t* bytes, std::size_t count) {
    while (count > 0) {
      const ssize_t done = ::write(file_.number(), bytes, count);
      if (done < 0 && errno != EINTR) return false;
      if (done <= 0) continue;
      bytes += done;
      count -= std::size_t(done);
    }
    return true;
  };
  return write_all(header.data(), header.size()) &&
         write_all(static_cast<const std::uint8_t*>(data), size);
}

bool ka::SwapWriter::finish(SwapFileIdentity& identity) {
  struct stat status;
  if (fstat(file_.number(), &status) != 0) return false;
  identity = {.device = status.st_dev, .inode = status.st_ino};
  is_finished_ = true;
  if (file_.close() == 0) return true;
  const int failure = errno;
  unlink(path_);
  errno = failure;
  return false;
}

ka::SwapReader::SwapReader(const char* path, const SwapFileIdentity& identity)
    : file_(open_file(path, identity, size_)) {}

bool ka::SwapReader::read_header(std::uint32_t& version) {
  std::array<std::uint8_t, kSwapHeaderBytes> header;
  if (!read(header.data(), header.size())) return false;
  std::memcpy(&version, header.data(), sizeof version);
  return true;
}

bool ka::SwapReader::read(void* data, std::size_t size) {
  auto* at = static_cast<std::uint8_t*>(data);
  while (size > 0) {
    const ssize_t got = ::read(file_.number(), at, size);
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = 0;
    if (got <= 0) return false;
    at += got;
    size -= std::size_t(got);
  }
  return true;
}

bool ka::for_each_file(const char* folder, void (*function)(int directory, const char* name, void*),
                       void* argument) {
  DIR* const directory = opendir(folder);
  if (!directory) return false;
  while (const dirent* const entry = readdir(directory)) {
    function(dirfd(directory), entry->d_name, argument);
  }
  closedir(directory);
  return true;
}
