// Quantize operator: float channels become integers of a requested depth.
// No clipping: values are expected in 0..1 already.
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "operators/chain.h"
#include "operators/kernels.h"

namespace {

struct Quantize;
// Converts the rows of one group (first row of each side) for the span.
using GroupFn = void (*)(const Quantize &q, int group, void **out, void **in);

struct Quantize {
    PXF_OPERATOR head;
    PXF_CHAN_TYPE saved[3];  // image, matte, auxiliary as they were
    pxf::ops::Area area;
    int32_t width;
    int32_t counts[3];
    int32_t bits[3];         // requested depth of converted groups
    std::size_t row_bytes[3];  // of groups passed through
    GroupFn fn[3];
    void **buffer;
    void **below;  // rows offered to the stage below, in its layout
};

constexpr PXF_CHAN_GROUP PXF_IMAGE_DESC::*kGroups[3] = {&PXF_IMAGE_DESC::chan, &PXF_IMAGE_DESC::matte,
                                                       &PXF_IMAGE_DESC::aux};

template <class Src, class Dst>
void convert(const Quantize &q, int group, void **out, void **in) {
    float factor = pxf::ops::quantize_factor(q.bits[group]);
    std::size_t first = std::size_t(q.area.first_pixel), n = std::size_t(q.area.pixels);
    for (int c = q.counts[group] - 1; c >= 0; --c) {
        auto *to = static_cast<Dst *>(out[c]) + first;
        auto *from = static_cast<const Src *>(in[c]) + first;
        if constexpr (sizeof(Src) == sizeof(float)) {
            pxf::ops::quantize_row(to, from, n, factor);
        } else {
            for (std::size_t i = 0; i < n; ++i) to[i] = pxf::ops::quantize_value<Dst>(static_cast<float>(from[i]), factor);
        }
    }
}

void pass_through(const Quantize &q, int group, void **out, void **in) {
    for (int c = q.counts[group] - 1; c >= 0; --c) std::memcpy(out[c], in[c], q.row_bytes[group]);
}

template <class Src>
GroupFn by_bits(int bits) {
    if (bits <= 8) return convert<Src, uint8_t>;
    if (bits <= 16) return convert<Src, uint16_t>;
    return convert<Src, uint32_t>;
}

// The conversion for one group, or none: float groups with channels asked
// for integers of 1 to 32 bits.
GroupFn choose(const PXF_CHAN_GROUP &g, const PXF_CHAN_TYPE &want) {
    if (want.type == 0 || want.type == g.type || g.count <= 0) return nullptr;
    if (want.type != PXF_C_INTEGER || want.bits < 1 || want.bits > 32) return nullptr;
    if (g.type == PXF_C_FLOAT) return by_bits<float>(want.bits);
    if (g.type == PXF_C_DOUBLE) return by_bits<double>(want.bits);
    return nullptr;
}

int quantize_scan(void *data, int line, void ***rows, void **table) {
    auto *q = static_cast<Quantize *>(data);
    if (!q || !q->head.saved_scan) return pxf::ops::missing_record();
    // The caller's rows are in the narrower layout: the stage below fills its own.
    void **in = q->below, **out = q->buffer;
    int status = q->head.saved_scan(q->head.saved_private, line, &in, table);
    if (status < 0) return status;
    int at = 0;
    for (int g = 0; g < 3; ++g) {
        if (q->counts[g] > 0) q->fn[g](*q, g, out + at, in + at);
        at += q->counts[g];
    }
    *rows = out;
    return 0;
}

}  // namespace

PXF_IMAGE *PXF__quantize(PXF_IMAGE *image, const PXF_CHAN_TYPE request[3]) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !request || !image->private_data) return image;
    // Write handles are not converted: the routines turn what is read.
    if (image->mode != PXF_MODE_READ) return image;
    if (d->chan.type == PXF_C_INTEGER && d->matte.type == PXF_C_INTEGER && d->aux.type == PXF_C_INTEGER) return image;
    if (!pxf::ops::float_model_flag(image->info)) return image;
    GroupFn chosen[3];
    bool any = false;
    for (int g = 0; g < 3; ++g) any |= (chosen[g] = choose(d->*kGroups[g], request[g])) != nullptr;
    if (!any) return image;

    auto *q = static_cast<Quantize *>(pxf::alloc_zeroed(sizeof(Quantize)));
    if (!q) return image;
    if (!(q->below = pxf__chan_alloc(d, pxf::ops::row_width(*d), pxf::ops::operator_name(PXF_OP_QUANTIZE)))) {
        pxf::heap_free(q);
        return image;
    }
    q->area = pxf::ops::active_area(*d);
    q->width = pxf::ops::row_width(*d);
    for (int g = 0; g < 3; ++g) {
        PXF_CHAN_GROUP &group = d->*kGroups[g];
        q->saved[g] = {group.type, group.width};
        q->counts[g] = group.count > 0 ? group.count : 0;
        q->fn[g] = chosen[g];
        if (chosen[g]) {
            q->bits[g] = request[g].bits;
            group.type = PXF_C_INTEGER;
            group.width = request[g].bits;
        } else {
            q->fn[g] = pass_through;
            q->row_bytes[g] = std::size_t(q->width) * pxf::ops::element_size(group.type, group.width);
        }
    }
    if (!(q->buffer = pxf__chan_alloc(d, q->width, pxf::ops::operator_name(PXF_OP_QUANTIZE)))) {
        for (int g = 0; g < 3; ++g) (d->*kGroups[g]).type = q->saved[g].type, (d->*kGroups[g]).width = q->saved[g].bits;
        pxf__chan_free(q->below);
        pxf::heap_free(q);
        return image;
    }
    pxf::ops::push(image, &q->head, PXF_OP_QUANTIZE, quantize_scan, pxf::ops::close_hook<PXF__quantize_done>);
    return image;
}

int PXF__quantize_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__quantize_done>(image, PXF_OP_QUANTIZE)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *q = static_cast<Quantize *>(pxf::ops::top_record(image));
    if (PXF_IMAGE_DESC *d = pxf::ops::first_desc(image))
        for (int g = 0; g < 3; ++g) (d->*kGroups[g]).type = q->saved[g].type, (d->*kGroups[g]).width = q->saved[g].bits;
    pxf::ops::pop(image, &q->head);
    pxf__chan_free(q->buffer);
    pxf__chan_free(q->below);
    pxf::heap_free(q);
    return 1;
}
