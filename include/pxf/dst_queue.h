/*
 * Queues and stacks of pointers, kept on a list with one node per item;
 * nodes come from the queue's own free-list pool and are reused.
 *
 * DST_q_put adds at the back, DST_q_push at the front, and DST_q_get takes
 * from the front: put + get make a first-in first-out queue, push + get a
 * stack.  Items are the caller's; the queue never frees them.
 */
#ifndef PXF_DST_QUEUE_H
#define PXF_DST_QUEUE_H

#include "dst.h"

PXF_BEGIN_DECLS

typedef struct DST_Q {
    DST_LL list; /* nodes, front first */
    void *pool;  /* free nodes for reuse */
} DST_Q;

/* A new empty queue from the heap, or null ("No more internal memory"). */
PXF_API DST_Q *DST_q_new(void);
/* Empties a queue record the caller keeps (no nodes of a previous use are freed). */
PXF_API void DST_q_init(DST_Q *queue);
/* Adds item at the back: 0, or -1 when out of memory (reported). */
PXF_API int DST_q_put(DST_Q *queue, void *item);
/* Adds item at the front: 0, or -1 when out of memory (reported). */
PXF_API int DST_q_push(DST_Q *queue, void *item);
/* Removes and returns the front item; null when the queue is empty (or the item was null). */
PXF_API void *DST_q_get(DST_Q *queue);
/* The front item without removing it; null when empty. */
PXF_API void *DST_q_peek(const DST_Q *queue);
/* The number of items. */
PXF_API uint32_t DST_q_length(const DST_Q *queue);
/* Removes every item and releases every node; the queue stays usable. */
PXF_API void DST_q_clear(DST_Q *queue);
/* DST_q_clear, then frees a queue made by DST_q_new; null is harmless. */
PXF_API void DST_q_free(DST_Q *queue);

PXF_END_DECLS

#endif /* PXF_DST_QUEUE_H */
