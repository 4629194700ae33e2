// Red-black tree without parent links: changing operations record the way down from the root, so
// that they can go back up without recursion.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <memory>
#include <new>

#include <ka/detail/owned.h>
#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/rbtree.h>

namespace {

constexpr std::size_t kPathEntries = 64;    // to begin with; enough for 2^31 keys
constexpr std::size_t kLargestDepth = 128;  // more than all the nodes that fit in memory can have

enum class Color : std::uint32_t { kRed = 0, kBlack = 1 };

using Side = std::size_t;  // index of a child
constexpr Side kLeft = 0;  // smaller keys
constexpr Side kRight = 1;

constexpr Side opposite(Side side) { return 1 - side; }

struct Node {
  Color color;
  std::array<Node*, 2> child;
  std::uintptr_t key, value;
  Node* next;  // further items with this key in the order of insertion; they have no color and no
               // children
};

struct DeletePool {
  void operator()(ka_mem_pool* pool) const { ka_mem_blkdelete(pool); }
};

std::int32_t rb_default_key_tag_compare(std::uintptr_t key, std::uintptr_t item_key) {
  return (key > item_key) - (key < item_key);
}

bool is_red(const Node* node) { return node && node->color == Color::kRed; }

}  // namespace

struct ka_rbtree {
  ka_rbtree(ka_rbtree_compare order, std::uint32_t flags)
      : compare(order), pool(ka_mem_blkcreate(sizeof(Node))), mode(flags) {
    path.reserve(kPathEntries);
  }

  Node* root = nullptr;
  std::size_t count = 0;  // items
  ka_rbtree_compare compare;
  // The way of the last change: the links followed, the root's first. The last one leads to the
  // node that was looked for, or is where it belongs.
  ka::vector<Node**> path;
  std::unique_ptr<ka_mem_pool, DeletePool> pool;  // of nodes
  std::uint32_t mode;
};

namespace {

// Most trees have the default order: it is compared here, without a call for every node.
std::int32_t compare(const ka_rbtree& tree, std::uintptr_t key, std::uintptr_t item_key) {
  if (tree.compare == rb_default_key_tag_compare) return rb_default_key_tag_compare(key, item_key);
  return tree.compare(key, item_key);
}

const Node* find(const ka_rbtree& tree, std::uintptr_t key) {
  const Node* node = tree.root;
  while (node) {
    const std::int32_t order = compare(tree, key, node->key);
    if (order == 0) break;
    node = node->child[order > 0 ? kRight : kLeft];
  }
  return node;
}

// Records the way to the node with the key, or to where it belongs. Returns the last link.
Node*& descend(ka_rbtree& tree, std::uintptr_t key) {
  Node** link = &tree.root;
  tree.path.assign(1, link);
  while (Node* const node = *link) {
    const std::int32_t order = compare(tree, key, node->key);
    if (order == 0) break;
    link = &node->child[order > 0 ? kRight : kLeft];
    tree.path.push_back(link);
  }
  return *link;
}

Node* make_node(ka_rbtree& tree, std::uintptr_t key, std::uintptr_t value) {
  ++tree.count;
  return new (ka_mem_blkfallocate(tree.pool.get())) Node{Color::kRed, {}, key, value, nullptr};
}

void release_node(ka_rbtree& tree, Node* node) {
  --tree.count;
  ka_mem_blkfrelease(tree.pool.get(), node);
}

// The node at the link moves down to a side, its child from the other side takes its place.
void rotate(Node*& link, Side side) {
  Node* const down = link;
  Node* const up = down->child[opposite(side)];
  down->child[opposite(side)] = up->child[side];
  up->child[side] = down;
  link = up;
}

Side side_of(const Node* parent, Node* const* link) {
  return link == &parent->child[kRight] ? kRight : kLeft;
}

// The path ends at a new red node, whose parent may be red too.
void restore_after_insertion(ka_rbtree& tree) {
  const auto& path = tree.path;
  // A red parent is not the root and has a parent of its own.
  for (std::size_t i = path.size() - 1; i > 1 && is_red(*path[i - 1]); i -= 2) {
    Node* const parent = *path[i - 1];
    Node*& grandparent = *path[i - 2];
    const Side side = side_of(grandparent, path[i - 1]);
    Node* const uncle = grandparent->child[opposite(side)];
    grandparent->color = Color::kRed;
    if (!is_red(uncle)) {
      if (side_of(parent, path[i]) != side) rotate(*path[i - 1], side);
      rotate(grandparent, opposite(side));
      grandparent->color = Color::kBlack;
      break;
    }
    parent->color = uncle->color = Color::kBlack;
  }
  tree.root->color = Color::kBlack;
}

// The ways through the path's last link have one black node less than all others.
void restore_after_removal(ka_rbtree& tree) {
  auto& path = tree.path;
  std::size_t i = path.size() - 1;
  for (; i > 0 && !is_red(*path[i]); --i) {
    const Side side = side_of(*path[i - 1], path[i]);
    const Side far = opposite(side);
    if (Node* const red = (*path[i - 1])->child[far]; is_red(red)) {
      red->color = Color::kBlack;
      (*path[i - 1])->color = Color::kRed;
      rotate(*path[i - 1], side);
      path[i - 1] = &red->child[side];  // the parent moved down; it is red and ends the way up
    }
    Node*& parent = *path[i - 1];
    Node*& sibling = parent->child[far];
    if (is_red(sibling->child[kLeft]) || is_red(sibling->child[kRight])) {
      if (!is_red(sibling->child[far])) rotate(sibling, far);
      sibling->color = parent->color;
      parent->color = sibling->child[far]->color = Color::kBlack;
      rotate(parent, side);
      return;
    }
    sibling->color = Color::kRed;
  }
  if (Node* const node = *path[i]) node->color = Color::kBlack;
}

// Removes the node at the path's end, which has no further items.
void remove_node(ka_rbtree& tree, Node* node) {
  Node* leaving = node;
  if (node->child[kLeft] && node->child[kRight]) {
    // The next greater key moves into the node with all its items; its own node has a child less.
    for (Node** link = &node->child[kRight]; *link; link = &(*link)->child[kLeft]) {
      tree.path.push_back(link);
    }
    leaving = *tree.path.back();
    node->key = leaving->key;
    node->value = leaving->value;
    node->next = leaving->next;
  }
  *tree.path.back() = leaving->child[leaving->child[kLeft] ? kLeft : kRight];
  if (leaving->color == Color::kBlack) restore_after_removal(tree);
  release_node(tree, leaving);
}

// Removes one of several items with the same key; the tree keeps its shape.
int remove_duplicate(ka_rbtree& tree, Node* node, std::size_t index) {
  Node** link = &node->next;
  for (std::size_t i = 1; i < index && *link; ++i) link = &(*link)->next;
  Node* const item = *link;
  if (!item) return 0;
  if (index == 0) node->value = item->value;
  *link = item->next;
  release_node(tree, item);
  return 1;
}

int outermost(const ka_rbtree* tree, Side side, std::uintptr_t* key, std::uintptr_t* value) {
  const Node* node = tree->root;
  if (!node) return 0;
  while (node->child[side]) node = node->child[side];
  if (key) *key = node->key;
  if (value) *value = node->value;
  return 1;
}

struct Walk {
  ka_rbtree_function function;
  void* argument;
  bool skips_duplicates;

