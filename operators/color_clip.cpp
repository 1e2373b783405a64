// Colour clip: float colours pulled inside their matte, keeping their mean
// and hue direction, so that premultiplied colour never exceeds coverage.
#include <cstring>
#include <type_traits>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "operators/chain.h"

namespace {

struct ColorClip;
using RowFn = void (*)(const ColorClip &c, void *const *rows);

struct ColorClip {
    PXF_OPERATOR head;
    int32_t channels;  // colour channels
    int32_t mattes;
    pxf::ops::Area area;
    RowFn fn;
};

// The pull-in of one pixel of n colours c against matte a; `third` is how
// the mean is taken (the "rgb" model multiplies by a single-precision third).
template <class T, int N>
inline void clip_pixel(T *c, int n, T a, T scale) {
    if (a == T(0)) {
        for (int k = 0; k < n; ++k) c[k] = 0;
        return;
    }
    bool inside = true;
    T sum = 0;
    for (int k = 0; k < n; ++k) {
        inside = inside && c[k] >= T(0) && c[k] <= a;
        sum += c[k];
    }
    if (inside) return;
    T m = sum * scale;
    if (m <= T(0) || m > a) {
        T v = m <= T(0) ? T(0) : a;
        for (int k = 0; k < n; ++k) c[k] = v;
        return;
    }
    T t = 1;
    for (int k = 0; k < n; ++k) {
        if (c[k] < T(0)) {
            T u = (T(0) - m) / (c[k] - m);
            if (u < t) t = u;
        } else if (c[k] > a) {
            T u = (a - m) / (c[k] - m);
            if (u < t) t = u;
        }
    }
    for (int k = 0; k < n; ++k) c[k] = m + t * (c[k] - m);
}

// Whether any value of v[x..stop) lies outside [0, a] or has no coverage
// (a <= 0 sends the pixel to the full rule, which sorts out a < 0).  NaN
// passes as inside: the full rule would leave it NaN as well.  Float rows are
// looked at four lanes at a time.
template <class T>
bool any_outside(const T *v, const T *a, std::size_t x, std::size_t stop) {
    if constexpr (std::is_same_v<T, float>) {
        using V = float __attribute__((vector_size(16)));
        using M = int __attribute__((vector_size(16)));
        M bad = {0, 0, 0, 0};
        const V zero = {0, 0, 0, 0};
        for (; x + 4 <= stop; x += 4) {
            V value, matte;
            std::memcpy(&value, v + x, sizeof value);
            std::memcpy(&matte, a + x, sizeof matte);
            bad |= (value < zero) | (value > matte) | (matte <= zero);
        }
        if (bad[0] | bad[1] | bad[2] | bad[3]) return true;
    }
    for (; x < stop; ++x)
        if (v[x] < T(0) || v[x] > a[x] || a[x] <= T(0)) return true;
    return false;
}

// N: channels known at compile time ("rgb"), 0 for any other count.
template <class T, int N>
void clip_rows(const ColorClip &c, void *const *rows) {
    const int n = N ? N : c.channels;
    const T scale = N == 3 ? T(0.3333333f) : T(1) / T(n);
    const std::size_t first = std::size_t(c.area.first_pixel), end = first + std::size_t(c.area.pixels);
    T *r[16];
    int used = n < 16 ? n : 16;  // more colour channels than that: the first 16 take part
    for (int k = 0; k < used; ++k) r[k] = static_cast<T *>(rows[k]);
    const T *a = static_cast<const T *>(rows[c.channels]);
    const T mean_scale = used == n ? scale : T(1) / T(used);
    constexpr std::size_t kBlock = 64;
    for (std::size_t x = first; x < end; x += kBlock) {
        const std::size_t stop = x + kBlock < end ? x + kBlock : end;
        // Most pixels already lie inside their matte: a branch-free look at a
        // whole block first, so that the common case runs in vector lanes.
        bool outside = false;
        for (int k = 0; k < used && !outside; ++k) outside = any_outside(r[k], a, x, stop);
        if (!outside) continue;
        for (std::size_t i = x; i < stop; ++i) {
            T px[16];
            for (int k = 0; k < used; ++k) px[k] = r[k][i];
            clip_pixel<T, N>(px, used, a[i], mean_scale);
            for (int k = 0; k < used; ++k) r[k][i] = px[k];
        }
    }
}

int read_scan(void *data, int line, void ***rows, void **table) {
    auto *c = static_cast<ColorClip *>(data);
    if (!c || !c->head.saved_scan) return pxf::ops::missing_record();
    int status = c->head.saved_scan(c->head.saved_private, line, rows, table);
    if (status < 0) return status;
    c->fn(*c, *rows);
    return 0;
}

// The caller's rows are clipped in place before they go down.
int write_scan(void *data, int line, void ***rows, void **table) {
    auto *c = static_cast<ColorClip *>(data);
    if (!c || !c->head.saved_scan) return pxf::ops::missing_record();
    c->fn(*c, *rows);
    return c->head.saved_scan(c->head.saved_private, line, rows, table);
}

}  // namespace

PXF_IMAGE *PXF__color_clip(PXF_IMAGE *image) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data) return image;
    if (d->chan.type == PXF_C_INTEGER || d->matte.type == PXF_C_INTEGER) return image;
    if (d->chan.count < 1 || d->matte.count < 1) return image;
    // The matte is read with the colour's element type.
    if (d->chan.type != d->matte.type || (d->chan.type != PXF_C_FLOAT && d->chan.type != PXF_C_DOUBLE)) return image;
    bool rgb = d->chan.format && std::strcmp(d->chan.format, PXF_LITERAL_HARD_FORMAT_TYPE_RGB) == 0 &&
               d->chan.count == 3;
    // Both values of the info's float-model flag follow the same rule.
    RowFn fn = d->chan.type == PXF_C_FLOAT ? (rgb ? clip_rows<float, 3> : clip_rows<float, 0>)
                                           : (rgb ? clip_rows<double, 3> : clip_rows<double, 0>);
    auto *c = static_cast<ColorClip *>(pxf::alloc_zeroed(sizeof(ColorClip)));
    if (!c) return image;
    c->channels = d->chan.count;
    c->mattes = d->matte.count;
    c->area = pxf::ops::active_area(*d);
    c->fn = fn;
    pxf::ops::push(image, &c->head, PXF_OP_COLOR_CLIP, image->mode == PXF_MODE_READ ? read_scan : write_scan,
                   pxf::ops::close_hook<PXF__color_clip_done>);
    return image;
}

int PXF__color_clip_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__color_clip_done>(image, PXF_OP_COLOR_CLIP)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *c = static_cast<ColorClip *>(pxf::ops::top_record(image));
    pxf::ops::pop(image, &c->head);
    pxf::heap_free(c);
    return 1;
}
