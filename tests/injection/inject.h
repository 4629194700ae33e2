// Calls of the system that fail on purpose: this program is linked so that those of the library and
// of the tool pass through here.
#pragma once

namespace test {

enum class Call {
  kNone,
  kMemory,  // malloc, calloc, realloc, operator new
  kOpen,    // open, fopen, fdopen, mkstemp
  kRead,    // read, pread
  kWrite,   // write, pwrite
  kSeek,    // lseek
  kSize,    // ftruncate, posix_fallocate
  kMap,     // mmap
  kSync,    // fsync, fdatasync
  kStatus,  // fstat, stat, lstat, fchmod
  kLink,    // link, linkat
  kRename,  // rename
  kClose,   // close, fclose; what was to be closed is closed
};

struct Fault {
  Call call = Call::kNone;
  int at = 0;               // calls are counted from 1
  int error = 0;            // the system's number; 0: only half of the bytes are written
  bool is_lasting = false;  // all later ones fail, too
  bool has_unnamed_files = true;
};

// From now on calls are counted, and one of them fails. Standard streams are left alone.
void inject(const Fault& fault);

// Calls of that kind since. The count outlives a child of this process that made them.
int counted_calls();

}  // namespace test