  // Whether to go on to greater keys.
  bool show(const Node* node) const {
    if (function(node->key, node->value, argument) != 1) return false;
    if (skips_duplicates) return true;
    for (const Node* item = node->next; item; item = item->next) {
      if (function(item->key, item->value, argument) == 0) return false;
    }
    return true;
  }

  void run(const Node* node) const {
    for (; node; node = node->child[kRight]) {
      run(node->child[kLeft]);
      if (!show(node)) return;
    }
  }
};

struct Check {
  std::size_t black_height;  // expected: black nodes from the root to where a child is missing
  bool passed = true;

  void check_order(const Node* node) {
    const Node* const left = node->child[kLeft];
    const Node* const right = node->child[kRight];
    if (left && left->key > node->key) {
      ka_nerror(13, "rb tree check failed: left child greater");
      passed = false;
    }
    if (right && right->key < node->key) {
      ka_nerror(14, "rb tree check failed: right child smaller");
      passed = false;
    }
  }

  void run(const Node* node, std::size_t blacks_above) {
    if (!node) return;
    const std::size_t blacks = blacks_above + (is_red(node) ? 0 : 1);
    const Node* const left = node->child[kLeft];
    const Node* const right = node->child[kRight];
    if (is_red(node) && (is_red(left) || is_red(right))) {
      ka_nerror(12, "rb tree check failed: child colors, key %" PRIuPTR, node->key);
      passed = false;
    }
    check_order(node);
    if ((!left || !right) && blacks != black_height) {
      ka_nerror(15, "rb tree check failed: invalid black height %d", int(blacks));
      passed = false;
    }
    run(left, blacks);
    run(right, blacks);
  }
};

std::size_t black_height_at_left(const Node* node) {
  std::size_t height = 0;
  for (; node; node = node->child[node->child[kLeft] ? kLeft : kRight]) {
    if (!is_red(node)) ++height;
  }
  return height;
}

// `mark` says what the node is: "x" the root, "l" a left, "r" a right child.
void dump(const Node* node, std::size_t depth, char mark) {
  static constexpr auto kDashes = [] {
    std::array<char, 2 * kLargestDepth> dashes{};
    dashes.fill('-');
    return dashes;
  }();
  if (!node) return;
  const int indent = int(2 * std::min(depth, kLargestDepth));
  const char* const color = is_red(node) ? "red" : "black";
  dump(node->child[kLeft], depth + 1, 'l');
  ka_debug("%.*s key %" PRIuPTR ", value %" PRIuPTR " (%s) %c", indent, kDashes.data(), node->key,
           node->value, color, mark);
  for (const Node* item = node->next; item; item = item->next) {
    ka_debug("%.*s key %" PRIuPTR ", value %" PRIuPTR " (%s) dup", indent, kDashes.data(),
             item->key, item->value, color);
  }
  dump(node->child[kRight], depth + 1, 'r');
}

}  // namespace

