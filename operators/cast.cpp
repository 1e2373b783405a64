// Cast operator: integer channels become floats normalised to 0..1.
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/kernels.h"

namespace {

using pxf::ops::kDivisors;

struct Cast;
// Converts `count` rows of one group into the operator's float rows.
using GroupFn = void (*)(void **out, int width, int bits, int count, void **in);
using ImageFn = void (*)(const Cast &cast, void **out, void **in);

struct Cast {
    PXF_OPERATOR head;
    float saved_gamma;
    int32_t image_type, image_bits;
    int32_t matte_type, matte_bits;
    int32_t aux_type, aux_bits;
    int32_t width;
    int32_t image_count, matte_count, aux_count;
    float *gamma_table;  // from PXF_gamma_btof, for 8-bit data with a gamma
    void **buffer;
    GroupFn matte_fn, aux_fn;
    ImageFn image_fn;
    pxf::ops::ByteToFloatTable lookup;  // gamma_table laid out for the wide lookup
};

template <class Src>
void scale_group(void **out, int width, int bits, int count, void **in) {
    float scale = pxf::ops::reciprocal(bits);
    for (int c = count - 1; c >= 0; --c)
        pxf::ops::scale_row(static_cast<float *>(out[c]), static_cast<const Src *>(in[c]), std::size_t(width), scale);
}

// Groups that are float already travel through unchanged; doubles narrow.
void copy_floats(void **out, int width, int, int count, void **in) {
    for (int c = count - 1; c >= 0; --c) std::memcpy(out[c], in[c], std::size_t(width) * sizeof(float));
}

void narrow_doubles(void **out, int width, int, int count, void **in) {
    for (int c = count - 1; c >= 0; --c) {
        auto *to = static_cast<float *>(out[c]);
        auto *from = static_cast<const double *>(in[c]);
        for (int i = 0; i < width; ++i) to[i] = static_cast<float>(from[i]);
    }
}

GroupFn integer_fn(int bits) {
    if (bits <= 8) return scale_group<uint8_t>;
    if (bits <= 16) return scale_group<uint16_t>;
    return scale_group<uint32_t>;
}

GroupFn group_fn(int count, int type, int bits) {
    if (count <= 0) return nullptr;
    if (type == PXF_C_INTEGER) return integer_fn(bits);
    return type == PXF_C_DOUBLE ? narrow_doubles : copy_floats;
}

template <class Src>
void image_scaled(const Cast &r, void **out, void **in) {
    scale_group<Src>(out, r.width, r.image_bits, r.image_count, in);
}

void image_through_table(const Cast &r, void **out, void **in) {
    for (int c = r.image_count - 1; c >= 0; --c)
        pxf::ops::lookup_row(static_cast<float *>(out[c]), static_cast<const uint8_t *>(in[c]), std::size_t(r.width),
                             r.lookup);
}

int cast_scan(void *data, int line, void ***rows, void **table) {
    auto *r = static_cast<Cast *>(data);
    if (!r) return pxf::ops::missing_record();
    if (!r->head.saved_scan) return pxf::ops::missing_record();
    int status = r->head.saved_scan(r->head.saved_private, line, rows, table);
    if (status < 0) return status;
    void **in = *rows, **out = r->buffer;
    r->image_fn(*r, out, in);
    int at = r->image_count;
    if (r->matte_fn) r->matte_fn(out + at, r->width, r->matte_bits, r->matte_count, in + at);
    at += r->matte_count;
    if (r->aux_fn) r->aux_fn(out + at, r->width, r->aux_bits, r->aux_count, in + at);
    *rows = out;
    return 0;
}

struct GroupCheck {
    PXF_CHAN_GROUP PXF_IMAGE_DESC::*group;
    int type_number;
    const char *type_text;
    int width_number;
    const char *width_text;
};

constexpr GroupCheck kChecks[] = {
    {&PXF_IMAGE_DESC::chan, 72, "%s cannot handle image channel type", 73, "%s cannot handle image channel width"},
    {&PXF_IMAGE_DESC::matte, 79, "%s cannot handle matte channel type", 80, "%s cannot handle matte channel width"},
    {&PXF_IMAGE_DESC::aux, 70, "%s cannot handle auxiliary channel type", 71,
     "%s cannot handle auxiliary channel width"},
};

// Groups with channels must hold a known type, and integers 1 to 32 bits.
bool can_cast(const PXF_IMAGE_DESC &d, const char *name) {
    for (const GroupCheck &check : kChecks) {
        const PXF_CHAN_GROUP &g = d.*check.group;
        if (g.count <= 0 && &check != kChecks) continue;
        if (g.type != PXF_C_INTEGER && g.type != PXF_C_FLOAT && g.type != PXF_C_DOUBLE)
            return pxf::fail(false, pxf::kErrCannotDo, pxf::kSetMessages, check.type_number, check.type_text, name);
        if (g.type == PXF_C_INTEGER && (g.width < 1 || g.width > 32))
            return pxf::fail(false, pxf::kErrCannotDo, pxf::kSetMessages, check.width_number, check.width_text, name);
    }
    return true;
}

void save(Cast &r, const PXF_IMAGE_DESC &d) {
    r.saved_gamma = d.curve.gamma;
    r.image_type = d.chan.type;
    r.image_bits = d.chan.width;
    r.matte_type = d.matte.type;
    r.matte_bits = d.matte.width;
    r.aux_type = d.aux.type;
    r.aux_bits = d.aux.width;
}

void restore(const Cast &r, PXF_IMAGE_DESC &d) {
    d.curve.gamma = r.saved_gamma;
    d.chan.type = r.image_type;
    d.chan.width = r.image_bits;
    d.matte.type = r.matte_type;
    d.matte.width = r.matte_bits;
    d.aux.type = r.aux_type;
    d.aux.width = r.aux_bits;
}

// Gamma is honoured only for 8-bit data; deeper integers scale linearly
// whatever their gamma.  Kept for compatibility with existing files.
bool choose_image_fn(Cast &r) {
    if (r.image_bits == 8 && r.saved_gamma != 1.0f) {
        if (!(r.gamma_table = PXF_gamma_btof(r.saved_gamma))) return false;
        std::memcpy(r.lookup.values, r.gamma_table, sizeof r.lookup.values);
        r.lookup.prepare();
        r.image_fn = image_through_table;
    } else if (r.image_bits <= 8) {
        // value x (1 / (2^bits - 1)) for every byte, computed once: the wide
        // lookup beats converting and multiplying, with the same results.
        float scale = pxf::ops::reciprocal(r.image_bits);
        for (int i = 0; i < 256; ++i) r.lookup.values[i] = float(i) * scale;
        r.lookup.prepare();
        r.image_fn = image_through_table;
    } else if (r.image_bits <= 16) {
        r.image_fn = image_scaled<uint16_t>;
    } else {
        r.image_fn = image_scaled<uint32_t>;
    }
    return true;
}

}  // namespace

