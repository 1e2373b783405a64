#include <pxf/rct.h>

#include <algorithm>
#include <array>

#include "foundation/alloc.h"

namespace {

// The middle two of four values: the overlap of two closed intervals.
void middle_two(int32_t a0, int32_t a1, int32_t b0, int32_t b1, int32_t &lo, int32_t &hi) {
    std::array<int32_t, 4> v{a0, a1, b0, b1};
    std::sort(v.begin(), v.end());
    lo = v[1];
    hi = v[2];
}

bool disjoint(const RCT_RECT &a, const RCT_RECT &b) {
    return a.xmin > b.xmax || a.xmax < b.xmin || a.ymax < b.ymin || a.ymin > b.ymax;
}

}  // namespace

extern "C" {

RCT_RECT *RCT_create(void) {
    auto *rect = static_cast<RCT_RECT *>(pxf::alloc(sizeof(RCT_RECT)));
    if (rect) *rect = RCT_RECT{0, 0, 0, 0};
    return rect;
}

void RCT_delete(RCT_RECT *rect) { pxf::heap_free(rect); }

void RCT_set(RCT_RECT *rect, int32_t xmin, int32_t ymin, int32_t xmax, int32_t ymax) {
    *rect = RCT_RECT{xmin, ymin, xmax, ymax};
}

int RCT_valid(const RCT_RECT *rect) { return rect->xmax >= rect->xmin && rect->ymax >= rect->ymin; }

// Kept as it has always been: dx narrows, dy grows.
void RCT_inset(RCT_RECT *rect, int32_t dx, int32_t dy) {
    rect->xmin += dx;
    rect->xmax -= dx;
    rect->ymin -= dy;
    rect->ymax += dy;
    if (rect->xmin > rect->xmax) std::swap(rect->xmin, rect->xmax);
    if (rect->ymin > rect->ymax) std::swap(rect->ymin, rect->ymax);
}

void RCT_offset(RCT_RECT *rect, int32_t dx, int32_t dy) {
    rect->xmin += dx;
    rect->xmax += dx;
    rect->ymin += dy;
    rect->ymax += dy;
}

void RCT_position(RCT_RECT *rect, int32_t x, int32_t y) {
    RCT_offset(rect, x - rect->xmin, y - rect->ymin);
}

int RCT_point_inside(const RCT_RECT *rect, int32_t x, int32_t y) {
    return rect->xmin <= x && x <= rect->xmax && rect->ymin <= y && y <= rect->ymax;
}

int RCT_rect_inside(const RCT_RECT *outer, const RCT_RECT *inner) {
    return inner->xmin >= outer->xmin && inner->xmax <= outer->xmax && inner->ymin >= outer->ymin &&
           inner->ymax <= outer->ymax;
}

int RCT_equal(const RCT_RECT *a, const RCT_RECT *b) {
    return a->xmax - a->xmin == b->xmax - b->xmin && a->ymax - a->ymin == b->ymax - b->ymin;
}

int RCT_same(const RCT_RECT *a, const RCT_RECT *b) {
    return a->xmin == b->xmin && a->ymin == b->ymin && a->xmax == b->xmax && a->ymax == b->ymax;
}

int RCT_intersect(const RCT_RECT *a, const RCT_RECT *b, RCT_RECT *out) {
    if (disjoint(*a, *b)) return 0;
    middle_two(a->xmin, a->xmax, b->xmin, b->xmax, out->xmin, out->xmax);
    middle_two(a->ymin, a->ymax, b->ymin, b->ymax, out->ymin, out->ymax);
    return 1;
}

int RCT_divide(const RCT_RECT *outer, const RCT_RECT *inner, int *count, RCT_RECT *out) {
    *count = 0;
    if (RCT_same(outer, inner) || !RCT_rect_inside(outer, inner)) return 0;
    int n = 0;
    if (outer->xmin < inner->xmin) out[n++] = {outer->xmin, outer->ymin, inner->xmin - 1, outer->ymax};
    if (outer->xmax > inner->xmax) out[n++] = {inner->xmax + 1, outer->ymin, outer->xmax, outer->ymax};
    if (outer->ymin < inner->ymin) out[n++] = {inner->xmin, outer->ymin, inner->xmax, inner->ymin - 1};
    if (outer->ymax > inner->ymax) out[n++] = {inner->xmin, inner->ymax + 1, inner->xmax, outer->ymax};
    *count = n;
    return 1;
}

int RCT_union(const RCT_RECT *a, const RCT_RECT *b, int *count, RCT_RECT *out) {
    if (RCT_same(a, b) || RCT_rect_inside(a, b)) {
        out[0] = *a;
        *count = 1;
        return 1;
    }
    if (RCT_rect_inside(b, a)) {
        out[0] = *b;
        *count = 1;
        return 1;
    }
    RCT_RECT overlap;
    if (RCT_intersect(a, b, &overlap)) {
        out[0] = *a;
        int strips = 0;
        int ok = RCT_divide(b, &overlap, &strips, out + 1);
        *count = 1 + strips;
        return ok;
    }
    bool same_columns = a->xmin == b->xmin && a->xmax == b->xmax;
    bool same_rows = a->ymin == b->ymin && a->ymax == b->ymax;
    if (same_columns && (a->ymax == b->ymin - 1 || a->ymin == b->ymax + 1)) {
        out[0] = {a->xmin, std::min(a->ymin, b->ymin), a->xmax, std::max(a->ymax, b->ymax)};
        *count = 1;
        return 1;
    }
    if (same_rows && (a->xmax == b->xmin - 1 || b->xmax == a->xmin - 1)) {
        out[0] = {std::min(a->xmin, b->xmin), a->ymin, std::max(a->xmax, b->xmax), a->ymax};
        *count = 1;
        return 1;
    }
    out[0] = *a;
    out[1] = *b;
    *count = 2;
    return 1;
}

int RCT_difference(const RCT_RECT *a, const RCT_RECT *b, int *count, RCT_RECT *out) {
    *count = 0;
    if (RCT_same(a, b)) return 0;
    RCT_RECT overlap;
    if (!RCT_intersect(a, b, &overlap)) {
        out[0] = *a;
        out[1] = *b;
        *count = 2;
        return 1;
    }
    bool a_is_overlap = RCT_same(a, &overlap);
    bool b_is_overlap = RCT_same(b, &overlap);
    int first = 0, second = 0;
    if (!a_is_overlap && !RCT_divide(a, &overlap, &first, out)) return 0;
    if (!b_is_overlap && !RCT_divide(b, &overlap, &second, out + first)) return 0;
    *count = first + second;
    return 1;
}

}  // extern "C"
