/*
 * Integer rectangles with inclusive bounds.  RCT_divide writes up to 4
 * rectangles, RCT_union up to 5 and RCT_difference up to 8.
 */
#ifndef PXF_RCT_H
#define PXF_RCT_H

#include "common.h"

PXF_BEGIN_DECLS

typedef struct RCT_RECT {
    int32_t xmin;
    int32_t ymin;
    int32_t xmax;
    int32_t ymax;
} RCT_RECT;

#define RCT_DIVIDE_MAX 4
#define RCT_UNION_MAX 5
#define RCT_DIFFERENCE_MAX 8

PXF_API RCT_RECT *RCT_create(void);
PXF_API void RCT_delete(RCT_RECT *rect);
PXF_API void RCT_set(RCT_RECT *rect, int32_t xmin, int32_t ymin, int32_t xmax, int32_t ymax);
PXF_API int RCT_valid(const RCT_RECT *rect);
/* Positive dx narrows the rectangle; positive dy makes it taller. */
PXF_API void RCT_inset(RCT_RECT *rect, int32_t dx, int32_t dy);
PXF_API void RCT_offset(RCT_RECT *rect, int32_t dx, int32_t dy);
PXF_API void RCT_position(RCT_RECT *rect, int32_t x, int32_t y);
PXF_API int RCT_point_inside(const RCT_RECT *rect, int32_t x, int32_t y);
PXF_API int RCT_rect_inside(const RCT_RECT *outer, const RCT_RECT *inner);
PXF_API int RCT_equal(const RCT_RECT *a, const RCT_RECT *b);
PXF_API int RCT_same(const RCT_RECT *a, const RCT_RECT *b);
PXF_API int RCT_intersect(const RCT_RECT *a, const RCT_RECT *b, RCT_RECT *out);
PXF_API int RCT_divide(const RCT_RECT *outer, const RCT_RECT *inner, int *count, RCT_RECT *out);
PXF_API int RCT_union(const RCT_RECT *a, const RCT_RECT *b, int *count, RCT_RECT *out);
PXF_API int RCT_difference(const RCT_RECT *a, const RCT_RECT *b, int *count, RCT_RECT *out);

PXF_END_DECLS

#endif /* PXF_RCT_H */
