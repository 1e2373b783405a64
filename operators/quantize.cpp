// Quantize operator: float channels become integers of a requested depth.
// No clipping: values are expected in 0..1 already.
#include <pxf/pxf.h>

#include "operators/group_stage.h"
#include "operators/kernels.h"

namespace {

using pxf::ops::GroupFn;
using pxf::ops::GroupStage;

template <class Src, class Dst>
void convert(const GroupStage &q, int group, void **out, void **in) {
    float factor = pxf::ops::quantize_factor(q.to[group]);
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

}  // namespace

PXF_IMAGE *PXF__quantize(PXF_IMAGE *image, const PXF_CHAN_TYPE request[3]) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !request || !image->private_data) return image;
    // Write handles are not converted: the routines turn what is read.
    if (image->mode != PXF_MODE_READ) return image;
    if (d->chan.type == PXF_C_INTEGER && d->matte.type == PXF_C_INTEGER && d->aux.type == PXF_C_INTEGER) return image;
    if (!pxf::ops::float_model_flag(image->info)) return image;
    GroupFn chosen[3];
    int bits[3];
    bool any = false;
    for (int g = 0; g < 3; ++g) {
        any |= (chosen[g] = choose(d->*pxf::ops::kGroups[g], request[g])) != nullptr;
        bits[g] = request[g].bits;
    }
    if (!any) return image;
    return pxf::ops::push_group_stage<PXF__quantize_done>(image, *d, chosen, bits, PXF_OP_QUANTIZE,
                                                          pxf::ops::operator_name(PXF_OP_QUANTIZE));
}

int PXF__quantize_done(PXF_IMAGE *image) {
    return pxf::ops::remove_group_stage<PXF__quantize_done>(image, PXF_OP_QUANTIZE);
}
