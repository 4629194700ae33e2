// Block pools and pages: chunks, the order of free elements and of enumeration, megapages, lists.
#include <gtest/gtest.h>
#include <ka/mem.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

struct Delete {
  void operator()(ka_mem_pool* pool) const { ka_mem_blkdelete(pool); }
};
using Pool = std::unique_ptr<ka_mem_pool, Delete>;
using Elements = std::vector<std::uint8_t*>;

Pool make_pool(std::size_t element_size) { return Pool(ka_mem_blkcreate(element_size)); }

Elements take(const Pool& pool, std::size_t count) {
  Elements elements(count);
  for (auto& element : elements) {
    element = static_cast<std::uint8_t*>(ka_mem_blkallocate(pool.get()));
  }
  return elements;
}

Elements in_use(const Pool& pool) {
  Elements found;
  const auto note = [](void* element, void* list) {
    static_cast<Elements*>(list)->push_back(static_cast<std::uint8_t*>(element));
  };
  ka_mem_blkenumerate_x(pool.get(), note, &found);
  return found;
}

// 8192 / 16 = 512 elements, then a new chunk.
TEST(Pool, ElementsOf12BytesTake16And512MakeAChunk) {
  const Pool pool = make_pool(12);
  const auto elements = take(pool, 513);
  for (std::size_t i = 1; i < 512; ++i) ASSERT_EQ(elements[i] - elements[i - 1], 16) << i;
  const auto distance = elements[512] - elements[0];
  EXPECT_TRUE(distance < 0 || distance >= 8192) << distance;
}

TEST(Pool, TheElementReleasedLastIsHandedOutFirstAndZeroed) {
  const Pool pool = make_pool(10000);  // larger than a chunk
  const auto elements = take(pool, 3);
  for (auto* element : elements) std::fill_n(element, 10000, std::uint8_t{1});
  ka_mem_blkrelease(pool.get(), elements[2]);
  ka_mem_blkfrelease(pool.get(), elements[0]);
  EXPECT_EQ(ka_mem_blkfallocate(pool.get()), elements[0]);
  EXPECT_EQ(take(pool, 1)[0], elements[2]);
  EXPECT_EQ(std::count(elements[2], elements[2] + 10000, 0), 10000);
}

TEST(Pool, EnumerationGoesFromTheNewestChunkUpInAddressOrder) {
  const Pool pool = make_pool(4096);  // two elements in a chunk
  const auto elements = take(pool, 5);
  ka_mem_blkrelease(pool.get(), elements[1]);
  EXPECT_EQ(in_use(pool), (Elements{elements[4], elements[2], elements[3], elements[0]}));
  const auto release = [](void* element, void* owner) {
    ka_mem_blkrelease(static_cast<ka_mem_pool*>(owner), element);
  };
  ka_mem_blkenumerate_x(pool.get(), release, pool.get());
  EXPECT_EQ(in_use(pool), Elements{});
  take(pool, 6);
  ka_mem_blkclear(pool.get());
  EXPECT_EQ(in_use(pool), Elements{});
  const auto after = take(pool, 5);  // the chunks were kept
  for (auto* element : elements) EXPECT_EQ(std::ranges::count(after, element), 1);
}

// 256 KB, which are 32 pages, or 31 whole ones when they begin within a page, are accounted.
TEST(Pages, AMegapageGoesWithItsLastPage) {
  ka_mem_pages_flush();
  const std::size_t empty = ka_mem_getsize();
  const auto megapages = [empty] { return (ka_mem_getsize() - empty) / 0x40000; };
  std::vector<ka_mem_page*> pages;
  while (megapages() < 2) pages.push_back(ka_mem_pages_get());
  ka_mem_page* const newer = pages.back();
  pages.pop_back();
  EXPECT_TRUE(pages.size() == 31 || pages.size() == 32) << pages.size();
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pages[0]) % KA_MEM_PAGE_SIZE, 0U);
  for (std::size_t i = 0; i < pages.size(); ++i) EXPECT_EQ(pages[i], pages[0] + i);
  for (ka_mem_page* page : pages) {
    EXPECT_EQ(megapages(), 2U);
    ka_mem_pages_put(page);
  }
  EXPECT_EQ(megapages(), 1U);
  ka_mem_page* const page = ka_mem_pages_get();
  EXPECT_EQ(page, newer + 1);
  std::fill_n(page->payload, KA_MEM_PAGE_PAYLOAD, std::uint8_t{0xff});
  ka_mem_pages_put(page);
  EXPECT_EQ(ka_mem_pages_get(), page);
  EXPECT_EQ(std::ranges::count(page->payload, 0), std::ptrdiff_t(KA_MEM_PAGE_PAYLOAD));
  ka_mem_pages_put(newer);
  ka_mem_pages_put(page);
  EXPECT_EQ(ka_mem_getsize(), empty);
}

}  // namespace
