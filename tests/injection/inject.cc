#include "inject.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

// The linker's names: __wrap_f is called for f, __real_f is f. These fail with -1, nothing else
// of them matters.
#define SIMPLE_CALLS(CALL)                                                                 \
  CALL(Call::kOpen, int, mkstemp, (char* name), (name))                                    \
  CALL(Call::kSeek, off_t, lseek, (int file, off_t at, int whence), (file, at, whence))    \
  CALL(Call::kSize, int, ftruncate, (int file, off_t size), (file, size))                  \
  CALL(Call::kSync, int, fsync, (int file), (file))                                        \
  CALL(Call::kSync, int, fdatasync, (int file), (file))                                    \
  CALL(Call::kStatus, int, fstat, (int file, struct stat* status), (file, status))         \
  CALL(Call::kStatus, int, stat, (const char* path, struct stat* status), (path, status))  \
  CALL(Call::kStatus, int, lstat, (const char* path, struct stat* status), (path, status)) \
  CALL(Call::kStatus, int, fchmod, (int file, mode_t mode), (file, mode))                  \
  CALL(Call::kLink, int, link, (const char* from, const char* to), (from, to))             \
  CALL(Call::kLink, int, linkat,                                                           \
       (int folder, const char* from, int to_folder, const char* to, int flags),           \
       (folder, from, to_folder, to, flags))                                               \
  CALL(Call::kRename, int, rename, (const char* from, const char* to), (from, to))

// These pass on half of their bytes, or fail.
#define TRANSFERS(CALL)                                                                     \
  CALL(Call::kRead, read, (int file, void* bytes, std::size_t count), (file, bytes, count)) \
  CALL(Call::kRead, pread, (int file, void* bytes, std::size_t count, off_t at),            \
       (file, bytes, count, at))                                                            \
  CALL(Call::kWrite, write, (int file, const void* bytes, std::size_t count),               \
       (file, bytes, count))                                                                \
  CALL(Call::kWrite, pwrite, (int file, const void* bytes, std::size_t count, off_t at),    \
       (file, bytes, count, at))

#define DECLARE_SIMPLE(call, type, name, parameters, arguments) type __real_##name parameters;
#define DECLARE_TRANSFER(call, name, parameters, arguments) ssize_t __real_##name parameters;

extern "C" {
SIMPLE_CALLS(DECLARE_SIMPLE)
TRANSFERS(DECLARE_TRANSFER)
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
int __real_open(const char* path, int flags, ...);
FILE* __real_fopen(const char* path, const char* mode);
FILE* __real_fdopen(int file, const char* mode);
int __real_posix_fallocate(int file, off_t offset, off_t size);
void* __real_mmap(void* hint, std::size_t size, int access, int flags, int file, off_t offset);
int __real_close(int file);
int __real_fclose(FILE* stream);
}

namespace {

using test::Call;

test::Fault planned;
std::atomic<int>* calls = nullptr;  // in memory that children share

bool fails(Call call) {
  if (!calls || call != planned.call) return false;
  const int number = ++*calls;
  if (number < planned.at || (number > planned.at && !planned.is_lasting)) return false;
  errno = planned.error;
  return true;
}

bool is_standard(int file) { return file <= STDERR_FILENO; }

// The result of a close that took place.
int closed(int result, bool is_failing) {
  if (is_failing) errno = planned.error;
  return is_failing ? EOF : result;
}

void* allocate(std::size_t size) {
  for (;;) {
    void* const memory = fails(Call::kMemory) ? nullptr : __real_malloc(size ? size : 1);
    if (memory) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (!handler) throw std::bad_alloc();
    handler();
  }
}

}  // namespace

void test::inject(const Fault& fault) {
  if (!calls) {
    void* const shared = __real_mmap(nullptr, sizeof *calls, PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) std::abort();
    calls = new (shared) std::atomic<int>(0);
  }
  planned = fault;
  *calls = 0;
}

int test::counted_calls() { return *calls; }

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

extern "C" {

void* __wrap_malloc(std::size_t size) {
  return fails(Call::kMemory) ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return fails(Call::kMemory) ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* memory, std::size_t size) {
  return fails(Call::kMemory) ? nullptr : __real_realloc(memory, size);
}

int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (flags & (O_CREAT | __O_TMPFILE)) {
    va_list values;
    va_start(values, flags);
    mode = va_arg(values, mode_t);
    va_end(values);
  }
  if ((flags & O_TMPFILE) == O_TMPFILE && !planned.has_unnamed_files) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return fails(Call::kOpen) ? -1 : __real_open(path, flags, mode);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
  return fails(Call::kOpen) ? nullptr : __real_fopen(path, mode);
}

FILE* __wrap_fdopen(int file, const char* mode) {
  return fails(Call::kOpen) ? nullptr : __real_fdopen(file, mode);
}

#define FAIL_SIMPLE(call, type, name, parameters, arguments) \
  type __wrap_##name parameters { return fails(call) ? -1 : __real_##name arguments; }
SIMPLE_CALLS(FAIL_SIMPLE)

#define FAIL_TRANSFER(call, name, parameters, arguments)              \
  ssize_t __wrap_##name parameters {                                  \
    if ((call == Call::kRead || !is_standard(file)) && fails(call)) { \
      if (planned.error != 0) return -1;                              \
      count = (count + 1) / 2;                                        \
    }                                                                 \
    return __real_##name arguments;                                   \
  }
TRANSFERS(FAIL_TRANSFER)

int __wrap_posix_fallocate(int file, off_t offset, off_t size) {
  return fails(Call::kSize) ? planned.error : __real_posix_fallocate(file, offset, size);
}

void* __wrap_mmap(void* hint, std::size_t size, int access, int flags, int file, off_t offset) {
  return fails(Call::kMap) ? MAP_FAILED : __real_mmap(hint, size, access, flags, file, offset);
}

int __wrap_close(int file) {
  const bool is_failing = !is_standard(file) && fails(Call::kClose);
  return closed(__real_close(file), is_failing);
}

int __wrap_fclose(FILE* stream) {
  const bool is_failing = !is_standard(fileno(stream)) && fails(Call::kClose);
  return closed(__real_fclose(stream), is_failing);
}

// Headers that hold the time are the same in all runs.
time_t __wrap_time(time_t* result) {
  constexpr time_t now = 1000000000;
  if (result) *result = now;
  return now;
}

}  // extern "C"
