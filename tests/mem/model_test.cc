// Random operations on blocks, pools and pages, each beside a plain model of what they promise.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "heap.h"
#include "refuse.h"

namespace {

using Bytes = unsigned char*;
using Model = test::MemoryTest;

std::mt19937 generator(1);
std::size_t any(std::size_t count) { return generator() % count; }

template <typename Value>
Value take_any(std::vector<Value>& values) {
  std::swap(values[any(values.size())], values.back());
  const Value value = values.back();
  values.pop_back();
  return value;
}

bool is_all(const unsigned char* bytes, std::size_t count, int value) {
  return std::all_of(bytes, bytes + count, [value](int byte) { return byte == value; });
}

// What a change of so many bytes adds to the heap estimate.
std::int64_t units(std::int64_t change) {
  return change > 0 ? (change + 7) / 8 : (change - 14) / 8;
}

class Blocks {
 public:
  Blocks() {
    restart();
    const long before = test::live_blocks();
    void* blocks[10];
    for (void*& block : blocks) block = ka_mem_allocate(64);
    for (void* block : blocks) ka_mem_release(block);
    live_ = test::live_blocks();
    kept_[class_of(64)] = most_ = live_ - before;
    EXPECT_LE(most_, 4);
    units_ = test::align_heap();
    size_ = ka_mem_getsize();
  }

  void allocate() {
    const std::size_t size = any_size();
    long& kept = kept_[class_of(size)];
    kept > 0 && size <= kLargest ? --kept : ++live_;
    units_ += units(std::int64_t(size) + 8);
    const std::string text(std::max(size, std::size_t{1}) - 1, 'x');
    const auto kind = size > 0 ? any(4) : 0;
    auto* const block = static_cast<Bytes>(kind == 0   ? ka_mem_allocate(size)
                                           : kind == 1 ? ka_mem_test_allocate(size)
                                           : kind == 2 ? ka_mem_reallocate(nullptr, size)
                                                       : ka_mem_strdup(text.c_str()));
    EXPECT_TRUE(kind == 3 ? text == reinterpret_cast<char*>(block) : is_all(block, size, 0))
        << size;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
    add(block, size);
  }

  void reallocate() {
    auto [block, size, fill] = take_any(blocks_);
    const std::size_t new_size = any_size(), common = std::min(size, new_size);
    units_ += units(std::int64_t(new_size) - std::int64_t(size) + 8);
    size_ -= size + 16;
    block = static_cast<Bytes>(any(2) ? ka_mem_reallocate(block, new_size)
                                      : ka_mem_test_reallocate(block, new_size));
    EXPECT_TRUE(is_all(block, common, fill));
    EXPECT_TRUE(is_all(block + common, new_size - common, 0));
    add(block, new_size);
  }

  void release() {
    const auto [block, size, fill] = take_any(blocks_);
    EXPECT_TRUE(is_all(block, size, fill));
    size_ -= size + 16;
    any(2) ? ka_mem_release(block) : ka_mem_dorelease(__FILE__, __LINE__, KA_IMG, block);
    units_ += units(-std::int64_t(size));
    long& kept = kept_[class_of(size)];
    kept < most_&& size <= kLargest ? ++kept : --live_;
  }

  // Raw memory is not accounted and never taken off the estimate.
  void use_raw_memory() {
    const std::size_t size = any_size() + 1;
    units_ += units(std::int64_t(size));
    auto* const block = static_cast<Bytes>(any(2) ? ka_mem_allocate_raw(size)
                                                  : ka_mem_reallocate_raw(nullptr, size));
    units_ += units(2 * std::int64_t(size));
    auto* const larger = static_cast<Bytes>(ka_mem_reallocate_raw(block, 2 * size));
    EXPECT_TRUE(is_all(larger, size, 0));
    ka_mem_release_raw(larger);
  }

  // Kept blocks go when the system refuses memory and when the areas of the thread are set aside.
  void lose_kept_blocks() {
    if (any(2)) {
      constexpr std::int64_t size = 1 << 20;
      test::refuse(1, size);
      EXPECT_EQ(ka_mem_test_allocate(size), nullptr);
      units_ += units(size + 8) + units(-size - 8);
    } else {
      ka_context_pop(ka_context_push());
    }
    ka_mem_memory_limit(0);
    for (const auto& [bytes, kept] : std::exchange(kept_, {})) live_ -= kept;
    restart();
  }

  void check() {
    ASSERT_EQ(test::live_blocks(), live_);
    ASSERT_EQ(ka_mem_getsize(), size_);
    ASSERT_EQ(test::heap_kilobytes(), units_ / test::kUnits);
  }
  [[nodiscard]] std::size_t count() const { return blocks_.size(); }

 private:
  struct Block {
    Bytes start;
    std::size_t size;
    std::uint8_t fill;
  };
  static constexpr std::size_t kLargest = 1032;  // bytes of a block that is kept
  // 1 to 8 bytes are the first class, 9 to 24 the second and so on.
  static std::size_t class_of(std::size_t size) { return (std::min(size, kLargest) + 7) / 16; }
  static std::size_t any_size() { return any(8) ? any(1040) : std::size_t{1} << any(20); }

