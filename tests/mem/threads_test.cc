// Many threads with purges and pools in the middle of it.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/trans.h>

#include <atomic>
#include <vector>

#include "heap.h"

namespace {

using Threads = test::MemoryTest;

// What each thread of the crowd does, with blocks of its own and with pool and pages that all
// share.
void work(ka_mem_pool* pool) {
  std::vector<void*> elements;
  for (std::size_t i = 0; i < 300; ++i) {
    void* const block = ka_mem_reallocate(ka_mem_allocate(i * 37 % 3000), i * 101 % 5000);
    for (int k = 0; k < 8; ++k) elements.push_back(ka_mem_blkallocate(pool));
    ka_mem_page* const page = ka_mem_pages_get();
    if (i % 50 == 0) ka_context_pop(ka_context_push());
    if (i % 60 == 0) ka_mem_getsize();
    ka_mem_pages_put(page);
    ka_mem_release(block);
  }
  for (void* element : elements) ka_mem_blkrelease(pool, element);
}

// The areas of module 34 count how often they were shown to the limit handler.
constexpr int kModule = 34;
std::atomic<int> asked{0};
int show_area(std::int64_t /*wanted*/) {
  static_cast<std::atomic<int>*>(ka_context_mem(kModule))->fetch_add(1);
  ka_mem_release(ka_mem_allocate(50));
  return ++asked != 0;
}

// The account is right after all of it, whoever allocated and released during whose purge.
TEST_F(Threads, AllocateWhilePurgesRun) {
  ka_context_register_module(kModule, nullptr, nullptr, sizeof(std::atomic<int>));
  ka_mem_pages_flush();
  const std::size_t before = ka_mem_getsize();
  ka_mem_pool* const pool = ka_mem_blkcreate(40);
  ka_mem_limit_handler(kModule, show_area);
  ka_mem_memory_limit(8);  // every allocation passes it
  test::in_threads(5, [pool] {
    ka_context_mem(kModule);
    work(pool);
  });
  ka_mem_memory_limit(0);
  EXPECT_GT(asked, 0);
  ka_mem_blkenumerate(pool, [](void*) { ADD_FAILURE() << "still in use"; });
  ka_mem_blkdelete(pool);
  EXPECT_EQ(ka_mem_getsize(), before);
}

}  // namespace
