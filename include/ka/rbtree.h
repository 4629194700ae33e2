/* Red-black tree: an ordered map from words to words. A word is wide enough for an address, so that
 * records are found by tag, by number or by where they lie. */
#pragma once

#include <ka/base.h>

KA_BEGIN_DECLS

/* A tree takes no lock, not even for searching: whoever shares one holds a lock of his own. */
typedef struct ka_rbtree ka_rbtree;

/* Bits of a tree's mode. */
enum ka_rbtree_mode {
  KA_RB_UNIQUE = 1,         /* a key is there once: inserting it again is refused */
  KA_RB_SKIP_DUPLICATES = 2 /* ka_rbtree_traverse shows only the first item of each key */
};

/* Flag of ka_rbtree_delete. */
enum { KA_RB_KEEP = 1 };

/* Compares a key with the key of an item: negative when it comes before, 0 when they are equal,
 * positive when it comes after. Must give the same answer for the same keys as long as the tree
 * lives. */
typedef int32_t (*ka_rbtree_compare)(uintptr_t key, uintptr_t item_key);

/* Makes an empty tree. Without a function, keys are ordered as unsigned numbers.
 *   Returns  never null.
 *   Memory   the caller's, released with ka_rbtree_delete. */
ka_rbtree* ka_rbtree_create(ka_rbtree_compare compare, uint32_t mode);

/* Releases the tree and all items; with KA_RB_KEEP in `flags` the items only, and the empty tree
 * keeps the memory for the next ones. What values point to is the caller's. */
void ka_rbtree_delete(ka_rbtree* tree, uint32_t flags);

/* A new mode holds for later calls; items that are in the tree stay as they are. */
void ka_rbtree_setmode(ka_rbtree* tree, uint32_t mode);
uint32_t ka_rbtree_getmode(const ka_rbtree* tree);

/* The number of items; items with the same key count one each. */
size_t ka_rbtree_get_nitems(const ka_rbtree* tree);

/* Adds an item, after those that have the same key already.
 *   Returns  1; 0 when the key is there and the mode has KA_RB_UNIQUE: nothing changes.
 *   Cost     grows with the logarithm of the number of keys, and with the number of items that have
 *            this key. */
int ka_rbtree_insert(ka_rbtree* tree, uintptr_t key, uintptr_t value);

/* Finds the first item with the key.
 *   Returns  1 and its value, or 0 and the value 0. `value` may be null. */
int ka_rbtree_search(const ka_rbtree* tree, uintptr_t key, uintptr_t* value);

/* Finds an item among those with the same key, in the order in which they were inserted.
 *   index      0: the first one.
 *   following  receives how many of them come after the item; may be null, as `value` may.
 *   Returns    1, or 0 and both results 0. */
int ka_rbtree_dupsearch(const ka_rbtree* tree, uintptr_t key, size_t index, size_t* following,
                        uintptr_t* value);

/* Removes the first item with the key; those after it move up.
 *   Returns  1, or 0 when there is none. */
int ka_rbtree_remove(ka_rbtree* tree, uintptr_t key);
/* Removes the item that ka_rbtree_dupsearch finds with the same arguments. */
int ka_rbtree_dupremove(ka_rbtree* tree, uintptr_t key, size_t index);

/* The smallest and the greatest key, with the value of its first item. Either address may be null.
 *   Returns  1; 0 for an empty tree: both are left as they are. */
int ka_rbtree_min(const ka_rbtree* tree, uintptr_t* key, uintptr_t* value);
int ka_rbtree_max(const ka_rbtree* tree, uintptr_t* key, uintptr_t* value);

/* Shown every item in the order of the keys. For the first item of a key it returns 1 to go on;
 * anything else skips the other items of the key and a subtree of greater keys. For the other items
 * 0 skips in the same way. Neither ends the walk. It must not change the tree. */
typedef int (*ka_rbtree_function)(uintptr_t key, uintptr_t value, void* argument);
void ka_rbtree_traverse(const ka_rbtree* tree, ka_rbtree_function function, void* argument);

/* Looks for faults: two red nodes in line, unequal numbers of black nodes on the ways down, keys
 * that are out of order as unsigned numbers, whatever the compare function says.
 *   Returns  1, or 0 after an error message for each fault. */
int ka_rbtree_check(const ka_rbtree* tree);

/* Prints the items as debug messages, indented by the depth of their nodes. */
void ka_rbtree_dump(const ka_rbtree* tree);

KA_END_DECLS
