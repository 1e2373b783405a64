// Operators that give each channel group's rows another element type or
// depth (quantize: float to integers; shift: integers to other depths):
// the record, the scan, the install and the remove they share.  Each
// operator supplies a conversion per group; groups without one pass
// through unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

#include <pxf/pxf.h>

#include "operators/chain.h"

namespace pxf::ops {

struct GroupStage;
// Converts the rows of one group (first row of each side) for the span.
using GroupFn = void (*)(const GroupStage &s, int group, void **out, void **in);

struct GroupStage {
    PXF_OPERATOR head;
    PXF_CHAN_TYPE saved[3];  // image, matte, auxiliary as they were
    Area area;
    int32_t width;
    int32_t counts[3];
    int32_t from[3], to[3];    // bit depths of converted groups, before and after
    std::size_t row_bytes[3];  // of groups passed through
    GroupFn fn[3];
    void **buffer;
    void **below;  // rows offered to the stage below, in its layout
};

inline constexpr PXF_CHAN_GROUP PXF_IMAGE_DESC::*kGroups[3] = {&PXF_IMAGE_DESC::chan, &PXF_IMAGE_DESC::matte,
                                                              &PXF_IMAGE_DESC::aux};

// A stage for `d` in which the groups with a function in `chosen` become
// integers of `bits[g]` bits; `d` describes them so.  Null when memory
// fails, with `d` as it was.
GroupStage *make_group_stage(PXF_IMAGE_DESC &d, const GroupFn chosen[3], const int bits[3], const char *name) noexcept;

int group_stage_scan(void *data, int line, void ***rows, void **table);

// Gives the description back its groups as they were, and frees the stage.
void drop_group_stage(PXF_IMAGE_DESC *d, GroupStage *s) noexcept;

// Installs the stage on the image (nothing when memory fails); `name`
// labels its buffers.
template <int (*Remove)(PXF_IMAGE *)>
PXF_IMAGE *push_group_stage(PXF_IMAGE *image, PXF_IMAGE_DESC &d, const GroupFn chosen[3], const int bits[3], int tag,
                            const char *name) noexcept {
    if (GroupStage *s = make_group_stage(d, chosen, bits, name))
        push(image, &s->head, tag, group_stage_scan, close_hook<Remove>);
    return image;
}

// The remove function's body: 1 when the stage was on top and is gone (or
// there was nothing to remove), 0 when another record is on top.
template <int (*Remove)(PXF_IMAGE *)>
int remove_group_stage(PXF_IMAGE *image, int tag) noexcept {
    switch (check_top<Remove>(image, tag)) {
        case Top::empty: return 1;
        case Top::other: return 0;
        case Top::mine: break;
    }
    auto *s = static_cast<GroupStage *>(top_record(image));
    pop(image, &s->head);
    drop_group_stage(first_desc(image), s);
    return 1;
}

}  // namespace pxf::ops
