/*
 * Linked lists with one built-in iterator, free-list pools and regions.
 *
 * A list element is any record whose first member is the link to the next
 * element.  The list never allocates or frees elements.
 */
#ifndef PXF_DST_H
#define PXF_DST_H

#include "common.h"

PXF_BEGIN_DECLS

typedef struct DST_LL {
    void *head;
    void *tail;
    void *current; /* the iterator */
    uint32_t count;
} DST_LL;

/* Region: many small blocks carved from large chunks, freed all at once. */
typedef struct DST_MEM {
    void *chunks;   /* each chunk's first word links to the previous chunk */
    char *next;     /* next free address in the current chunk */
    uint32_t chunk_size;
    uint32_t left;  /* bytes left in the current chunk */
} DST_MEM;

/* Called as compare(existing, new, 0): negative, zero or positive. */
typedef int (*DST_COMPARE)(void *existing, void *element, int unused);
/* Traversal callback; with the stop flag a 0 result stops the walk. */
typedef int (*DST_VISIT)(void *element, void *data);

PXF_API DST_LL *DST_ll_new(void);
PXF_API DST_LL *DST_ll_new_mem(DST_MEM *region);
PXF_API void DST_ll_init(DST_LL *list);
PXF_API void DST_ll_free(DST_LL *list);
PXF_API void *DST_ll_addt(DST_LL *list, void *element);
PXF_API void *DST_ll_addh(DST_LL *list, void *element);
/* 1 when inserted, 0 when refused because an equal key is present and allow_equal is 0. */
PXF_API int DST_ll_addo(DST_LL *list, void *element, DST_COMPARE compare, int allow_equal);
PXF_API void *DST_ll_remh(DST_LL *list);
PXF_API void *DST_ll_remt(DST_LL *list);
PXF_API void *DST_ll_rem(DST_LL *list, void *element);
PXF_API void *DST_ll_first(DST_LL *list);
PXF_API void *DST_ll_last(DST_LL *list);
PXF_API void DST_ll_initl(DST_LL *list);
PXF_API void *DST_ll_nextl(DST_LL *list);
PXF_API void *DST_ll_getl(DST_LL *list);
PXF_API void DST_ll_setl(DST_LL *list, void *element);
PXF_API int DST_ll_traverse(DST_LL *list, DST_VISIT visit, void *data, int stop);
PXF_API void *DST_ll_finddata(DST_LL *list, DST_VISIT visit, void *data);
PXF_API uint32_t DST_ll_length(DST_LL *list);

/* Free-list pool: *pool is the head of a chain of free blocks. */
PXF_API void *DST_malloc(void **pool, uint32_t size);
PXF_API void *DST_free(void *block, void *pool);
PXF_API int DST_purge(void *pool);

/* Regions return null when the heap is exhausted. */
PXF_API DST_MEM *DST_mem_init(uint32_t chunk_size);
PXF_API void *DST_mem_ptr(DST_MEM *region, uint32_t size);
PXF_API char *DST_mem_str_ptr(DST_MEM *region, const char *string);
PXF_API void DST_mem_free(DST_MEM *region);

PXF_END_DECLS

#endif /* PXF_DST_H */
