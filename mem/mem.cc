// Accounted memory: every block carries its size and the module it is charged to.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <ka/detail/assertion.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/version.h>

#include "heap.h"
#include "keptblocks.h"
#include "retry.h"
#include "startup.h"
#include "statistics.h"
#include "systemmemory.h"

namespace {

using Header = ka::BlockHeader;
constexpr std::int64_t kCountedHeader = 8;

Header* header_of(void* memory) { return static_cast<Header*>(memory) - 1; }
const Header* header_of(const void* memory) { return static_cast<const Header*>(memory) - 1; }

// An allocation is to cost little more than the system's own. The common case is therefore inlined,
// leaves the module stack alone, and hands every other case over whole (bench/mem_bench.cc).

[[gnu::noinline]] void* start_elsewhere(Header* header, int module) {
  const auto bytes = std::int64_t(header->size);
  header->module = ka::count_elsewhere(module, bytes, 1) ? module : ka::kUncounted;
  return header + 1;
}

[[gnu::always_inline]] inline void* start_block(Header* header, int module, std::size_t size) {
  header->size = size;
  header->module = module;
  ka::ThreadMemory* const thread = ka::thread_memory();
  if (!thread) [[unlikely]]
    return start_elsewhere(header, module);
  ka::ModuleStats& counters = thread->stats[std::size_t(module)];
  counters.bytes.grow(std::int64_t(size));
  counters.blocks.grow(1);
  return header + 1;
}

// What a block of `size` bytes takes of the system.
std::size_t system_bytes(std::size_t size) {
  return sizeof(Header) + (size <= ka::kSmallBlock ? ka::class_bytes(size) : size);
}

[[gnu::noinline]] void* allocate_large(int module, std::size_t size, bool zero) {
  size = std::min(size, ka::kMaxRequest);
  const std::int64_t counted = std::int64_t(size) + kCountedHeader;
  ka::heap_grow(counted);
  void* const header = ka::system_allocate(system_bytes(size), zero);
  if (header) return start_block(static_cast<Header*>(header), module, size);
  ka::heap_refused(counted);
  return nullptr;
}

// Null when the system refuses.
[[gnu::always_inline]] inline Header* take_small(std::size_t size) {
  if (ka::ThreadMemory* const thread = ka::thread_memory()) [[likely]] {
    ka::KeptBlocks& kept = thread->kept[ka::size_class(size)];
    if (Header* const header = kept.first) [[likely]] {
      kept.first = header->next;
      --kept.count;
      return header;
    }
  }
  return static_cast<Header*>(std::malloc(system_bytes(size)));
}

[[gnu::always_inline]] inline void* allocate(int module, std::size_t size, bool zero) {
  if (size > ka::kSmallBlock) return allocate_large(module, size, zero);
  const std::int64_t counted = std::int64_t(size) + kCountedHeader;
  ka::heap_grow(counted);
  Header* const header = take_small(size);
  if (!header) [[unlikely]] {
    ka::heap_refused(counted);
    return nullptr;
  }
  if (zero) std::memset(header + 1, 0, size);
  return start_block(header, module, size);
}

[[gnu::noinline]] void release_elsewhere(Header* header) {
  KA_ASSERT(header->module != ka::kKept);  // released twice
  if (header->module != ka::kUncounted) {
    ka::count_elsewhere(int(header->module), -std::int64_t(header->size), -1);
  }
  std::free(header);
}

[[gnu::always_inline]] inline void release(void* memory) {
  if (!memory) return;
  Header* const header = header_of(memory);
  const std::size_t size = header->size;
  ka::heap_shrink(std::int64_t(size));
  ka::ThreadMemory* const thread = ka::thread_memory();
  if (!thread || header->module < 0) [[unlikely]]
    return release_elsewhere(header);
  ka::ModuleStats& counters = thread->stats[std::size_t(header->module)];
  counters.bytes.now -= std::int64_t(size);
  counters.blocks.now -= 1;
  if (size <= ka::kSmallBlock) {
    ka::KeptBlocks& kept = thread->kept[ka::size_class(size)];
    if (kept.count < ka::kKeptBlocks) [[likely]] {
      header->next = kept.first;
      header->module = ka::kKept;
      kept.first = header;
      ++kept.count;
      return;
    }
  }
  std::free(header);
}

void count_resize(const Header& header, std::int64_t change) {
  if (header.module == ka::kUncounted) return;
  if (ka::ThreadMemory* const thread = ka::thread_memory()) {
    thread->stats[std::size_t(header.module)].bytes.grow(change);
  } else {
    ka::count_elsewhere(int(header.module), change, 0);
  }
}

void* reallocate(int module, void* memory, std::size_t size) {
  if (!memory) return allocate(module, size, true);
  size = std::min(size, ka::kMaxRequest);
  const auto old_bytes = std::int64_t(header_of(memory)->size);
  const std::int64_t change = std::int64_t(size) - old_bytes;
  const std::int64_t counted = change + kCountedHeader;
  counted > 0 ? ka::heap_grow(counted) : ka::heap_shrink(-counted);
  auto* const header =
      static_cast<Header*>(ka::system_reallocate(header_of(memory), system_bytes(size)));
  if (!header) {
    ka::heap_refused(counted);
    return nullptr;
  }
  header->size = size;
  count_resize(*header, change);
  auto* const start = reinterpret_cast<unsigned char*>(header + 1);
  if (change > 0) std::memset(start + old_bytes, 0, std::size_t(change));
  return start;
}

}  // namespace

