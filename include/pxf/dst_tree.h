/*
 * Ordered trees: keys kept in the order of a comparison function, with
 * insert, find and delete in O(log n) time in the worst case (the tree stays
 * height-balanced), and ordered traversal.  Nothing is recursive, whatever
 * the number of keys.
 *
 * Keys and data are the caller's pointers; the tree neither copies nor frees
 * them, so a key must stay valid and unchanged while it is in the tree.
 * Nodes come from the tree's own free-list pool.  Deleting a key invalidates
 * every node pointer held at that time.
 */
#ifndef PXF_DST_TREE_H
#define PXF_DST_TREE_H

#include "common.h"

PXF_BEGIN_DECLS

typedef struct DST_TREE DST_TREE;
typedef struct DST_TREE_NODE DST_TREE_NODE;

/* Orders two keys: negative, zero or positive, like strcmp. */
typedef int (*DST_TREE_COMPARE)(const void *a, const void *b);
/* Traversal callback: key, data and the caller's argument; 0 stops the walk. */
typedef int (*DST_TREE_VISIT)(const void *key, void *data, void *arg);

/* A new empty tree ordered by compare; a null compare orders the key
 * pointers themselves as unsigned integers (keys may then be integers cast
 * to pointers).  Null when out of memory (reported). */
PXF_API DST_TREE *DST_tree_new(DST_TREE_COMPARE compare);
/* Frees the tree and its nodes (not the keys or data); null is harmless. */
PXF_API void DST_tree_free(DST_TREE *tree);
/* Inserts key with data: 1 when inserted, 0 when an equal key is present
 * (nothing changes), -1 when out of memory (reported). */
PXF_API int DST_tree_insert(DST_TREE *tree, const void *key, void *data);
/* The data of key, or null when it is absent. */
PXF_API void *DST_tree_find(const DST_TREE *tree, const void *key);
/* The node of key, or null when it is absent. */
PXF_API DST_TREE_NODE *DST_tree_lookup(const DST_TREE *tree, const void *key);
/* Removes key: 1 when it was present (its data in *data when data is not
 * null), 0 when absent. */
PXF_API int DST_tree_delete(DST_TREE *tree, const void *key, void **data);
/* The number of keys. */
PXF_API uint32_t DST_tree_count(const DST_TREE *tree);
/* The number of levels (0 when empty); at most 1.44 log2(count + 2). */
PXF_API int DST_tree_height(const DST_TREE *tree);
/* The node of the smallest or largest key; null when empty. */
PXF_API DST_TREE_NODE *DST_tree_first(const DST_TREE *tree);
PXF_API DST_TREE_NODE *DST_tree_last(const DST_TREE *tree);
/* The node with the next larger or smaller key; null at the end. */
PXF_API DST_TREE_NODE *DST_tree_next(const DST_TREE_NODE *node);
PXF_API DST_TREE_NODE *DST_tree_prev(const DST_TREE_NODE *node);
/* A node's key and data. */
PXF_API const void *DST_tree_key(const DST_TREE_NODE *node);
PXF_API void *DST_tree_data(const DST_TREE_NODE *node);
/* Replaces a node's data. */
PXF_API void DST_tree_set_data(DST_TREE_NODE *node, void *data);
/* Calls visit on every key in ascending order until it returns 0: 1 when
 * every key was visited, 0 when the walk stopped early.  The callback must
 * not change the tree. */
PXF_API int DST_tree_traverse(const DST_TREE *tree, DST_TREE_VISIT visit, void *arg);

PXF_END_DECLS

#endif /* PXF_DST_TREE_H */
