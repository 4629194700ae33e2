// What the targets of image files share: the library, and files in memory.
#pragma once

#ifdef FUZZ_DRIVERS
#include <ka/drivers.h>
#endif
#include <ka/img.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

// Call it once.
inline bool start_library() {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_FATAL);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
#ifdef FUZZ_DRIVERS
  ka_drivers_register();
#endif
  return true;
}

// A file in memory, with a name that can be opened.
class MemoryFile {
 public:
  MemoryFile(const std::uint8_t* data, std::size_t size) : file_(memfd_create("input", 0)) {
    if (file_ < 0 || write(file_, data, size) != static_cast<ssize_t>(size)) std::abort();
    std::snprintf(name_.data(), name_.size(), "/proc/self/fd/%d", file_);
  }
  ~MemoryFile() { close(file_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  [[nodiscard]] const char* name() const { return name_.data(); }
  [[nodiscard]] std::int64_t size() const { return lseek(file_, 0, SEEK_END); }

 private:
  int file_;
  std::array<char, 32> name_;
};

}  // namespace fuzz
