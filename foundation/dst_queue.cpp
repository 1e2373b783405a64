#include <pxf/dst_queue.h>

#include "foundation/alloc.h"

namespace {

// A list element: the link first, as the list wants it.
struct Node {
    Node *next;
    void *item;
};

int add(DST_Q *q, void *item, bool front) noexcept {
    if (!q) return -1;
    auto *node = static_cast<Node *>(DST_malloc(&q->pool, sizeof(Node)));
    if (!node) return -1;
    node->next = nullptr;
    node->item = item;
    if (front) DST_ll_addh(&q->list, node);
    else DST_ll_addt(&q->list, node);
    return 0;
}

}  // namespace

extern "C" {

DST_Q *DST_q_new(void) {
    auto *q = static_cast<DST_Q *>(pxf::alloc(sizeof(DST_Q)));
    if (q) DST_q_init(q);
    return q;
}

void DST_q_init(DST_Q *q) {
    if (!q) return;
    DST_ll_init(&q->list);
    q->pool = nullptr;
}

int DST_q_put(DST_Q *q, void *item) { return add(q, item, false); }
int DST_q_push(DST_Q *q, void *item) { return add(q, item, true); }

void *DST_q_get(DST_Q *q) {
    if (!q) return nullptr;
    auto *node = static_cast<Node *>(DST_ll_remh(&q->list));
    if (!node) return nullptr;
    void *item = node->item;
    q->pool = DST_free(node, q->pool);
    return item;
}

void *DST_q_peek(const DST_Q *q) {
    auto *node = q ? static_cast<const Node *>(q->list.head) : nullptr;
    return node ? node->item : nullptr;
}

uint32_t DST_q_length(const DST_Q *q) { return q ? q->list.count : 0; }

void DST_q_clear(DST_Q *q) {
    if (!q) return;
    while (void *node = DST_ll_remh(&q->list)) q->pool = DST_free(node, q->pool);
    DST_purge(q->pool);
    q->pool = nullptr;
}

void DST_q_free(DST_Q *q) {
    DST_q_clear(q);
    pxf::heap_free(q);
}

}  // extern "C"
