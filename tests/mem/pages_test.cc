// Pages: how many a megapage holds, when it comes and goes, and lists of pages.
#include <gtest/gtest.h>
#include <ka/mem.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "refuse.h"

namespace {

constexpr std::size_t kMegapage = 0x40000;

// Megapages are accounted blocks.
std::size_t megapages(std::size_t empty) { return (ka_mem_getsize() - empty) / kMegapage; }

class Pages : public testing::Test {
 protected:
  Pages() {
    ka_mem_pages_flush();
    empty_ = ka_mem_getsize();
  }
  ~Pages() override { ka_mem_pages_flush(); }

  ka_mem_page* get() { return pages_.emplace_back(ka_mem_pages_get()); }
  void fill_megapage() {
    do get();
    while (megapages(empty_) == 1);
    ka_mem_pages_put(pages_.back());  // the first of another one, which is gone with it
    pages_.pop_back();
  }

  std::size_t empty_;
  std::vector<ka_mem_page*> pages_;
};

// 256 KB are 32 pages, or 31 whole ones when they begin within a page, here by `shift` bytes. A
// block begins behind its header.
TEST_F(Pages, OfAMegapageAreAsManyAsFit) {
  for (const auto& [shift, count] : {std::pair{0U, 32U}, {16U, 31U}, {8176U, 31U}}) {
    ka_mem_pages_flush();
    pages_.clear();
    test::align_next(kMegapage, alignof(std::max_align_t) + shift);
    fill_megapage();
    EXPECT_EQ(pages_.size(), count);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pages_[0]) % KA_MEM_PAGE_SIZE, 0U);
    for (std::size_t i = 0; i < pages_.size(); ++i) EXPECT_EQ(pages_[i], pages_[0] + i);
  }
}

TEST_F(Pages, AMegapageGoesWithItsLastPage) {
  fill_megapage();
  get();
  EXPECT_EQ(megapages(empty_), 2U);
  std::reverse(pages_.begin(), pages_.end());
  for (ka_mem_page* page : pages_) {
    EXPECT_GT(ka_mem_getsize(), empty_);
    ka_mem_pages_put(page);
  }
  EXPECT_EQ(ka_mem_getsize(), empty_);
}

TEST_F(Pages, AMegapageGoesAlsoWhenMostOfItWasNeverUsed) {
  for (int i = 0; i < 3; ++i) get();
  for (const int i : {1, 0, 2}) ka_mem_pages_put(pages_[std::size_t(i)]);
  EXPECT_EQ(ka_mem_getsize(), empty_);
  get();  // of a new one
  EXPECT_EQ(megapages(empty_), 1U);
}

TEST_F(Pages, AnOlderMegapageGoesWhileANewerOneStays) {
  fill_megapage();
  ka_mem_page* const newer = ka_mem_pages_get();
  for (ka_mem_page* page : pages_) ka_mem_pages_put(page);
  EXPECT_EQ(megapages(empty_), 1U);
  EXPECT_EQ(ka_mem_pages_get(), newer + 1);
}

TEST_F(Pages, APageThatCameBackIsReusedAndZeroed) {
  get();
  ka_mem_page* const page = get();
  std::fill_n(page->payload, KA_MEM_PAGE_PAYLOAD, std::uint8_t{0xff});
  page->next = page->previous = page;
  ka_mem_pages_put(page);
  EXPECT_EQ(ka_mem_pages_get(), page);
  EXPECT_EQ(std::count(page->payload, page->payload + KA_MEM_PAGE_PAYLOAD, 0),
            static_cast<std::ptrdiff_t>(KA_MEM_PAGE_PAYLOAD));
  EXPECT_EQ(page->next, nullptr);
  EXPECT_EQ(page->previous, nullptr);
}

// Forwards and backwards.
void expect_list(const ka_mem_page_list& list, const std::vector<ka_mem_page*>& expected) {
  std::vector<ka_mem_page*> forwards, backwards;
  for (ka_mem_page* page = list.head; page; page = page->next) forwards.push_back(page);
  for (ka_mem_page* page = list.tail; page; page = page->previous) backwards.push_back(page);
  std::reverse(backwards.begin(), backwards.end());
  EXPECT_EQ(forwards, expected);
  EXPECT_EQ(backwards, expected);
  EXPECT_EQ(list.count, static_cast<int>(expected.size()));
}

TEST_F(Pages, ListsTakePagesAtBothEndsAndGiveAnyOfThem) {
  for (int i = 0; i < 4; ++i) get();
  const auto& p = pages_;
  ka_mem_page_list list = {};
  EXPECT_EQ(ka_mem_pages_unlink_head(&list), nullptr);
  EXPECT_EQ(ka_mem_pages_unlink_tail(&list), nullptr);
  ka_mem_pages_link_tail(&list, p[1]);
  ka_mem_pages_link_head(&list, p[0]);
  ka_mem_pages_link_tail(&list, p[2]);
  ka_mem_pages_link_tail(&list, p[3]);
  expect_list(list, {p[0], p[1], p[2], p[3]});
  ka_mem_pages_unlink(&list, p[1]);
  expect_list(list, {p[0], p[2], p[3]});
  EXPECT_EQ(ka_mem_pages_unlink_tail(&list), p[3]);
  EXPECT_EQ(ka_mem_pages_unlink_head(&list), p[0]);
  expect_list(list, {p[2]});
  ka_mem_pages_unlink(&list, p[2]);
  expect_list(list, {});
}

}  // namespace
