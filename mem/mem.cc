// Accounted memory: every block carries its size and the module it is charged to.
#include "mem.h"

#include <cstring>
#include <limits>

#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/message.h>
#include <ka/version.h>

namespace {

// Stands in front of the memory handed out. Its size leaves the memory aligned for any type.
struct alignas(std::max_align_t) Header {
  std::size_t size;  // bytes that were asked for
  int module;        // charged for them
};

Header* header_of(void* memory) { return static_cast<Header*>(memory) - 1; }
const Header* header_of(const void* memory) { return static_cast<const Header*>(memory) - 1; }

// The block's bytes with its header; larger than any system has when the sum does not fit.
std::size_t block_size(std::size_t size) {
  constexpr std::size_t limit = std::numeric_limits<std::size_t>::max() / 2;
  return size < limit - sizeof(Header) ? size + sizeof(Header) : limit;
}

}  // namespace

void ka_mem_init() {}

void ka_mem_exit() {}

void* ka_mem_doalloc(const char* /*file*/, int /*line*/, int module, std::size_t size, int zero) {
  void* const block = ka::system_allocate(block_size(size), zero != 0);
  if (!block) return nullptr;
  auto* const header = static_cast<Header*>(block);
  header->size = size;
  header->module = module;
  return header + 1;
}

void ka_mem_dorelease(const char* /*file*/, int /*line*/, int /*module*/, void* memory) {
  if (memory) ka::system_release(header_of(memory));
}

std::size_t ka_mem_dogetsize(const void* memory) { return header_of(memory)->size; }

void* ka::mem_allocate_for(int module, const char* file, int line, std::size_t size) {
  void* const memory = ka::mem_retry([&] { return ka_mem_doalloc(file, line, module, size, 1); });
  if (!memory) ka_nfatal(5, "can't allocate %zu bytes. MEM exits.", size);
  return memory;
}

void* ka_mem_int_allocate(const char* file, int line, std::size_t size) {
  const ka::ModuleScope scope(KA_MEM);
  return ka::mem_allocate_for(ka::mem_calling_module(), file, line, size);
}

void* ka_mem_int_reallocate(const char* file, int line, void* memory, std::size_t size) {
  if (!memory) return ka_mem_int_allocate(file, line, size);
  const ka::ModuleScope scope(KA_MEM);
  void* const block =
      ka::mem_retry([&] { return ka::system_reallocate(header_of(memory), block_size(size)); });
  if (!block) ka_nfatal(6, "can't reallocate %zu bytes. MEM exits.", size);
  auto* const header = static_cast<Header*>(block);
  const std::size_t old_size = header->size;
  header->size = size;
  auto* const bytes = reinterpret_cast<unsigned char*>(header + 1);
  if (size > old_size) std::memset(bytes + old_size, 0, size - old_size);
  return bytes;
}

void ka_mem_int_release(const char* file, int line, void* memory) {
  const ka::ModuleScope scope(KA_MEM);
  ka_mem_dorelease(file, line, ka::mem_calling_module(), memory);
}

char* ka_mem_int_strdup(const char* file, int line, const char* text) {
  if (!text) return nullptr;
  const ka::ModuleScope scope(KA_MEM);
  const int module = ka::mem_calling_module();
  const std::size_t size = std::strlen(text) + 1;
  void* const copy = ka::mem_retry([&] { return ka_mem_doalloc(file, line, module, size, 0); });
  if (!copy) ka_nfatal(7, "can't allocate memory for string. MEM exits.");
  std::memcpy(copy, text, size);
  return static_cast<char*>(copy);
}

const char* ka_mem_version() { return ka::module_version(ka::kMemVersion); }
