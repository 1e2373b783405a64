// Shift: integer channel groups from one bit depth to another (16-bit
// scans to 8 bits for viewing).  Narrowing keeps the top bits; widening
// repeats the value's bits below it, so that the top code stays the top code.
#include <pxf/pxf.h>

#include "operators/group_stage.h"

namespace {

using pxf::ops::GroupFn;
using pxf::ops::GroupStage;

inline uint32_t reshift(uint32_t v, int from, int to) {
    uint64_t value = v & ((uint64_t{1} << from) - 1);
    if (to <= from) return uint32_t(value >> (from - to));
    uint64_t out = value << (to - from);
    for (int rest = to - from; rest > 0; rest -= from)
        out |= rest >= from ? value << (rest - from) : value >> (from - rest);
    return uint32_t(out);
}

template <class Src, class Dst>
void convert(const GroupStage &s, int group, void **out, void **in) {
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

}  // namespace

PXF_IMAGE *PXF__shift(PXF_IMAGE *image, const PXF_CHAN_TYPE request[3]) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !request || !image->private_data || image->mode != PXF_MODE_READ) return image;
    GroupFn chosen[3];
    int bits[3];
    bool any = false;
    for (int g = 0; g < 3; ++g) {
        any |= (chosen[g] = choose(d->*pxf::ops::kGroups[g], request[g])) != nullptr;
        bits[g] = request[g].bits;
    }
    if (!any) return image;
    return pxf::ops::push_group_stage<PXF__shift_done>(image, *d, chosen, bits, PXF_OP_SHIFT, "shift");
}

int PXF__shift_done(PXF_IMAGE *image) {
    return pxf::ops::remove_group_stage<PXF__shift_done>(image, PXF_OP_SHIFT);
}
