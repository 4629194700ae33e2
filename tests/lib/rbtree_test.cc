// Red-black tree: order, items with the same key, walks, and balance after any sequence of changes.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/rbtree.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "messages.h"

namespace {

struct Delete {
  void operator()(ka_rbtree* tree) const { ka_rbtree_delete(tree, 0); }
};
using Tree = std::unique_ptr<ka_rbtree, Delete>;
using Item = std::pair<std::uintptr_t, std::uintptr_t>;  // key, value
using Texts = std::vector<std::string>;

Tree make_tree(const std::vector<Item>& items, std::uint32_t mode = 0,
               ka_rbtree_compare compare = nullptr) {
  Tree tree(ka_rbtree_create(compare, mode));
  for (const auto& [key, value] : items) ka_rbtree_insert(tree.get(), key, value);
  return tree;
}

std::vector<Item> items_of(const Tree& tree) {
  std::vector<Item> items;
  const auto note = [](std::uintptr_t key, std::uintptr_t value, void* list) {
    static_cast<std::vector<Item>*>(list)->emplace_back(key, value);
    return 1;
  };
  ka_rbtree_traverse(tree.get(), note, &items);
  return items;
}

// Two dashes for each level below the root; 2 * log2(1001) = 19.9 levels at most.
TEST(Rbtree, AscendingKeysStayBalanced) {
  const Tree tree = make_tree({});
  for (std::uintptr_t key = 1; key <= 1000; ++key) ka_rbtree_insert(tree.get(), key, 2 * key);
  std::size_t deepest = 0;
  for (const auto& line : messages_of([&] { ka_rbtree_dump(tree.get()); })) {
    deepest = std::max(deepest, line.find(' ') / 2);
  }
  EXPECT_GE(deepest, 9u);
  EXPECT_LT(deepest + 1, 20u);
}

TEST(Rbtree, TheCompareFunctionOrdersAndTheCheckDoesNotAskIt) {
  const auto reverse = [](std::uintptr_t key, std::uintptr_t item_key) {
    return std::int32_t((key < item_key) - (key > item_key));
  };
  const Tree tree = make_tree({{1, 10}, {2, 20}, {3, 30}}, 0, reverse);
  EXPECT_EQ(items_of(tree), (std::vector<Item>{{3, 30}, {2, 20}, {1, 10}}));
  EXPECT_EQ(messages_of([&] { EXPECT_EQ(ka_rbtree_check(tree.get()), 0); }),
            (Texts{"291013 rb tree check failed: left child greater",
                   "291014 rb tree check failed: right child smaller"}));
}

// 4, 2 and 6 make a black root with two red children, which turn black when 7 comes below one.
TEST(Rbtree, DumpShowsDepthColourAndSide) {
  const Tree tree = make_tree({{4, 40}, {2, 20}, {6, 60}, {6, 61}, {7, 70}});
  EXPECT_EQ(messages_of([&] { ka_rbtree_dump(tree.get()); }),
            (Texts{"-- key 2, value 20 (black) l", " key 4, value 40 (black) x",
                   "-- key 6, value 60 (black) r", "-- key 6, value 61 (black) dup",
                   "---- key 7, value 70 (red) r"}));
}

struct Walk {
  std::uint32_t mode;
  std::uintptr_t stop_at;  // value for which the function returns `answer`; 1 for all others
  int answer;
  std::vector<std::uintptr_t> shown;  // values
};

// 4 is the root, 2 and 6 are its children and have a second item each.
TEST(Rbtree, AWalkStopsAsItsFunctionAnswers) {
  for (const Walk& walk :
       {Walk{0, 0, 1, {1, 2, 22, 3, 4, 5, 6, 66, 7}},
        Walk{KA_RB_SKIP_DUPLICATES, 0, 1, {1, 2, 3, 4, 5, 6, 7}},
        Walk{0, 2, 0, {1, 2, 4, 5, 6, 66, 7}},  // without the right subtree
        Walk{0, 2, 2, {1, 2, 4, 5, 6, 66, 7}}, Walk{0, 22, 0, {1, 2, 22, 4, 5, 6, 66, 7}},
        Walk{0, 22, 2, {1, 2, 22, 3, 4, 5, 6, 66, 7}},  // only 0 at a duplicate
        Walk{0, 4, 0, {1, 2, 22, 3, 4}}}) {
    Walk seen = walk;
    seen.shown.clear();
    const Tree tree = make_tree(
        {{4, 4}, {2, 2}, {6, 6}, {1, 1}, {3, 3}, {5, 5}, {7, 7}, {2, 22}, {6, 66}}, walk.mode);
    const auto note = [](std::uintptr_t, std::uintptr_t value, void* argument) {
      auto& [mode, stop_at, answer, shown] = *static_cast<Walk*>(argument);
      shown.push_back(value);
      return value == stop_at ? answer : 1;
    };
    ka_rbtree_traverse(tree.get(), note, &seen);
    EXPECT_EQ(seen.shown, walk.shown) << walk.stop_at << " answers " << walk.answer;
  }
}

// A tree beside a std::multimap, which keeps items with the same key in the order of insertion.
class RbtreePair {
 public:
  explicit RbtreePair(std::uint32_t mode) : tree_(make_tree({}, mode)), unique_(mode != 0) {}