void ka_mem_init() {
  const ka::ModuleScope scope(KA_MEM);
  if (ka::is_accounting) return;
  ka::stats_start();
  ka::purge_start();
  ka_mem_pages_initialize();
  ka::is_accounting = true;
}

void ka_mem_exit() {
  const ka::ModuleScope scope(KA_MEM);
  if (!ka::is_accounting) return;
  ka_mem_pages_finish();
  ka::is_accounting = false;
  ka::purge_end();
  ka::stats_end();
}

void* ka_mem_doalloc(const char* /*file*/, int /*line*/, int module, std::size_t size, int zero) {
  return allocate(ka::known_module(module), size, zero != 0);
}

void* ka_mem_dorealloc(const char* /*file*/, int /*line*/, int module, void* memory,
                       std::size_t size) {
  return reallocate(ka::known_module(module), memory, size);
}

void ka_mem_dorelease(const char* /*file*/, int /*line*/, int /*module*/, void* memory) {
  release(memory);
}

std::size_t ka_mem_dogetsize(const void* memory) { return header_of(memory)->size; }

void ka::release_kept(ThreadMemory& memory) {
  for (KeptBlocks& kept : memory.kept) {
    while (BlockHeader* const block = kept.first) {
      kept.first = block->next;
      std::free(block);
    }
    kept.count = 0;
  }
}

void* ka::allocate_for(int module, std::size_t size) {
  return mem_retry([=] { return allocate(module, size, true); },
                   [=] { ka_nfatal(5, "can't allocate %zu bytes. MEM exits.", size); });
}

void* ka_mem_int_allocate(const char* /*file*/, int /*line*/, std::size_t size) {
  return ka::allocate_for(ka::calling_module(), size);
}

void* ka_mem_int_reallocate(const char* /*file*/, int /*line*/, void* memory, std::size_t size) {
  const int module = ka::calling_module();
  return ka::mem_retry([=] { return reallocate(module, memory, size); },
                       [=] { ka_nfatal(6, "can't reallocate %zu bytes. MEM exits.", size); });
}

void ka_mem_int_release(const char* /*file*/, int /*line*/, void* memory) { release(memory); }

char* ka_mem_int_strdup(const char* /*file*/, int /*line*/, const char* text) {
  if (!text) return nullptr;
  const int module = ka::calling_module();
  const std::size_t size = std::strlen(text) + 1;
  void* const copy =
      ka::mem_retry([=] { return allocate(module, size, false); },
                    [] { ka_nfatal(7, "can't allocate memory for string. MEM exits."); });
  return static_cast<char*>(std::memcpy(copy, text, size));
}

void* ka_mem_int_test_allocate(const char* /*file*/, int /*line*/, std::size_t size) {
  return allocate(ka::calling_module(), size, true);
}

void* ka_mem_int_test_reallocate(const char* /*file*/, int /*line*/, void* memory,
                                 std::size_t size) {
  return reallocate(ka::calling_module(), memory, size);
}

const char* ka_mem_version() { return ka::module_version(ka::kMemVersion); }
