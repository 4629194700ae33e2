// Red-black tree: order, items with the same key, walks, and balance after any sequence of changes.
#include <gtest/gtest.h>
#include <ka/message.h>
#include <ka/rbtree.h>

#include <algorithm>
#include <cmath>
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

Tree make_tree(const std::vector<Item>& items, std::uint32_t mode = 0,
               ka_rbtree_compare compare = nullptr) {
  Tree tree(ka_rbtree_create(compare, mode));
  for (const auto& [key, value] : items) ka_rbtree_insert(tree.get(), key, value);
  return tree;
}

std::int32_t reverse(std::uintptr_t key, std::uintptr_t item_key) {
  return (key < item_key) - (key > item_key);
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

// The value of an item, 0 when there is none; `following` as ka_rbtree_dupsearch gives it.
std::uintptr_t value_of(const Tree& tree, std::uintptr_t key, std::size_t index = 0,
                        std::size_t* following = nullptr) {
  std::uintptr_t value = 1;
  const int found = ka_rbtree_dupsearch(tree.get(), key, index, following, &value);
  EXPECT_EQ(found, value != 0);
  return value;
}

TEST(Rbtree, AscendingKeysStayBalanced) {
  const Tree tree = make_tree({});
  for (std::uintptr_t key = 1; key <= 1000; ++key) {
    ASSERT_EQ(ka_rbtree_insert(tree.get(), key, 2 * key), 1);
    ASSERT_EQ(ka_rbtree_check(tree.get()), 1) << key;
  }
  const auto lines = messages_of([&] { ka_rbtree_dump(tree.get()); });
  ASSERT_EQ(lines.size(), 1000u);
  // Two dashes for each level below the root; 2 * log2(1001) = 19.9 levels at most.
  std::size_t deepest = 0;
  for (const auto& line : lines) deepest = std::max(deepest, line.find(' ') / 2);
  EXPECT_LT(double(deepest + 1), 2 * std::log2(1001));
}

TEST(Rbtree, ItemsWithTheSameKeyQueueUp) {
  const Tree tree = make_tree({{7, 100}, {7, 200}, {7, 300}});
  EXPECT_EQ(ka_rbtree_get_nitems(tree.get()), 3u);
  EXPECT_EQ(value_of(tree, 7), 100u);
  std::size_t following = 9;
  EXPECT_EQ(value_of(tree, 7, 2, &following), 300u);
  EXPECT_EQ(following, 0u);
  EXPECT_EQ(value_of(tree, 7, 0, &following), 100u);
  EXPECT_EQ(following, 2u);
  EXPECT_EQ(value_of(tree, 7, 3, &following), 0u);
  EXPECT_EQ(following, 0u);
  EXPECT_EQ(ka_rbtree_dupremove(tree.get(), 7, 3), 0);
  EXPECT_EQ(ka_rbtree_remove(tree.get(), 7), 1);
  std::uintptr_t value = 0;
  EXPECT_EQ(ka_rbtree_search(tree.get(), 7, &value), 1);
  EXPECT_EQ(value, 200u);
  EXPECT_EQ(ka_rbtree_dupremove(tree.get(), 7, 1), 1);
  EXPECT_EQ(ka_rbtree_dupremove(tree.get(), 7, 1), 0);
  EXPECT_EQ(items_of(tree), (std::vector<Item>{{7, 200}}));
}

TEST(Rbtree, UniqueModeRefusesAKeyThatIsThere) {
  const Tree tree = make_tree({{7, 100}}, KA_RB_UNIQUE);
  EXPECT_EQ(ka_rbtree_insert(tree.get(), 7, 200), 0);
  EXPECT_EQ(items_of(tree), (std::vector<Item>{{7, 100}}));
  ka_rbtree_setmode(tree.get(), 0);
  EXPECT_EQ(ka_rbtree_getmode(tree.get()), 0u);
  EXPECT_EQ(ka_rbtree_insert(tree.get(), 7, 200), 1);
}

TEST(Rbtree, WhatIsNotThereIsNeitherFoundNorRemoved) {
  for (const Tree& tree : {make_tree({}), make_tree({{1, 10}, {3, 30}})}) {
    std::uintptr_t value = 5;
    EXPECT_EQ(ka_rbtree_remove(tree.get(), 2), 0);
    EXPECT_EQ(ka_rbtree_dupremove(tree.get(), 3, 1), 0);
    EXPECT_EQ(ka_rbtree_search(tree.get(), 2, &value), 0);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(ka_rbtree_search(tree.get(), 2, nullptr), 0);
    EXPECT_EQ(ka_rbtree_check(tree.get()), 1);
  }
}

TEST(Rbtree, MinAndMaxGiveTheEndsAndLeaveResultsOfAnEmptyTree) {
  const Tree tree = make_tree({{5, 50}, {2, 20}, {9, 90}, {9, 91}, {2, 21}});
  std::uintptr_t key = 0, value = 0;
  EXPECT_EQ(ka_rbtree_min(tree.get(), &key, &value), 1);
  EXPECT_EQ(Item(key, value), Item(2, 20));
  EXPECT_EQ(ka_rbtree_max(tree.get(), &key, &value), 1);
  EXPECT_EQ(Item(key, value), Item(9, 90));
  EXPECT_EQ(ka_rbtree_max(tree.get(), nullptr, nullptr), 1);
  const Tree empty = make_tree({});
  EXPECT_EQ(ka_rbtree_min(empty.get(), &key, &value), 0);
  EXPECT_EQ(ka_rbtree_max(empty.get(), &key, &value), 0);
  EXPECT_EQ(Item(key, value), Item(9, 90));
}

// 2 and 2^32 + 1 would change places if only 32 bits of a key counted.
TEST(Rbtree, KeysAreAsWideAsAddresses) {
  const std::uintptr_t wide = (std::uintptr_t{1} << 32) + 1;
  const std::uintptr_t widest = ~std::uintptr_t{0};
  const Tree tree = make_tree({{widest, 3}, {wide, 2}, {2, 1}});
  EXPECT_EQ(items_of(tree), (std::vector<Item>{{2, 1}, {wide, 2}, {widest, 3}}));
  EXPECT_EQ(value_of(tree, 1), 0u);
}

TEST(Rbtree, TheCompareFunctionOrdersAndTheCheckDoesNotAskIt) {
  const Tree tree = make_tree({{1, 10}, {2, 20}, {3, 30}}, 0, reverse);
  std::uintptr_t key = 0;
  EXPECT_EQ(ka_rbtree_min(tree.get(), &key, nullptr), 1);
  EXPECT_EQ(key, 3u);
  const auto lines = messages_of([&] { EXPECT_EQ(ka_rbtree_check(tree.get()), 0); });
  EXPECT_EQ(lines, (std::vector<std::string>{"291013 rb tree check failed: left child greater",
                                             "291014 rb tree check failed: right child smaller"}));
}

TEST(Rbtree, DeletingTheItemsLeavesATreeForOthers) {
  const Tree tree = make_tree({{1, 10}, {2, 20}, {2, 21}}, KA_RB_UNIQUE);
  ka_rbtree_delete(tree.get(), KA_RB_KEEP);
  EXPECT_EQ(ka_rbtree_get_nitems(tree.get()), 0u);
  EXPECT_EQ(ka_rbtree_search(tree.get(), 1, nullptr), 0);
  EXPECT_EQ(ka_rbtree_insert(tree.get(), 3, 30), 1);
  EXPECT_EQ(ka_rbtree_insert(tree.get(), 3, 31), 0);
  EXPECT_EQ(items_of(tree), (std::vector<Item>{{3, 30}}));
}

// 4, 2 and 6 make a black root with two red children, which turn black when 7 comes below one.
TEST(Rbtree, DumpShowsDepthColourAndSide) {
  const Tree tree = make_tree({{4, 40}, {2, 20}, {6, 60}, {6, 61}, {7, 70}});
  EXPECT_EQ(
      messages_of([&] { ka_rbtree_dump(tree.get()); }),
      (std::vector<std::string>{"-- key 2, value 20 (black) l", " key 4, value 40 (black) x",
                                "-- key 6, value 60 (black) r", "-- key 6, value 61 (black) dup",
                                "---- key 7, value 70 (red) r"}));
}

// 4 is the root, 2 and 6 are its children and have a second item each.
const std::vector<Item> kSeven = {{4, 4}, {2, 2}, {6, 6},  {1, 1}, {3, 3},
                                  {5, 5}, {7, 7}, {2, 22}, {6, 66}};

struct WalkRow {
  const char* name;
  std::uint32_t mode;
  std::uintptr_t stop_at;  // value for which the function returns `answer`; 1 for all others
  int answer;
  std::vector<std::uintptr_t> shown;  // values
};

class RbtreeWalk : public testing::TestWithParam<WalkRow> {};

TEST_P(RbtreeWalk, ShowsTheseItems) {
  struct Visit {
    const WalkRow& row;
    std::vector<std::uintptr_t> shown;
  } visit{GetParam(), {}};
  const Tree tree = make_tree(kSeven, visit.row.mode);
  const auto note = [](std::uintptr_t, std::uintptr_t value, void* argument) {
    auto& [row, shown] = *static_cast<Visit*>(argument);
    shown.push_back(value);
    return value == row.stop_at ? row.answer : 1;
  };
  ka_rbtree_traverse(tree.get(), note, &visit);
  EXPECT_EQ(visit.shown, visit.row.shown);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RbtreeWalk,
    testing::Values(
        WalkRow{"All", 0, 0, 1, {1, 2, 22, 3, 4, 5, 6, 66, 7}},
        WalkRow{"WithoutDuplicates", KA_RB_SKIP_DUPLICATES, 0, 1, {1, 2, 3, 4, 5, 6, 7}},
        WalkRow{"AStopSkipsTheRightSubtreeOnly", 0, 2, 0, {1, 2, 4, 5, 6, 66, 7}},
        WalkRow{"AnythingButOneStopsAtAFirstItem", 0, 2, 2, {1, 2, 4, 5, 6, 66, 7}},
        WalkRow{"ZeroStopsAtADuplicate", 0, 22, 0, {1, 2, 22, 4, 5, 6, 66, 7}},
        WalkRow{"OtherNumbersDoNotStopAtADuplicate", 0, 22, 2, {1, 2, 22, 3, 4, 5, 6, 66, 7}},
        WalkRow{"AStopAtTheRootLeavesTheLeftSide", 0, 4, 0, {1, 2, 22, 3, 4}}),
    [](const auto& row) { return row.param.name; });

// The root has two children; 5, which takes its place, brings its second item along.
TEST(Rbtree, ARemovedNodeIsReplacedWithAllItemsOfTheNextKey) {
  const Tree tree = make_tree(kSeven);
  ka_rbtree_insert(tree.get(), 5, 55);
  EXPECT_EQ(ka_rbtree_remove(tree.get(), 4), 1);
  EXPECT_EQ(value_of(tree, 5), 5u);
  EXPECT_EQ(value_of(tree, 5, 1), 55u);
  EXPECT_EQ(ka_rbtree_get_nitems(tree.get()), 9u);
  EXPECT_EQ(ka_rbtree_check(tree.get()), 1);
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
    ASSERT_EQ(ka_rbtree_dupremove(tree_.get(), key, index), expected);
  }

  void search(std::uintptr_t key, std::size_t index) const {
    const std::size_t length = model_.count(key);
    const bool expected = index < length;
    std::size_t following = 0;
    const std::uintptr_t value = value_of(tree_, key, index, &following);
    ASSERT_EQ(following, expected ? length - index - 1 : 0);
    ASSERT_EQ(value,
              expected ? std::next(model_.lower_bound(key), std::ptrdiff_t(index))->second : 0);
  }

  void compare() const {
    ASSERT_EQ(ka_rbtree_check(tree_.get()), 1);
    ASSERT_EQ(ka_rbtree_get_nitems(tree_.get()), model_.size());
    ASSERT_EQ(items_of(tree_), std::vector<Item>(model_.begin(), model_.end()));
  }

 private:
  Tree tree_;
  bool unique_;
  std::uintptr_t last_value_ = 0;
  std::multimap<std::uintptr_t, std::uintptr_t> model_;
};

class RbtreeRandom : public testing::TestWithParam<std::tuple<std::uint32_t, std::uintptr_t>> {};

// Phases that mostly insert and phases that mostly remove, so that trees grow, shrink and empty.
TEST_P(RbtreeRandom, AgreesWithAMultimapAfterEveryStep) {
  const auto [mode, keys] = GetParam();
  RbtreePair pair(mode);
  std::mt19937 random(std::uint32_t(keys) + mode);
  for (int step = 0; step < 6000; ++step) {
    const std::uintptr_t key = random() % keys;
    const std::size_t index = random() % 4 == 0 ? random() % 3 : 0;
    const bool grows = step / 500 % 2 == 0;
    if (random() % 4 == 0 ? !grows : grows) {
      pair.insert(key);
    } else {
      pair.remove(key, index);
    }
    pair.search(random() % keys, index);
    pair.compare();
    if (HasFatalFailure()) FAIL() << "at step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, RbtreeRandom,
                         testing::Combine(testing::Values(0u, std::uint32_t{KA_RB_UNIQUE}),
                                          testing::Values(8u, 100u, 1000u)));

}  // namespace
