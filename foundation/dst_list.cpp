#include <pxf/dst.h>

#include "foundation/alloc.h"

namespace {

// Every element starts with the link to the next one.
struct Link {
    Link *next;
};

Link *as_link(void *element) noexcept { return static_cast<Link *>(element); }

}  // namespace

extern "C" {

DST_LL *DST_ll_new(void) {
    auto *list = static_cast<DST_LL *>(pxf::alloc(sizeof(DST_LL)));
    if (list) DST_ll_init(list);
    return list;
}

DST_LL *DST_ll_new_mem(DST_MEM *region) {
    auto *list = static_cast<DST_LL *>(DST_mem_ptr(region, sizeof(DST_LL)));
    if (list) DST_ll_init(list);
    return list;
}

void DST_ll_init(DST_LL *list) { *list = DST_LL{nullptr, nullptr, nullptr, 0}; }

void DST_ll_free(DST_LL *list) { pxf::heap_free(list); }

void *DST_ll_addt(DST_LL *list, void *element) {
    void *previous = list->tail;
    as_link(element)->next = nullptr;
    if (previous) as_link(previous)->next = as_link(element);
    else list->head = element;
    list->tail = element;
    ++list->count;
    return previous;
}

void *DST_ll_addh(DST_LL *list, void *element) {
    void *previous = list->head;
    as_link(element)->next = as_link(previous);
    list->head = element;
    if (!list->tail) list->tail = element;
    ++list->count;
    return previous;
}

int DST_ll_addo(DST_LL *list, void *element, DST_COMPARE compare, int allow_equal) {
    Link *before = nullptr;
    Link *at = as_link(list->head);
    int result = -1;
    while (at && (result = compare(at, element, 0)) < 0) {
        before = at;
        at = at->next;
    }
    if (!at) {
        DST_ll_addt(list, element);
        return 1;
    }
    if (result == 0 && !allow_equal) return 0;
    // Before the first element not below it: among equal keys the newcomer comes first.
    if (!before) {
        DST_ll_addh(list, element);
        return 1;
    }
    as_link(element)->next = at;
    before->next = as_link(element);
    ++list->count;
    return 1;
}

void *DST_ll_remh(DST_LL *list) {
    Link *head = as_link(list->head);
    if (!head) return nullptr;
    list->head = head->next;
    if (!list->head) list->tail = nullptr;
    if (list->current == head) list->current = head->next;
    head->next = nullptr;
    --list->count;
    return head;
}

void *DST_ll_rem(DST_LL *list, void *element) {
    Link *before = nullptr;
    Link *at = as_link(list->head);
    while (at && at != element) {
        before = at;
        at = at->next;
    }
    if (!at) return nullptr;
    if (before) before->next = at->next;
    else list->head = at->next;
    if (list->tail == at) list->tail = before;
    if (list->current == at) list->current = at->next;
    at->next = nullptr;
    --list->count;
    return at;
}

void *DST_ll_remt(DST_LL *list) { return list->tail ? DST_ll_rem(list, list->tail) : nullptr; }

void *DST_ll_first(DST_LL *list) { return list->head; }
void *DST_ll_last(DST_LL *list) { return list->tail; }
void DST_ll_initl(DST_LL *list) { list->current = list->head; }

void *DST_ll_nextl(DST_LL *list) {
    Link *at = as_link(list->current);
    if (at) list->current = at->next;
    return at;
}

void *DST_ll_getl(DST_LL *list) { return list->current; }
void DST_ll_setl(DST_LL *list, void *element) { list->current = element; }

int DST_ll_traverse(DST_LL *list, DST_VISIT visit, void *data, int stop) {
    if (!list->head) return 0;
    list->current = list->head;
    while (Link *at = as_link(list->current)) {
        Link *next = at->next;
        // With the stop flag the iterator is left on the element that said stop.
        if (visit(at, data) == 0 && stop) return 1;
        list->current = next;
    }
    return 1;
}

void *DST_ll_finddata(DST_LL *list, DST_VISIT visit, void *data) {
    if (!DST_ll_traverse(list, visit, data, 1)) return nullptr;
    return list->current;
}

uint32_t DST_ll_length(DST_LL *list) { return list->count; }

}  // extern "C"
