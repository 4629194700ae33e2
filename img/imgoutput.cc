#include "imgoutput.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include <ka/detail/heldsignals.h>
#include <ka/detail/owned.h>
#include <ka/mem.h>

#include "imgcall.h"
#include "imgpath.h"

namespace {

constexpr mode_t kNewFile = 0666;  // permissions, less the umask
constexpr mode_t kPermissions = 0777;
constexpr int kMostLinks = 40;              // as many as the system follows
constexpr int kMostNames = 100;             // tried for a temporary file
constexpr std::size_t kTemporaryRoom = 32;  // of such a name
constexpr char kAccessList[] = "system.posix_acl_access";

bool keeps_no_file(const img_file* handle) {
  return ka::img_format_at(handle->format).keeps_no_file;
}

// The length of the folder part of a path, with its slash; 0: the current folder.
std::size_t folder_length(std::string_view path) { return path.rfind('/') + 1; }

bool same_file(const struct statx& a, const struct stat& b) {
  return makedev(a.stx_dev_major, a.stx_dev_minor) == b.st_dev && a.stx_ino == b.st_ino;
}

// A relative path leads elsewhere after a change of the folder. One that would become too long
// stays relative.
ka::string absolute(const char* path) {
  std::array<char, PATH_MAX> folder;
  if (path[0] == '/' || !getcwd(folder.data(), folder.size())) return path;
  ka::string whole = folder.data();
  if (whole.size() + std::strlen(path) + kTemporaryRoom >= PATH_MAX) return path;
  if (!whole.ends_with('/')) whole += '/';
  return whole += path;
}

// The path after all links that its last part may be, whether or not a file is there. Empty when
// there are too many.
ka::string without_links(const char* path) {
  ka::string target = absolute(path);
  for (int i = 0; i < kMostLinks; ++i) {
    std::array<char, PATH_MAX> link;
    const ssize_t length = readlink(target.c_str(), link.data(), link.size());
    if (length < 0) return target;
    const std::string_view next(link.data(), std::size_t(length));
    target.resize(next.starts_with('/') ? 0 : folder_length(target));
    target += next;
  }
  return {};
}

ka::string temporary_name(const ka::string& target) {
  unsigned number = 0;
  if (getentropy(&number, sizeof number) != 0) number = unsigned(getpid());
  std::array<char, kTemporaryRoom> name;
  std::snprintf(name.data(), name.size(), ".lumora-%08x.tmp", number);
  return target.substr(0, folder_length(target)) + name.data();
}

// Temporary names, for a process that ends without closing its files.
constinit std::array<std::atomic<char*>, 64> temporary_files{};
constinit std::atomic<pid_t> their_process{0};  // a child of it has nothing to remove

void remove_temporary_files() {
  if (their_process != getpid()) return;
  for (auto& file : temporary_files) {
    char* const name = file.exchange(nullptr);
    if (name) unlink(name);
  }
}

void exchange_temporary(char* before, char* after) {
  for (auto& file : temporary_files) {
    char* expected = before;
    if (file.compare_exchange_strong(expected, after)) return;
  }
}

void forget_unfinished(img_file* handle) {
  if (!handle->unfinished) return;
  exchange_temporary(handle->unfinished, nullptr);
  ka_mem_release(handle->unfinished);
  handle->unfinished = nullptr;
}

void set_temporary(img_file* handle, const ka::string& name) {
  static const int is_registered = std::atexit(remove_temporary_files);
  (void)is_registered;
  their_process = getpid();
  forget_unfinished(handle);
  handle->unfinished = ka_mem_strdup(name.c_str());
  exchange_temporary(nullptr, handle->unfinished);
}

// Whether names in a folder stay for ever: a file there cannot be renamed.
bool keeps_names(const ka::string& target) {
  const ka::string folder = target.substr(0, folder_length(target));
  struct statx status;
  return statx(AT_FDCWD, folder.empty() ? "." : folder.c_str(), 0, 0, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_APPEND) != 0;
}

// Tries names beside the target until the operation, which returns -1 with errno for a failure,
// finds one that is free. Its result. handle->unfinished is the name, and is it before a file has
// it: a process may end when memory is refused.
template <typename Operation>
int at_free_name(img_file* handle, const ka::string& target, Operation operation) {
  int result = -1, failure = 0;
  for (int i = 0; i < kMostNames && result < 0; ++i) {
    set_temporary(handle, temporary_name(target));
    result = operation(handle->unfinished);
    failure = errno;
    if (failure != EEXIST) break;
  }
  if (result < 0) forget_unfinished(handle);
  errno = failure;
  return result;
}

std::array<char, 32> entry_of(int file) {
  std::array<char, 32> entry;
  std::snprintf(entry.data(), entry.size(), "/proc/self/fd/%d", file);
  return entry;
}

// Opens a file, never with the number of a standard stream that is closed: it would be taken for
// one, and get what is printed. Returns -1 with errno.
int open_beyond_streams(const char* path, int flags, mode_t permissions = 0) {
  const int file = open(path, flags | O_CLOEXEC, permissions);
  if (file < 0 || file > STDERR_FILENO) return file;
  const int moved = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int failure = errno;
  close(file);
  errno = failure;
  return moved;
}

// An unnamed file that can get a name later; -1 where the system has none.
int open_unnamed(const ka::string& target, mode_t permissions) {
  const ka::string folder = target.substr(0, folder_length(target));
  const int file =
      open_beyond_streams(folder.empty() ? "." : folder.c_str(), O_TMPFILE | O_RDWR, permissions);
  if (file >= 0 && access(entry_of(file).data(), F_OK) == 0) return file;
  if (file >= 0) close(file);
  return -1;
}

// A file beside the target, named by handle->unfinished where it needs a name. Returns -1 with
// errno.
int open_beside(img_file* handle, const ka::string& target, mode_t permissions) {
  const int file = open_unnamed(target, permissions);
  if (file >= 0) return file;
  return at_free_name(handle, target, [permissions](const char* path) {
    return open_beyond_streams(path, O_RDWR | O_CREAT | O_EXCL, permissions);
  });
}

// Gives the handle an open file, -1: none, with errno. Returns 0, or the system's error number.
int take_file(img_file* handle, int file, const char* mode) {
  handle->stream = ka::stream_of(file, mode);
  return handle->stream ? 0 : errno;
}

int take_file_beside(img_file* handle, int file, const ka::string& target) {
  handle->path = ka_mem_strdup(target.c_str());
  const int failure = take_file(handle, file, "w+b");
  if (failure != 0) ka::img_discard(handle);
  return failure;
}

// The standard stream whose file this is, -1: none.
int standard_stream_of(const struct statx& file) {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO, STDIN_FILENO}) {
    struct stat status;
    if (S_ISREG(file.stx_mode) && fstat(stream, &status) == 0 && same_file(file, status)) {
      return stream;
    }
  }
  return -1;
}

