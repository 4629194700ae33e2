#include "refuse.h"

#include <atomic>

// The linker's names: __wrap_f is called for f, __real_f is f.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void __real_free(void* memory);
}

namespace {

std::atomic<int> refusals{0};
std::size_t refused_size = 0;

std::atomic<long> live{0};

bool is_refused(std::size_t size) {
  if (refusals == 0 || size < refused_size) return false;
  --refusals;
  return true;
}

void* counted(void* block) {
  if (block) ++live;
  return block;
}

}  // namespace

extern "C" {

void* __wrap_malloc(std::size_t size) {
  return is_refused(size) ? nullptr : counted(__real_malloc(size));
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return is_refused(count * size) ? nullptr : counted(__real_calloc(count, size));
}

void* __wrap_realloc(void* memory, std::size_t size) {
  return is_refused(size) ? nullptr : __real_realloc(memory, size);
}

void __wrap_free(void* memory) {
  if (memory) --live;
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
