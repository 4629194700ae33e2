// Red-black tree: order, items with the same key, walks, and balance after any sequence of changes.
#include <gtest/gtest.h>
#include <ka/rbtree.h>

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
using Items = std::vector<Item>;

Tree make_tree(const Items& items, std::uint32_t mode = 0, ka_rbtree_compare compare = nullptr) {
  Tree tree(ka_rbtree_create(compare, mode));
  for (const auto& [key, value] : items) ka_rbtree_insert(tree.get(), key, value);
  return tree;
}

Items items_of(const Tree& tree) {
  Items items;
  const auto note = [](std::uintptr_t key, std::uintptr_t value, void* list) {
    static_cast<Items*>(list)->emplace_back(key, value);
    return 1;
  };
  ka_rbtree_traverse(tree.get(), note, &items);
  return items;
}

TEST(Rbtree, TheCompareFunctionOrdersAndTheCheckDoesNotAskIt) {
  const auto reverse = [](std::uintptr_t key, std::uintptr_t item_key) {
    return std::int32_t(key < item_key) - std::int32_t(key > item_key);
  };
  const Tree tree = make_tree({{1, 10}, {2, 20}, {3, 30}}, 0, reverse);
  EXPECT_EQ(items_of(tree), (Items{{3, 30}, {2, 20}, {1, 10}}));
  EXPECT_EQ(messages_of([&] { EXPECT_EQ(ka_rbtree_check(tree.get()), 0); }),
            (Texts{"291013 rb tree check failed: left child greater",
                   "291014 rb tree check failed: right child smaller"}));
}

// 4, 2 and 6 make a black root with two red children, which turn black when 7 comes below one.
TEST(Rbtree, DumpShowsDepthColorAndSide) {
  const Tree tree = make_tree({{4, 40}, {2, 20}, {6, 60}, {6, 61}, {7, 70}});
  EXPECT_EQ(messages_of([&] { ka_rbtree_dump(tree.get()); }),
            (Texts{"-- key 2, value 20 (black) l", " key 4, value 40 (black) x",
                   "-- key 6, value 60 (black) r", "-- key 6, value 61 (black) dup",
                   "---- key 7, value 70 (red) r"}));
}

// A walk in which the function returns `answer` for the value `stop_at`, and 1 for all others.
struct Walk {
  std::uintptr_t stop_at;
  std::uint32_t mode;
  int answer;
  std::vector<std::uintptr_t> expected, shown{};  // values
};

// 4 is the root, 2 and 6 are its children and have a second item each.
TEST(Rbtree, AWalkSkipsWhatItIsToldToSkip) {
  Walk walks[] = {{0, KA_RB_SKIP_DUPLICATES, 1, {1, 2, 3, 4, 5, 6, 7}},
                  {2, 0, 0, {1, 2, 4, 5, 6, 66, 7}},  // a stop skips the right subtree only
                  {2, 0, 2, {1, 2, 4, 5, 6, 66, 7}},  // at a first item anything but 1 stops
                  {22, 0, 0, {1, 2, 22, 4, 5, 6, 66, 7}},
                  {22, 0, 2, {1, 2, 22, 3, 4, 5, 6, 66, 7}}};  // at others 0 only
  for (Walk& walk : walks) {
    const Tree tree = make_tree(
        {{4, 4}, {2, 2}, {6, 6}, {1, 1}, {3, 3}, {5, 5}, {7, 7}, {2, 22}, {6, 66}}, walk.mode);
    const auto note = [](std::uintptr_t, std::uintptr_t value, void* argument) {
      auto& [stop_at, mode, answer, expected, shown] = *static_cast<Walk*>(argument);
      shown.push_back(value);
      return value == stop_at ? answer : 1;
    };
    ka_rbtree_traverse(tree.get(), note, &walk);
    EXPECT_EQ(walk.shown, walk.expected) << "stopped at " << walk.stop_at;
  }
}

// Keeps items with the same key in the order of insertion.
using Model = std::multimap<std::uintptr_t, std::uintptr_t>;

void compare(const Tree& tree, const Model& model, std::uintptr_t key, std::size_t index) {
  const std::size_t length = model.count(key);
  const bool expected = index < length;
  const auto first = model.lower_bound(key);
  std::size_t following = length + 1;
  Item found(1, 1);
  ASSERT_EQ(ka_rbtree_dupsearch(tree.get(), key, index, &following, &found.second), expected);
  ASSERT_EQ(following, expected ? length - index - 1 : 0);
  ASSERT_EQ(found.second, expected ? std::next(first, std::ptrdiff_t(index))->second : 0);
  ASSERT_EQ(ka_rbtree_search(tree.get(), key, &found.second), length != 0);
  ASSERT_EQ(found.second, length != 0 ? first->second : 0);
  const Item left = found;  // by an empty tree
  ASSERT_EQ(ka_rbtree_max(tree.get(), &found.first, &found.second), !model.empty());
  ASSERT_EQ(found, model.empty() ? left : Item(*model.lower_bound(model.rbegin()->first)));
  ASSERT_EQ(ka_rbtree_min(tree.get(), &found.first, &found.second), !model.empty());
  ASSERT_EQ(found, model.empty() ? left : Item(*model.begin()));
  ASSERT_EQ(ka_rbtree_check(tree.get()), 1);
  ASSERT_EQ(ka_rbtree_get_nitems(tree.get()), model.size());
  ASSERT_EQ(items_of(tree), Items(model.begin(), model.end()));
}

// Keys that are spread over all bits: 1 is below 2, though its lower half is above.
constexpr std::uintptr_t kSpread = (std::uintptr_t{1} << 54) - 1;

// Phases that mostly insert and phases that mostly remove, so that trees grow, shrink and empty.
// In the first half items are unique.
TEST(Rbtree, AgreesWithAMultimapAfterEveryStep) {
  std::mt19937 random(1);
  for (const std::uintptr_t keys : {8U, 100U, 1000U}) {
    const Tree tree = make_tree({}, KA_RB_UNIQUE);
    Model model;
    for (std::uintptr_t step = 1; step <= 12000 && !HasFatalFailure(); ++step) {
      const std::uintptr_t key = random() % keys * kSpread;
      const std::size_t index = random() % 4 == 0 ? random() % 3 : 0, length = model.count(key);
      if ((step / 500 % 2 == 0) == (random() % 4 != 0)) {
        const bool is_added = ka_rbtree_getmode(tree.get()) == 0 || length == 0;
        if (is_added) model.emplace(key, step);
        ASSERT_EQ(ka_rbtree_insert(tree.get(), key, step), is_added);
      } else {
        if (index < length) model.erase(std::next(model.lower_bound(key), std::ptrdiff_t(index)));
        ASSERT_EQ(index == 0 ? ka_rbtree_remove(tree.get(), key)
                             : ka_rbtree_dupremove(tree.get(), key, index),
                  index < length);
      }
      if (step == 6000) {
        ka_rbtree_delete(tree.get(), KA_RB_KEEP);
        model.clear();
        ka_rbtree_setmode(tree.get(), 0);
      }
      compare(tree, model, random() % keys * kSpread, index);
    }
  }
}

}  // namespace
