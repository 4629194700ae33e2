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

// The linker's names: __wrap_f is called for f, __real_f is f.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
int __real_open(const char* path, int flags, ...);
FILE* __real_fopen(const char* path, const char* mode);
FILE* __real_fdopen(int file, const char* mode);
int __real_mkstemp(char* name);
ssize_t __real_read(int file, void* bytes, std::size_t count);
ssize_t __real_pread(int file, void* bytes, std::size_t count, off_t offset);
ssize_t __real_write(int file, const void* bytes, std::size_t count);
ssize_t __real_pwrite(int file, const void* bytes, std::size_t count, off_t offset);
off_t __real_lseek(int file, off_t offset, int whence);
int __real_ftruncate(int file, off_t size);
int __real_posix_fallocate(int file, off_t offset, off_t size);
void* __real_mmap(void* hint, std::size_t size, int access, int flags, int file, off_t offset);
int __real_fsync(int file);
int __real_fdatasync(int file);
int __real_fstat(int file, struct stat* status);
int __real_stat(const char* path, struct stat* status);
int __real_lstat(const char* path, struct stat* status);
int __real_fchmod(int file, mode_t mode);
int __real_link(const char* from, const char* to);
int __real_linkat(int from_folder, const char* from, int to_folder, const char* to, int flags);
int __real_rename(const char* from, const char* to);
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

std::size_t half(std::size_t count) { return (count + 1) / 2; }

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

int __wrap_mkstemp(char* name) { return fails(Call::kOpen) ? -1 : __real_mkstemp(name); }

ssize_t __wrap_read(int file, void* bytes, std::size_t count) {
  if (fails(Call::kRead)) {
    if (planned.error != 0) return -1;
    count = half(count);
  }
  return __real_read(file, bytes, count);
}

ssize_t __wrap_pread(int file, void* bytes, std::size_t count, off_t offset) {
  if (fails(Call::kRead)) {
    if (planned.error != 0) return -1;
    count = half(count);
  }
  return __real_pread(file, bytes, count, offset);
}

ssize_t __wrap_write(int file, const void* bytes, std::size_t count) {
  if (!is_standard(file) && fails(Call::kWrite)) {
    if (planned.error != 0) return -1;
    count = half(count);
  }
  return __real_write(file, bytes, count);
}

ssize_t __wrap_pwrite(int file, const void* bytes, std::size_t count, off_t offset) {
  if (!is_standard(file) && fails(Call::kWrite)) {
    if (planned.error != 0) return -1;
    count = half(count);
  }
  return __real_pwrite(file, bytes, count, offset);
}

off_t __wrap_lseek(int file, off_t offset, int whence) {
  return fails(Call::kSeek) ? -1 : __real_lseek(file, offset, whence);
}

int __wrap_ftruncate(int file, off_t size) {
  return fails(Call::kSize) ? -1 : __real_ftruncate(file, size);
}

int __wrap_posix_fallocate(int file, off_t offset, off_t size) {
  return fails(Call::kSize) ? planned.error : __real_posix_fallocate(file, offset, size);
}

void* __wrap_mmap(void* hint, std::size_t size, int access, int flags, int file, off_t offset) {
  return fails(Call::kMap) ? MAP_FAILED : __real_mmap(hint, size, access, flags, file, offset);
}

int __wrap_fsync(int file) { return fails(Call::kSync) ? -1 : __real_fsync(file); }
int __wrap_fdatasync(int file) { return fails(Call::kSync) ? -1 : __real_fdatasync(file); }

int __wrap_fstat(int file, struct stat* status) {
  return fails(Call::kStatus) ? -1 : __real_fstat(file, status);
}

int __wrap_stat(const char* path, struct stat* status) {
  return fails(Call::kStatus) ? -1 : __real_stat(path, status);
}

int __wrap_lstat(const char* path, struct stat* status) {
  return fails(Call::kStatus) ? -1 : __real_lstat(path, status);
}

int __wrap_fchmod(int file, mode_t mode) {
  return fails(Call::kStatus) ? -1 : __real_fchmod(file, mode);
}

int __wrap_link(const char* from, const char* to) {
  return fails(Call::kLink) ? -1 : __real_link(from, to);
}

int __wrap_linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) {
  return fails(Call::kLink) ? -1 : __real_linkat(from_folder, from, to_folder, to, flags);
}

int __wrap_rename(const char* from, const char* to) {
  return fails(Call::kRename) ? -1 : __real_rename(from, to);
}

int __wrap_close(int file) {
  const bool failing = !is_standard(file) && fails(Call::kClose);
  const int result = __real_close(file);
  if (failing) errno = planned.error;
  return failing ? -1 : result;
}

int __wrap_fclose(FILE* stream) {
  const bool failing = !is_standard(fileno(stream)) && fails(Call::kClose);
  const int result = __real_fclose(stream);
  if (failing) errno = planned.error;
  return failing ? EOF : result;
}

// Headers that hold the time are the same in all runs.
time_t __wrap_time(time_t* result) {
  constexpr time_t now = 1000000000;
  if (result) *result = now;
  return now;
}

}  // extern "C"
