// Raw memory: the system allocator without headers, for the records that the runtime itself stands
// on. And what a refusal of the system leads to.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include <ka/detail/memory.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "heap.h"
#include "retry.h"
#include "systemmemory.h"

namespace {

std::atomic<ka_mem_error_function> mem_error_handler{nullptr};

// Zeroed memory where there is none to resize.
void* attempt_raw(std::size_t size, void* memory) {
  size = std::min(size, ka::kMaxRequest);
  const auto bytes = std::int64_t(size);
  bytes > 0 ? ka::heap_grow(bytes) : ka::heap_shrink(0);
  void* const block =
      memory ? ka::system_reallocate(memory, size) : ka::system_allocate(size, true);
  if (!block) ka::heap_refused(bytes);
  return block;
}

// From this size on a block is a mapping of its own, and a page fault for every 4 KiB costs several
// times what filling the page does: such blocks ask for huge pages.
constexpr std::size_t kHugeBlock = std::size_t{8} << 20;

void advise_huge_pages(void* memory, std::size_t size) {
  const auto page = std::uintptr_t(sysconf(_SC_PAGESIZE));
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

void* ka::system_reallocate(void* memory, std::size_t size) {
  void* const block = std::realloc(memory, size);
  if (block && size >= kHugeBlock) advise_huge_pages(block, size);
  return block;
}

bool ka::call_error_handler() {
  const auto handler = mem_error_handler.load();
  if (handler) handler();
  return handler != nullptr;
}

void ka::memory_refused() {
  const ModuleScope scope(KA_MEM);
  (void)call_error_handler();
}

void ka::report_failure() {
  static thread_local bool is_reporting = false;  // the report itself may find no memory
  if (is_reporting) return;
  is_reporting = true;
  ka_mem_post_mortem();
  is_reporting = false;
}

void ka::attempt_failed(int failures, FailureOrder order) {
  const bool first = failures == 1;
  if (first && order == FailureOrder::kReportFirst) report_failure();
  call_error_handler();
  if (first && order == FailureOrder::kHandlerFirst) report_failure();
}

void ka_mem_error_handler(ka_mem_error_function handler) { mem_error_handler = handler; }

void* ka_mem_allocate_raw(std::size_t size) {
  return ka::mem_retry([=] { return attempt_raw(size, nullptr); },
                       [=] { ka_nfatal(8, "can't allocate %zu bytes. MEM exits.", size); },
                       ka::FailureOrder::kHandlerFirst);
}

void* ka_mem_reallocate_raw(void* memory, std::size_t size) {
  return ka::mem_retry([=] { return attempt_raw(size, memory); },
                       [=] { ka_nfatal(11, "can't reallocate %zu bytes. MEM exits.", size); },
                       ka::FailureOrder::kHandlerFirst);
}

void ka_mem_release_raw(void* memory) { std::free(memory); }
