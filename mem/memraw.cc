// Raw memory: the system allocator without headers, for the records that the runtime itself stands
// on.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include <ka/detail/scope.h>
#include <ka/message.h>

#include "mem.h"

namespace {

// From this size on a block is a mapping of its own, and a page fault for every 4 KiB costs several
// times what filling the page does: such blocks ask for huge pages (docs/performance.md).
constexpr std::size_t kHugeBlock = std::size_t{8} << 20;

std::atomic<ka_mem_error_function> mem_error_handler{nullptr};

void advise_huge_pages(void* memory, std::size_t size) {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto start = (reinterpret_cast<std::uintptr_t>(memory) + page - 1) & ~(page - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(memory) + size) & ~(page - 1);
  // A system without huge pages refuses; the memory is as good without them.
  (void)madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
}

}  // namespace

void* ka::system_allocate(std::size_t size, bool zero) {
  void* const memory = zero ? std::calloc(1, size) : std::malloc(size);
  if (memory && size >= kHugeBlock) advise_huge_pages(memory, size);
  return memory;
}

void* ka::system_reallocate(void* memory, std::size_t size) { return std::realloc(memory, size); }

void ka::system_release(void* memory) { std::free(memory); }

void ka::mem_report_failure() {
  if (const auto handler = mem_error_handler.load()) handler();
}

void ka_mem_error_handler(ka_mem_error_function handler) { mem_error_handler = handler; }

void* ka_mem_allocate_raw(std::size_t size) {
  const ka::ModuleScope scope(KA_MEM);
  void* const memory = ka::mem_retry([&] { return ka::system_allocate(size, true); });
  if (!memory) ka_nfatal(8, "can't allocate %zu bytes. MEM exits.", size);
  return memory;
}

void ka_mem_release_raw(void* memory) { ka::system_release(memory); }