// Writes a copy of an open file, at the place where writing goes on.
int write_to_copy(img_file* handle, int descriptor) {
  const int file = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int flags = file < 0 ? 0 : fcntl(file, F_GETFL);
  if ((flags & O_APPEND) != 0) (void)lseek(file, 0, SEEK_END);
  return take_file(handle, file, (flags & O_ACCMODE) == O_RDWR ? "r+b" : "wb");
}

// A pipe that is opened for reading as well would be its own reader: writing would wait for ever.
int write_to_pipe(img_file* handle, const char* path) {
  const int file = open_beyond_streams(path, O_WRONLY | O_NONBLOCK);  // ENXIO: it has no reader
  if (file < 0) return errno;
  const int flags = fcntl(file, F_GETFL);
  if (flags >= 0 && fcntl(file, F_SETFL, flags & ~O_NONBLOCK) == 0) {
    return take_file(handle, file, "wb");
  }
  const int failure = errno;
  close(file);
  return failure;
}

bool is_regular(const struct statx& file) { return S_ISREG(file.stx_mode); }

// Whether a file may give its name away: its other names, its owner, a mount, or a standard stream
// would keep the old one.
bool is_replaceable(const struct statx& file) {
  return is_regular(file) && file.stx_nlink == 1 && file.stx_uid == geteuid() &&
         (file.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0 && standard_stream_of(file) < 0;
}

bool is_at(const struct statx& file, const ka::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && same_file(file, status);
}

bool copy_access_list(int from, int to) {
  std::array<char, 4096> list;
  const ssize_t size = fgetxattr(from, kAccessList, list.data(), list.size());
  if (size >= 0) return fsetxattr(to, kAccessList, list.data(), std::size_t(size), 0) == 0;
  if (errno == ERANGE) return false;
  (void)fremovexattr(to, kAccessList);  // that of the folder
  return true;
}

// Makes the permissions of one file those of another of the same owner. False when the system does
// not allow it.
bool copy_permissions(int from, int to, const struct statx& wanted) {
  struct stat made;
  if (fstat(to, &made) != 0) return false;
  if (made.st_gid != wanted.stx_gid && fchown(to, uid_t(-1), wanted.stx_gid) != 0) return false;
  return copy_access_list(from, to) && fchmod(to, wanted.stx_mode & kPermissions) == 0;
}

// What the system says of a folder that takes no new files, and not of a disk that is full.
bool is_closed_folder(int failure) {
  return failure == EACCES || failure == EPERM || failure == EROFS || failure == ENOENT ||
         failure == EOPNOTSUPP || failure == ENOSYS || failure == EINVAL;
}

// Opens a file in place of the open one, with its permissions. Returns 0, or the system's error
// number; none when the open one has to be written itself.
std::optional<int> write_beside(img_file* handle, const char* path, int file,
                                const struct statx& status) {
  if (keeps_no_file(handle) || !is_replaceable(status)) return std::nullopt;
  const ka::string target = without_links(path);
  if (!is_at(status, target) || keeps_names(target)) return std::nullopt;
  const int beside = open_beside(handle, target, status.stx_mode & kPermissions);
  if (beside < 0) return is_closed_folder(errno) ? std::nullopt : std::optional(errno);
  if (copy_permissions(file, beside, status)) return take_file_beside(handle, beside, target);
  close(beside);
  if (handle->unfinished) unlink(handle->unfinished);
  forget_unfinished(handle);
  return std::nullopt;
}

// Empties the open file and writes it. A file that no link led to is ours to remove.
int write_directly(img_file* handle, const char* path, int file, const struct statx& status) {
  if (is_regular(status) && ftruncate(file, 0) != 0) {
    const int failure = errno;
    close(file);
    return failure;
  }
  const bool is_ours = is_regular(status) && is_at(status, path) && standard_stream_of(status) < 0;
  const int failure = take_file(handle, file, "w+b");
  if (failure == 0 && is_ours) handle->unfinished = ka_mem_strdup(absolute(path).c_str());
  return failure;
}

int open_existing(img_file* handle, const char* path, int file) {
  struct statx status;
  std::optional<int> failure = ENXIO;  // of a pipe that came in between
  if (statx(file, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0) {
    failure = errno;
  } else if (standard_stream_of(status) > STDIN_FILENO) {
    failure = write_to_copy(handle, standard_stream_of(status));
  } else if (!S_ISFIFO(status.stx_mode)) {
    failure = write_beside(handle, path, file, status);
    if (!failure) return write_directly(handle, path, file, status);
  }
  close(file);
  return *failure;
}

int open_new(img_file* handle, const char* path) {
  const ka::string target = without_links(path);
  if (target.empty() || target.ends_with('/') || keeps_no_file(handle) || keeps_names(target)) {
    const int file = open_beyond_streams(path, O_RDWR | O_CREAT, kNewFile);
    return file < 0 ? errno : open_existing(handle, path, file);
  }
  const int file = open_beside(handle, target, kNewFile);
  return file < 0 ? errno : take_file_beside(handle, file, target);
}

int name_unnamed(img_file* handle) {
  const auto entry = entry_of(fileno(handle->stream));
  const ka::string target = handle->path;
  const int result = at_free_name(handle, target, [&entry](const char* path) {
    return linkat(AT_FDCWD, entry.data(), AT_FDCWD, path, AT_SYMLINK_FOLLOW);
  });
  return result == 0 ? 0 : errno;
}

// What did not come through the stream: a driver outside the library has opened the file by its
// name.
bool was_written_elsewhere(const img_file* handle) {
  struct stat status;
  return handle->path && handle->format >= IMG_FORMAT_CUSTOM && handle->has_header &&
         fstat(fileno(handle->stream), &status) == 0 && status.st_size == 0;
}

// Returns 0, or the system's error number.
int close_file(img_file* handle) {
  std::FILE* const stream = std::exchange(handle->stream, nullptr);
  return std::fclose(stream) == 0 || errno == EINTR ? 0 : errno;  // it is closed all the same
}

// The file gets its name last, so that no failure is met after that. Returns 0, or the system's
// error number.
int put_in_place(img_file* handle) {
  const ka::HeldSignals held;
  int failure = handle->unfinished ? 0 : name_unnamed(handle);
  if (failure == 0) failure = close_file(handle);
  if (failure == 0 && std::rename(handle->unfinished, handle->path) != 0) failure = errno;
  if (failure != 0) ka::img_discard(handle);
  return failure;
}

}  // namespace

int ka::open_output(img_file* handle, const ImagePath& path) {
  if (path.descriptor >= 0) return write_to_copy(handle, path.descriptor);
  if (const int fault = path_fault(path)) return fault;
  struct stat status;
  if (stat(path.path, &status) == 0 && S_ISFIFO(status.st_mode)) {
    return write_to_pipe(handle, path.path);
  }
  const int file = open_beyond_streams(path.path, O_RDWR);
  if (file >= 0) return open_existing(handle, path.path, file);
  return errno == ENOENT ? open_new(handle, path.path) : errno;
}

// Drivers outside the library may write through the stream's own buffer.
int ka::img_close_stream(img_file* handle) {
  if (!handle->stream) return 1;
  int failure = handle->writing && std::fflush(handle->stream) != 0 ? errno : 0;
  const bool is_short = handle->writing && std::ferror(handle->stream) != 0 && !handle->error;
  const bool is_complete = handle->writing && failure == 0 && !is_short && !handle->error;
  if (is_complete && was_written_elsewhere(handle)) {
    img_discard(handle);
  } else if (is_complete && handle->path) {
    failure = put_in_place(handle);
  }
  const int closing = handle->stream ? close_file(handle) : 0;
  if (failure == 0) failure = closing;
  if (failure != 0 || is_short) return img_error(handle, IMG_ERR_CLOSE, failure);
  if (is_complete && !keeps_no_file(handle)) img_release_names(handle);
  return 1;
}

void ka::img_release_names(img_file* handle) {
  for (char** const name : {&handle->name, &handle->path}) {
    ka_mem_release(*name);
    *name = nullptr;
  }
  forget_unfinished(handle);
}

void ka::img_discard(img_file* handle) {
  if (handle->unfinished) unlink(handle->unfinished);
  img_release_names(handle);
}
