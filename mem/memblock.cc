// Block pools: elements of one size, carved from chunks and kept on a free list, without a header
// of their own.
#include <algorithm>
#include <bitset>
#include <cstring>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "retry.h"
#include "statistics.h"

// The first word of a chunk and of a free element; a chunk's elements follow its word.
struct Link {
  Link* next;
};

struct ka_mem_pool {
  Link* chunks;              // the newest first
  Link* free;                // elements, the one released last first
  std::size_t element_size;  // bytes, a multiple of the alignment of a Link
  ka_mutex lock;
};

namespace {

constexpr std::size_t kChunkBytes = 8192;  // elements of a chunk, without its link
constexpr std::size_t kMaxElements = kChunkBytes / sizeof(Link);
constexpr int kLockedNumber = 15, kUnlockedNumber = 16;  // of the fatal message

// An element larger than a chunk's bytes has a chunk to itself.
std::size_t chunk_elements(const ka_mem_pool* pool) {
  return std::max<std::size_t>(kChunkBytes / pool->element_size, 1);
}

unsigned char* chunk_start(Link* chunk) { return reinterpret_cast<unsigned char*>(chunk + 1); }

// Puts the elements of a chunk at the head of the free list, the first one first.
void free_all(ka_mem_pool* pool, Link* chunk) {
  unsigned char* const start = chunk_start(chunk);
  for (std::size_t i = chunk_elements(pool); i-- > 0;) {
    auto* const element = reinterpret_cast<Link*>(start + i * pool->element_size);
    element->next = pool->free;
    pool->free = element;
  }
}

// A chunk that belongs to nobody yet. Getting it may run a purge, whose limit handlers may use the
// pool: it is called without the pool's lock.
Link* make_chunk(const ka_mem_pool* pool, int fatal_number) {
  const std::size_t size = chunk_elements(pool) * pool->element_size + sizeof(Link);
  const int module = ka::calling_module();
  return static_cast<Link*>(ka::mem_retry(
      [=] { return ka_mem_doalloc(__FILE__, __LINE__, module, size, 0); },
      [=] { ka_nfatal(fatal_number, "can't allocate %zu bytes. MEM exits.", size); }));
}

void add_chunk(ka_mem_pool* pool, Link* chunk) {
  chunk->next = pool->chunks;
  pool->chunks = chunk;
  free_all(pool, chunk);
}

// Null when no element is free.
void* take_element(ka_mem_pool* pool) {
  Link* const element = pool->free;
  if (element) pool->free = element->next;
  return element;
}

void* take_locked(ka_mem_pool* pool) {
  {
    const ka::LockScope locked(pool->lock);
    if (void* const element = take_element(pool)) return element;
  }
  Link* const chunk = make_chunk(pool, kLockedNumber);
  const ka::LockScope locked(pool->lock);
  add_chunk(pool, chunk);
  return take_element(pool);
}

void put_element(ka_mem_pool* pool, void* memory) {
  auto* const element = static_cast<Link*>(memory);
  element->next = pool->free;
  pool->free = element;
}

// Which elements of a chunk are on the free list. Taken when the chunk's turn comes, so that the
// function that is called may release what it is called with.
std::bitset<kMaxElements> free_elements(const ka_mem_pool* pool, Link* chunk) {
  std::bitset<kMaxElements> marks;
  const auto start = reinterpret_cast<std::uintptr_t>(chunk_start(chunk));
  const std::size_t bytes = chunk_elements(pool) * pool->element_size;
  for (const Link* element = pool->free; element; element = element->next) {
    const std::size_t offset = reinterpret_cast<std::uintptr_t>(element) - start;
    if (offset < bytes) marks.set(offset / pool->element_size);
  }
  return marks;
}

template <typename Function>
void enumerate(const ka_mem_pool* pool, Function function) {
  for (Link* chunk = pool->chunks; chunk; chunk = chunk->next) {
    const auto marks = free_elements(pool, chunk);
    for (std::size_t i = 0; i < chunk_elements(pool); ++i) {
      if (marks[i]) continue;
      const ka::CallbackScope scope(KA_MEM);
      function(chunk_start(chunk) + i * pool->element_size);
    }
  }
}

}  // namespace

ka_mem_pool* ka_mem_int_blkcreate(const char* /*file*/, int /*line*/, std::size_t element_size) {
  auto* const pool =
      static_cast<ka_mem_pool*>(ka::allocate_for(ka::calling_module(), sizeof(ka_mem_pool)));
  pool->element_size = (element_size + sizeof(Link) - 1) / sizeof(Link) * sizeof(Link);
  ka_init_lock(&pool->lock);
  return pool;
}

void ka_mem_blkdelete(ka_mem_pool* pool) {
  while (Link* const chunk = pool->chunks) {
    pool->chunks = chunk->next;
    ka_mem_release(chunk);
  }
  ka_delete_lock(&pool->lock);
  ka_mem_release(pool);
}

void* ka_mem_blkallocate(ka_mem_pool* pool) {
  return std::memset(take_locked(pool), 0, pool->element_size);
}

void* ka_mem_blkfallocate(ka_mem_pool* pool) {
  if (void* const element = take_element(pool)) return element;
  add_chunk(pool, make_chunk(pool, kUnlockedNumber));
  return take_element(pool);
}

void ka_mem_blkrelease(ka_mem_pool* pool, void* element) {
  if (!element) return;
  const ka::LockScope locked(pool->lock);
  put_element(pool, element);
}

void ka_mem_blkfrelease(ka_mem_pool* pool, void* element) {
  if (element) put_element(pool, element);
}

void ka_mem_blkclear(ka_mem_pool* pool) {
  const ka::LockScope locked(pool->lock);
  pool->free = nullptr;
  for (Link* chunk = pool->chunks; chunk; chunk = chunk->next) free_all(pool, chunk);
}

void ka_mem_blkenumerate(ka_mem_pool* pool, void (*function)(void* element)) {
  enumerate(pool, function);
}

void ka_mem_blkenumerate_x(ka_mem_pool* pool, void (*function)(void* element, void* argument),
                           void* argument) {
  enumerate(pool, [&](void* element) { function(element, argument); });
}
