#include "refuse.h"

#include <atomic>
#include <cstdint>

// The linker's names: __wrap_f is called for f, __real_f is f.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void __real_free(void* memory);
}

namespace {

constexpr std::size_t kAlignment = 8192;

std::atomic<int> refusals{0};
std::size_t refused_size = 0;

std::atomic<long> live{0};

std::size_t aligned_size = 0;  // 0: none is wanted
std::size_t aligned_offset = 0;
void* aligned = nullptr;       // handed out
void* aligned_base = nullptr;  // what the C library knows of it

bool is_refused(std::size_t size) {
  if (refusals == 0 || size < refused_size) return false;
  --refusals;
  return true;
}

void* counted(void* block) {
  if (block) ++live;
  return block;
}

void* make_aligned(std::size_t size) {
  aligned_size = 0;
  aligned_base = __real_calloc(1, size + kAlignment);
  const auto base = reinterpret_cast<std::uintptr_t>(aligned_base);
  const auto start = (base + aligned_offset + kAlignment - 1) / kAlignment * kAlignment;
  aligned = reinterpret_cast<void*>(start - aligned_offset);
  return aligned;
}

}  // namespace

extern "C" {

void* __wrap_malloc(std::size_t size) {
  return is_refused(size) ? nullptr : counted(__real_malloc(size));
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (is_refused(count * size)) return nullptr;
  if (aligned_size != 0 && count * size >= aligned_size) return counted(make_aligned(count * size));
  return counted(__real_calloc(count, size));
}

void* __wrap_realloc(void* memory, std::size_t size) {
  return is_refused(size) ? nullptr : __real_realloc(memory, size);
}

void __wrap_free(void* memory) {
  if (memory) --live;
  if (memory && memory == aligned) {
    memory = aligned_base;
    aligned = nullptr;
  }
  __real_free(memory);
}

// Sanitizers end the process for a size that no system has, unless they are told otherwise.
const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

}  // extern "C"

void test::refuse(int count, std::size_t least) {
  refused_size = least;
  refusals = count;
}

long test::live_blocks() { return live; }

void test::align_next(std::size_t least, std::size_t offset) {
  aligned_offset = offset;
  aligned_size = least;
}
