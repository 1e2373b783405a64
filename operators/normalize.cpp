// Normalize: float channels mapped from a given range onto 0..1, clipped at
// both ends, in place.
#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "operators/chain.h"

namespace {

struct Range {
    float low, high, width, inverse;
    int32_t first, count;  // the group's rows
    void (*fn)(const Range &r, void *const *rows, std::size_t first, std::size_t n);
};

struct Normalize {
    PXF_OPERATOR head;
    pxf::ops::Area area;
    Range range[3];  // image, matte, auxiliary; fn none when not given
};

template <class T>
void normalize_rows(const Range &r, void *const *rows, std::size_t first, std::size_t n) {
    const T low = T(r.low), width = T(r.width), inverse = T(r.inverse);
    for (int c = r.first; c < r.first + r.count; ++c) {
        T *v = static_cast<T *>(rows[c]) + first;
        for (std::size_t x = 0; x < n; ++x) {
            T u = v[x] - low;
            u = u > T(0) ? u : T(0);  // NaN goes to 0 as well
            v[x] = (u < width ? u : width) * inverse;
        }
    }
}

void apply(const Normalize &z, void *const *rows) {
    for (const Range &r : z.range)
        if (r.fn) r.fn(r, rows, std::size_t(z.area.first_pixel), std::size_t(z.area.pixels));
}

int read_scan(void *data, int line, void ***rows, void **table) {
    auto *z = static_cast<Normalize *>(data);
    if (!z || !z->head.saved_scan) return pxf::ops::missing_record();
    int status = z->head.saved_scan(z->head.saved_private, line, rows, table);
    if (status < 0) return status;
    apply(*z, *rows);
    return 0;
}

int write_scan(void *data, int line, void ***rows, void **table) {
    auto *z = static_cast<Normalize *>(data);
    if (!z || !z->head.saved_scan) return pxf::ops::missing_record();
    apply(*z, *rows);
    return z->head.saved_scan(z->head.saved_private, line, rows, table);
}

}  // namespace

PXF_IMAGE *PXF__normalize(PXF_IMAGE *image, const float *image_range, const float *matte_range,
                          const float *aux_range) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data) return image;
    const float *given[3] = {image_range, matte_range, aux_range};
    const PXF_CHAN_GROUP *groups[3] = {&d->chan, &d->matte, &d->aux};
    if (!given[0] && !given[1] && !given[2]) return image;
    if (!pxf::ops::float_model_flag(image->info)) return image;
    Normalize z{};
    int first = 0, used = 0;
    for (int g = 0; g < 3; ++g) {
        const PXF_CHAN_GROUP &group = *groups[g];
        int count = group.count > 0 ? group.count : 0;
        if (given[g]) {
            if (group.type != PXF_C_FLOAT && group.type != PXF_C_DOUBLE) return image;
            Range &r = z.range[g];
            r.low = given[g][0];
            r.high = given[g][1];
            r.width = r.high - r.low;
            if (!(r.width > 0.0f)) return image;  // an empty or reversed range maps nothing
            r.inverse = 1.0f / r.width;
            r.first = first;
            r.count = count;
            r.fn = group.type == PXF_C_FLOAT ? normalize_rows<float> : normalize_rows<double>;
            used += count;
        }
        first += count;
    }
    if (!used) return image;
    auto *record = static_cast<Normalize *>(pxf::alloc_zeroed(sizeof(Normalize)));
    if (!record) return image;
    *record = z;
    record->area = pxf::ops::active_area(*d);
    pxf::ops::push(image, &record->head, PXF_OP_NORMALIZE, image->mode == PXF_MODE_READ ? read_scan : write_scan,
                   pxf::ops::close_hook<PXF__normalize_done>);
    return image;
}

int PXF__normalize_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__normalize_done>(image, PXF_OP_NORMALIZE)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *z = static_cast<Normalize *>(pxf::ops::top_record(image));
    pxf::ops::pop(image, &z->head);
    pxf::heap_free(z);
    return 1;
}
