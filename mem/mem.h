// Shared by the files of this room: the system allocator and the way to try it again.
#pragma once

#include <ka/detail/context.h>
#include <ka/mem.h>

#include <cstddef>

namespace ka {

constexpr int kAttempts =
    1000;  // a failing system allocator is asked this often before the process ends

// Memory of the system allocator; null on failure. Large blocks are laid out for huge pages.
[[nodiscard]] void* system_allocate(std::size_t size, bool zero);
[[nodiscard]] void* system_reallocate(void* memory, std::size_t size);
void system_release(void* memory);

// Calls the error handler, if one is installed.
void mem_report_failure();

// Tries until `attempt` returns memory; null when every attempt has failed.
template <typename Attempt>
[[nodiscard]] void* mem_retry(Attempt attempt) {
  for (int i = 0; i < kAttempts; ++i) {
    if (void* memory = attempt()) return memory;
    mem_report_failure();
  }
  return nullptr;
}

// The module that called the memory manager: the entry below its own.
inline int mem_calling_module() { return module_at(context(), 1); }

// Zeroed accounted memory charged to `module`; never null.
[[nodiscard]] void* mem_allocate_for(int module, const char* file, int line, std::size_t size);

}  // namespace ka