  void restart() {  // the thread's counters are there again
    ka_mem_release(ka_mem_doalloc(__FILE__, __LINE__, KA_MODULE_COUNT, 5000, 0));  // of no module
    units_ += units(5008) + units(-5000);
  }
  void add(Bytes block, std::size_t size) {
    EXPECT_EQ(ka_mem_dogetsize(block), size);
    size_ += size + 16;
    const auto fill = std::uint8_t(1 + any(255));
    std::fill_n(block, size, fill);
    blocks_.push_back({block, size, fill});
  }

  std::vector<Block> blocks_;
  std::int64_t units_ = 0;
  std::size_t size_ = 0;
  long live_ = 0, most_ = 0;
  std::map<std::size_t, long> kept_;  // by class
};

// What is released comes back to the thread, and all goes with the thread.
TEST_F(Model, Blocks) {
  const test::MessageLog quiet(KA_FATAL);
  test::registered([] {}).join();  // what the first thread brings with it
  const long before = test::live_blocks();
  const std::size_t size = ka_mem_getsize();
  test::registered([] {
    Blocks blocks;
    for (int step = 0; step < 20'000 && !testing::Test::HasFatalFailure(); ++step) {
      const auto what = any(200);
      const bool grows = step / 100 % 2 == 0;
      if (what == 0) blocks.lose_kept_blocks();
      if (what < 4) blocks.use_raw_memory();
      if (blocks.count() == 0 || (grows && what < 130) || what < 60)
        blocks.allocate();
      else
        what < 170 ? blocks.release() : blocks.reallocate();
      blocks.check();
    }
    while (blocks.count() > 0) blocks.release();
    ka_mem_release(nullptr);
    EXPECT_EQ(ka_mem_strdup(nullptr), nullptr);
  }).join();
  EXPECT_EQ(test::live_blocks(), before);
  EXPECT_EQ(ka_mem_getsize(), size);
}

// The free elements are a stack: first those of the newest chunk, in the order of their addresses.
class Pool {
 public:
  explicit Pool(std::size_t size)
      : pool_(ka_mem_blkcreate(size)),
        size_((size + 7) / 8 * 8),
        count_(std::max(8192 / size_, std::size_t{1})) {}
  ~Pool() { ka_mem_blkdelete(pool_); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  void allocate() {
    const bool zeroes = any(2) == 0;
    auto* const element =
        static_cast<Bytes>(zeroes ? ka_mem_blkallocate(pool_) : ka_mem_blkfallocate(pool_));
    if (free_.empty()) free_chunk(chunks_.emplace_back(element));
    ASSERT_EQ(element, free_.back());
    free_.pop_back();
    EXPECT_TRUE(!zeroes || is_all(element, size_, 0));
    std::fill_n(element, size_, std::uint8_t{0xff});
    used_.push_back(element);
  }
  void release() {
    free_.push_back(take_any(used_));
    EXPECT_TRUE(is_all(free_.back(), size_, 0xff));
    any(2) ? ka_mem_blkrelease(pool_, free_.back()) : ka_mem_blkfrelease(pool_, free_.back());
    any(2) ? ka_mem_blkrelease(pool_, nullptr) : ka_mem_blkfrelease(pool_, nullptr);
  }
  void clear() {
    ka_mem_blkclear(pool_);
    used_.clear();
    free_.clear();
    for (std::size_t i = chunks_.size(); i-- > 0;) free_chunk(chunks_[i]);
  }
  void release_all_in_enumeration() {
    const auto give_back = [](void* element, void* pool) {
      ka_mem_blkrelease(static_cast<ka_mem_pool*>(pool), element);
    };
    std::ranges::copy(in_order(), std::back_inserter(free_));
    ka_mem_blkenumerate_x(pool_, give_back, pool_);
    used_.clear();
  }
  // Every element comes as the module of memory, whatever the function leaves on the stack.
  void check() const {
    static std::vector<Bytes> found;
    found.clear();
    ka_mem_blkenumerate(pool_, [](void* element) {
      EXPECT_EQ(ka_module_current(), KA_MEM);
      ka_module_push(KA_IMG);
      found.push_back(static_cast<Bytes>(element));
    });
    ASSERT_EQ(found, in_order());
    ASSERT_EQ(ka_module_current(), KA_MAIN);
  }
  [[nodiscard]] std::size_t in_use() const { return used_.size(); }

 private:
  void free_chunk(Bytes start) {
    for (std::size_t i = count_; i-- > 0;) free_.push_back(start + i * size_);
  }
  [[nodiscard]] std::vector<Bytes> in_order() const {
    const std::set<Bytes> used(used_.begin(), used_.end());
    std::vector<Bytes> expected;
    for (std::size_t i = chunks_.size() * count_; i-- > 0;) {
      Bytes const element = chunks_[i / count_] + (count_ - 1 - i % count_) * size_;
      if (used.contains(element)) expected.push_back(element);
    }
    return expected;
  }

  ka_mem_pool* pool_;
  std::size_t size_, count_;  // bytes of an element, elements of a chunk
  std::vector<Bytes> free_, used_, chunks_;
};

TEST_F(Model, Pools) {
  const std::size_t before = ka_mem_getsize();
  for (const std::size_t size : {1U, 12U, 24U, 1000U, 2048U, 4096U, 10000U}) {
    const long blocks = test::live_blocks();
    {
      Pool pool(size);
      for (int step = 0; step < 120 && !HasFatalFailure(); ++step) {
        if (step % 40 == 39) any(2) ? pool.clear() : pool.release_all_in_enumeration();
        for (auto i = any(8000 / size + 3); i > 0; --i) pool.allocate();
        for (auto i = any(8000 / size + 3); i > 0 && pool.in_use() > 0; --i) pool.release();
        if (step % 10 == 9) pool.check();
      }
    }
    EXPECT_LE(test::live_blocks(), blocks + 1) << size;  // the record, which the thread keeps
  }
  EXPECT_EQ(ka_mem_getsize(), before);
}

// Pages in use, some of them in a list.
TEST_F(Model, Pages) {
  ka_mem_pages_flush();
  const std::size_t empty = ka_mem_getsize();
  std::vector<ka_mem_page*> loose = {ka_mem_pages_get()};
  const std::size_t megapage_bytes = ka_mem_getsize() - empty;
  EXPECT_GE(megapage_bytes, 0x40000U);
  ka_mem_pages_put(take_any(loose));
  std::deque<ka_mem_page*> model;
  ka_mem_page_list list{};
  std::map<const void*, std::set<ka_mem_page*>> megapages;  // pages in use
  const auto get = [&] {
    const std::size_t in_use = loose.size() + model.size();
    const std::size_t most = std::max(in_use / 31 + 1, megapages.size());
    ka_mem_page* const page = loose.emplace_back(ka_mem_pages_get());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(page) % KA_MEM_PAGE_SIZE, 0U);
    EXPECT_TRUE(is_all(page->payload, KA_MEM_PAGE_PAYLOAD, 0));
    EXPECT_TRUE(!page->next && !page->previous);
    EXPECT_TRUE(megapages[page->owner].insert(page).second);
    EXPECT_LE(megapages.size(), most) << "no page of another one was free";
    std::fill_n(page->payload, KA_MEM_PAGE_PAYLOAD, std::uint8_t{0xff});
  };
  const auto put = [&] {
    ka_mem_page* const page = take_any(loose);
    EXPECT_TRUE(is_all(page->payload, KA_MEM_PAGE_PAYLOAD, 0xff));
    const auto megapage = megapages.find(page->owner);
    megapage->second.erase(page);
    if (megapage->second.empty()) megapages.erase(megapage);
    ka_mem_pages_put(page);
  };
  const auto link = [&] {
    ka_mem_page* const page = take_any(loose);
    const bool is_first = any(2) == 0;
    is_first ? ka_mem_pages_link_head(&list, page) : ka_mem_pages_link_tail(&list, page);
    model.insert(is_first ? model.begin() : model.end(), page);
  };
  const auto unlink = [&](std::size_t at) {
    ka_mem_page* const page = loose.emplace_back(model[at]);
    if (at > 0 && at + 1 < model.size())
      ka_mem_pages_unlink(&list, page);
    else
      EXPECT_EQ(at == 0 ? ka_mem_pages_unlink_head(&list) : ka_mem_pages_unlink_tail(&list), page);
    EXPECT_TRUE(!page->next && !page->previous);
    model.erase(model.begin() + long(at));
  };
  EXPECT_TRUE(!ka_mem_pages_unlink_head(&list) && !ka_mem_pages_unlink_tail(&list));
  for (int step = 0; step < 4000 && !HasFailure(); ++step) {
    const auto what = any(8);
    if (what < 5 && (step / 250 % 2 == 0) == (what > 0))
      get();
    else if (what <= 5 && !loose.empty())
      what < 5 ? put() : link();
    else if (what > 5 && !model.empty())
      unlink(any(3) == 0 ? any(model.size()) : any(2) * (model.size() - 1));
    ASSERT_EQ(ka_mem_getsize() - empty, megapages.size() * megapage_bytes);
    ASSERT_EQ(list.count, int(model.size()));
    const ka_mem_page *forwards = list.head, *backwards = list.tail;
    for (std::size_t i = 0; i < model.size(); ++i) {
      ASSERT_EQ(std::exchange(forwards, forwards->next), model[i]);
      ASSERT_EQ(std::exchange(backwards, backwards->previous), model[model.size() - 1 - i]);
    }
    ASSERT_TRUE(!forwards && !backwards);
  }
  ka_mem_pages_flush();
  EXPECT_EQ(ka_mem_getsize(), empty);
}

}  // namespace
