#include "operators/group_stage.h"

#include <cstring>

#include "foundation/alloc.h"

namespace pxf::ops {
namespace {

void pass_through(const GroupStage &s, int group, void **out, void **in) {
    for (int c = s.counts[group] - 1; c >= 0; --c) std::memcpy(out[c], in[c], s.row_bytes[group]);
}

void restore(PXF_IMAGE_DESC &d, const GroupStage &s) noexcept {
    for (int g = 0; g < 3; ++g) (d.*kGroups[g]).type = s.saved[g].type, (d.*kGroups[g]).width = s.saved[g].bits;
}

}  // namespace

GroupStage *make_group_stage(PXF_IMAGE_DESC &d, const GroupFn chosen[3], const int bits[3], const char *name) noexcept {
    auto *s = static_cast<GroupStage *>(pxf::alloc_zeroed(sizeof(GroupStage)));
    if (!s) return nullptr;
    if (!(s->below = pxf__chan_alloc(&d, row_width(d), name))) {
        pxf::heap_free(s);
        return nullptr;
    }
    s->area = active_area(d);
    s->width = row_width(d);
    for (int g = 0; g < 3; ++g) {
        PXF_CHAN_GROUP &group = d.*kGroups[g];
        s->saved[g] = {group.type, group.width};
        s->counts[g] = group.count > 0 ? group.count : 0;
        s->fn[g] = chosen[g];
        if (chosen[g]) {
            s->from[g] = group.width;
            s->to[g] = bits[g];
            group.type = PXF_C_INTEGER;
            group.width = bits[g];
        } else {
            s->fn[g] = pass_through;
            s->row_bytes[g] = std::size_t(s->width) * element_size(group.type, group.width);
        }
    }
    if (!(s->buffer = pxf__chan_alloc(&d, s->width, name))) {
        restore(d, *s);
        pxf__chan_free(s->below);
        pxf::heap_free(s);
        return nullptr;
    }
    return s;
}

int group_stage_scan(void *data, int line, void ***rows, void **table) {
    auto *s = static_cast<GroupStage *>(data);
    if (!s || !s->head.saved_scan) return missing_record();
    // The caller's rows are in the converted layout: the stage below fills its own.
    void **in = s->below, **out = s->buffer;
    int status = s->head.saved_scan(s->head.saved_private, line, &in, table);
    if (status < 0) return status;
    int at = 0;
    for (int g = 0; g < 3; ++g) {
        if (s->counts[g] > 0) s->fn[g](*s, g, out + at, in + at);
        at += s->counts[g];
    }
    *rows = out;
    return 0;
}

void drop_group_stage(PXF_IMAGE_DESC *d, GroupStage *s) noexcept {
    if (d) restore(*d, *s);
    pxf__chan_free(s->buffer);
    pxf__chan_free(s->below);
    pxf::heap_free(s);
}

}  // namespace pxf::ops
