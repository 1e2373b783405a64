// Shift: integer channel groups from one bit depth to another (16-bit
// scans to 8 bits for viewing).  Narrowing keeps the top bits; widening
// repeats the value's bits below it, so that the top code stays the top code.
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "operators/chain.h"

namespace {

struct Shift;
using GroupFn = void (*)(const Shift &s, int group, void **out, void **in);

struct Shift {
    PXF_OPERATOR head;
    PXF_CHAN_TYPE saved[3];  // image, matte, auxiliary as they were
    pxf::ops::Area area;
    int32_t width;
    int32_t counts[3];
    int32_t from[3], to[3];
    std::size_t row_bytes[3];  // of groups passed through
    GroupFn fn[3];
    void **buffer;
    void **below;  // rows offered to the stage below, in its layout
};

constexpr PXF_CHAN_GROUP PXF_IMAGE_DESC::*kGroups[3] = {&PXF_IMAGE_DESC::chan, &PXF_IMAGE_DESC::matte,
                                                       &PXF_IMAGE_DESC::aux};

inline uint32_t reshift(uint32_t v, int from, int to) {
    uint64_t value = v & ((uint64_t{1} << from) - 1);
    if (to <= from) return uint32_t(value >> (from - to));
    uint64_t out = value << (to - from);
    for (int rest = to - from; rest > 0; rest -= from)
        out |= rest >= from ? value << (rest - from) : value >> (from - rest);
    return uint32_t(out);
}

template <class Src, class Dst>
void convert(const Shift &s, int group, void **out, void **in) {
    const int from = s.from[group], to = s.to[group];
    const std::size_t first = std::size_t(s.area.first_pixel), n = std::size_t(s.area.pixels);
    for (int c = s.counts[group] - 1; c >= 0; --c) {
        auto *o = static_cast<Dst *>(out[c]) + first;
        auto *i = static_cast<const Src *>(in[c]) + first;
        if (from > to && from - to < 32 && sizeof(Src) * 8 == std::size_t(from)) {
            const int k = from - to;  // full-width source: a plain shift, vectorised
            for (std::size_t x = 0; x < n; ++x) o[x] = Dst(i[x] >> k);
        } else {
            for (std::size_t x = 0; x < n; ++x) o[x] = Dst(reshift(i[x], from, to));
        }
    }
}

void pass_through(const Shift &s, int group, void **out, void **in) {
    for (int c = s.counts[group] - 1; c >= 0; --c) std::memcpy(out[c], in[c], s.row_bytes[group]);
}

template <class Src>
GroupFn to_bits(int bits) {
    if (bits <= 8) return convert<Src, uint8_t>;
    if (bits <= 16) return convert<Src, uint16_t>;
    return convert<Src, uint32_t>;
}

GroupFn choose(const PXF_CHAN_GROUP &g, const PXF_CHAN_TYPE &want) {
    if (want.type == 0 || g.count <= 0 || g.type != PXF_C_INTEGER || want.type != PXF_C_INTEGER) return nullptr;
    if (want.bits < 1 || want.bits > 32 || g.width < 1 || g.width > 32 || want.bits == g.width) return nullptr;
    if (g.width <= 8) return to_bits<uint8_t>(want.bits);
    if (g.width <= 16) return to_bits<uint16_t>(want.bits);
    return to_bits<uint32_t>(want.bits);
}

int shift_scan(void *data, int line, void ***rows, void **table) {
    auto *s = static_cast<Shift *>(data);
    if (!s || !s->head.saved_scan) return pxf::ops::missing_record();
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

void restore(PXF_IMAGE_DESC &d, const Shift &s) {
    for (int g = 0; g < 3; ++g) (d.*kGroups[g]).type = s.saved[g].type, (d.*kGroups[g]).width = s.saved[g].bits;
}

}  // namespace

PXF_IMAGE *PXF__shift(PXF_IMAGE *image, const PXF_CHAN_TYPE request[3]) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !request || !image->private_data || image->mode != PXF_MODE_READ) return image;
    GroupFn chosen[3];
    bool any = false;
    for (int g = 0; g < 3; ++g) any |= (chosen[g] = choose(d->*kGroups[g], request[g])) != nullptr;
    if (!any) return image;

    auto *s = static_cast<Shift *>(pxf::alloc_zeroed(sizeof(Shift)));
    if (!s) return image;
    if (!(s->below = pxf__chan_alloc(d, pxf::ops::row_width(*d), "shift"))) {
        pxf::heap_free(s);
        return image;
    }
    s->area = pxf::ops::active_area(*d);
    s->width = pxf::ops::row_width(*d);
    for (int g = 0; g < 3; ++g) {
        PXF_CHAN_GROUP &group = d->*kGroups[g];
        s->saved[g] = {group.type, group.width};
        s->counts[g] = group.count > 0 ? group.count : 0;
        s->fn[g] = chosen[g];
        if (chosen[g]) {
            s->from[g] = group.width;
            s->to[g] = request[g].bits;
            group.width = request[g].bits;
        } else {
            s->fn[g] = pass_through;
            s->row_bytes[g] = std::size_t(s->width) * pxf::ops::element_size(group.type, group.width);
        }
    }
    if (!(s->buffer = pxf__chan_alloc(d, s->width, "shift"))) {
        restore(*d, *s);
        pxf__chan_free(s->below);
        pxf::heap_free(s);
        return image;
    }
    pxf::ops::push(image, &s->head, PXF_OP_SHIFT, shift_scan, pxf::ops::close_hook<PXF__shift_done>);
    return image;
}

int PXF__shift_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__shift_done>(image, PXF_OP_SHIFT)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *s = static_cast<Shift *>(pxf::ops::top_record(image));
    if (PXF_IMAGE_DESC *d = pxf::ops::first_desc(image)) restore(*d, *s);
    pxf::ops::pop(image, &s->head);
    pxf__chan_free(s->buffer);
    pxf__chan_free(s->below);
    pxf::heap_free(s);
    return 1;
}
