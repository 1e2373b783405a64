// AVL tree with parent links: every walk is a loop, never a recursion.
#include <pxf/dst.h>
#include <pxf/dst_tree.h>

#include <cstdint>

#include "foundation/alloc.h"

struct DST_TREE_NODE {
    DST_TREE_NODE *left, *right, *parent;
    const void *key;
    void *data;
    int height;  // of the subtree rooted here; a leaf is 1
};

struct DST_TREE {
    DST_TREE_NODE *root;
    DST_TREE_COMPARE compare;
    void *pool;  // freed nodes, reused before the heap
    uint32_t count;
};

namespace {

using Node = DST_TREE_NODE;

inline int order(const DST_TREE *t, const void *a, const void *b) noexcept {
    if (t->compare) return t->compare(a, b);
    auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return x < y ? -1 : x > y;
}

inline int height(const Node *n) noexcept { return n ? n->height : 0; }

inline void update(Node *n) noexcept {
    int l = height(n->left), r = height(n->right);
    n->height = 1 + (l > r ? l : r);
}

// Puts `to` where `from` hangs below its parent (or at the root).
inline void replace_child(DST_TREE *t, Node *parent, Node *from, Node *to) noexcept {
    if (!parent) t->root = to;
    else if (parent->left == from) parent->left = to;
    else parent->right = to;
    if (to) to->parent = parent;
}

Node *rotate_left(DST_TREE *t, Node *x) noexcept {
    Node *y = x->right;
    x->right = y->left;
    if (y->left) y->left->parent = x;
    replace_child(t, x->parent, x, y);
    y->left = x;
    x->parent = y;
    update(x);
    update(y);
    return y;
}

Node *rotate_right(DST_TREE *t, Node *x) noexcept {
    Node *y = x->left;
    x->left = y->right;
    if (y->right) y->right->parent = x;
    replace_child(t, x->parent, x, y);
    y->right = x;
    x->parent = y;
    update(x);
    update(y);
    return y;
}

// Restores the height balance from n up to the root.
void rebalance(DST_TREE *t, Node *n) noexcept {
    while (n) {
        update(n);
        int balance = height(n->left) - height(n->right);
        if (balance > 1) {
            if (height(n->left->left) < height(n->left->right)) rotate_left(t, n->left);
            n = rotate_right(t, n);
        } else if (balance < -1) {
            if (height(n->right->right) < height(n->right->left)) rotate_right(t, n->right);
            n = rotate_left(t, n);
        }
        n = n->parent;
    }
}

Node *find(const DST_TREE *t, const void *key) noexcept {
    Node *n = t ? t->root : nullptr;
    while (n) {
        int c = order(t, key, n->key);
        if (c == 0) return n;
        n = c < 0 ? n->left : n->right;
    }
    return nullptr;
}

Node *leftmost(Node *n) noexcept {
    while (n && n->left) n = n->left;
    return n;
}
Node *rightmost(Node *n) noexcept {
    while (n && n->right) n = n->right;
    return n;
}

}  // namespace

extern "C" {

DST_TREE *DST_tree_new(DST_TREE_COMPARE compare) {
    auto *t = static_cast<DST_TREE *>(pxf::alloc(sizeof(DST_TREE)));
    if (t) *t = DST_TREE{nullptr, compare, nullptr, 0};
    return t;
}

void DST_tree_free(DST_TREE *t) {
    if (!t) return;
    // Post-order through the parent links: free a node once both subtrees are gone.
    Node *n = t->root;
    while (n) {
        if (n->left) n = n->left;
        else if (n->right) n = n->right;
        else {
            Node *p = n->parent;
            if (p) (p->left == n ? p->left : p->right) = nullptr;
            pxf::heap_free(n);
            n = p;
        }
    }
    DST_purge(t->pool);
    pxf::heap_free(t);
}

int DST_tree_insert(DST_TREE *t, const void *key, void *data) {
    if (!t) return -1;
    Node *parent = nullptr, **link = &t->root;
    while (*link) {
        parent = *link;
        int c = order(t, key, parent->key);
        if (c == 0) return 0;
        link = c < 0 ? &parent->left : &parent->right;
    }
    auto *n = static_cast<Node *>(DST_malloc(&t->pool, sizeof(Node)));
    if (!n) return -1;
    *n = Node{nullptr, nullptr, parent, key, data, 1};
    *link = n;
    ++t->count;
    rebalance(t, parent);
    return 1;
}

void *DST_tree_find(const DST_TREE *t, const void *key) {
    Node *n = find(t, key);
    return n ? n->data : nullptr;
}

DST_TREE_NODE *DST_tree_lookup(const DST_TREE *t, const void *key) { return find(t, key); }

int DST_tree_delete(DST_TREE *t, const void *key, void **data) {
    Node *z = find(t, key);
    if (!z) return 0;
    if (data) *data = z->data;
    // A node with two children takes its successor's key and data; the
    // successor, which has no left child, is the one unlinked.
    Node *y = z;
    if (z->left && z->right) {
        y = leftmost(z->right);
        z->key = y->key;
        z->data = y->data;
    }
    Node *child = y->left ? y->left : y->right;
    Node *parent = y->parent;
    replace_child(t, parent, y, child);
    t->pool = DST_free(y, t->pool);
    --t->count;
    rebalance(t, parent);
    return 1;
}

uint32_t DST_tree_count(const DST_TREE *t) { return t ? t->count : 0; }
int DST_tree_height(const DST_TREE *t) { return t ? height(t->root) : 0; }
DST_TREE_NODE *DST_tree_first(const DST_TREE *t) { return t ? leftmost(t->root) : nullptr; }
DST_TREE_NODE *DST_tree_last(const DST_TREE *t) { return t ? rightmost(t->root) : nullptr; }

DST_TREE_NODE *DST_tree_next(const DST_TREE_NODE *n) {
    if (!n) return nullptr;
    if (n->right) return leftmost(n->right);
    while (n->parent && n->parent->right == n) n = n->parent;
    return n->parent;
}

DST_TREE_NODE *DST_tree_prev(const DST_TREE_NODE *n) {
    if (!n) return nullptr;
    if (n->left) return rightmost(n->left);
    while (n->parent && n->parent->left == n) n = n->parent;
    return n->parent;
}

const void *DST_tree_key(const DST_TREE_NODE *n) { return n ? n->key : nullptr; }
void *DST_tree_data(const DST_TREE_NODE *n) { return n ? n->data : nullptr; }
void DST_tree_set_data(DST_TREE_NODE *n, void *data) {
    if (n) n->data = data;
}

int DST_tree_traverse(const DST_TREE *t, DST_TREE_VISIT visit, void *arg) {
    if (!t || !visit) return 0;
    for (Node *n = DST_tree_first(t); n; n = DST_tree_next(n))
        if (!visit(n->key, n->data, arg)) return 0;
    return 1;
}

}  // extern "C"