PXF_IMAGE *PXF__cast(PXF_IMAGE *image) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data) return image;
    if (d->chan.type == PXF_C_FLOAT && d->matte.type == PXF_C_FLOAT && d->aux.type == PXF_C_FLOAT) return image;
    // The routines convert what the stage below delivers: reading only.
    if (image->mode != PXF_MODE_READ) return image;
    const char *name = pxf::ops::operator_name(PXF_OP_CAST);
    if (!can_cast(*d, name)) return image;

    auto *r = static_cast<Cast *>(pxf::alloc_zeroed(sizeof(Cast)));
    if (!r) return image;
    save(*r, *d);
    r->width = pxf::ops::row_width(*d);
    d->curve.gamma = 1.0f;
    for (PXF_CHAN_GROUP *g : {&d->chan, &d->matte, &d->aux}) {
        g->type = PXF_C_FLOAT;
        g->width = 32;
    }
    bool integer_image = r->image_type == PXF_C_INTEGER;
    if (!(r->buffer = pxf__chan_alloc(d, r->width, name)) || (integer_image && !choose_image_fn(*r))) {
        // Undone so that a handle without a cast record keeps a true description.
        restore(*r, *d);
        pxf__chan_free(r->buffer);
        pxf::heap_free(r);
        return image;
    }
    r->image_count = d->chan.count > 0 ? d->chan.count : 0;
    r->matte_count = d->matte.count > 0 ? d->matte.count : 0;
    r->aux_count = d->aux.count > 0 ? d->aux.count : 0;
    r->matte_fn = group_fn(r->matte_count, r->matte_type, r->matte_bits);
    r->aux_fn = group_fn(r->aux_count, r->aux_type, r->aux_bits);
    // Only integer image channels put the cast scan in place: with float
    // image channels the record is pushed but the stage below keeps being
    // called directly (with this record as its data).  Kept as it has
    // always been; such a handle must not be scanned.
    pxf::ops::push(image, &r->head, PXF_OP_CAST, integer_image ? cast_scan : nullptr,
                   pxf::ops::close_hook<PXF__cast_done>);
    return image;
}

int PXF__cast_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__cast_done>(image, PXF_OP_CAST)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *r = static_cast<Cast *>(pxf::ops::top_record(image));
    if (PXF_IMAGE_DESC *d = pxf::ops::first_desc(image)) restore(*r, *d);
    pxf::ops::pop(image, &r->head);
    PXF_gamma_done(r->gamma_table);
    pxf__chan_free(r->buffer);
    pxf::heap_free(r);
    return 1;
}