  void insert(std::uintptr_t key) {
    const bool expected = !unique_ || !model_.contains(key);
    if (expected) model_.emplace(key, ++last_value_);
    ASSERT_EQ(ka_rbtree_insert(tree_.get(), key, last_value_), expected);
  }

  void remove(std::uintptr_t key, std::size_t index) {
    const bool expected = index < model_.count(key);
    if (expected) model_.erase(std::next(model_.lower_bound(key), std::ptrdiff_t(index)));
    ASSERT_EQ(index == 0 ? ka_rbtree_remove(tree_.get(), key)
                         : ka_rbtree_dupremove(tree_.get(), key, index),
              expected);
  }

  void search(std::uintptr_t key, std::size_t index) const {
    const std::size_t length = model_.count(key);
    const auto first = model_.lower_bound(key);
    const bool expected = index < length;
    std::size_t following = 9;
    std::uintptr_t value = 9;
    ASSERT_EQ(ka_rbtree_dupsearch(tree_.get(), key, index, &following, &value), expected);
    ASSERT_EQ(following, expected ? length - index - 1 : 0);
    ASSERT_EQ(value, expected ? std::next(first, std::ptrdiff_t(index))->second : 0);
    ASSERT_EQ(ka_rbtree_search(tree_.get(), key, &value), length != 0);
    ASSERT_EQ(value, length != 0 ? first->second : 0);
  }

  void compare() const {
    ASSERT_EQ(ka_rbtree_check(tree_.get()), 1);
    ASSERT_EQ(ka_rbtree_get_nitems(tree_.get()), model_.size());
    ASSERT_EQ(items_of(tree_), std::vector<Item>(model_.begin(), model_.end()));
    Item min, max;
    ASSERT_EQ(ka_rbtree_min(tree_.get(), &min.first, &min.second), !model_.empty());
    ASSERT_EQ(ka_rbtree_max(tree_.get(), &max.first, &max.second), !model_.empty());
    ASSERT_EQ(min, model_.empty() ? Item() : Item(*model_.begin()));
    ASSERT_EQ(max, model_.empty() ? Item() : Item(*model_.lower_bound(model_.rbegin()->first)));
  }

 private:
  Tree tree_;
  bool unique_;
  std::uintptr_t last_value_ = 0;
  std::multimap<std::uintptr_t, std::uintptr_t> model_;
};

// Phases that mostly insert and phases that mostly remove, so that trees grow, shrink and empty.
// Keys are as wide as addresses.
void compare_with_a_multimap(std::uint32_t mode, std::uintptr_t keys) {
  RbtreePair pair(mode);
  std::mt19937 random(std::uint32_t(keys) + mode);
  for (int step = 0; step < 6000; ++step) {
    const std::uintptr_t key = random() % keys << 54;
    const std::size_t index = random() % 4 == 0 ? random() % 3 : 0;
    const bool grows = step / 500 % 2 == 0;
    if (random() % 4 == 0 ? !grows : grows) {
      pair.insert(key);
    } else {
      pair.remove(key, index);
    }
    pair.search(random() % keys << 54, index);
    pair.compare();
    if (testing::Test::HasFatalFailure()) FAIL() << "at step " << step;
  }
}

TEST(Rbtree, AgreesWithAMultimapAfterEveryStep) {
  for (const std::uintptr_t keys : {8u, 100u, 1000u}) {
    compare_with_a_multimap(0, keys);
    compare_with_a_multimap(KA_RB_UNIQUE, keys);
  }
}

}  // namespace