ka_rbtree* ka_rbtree_create(ka_rbtree_compare compare, std::uint32_t mode) {
  const ka::ModuleScope scope(KA_LIB);
  return ka::make_owned<ka_rbtree>(compare ? compare : rb_default_key_tag_compare, mode).release();
}

void ka_rbtree_delete(ka_rbtree* tree, std::uint32_t flags) {
  const ka::ModuleScope scope(KA_LIB);
  if (flags & KA_RB_KEEP) {
    ka_mem_blkclear(tree->pool.get());
    tree->root = nullptr;
    tree->count = 0;
  } else {
    const ka::Owned<ka_rbtree> whole(tree);
  }
}

void ka_rbtree_setmode(ka_rbtree* tree, std::uint32_t mode) { tree->mode = mode; }
std::uint32_t ka_rbtree_getmode(const ka_rbtree* tree) { return tree->mode; }
std::size_t ka_rbtree_get_nitems(const ka_rbtree* tree) { return tree->count; }

int ka_rbtree_insert(ka_rbtree* tree, std::uintptr_t key, std::uintptr_t value) {
  const ka::ModuleScope scope(KA_LIB);
  Node*& place = descend(*tree, key);
  if (!place) {
    place = make_node(*tree, key, value);
    restore_after_insertion(*tree);
    return 1;
  }
  if (tree->mode & KA_RB_UNIQUE) return 0;
  Node** link = &place->next;
  while (*link) link = &(*link)->next;
  *link = make_node(*tree, key, value);
  return 1;
}

int ka_rbtree_search(const ka_rbtree* tree, std::uintptr_t key, std::uintptr_t* value) {
  return ka_rbtree_dupsearch(tree, key, 0, nullptr, value);
}

int ka_rbtree_dupsearch(const ka_rbtree* tree, std::uintptr_t key, std::size_t index,
                        std::size_t* following, std::uintptr_t* value) {
  const ka::ModuleScope scope(KA_LIB);
  if (following) *following = 0;
  if (value) *value = 0;
  const Node* item = find(*tree, key);
  for (; index > 0 && item; --index) item = item->next;
  if (!item) return 0;
  if (value) *value = item->value;
  if (following) {
    while ((item = item->next)) ++*following;
  }
  return 1;
}

int ka_rbtree_remove(ka_rbtree* tree, std::uintptr_t key) {
  return ka_rbtree_dupremove(tree, key, 0);
}

int ka_rbtree_dupremove(ka_rbtree* tree, std::uintptr_t key, std::size_t index) {
  const ka::ModuleScope scope(KA_LIB);
  Node* const node = descend(*tree, key);
  if (!node) return 0;
  if (node->next) return remove_duplicate(*tree, node, index);
  if (index != 0) return 0;
  remove_node(*tree, node);
  return 1;
}

int ka_rbtree_min(const ka_rbtree* tree, std::uintptr_t* key, std::uintptr_t* value) {
  const ka::ModuleScope scope(KA_LIB);
  return outermost(tree, kLeft, key, value);
}

int ka_rbtree_max(const ka_rbtree* tree, std::uintptr_t* key, std::uintptr_t* value) {
  const ka::ModuleScope scope(KA_LIB);
  return outermost(tree, kRight, key, value);
}

void ka_rbtree_traverse(const ka_rbtree* tree, ka_rbtree_function function, void* argument) {
  const ka::ModuleScope scope(KA_LIB);
  Walk{function, argument, (tree->mode & KA_RB_SKIP_DUPLICATES) != 0}.run(tree->root);
}

int ka_rbtree_check(const ka_rbtree* tree) {
  const ka::ModuleScope scope(KA_LIB);
  Check check{black_height_at_left(tree->root)};
  check.run(tree->root, 0);
  return check.passed;
}

void ka_rbtree_dump(const ka_rbtree* tree) {
  const ka::ModuleScope scope(KA_LIB);
  dump(tree->root, 0, 'x');
}
