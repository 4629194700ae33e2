// Block pools: element sizes, chunks, the order of free elements and of enumeration.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/trans.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

struct Delete {
  void operator()(ka_mem_pool* pool) const { ka_mem_blkdelete(pool); }
};
using Pool = std::unique_ptr<ka_mem_pool, Delete>;

Pool make_pool(std::size_t element_size) { return Pool(ka_mem_blkcreate(element_size)); }

std::vector<std::uint8_t*> take(const Pool& pool, std::size_t count) {
  std::vector<std::uint8_t*> elements(count);
  for (auto& element : elements) {
    element = static_cast<std::uint8_t*>(ka_mem_blkallocate(pool.get()));
  }
  return elements;
}

std::vector<std::uint8_t*> in_use(const Pool& pool) {
  std::vector<std::uint8_t*> found;
  const auto note = [](void* element, void* list) {
    static_cast<std::vector<std::uint8_t*>*>(list)->push_back(static_cast<std::uint8_t*>(element));
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

TEST(Pool, ElementsAreZeroedAlsoWhenTheyComeBack) {
  const Pool pool = make_pool(24);
  auto* const first = take(pool, 1)[0];
  std::fill_n(first, 24, std::uint8_t{0xff});
  ka_mem_blkrelease(pool.get(), first);
  EXPECT_EQ(take(pool, 1)[0], first);
  EXPECT_EQ(std::count(first, first + 24, 0), 24);
}

TEST(Pool, TheElementReleasedLastIsHandedOutFirst) {
  const Pool pool = make_pool(8);
  const auto elements = take(pool, 3);
  ka_mem_blkrelease(pool.get(), elements[2]);
  ka_mem_blkfrelease(pool.get(), elements[0]);
  ka_mem_blkrelease(pool.get(), nullptr);
  ka_mem_blkfrelease(pool.get(), nullptr);
  EXPECT_EQ(ka_mem_blkfallocate(pool.get()), elements[0]);
  EXPECT_EQ(ka_mem_blkfallocate(pool.get()), elements[2]);
}

TEST(Pool, EnumerationGoesFromTheNewestChunkUpInAddressOrder) {
  const Pool pool = make_pool(4096);  // two elements in a chunk
  const auto elements = take(pool, 5);
  ka_mem_blkrelease(pool.get(), elements[1]);
  const std::vector expected = {elements[4], elements[2], elements[3], elements[0]};
  EXPECT_EQ(in_use(pool), expected);
}

TEST(Pool, AnElementMayBeReleasedWhileItIsEnumerated) {
  const Pool pool = make_pool(1000);
  take(pool, 20);
  const auto release = [](void* element, void* owner) {
    ka_mem_blkrelease(static_cast<ka_mem_pool*>(owner), element);
  };
  ka_mem_blkenumerate_x(pool.get(), release, pool.get());
  EXPECT_TRUE(in_use(pool).empty());
}

TEST(Pool, EveryElementIsEnumeratedAsTheModuleOfMemory) {
  const Pool pool = make_pool(1000);
  take(pool, 3);
  static std::vector<int> modules;
  ka_mem_blkenumerate(pool.get(), [](void*) {
    modules.push_back(ka_module_current());
    ka_module_push(KA_IMG);  // stays behind
  });
  EXPECT_EQ(modules, std::vector(3, int(KA_MEM)));
  EXPECT_EQ(ka_module_current(), KA_MAIN);
}

TEST(Pool, ClearFreesEveryElementAndKeepsTheChunks) {
  const Pool pool = make_pool(2048);  // four elements in a chunk
  const auto before = take(pool, 8);
  ka_mem_blkclear(pool.get());
  EXPECT_TRUE(in_use(pool).empty());
  const auto after = take(pool, 8);
  EXPECT_TRUE(std::is_permutation(before.begin(), before.end(), after.begin()));
}

TEST(Pool, AnElementLargerThanAChunkHasAChunkOfItsOwn) {
  const Pool pool = make_pool(10000);
  const auto elements = take(pool, 2);
  std::fill_n(elements[0], 10000, std::uint8_t{1});
  std::fill_n(elements[1], 10000, std::uint8_t{2});
  EXPECT_EQ(in_use(pool).size(), 2U);
  EXPECT_EQ(elements[0][9999], 1);
}

}  // namespace
