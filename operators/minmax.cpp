// Min-max: every channel mapped from a range onto 0..1 as floats.  With no
// range given, the stage reads the whole image once at installation, keeps
// it, and uses each channel's observed minimum and maximum.
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"

namespace {

struct MinMax {
    PXF_OPERATOR head;
    PXF_CHAN_TYPE saved[3];
    int32_t channels;
    int32_t types[3], counts[3];  // of the stage below
    int32_t bottom, lines, width;
    bool observed;   // the whole image is kept in `cache`
    bool clip;       // given ranges: values outside them are clipped
    float *low, *scale, *high;  // per channel: v -> (v - low) * scale
    float *cache;    // lines x channels x width floats, as read from below
    void **buffer;
    void **below;    // rows offered to the stage below, in its layout
};

constexpr PXF_CHAN_GROUP PXF_IMAGE_DESC::*kGroups[3] = {&PXF_IMAGE_DESC::chan, &PXF_IMAGE_DESC::matte,
                                                       &PXF_IMAGE_DESC::aux};

// One row of group type/width as floats (integers as their codes).
void to_float(float *out, const void *in, int type, int bits, int n) {
    if (type == PXF_C_FLOAT) {
        std::memcpy(out, in, sizeof(float) * std::size_t(n));
    } else if (type == PXF_C_DOUBLE) {
        for (int x = 0; x < n; ++x) out[x] = float(static_cast<const double *>(in)[x]);
    } else if (bits <= 8) {
        for (int x = 0; x < n; ++x) out[x] = static_cast<const uint8_t *>(in)[x];
    } else if (bits <= 16) {
        for (int x = 0; x < n; ++x) out[x] = static_cast<const uint16_t *>(in)[x];
    } else {
        for (int x = 0; x < n; ++x) out[x] = float(static_cast<const uint32_t *>(in)[x]);
    }
}

// The channels of one scanline from below, as floats, into `out` (channels x width).
void gather(const MinMax &m, void **in, float *out) {
    int c = 0;
    for (int g = 0; g < 3; ++g)
        for (int k = 0; k < m.counts[g]; ++k, ++c)
            to_float(out + std::size_t(c) * std::size_t(m.width), in[c], m.types[g], m.saved[g].bits, m.width);
}

void map_row(const MinMax &m, int c, const float *in, float *out) {
    const float low = m.low[c], scale = m.scale[c];
    if (!m.clip) {
        for (int x = 0; x < m.width; ++x) out[x] = (in[x] - low) * scale;
        return;
    }
    for (int x = 0; x < m.width; ++x) {
        float v = (in[x] - low) * scale;
        out[x] = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
    }
}

int minmax_scan(void *data, int line, void ***rows, void **table) {
    auto *m = static_cast<MinMax *>(data);
    if (!m || !m->head.saved_scan) return pxf::ops::missing_record();
    const float *values;
    if (m->observed) {
        if (line < m->bottom || line >= m->bottom + m->lines)
            return pxf::fail(PXF_E_BAD_SCANLINE, PXF_E_BAD_SCANLINE, pxf::kSetMessages, 53,
                             "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
        values = m->cache + std::size_t(line - m->bottom) * std::size_t(m->channels) * std::size_t(m->width);
    } else {
        void **in = m->below;
        int status = m->head.saved_scan(m->head.saved_private, line, &in, table);
        if (status < 0) return status;
        gather(*m, in, m->cache);
        values = m->cache;
    }
    for (int c = 0; c < m->channels; ++c)
        map_row(*m, c, values + std::size_t(c) * std::size_t(m->width), static_cast<float *>(m->buffer[c]));
    *rows = m->buffer;
    return 0;
}

void free_record(MinMax *m) {
    pxf::heap_free(m->low);
    pxf::heap_free(m->cache);
    pxf__chan_free(m->buffer);
    pxf__chan_free(m->below);
    pxf::heap_free(m);
}

// Reads every scanline from below, in the order the stage below delivers,
// and notes each channel's range.
int observe(MinMax &m, PXF_IMAGE &image, bool bottom_up) {
    const std::size_t plane = std::size_t(m.channels) * std::size_t(m.width);
    for (int c = 0; c < m.channels; ++c) m.low[c] = 3.4e38f, m.high[c] = -3.4e38f;
    for (int k = 0; k < m.lines; ++k) {
        int line = bottom_up ? m.bottom + k : m.bottom + m.lines - 1 - k;
        void **in = m.below;
        int status = m.head.saved_scan(m.head.saved_private, line, &in, image.private_data);
        if (status < 0) return status;
        float *to = m.cache + std::size_t(line - m.bottom) * plane;
        gather(m, in, to);
        for (int c = 0; c < m.channels; ++c) {
            const float *v = to + std::size_t(c) * std::size_t(m.width);
            float lo = m.low[c], hi = m.high[c];
            for (int x = 0; x < m.width; ++x) {
                lo = v[x] < lo ? v[x] : lo;  // NaN never wins
                hi = v[x] > hi ? v[x] : hi;
            }
            m.low[c] = lo, m.high[c] = hi;
        }
    }
    return 0;
}

void set_scales(MinMax &m) {
    for (int c = 0; c < m.channels; ++c) {
        if (m.low[c] > m.high[c]) m.low[c] = m.high[c] = 0.0f;  // nothing seen
        float span = m.high[c] - m.low[c];
        m.scale[c] = span > 0.0f ? 1.0f / span : 0.0f;  // a flat channel maps to 0
    }
}

}  // namespace

PXF_IMAGE *PXF__minmax_init(PXF_IMAGE *image, const float *ranges) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data || image->mode != PXF_MODE_READ) return image;
    auto *m = static_cast<MinMax *>(pxf::alloc_zeroed(sizeof(MinMax)));
    if (!m) return image;
    for (int g = 0; g < 3; ++g) {
        const PXF_CHAN_GROUP &group = d->*kGroups[g];
        m->saved[g] = {group.type, group.width};
        m->types[g] = group.type;
        m->counts[g] = group.count > 0 ? group.count : 0;
        m->channels += m->counts[g];
    }
    m->bottom = d->window.bottom;
    m->lines = d->window.top - d->window.bottom + 1;
    m->width = pxf::ops::row_width(*d);
    m->observed = !ranges;
    m->clip = ranges != nullptr;
    const std::size_t n = std::size_t(m->channels > 0 ? m->channels : 1);
    const std::size_t cached = std::size_t(m->observed ? (m->lines > 0 ? m->lines : 0) : 1);
    bool ok = m->channels > 0 && m->width > 0 && (m->low = pxf::alloc_array<float>(3 * n)) != nullptr &&
              (m->cache = pxf::alloc_array<float>(cached * n * std::size_t(m->width))) != nullptr;
    if (ok) ok = (m->below = pxf__chan_alloc(d, m->width, pxf::ops::operator_name(PXF_OP_MINMAX))) != nullptr;
    if (ok) {
        m->scale = m->low + n;
        m->high = m->low + 2 * n;
        // The stage's output: every group as 32-bit floats.
        for (int g = 0; g < 3; ++g) (d->*kGroups[g]).type = PXF_C_FLOAT, (d->*kGroups[g]).width = 32;
        m->buffer = pxf__chan_alloc(d, m->width, pxf::ops::operator_name(PXF_OP_MINMAX));
        for (int g = 0; g < 3; ++g) (d->*kGroups[g]).type = m->saved[g].type, (d->*kGroups[g]).width = m->saved[g].bits;
        ok = m->buffer != nullptr;
    }
    if (!ok) {
        free_record(m);
        return image;
    }
    m->head.saved_scan = image->scan;
    m->head.saved_private = image->private_data[0];
    if (m->observed) {
        if (observe(*m, *image, (d->orientation & 1) != 0) < 0) {
            free_record(m);
            return image;
        }
    } else {
        for (int c = 0; c < m->channels; ++c) m->low[c] = ranges[2 * c], m->high[c] = ranges[2 * c + 1];
    }
    set_scales(*m);
    for (int g = 0; g < 3; ++g) (d->*kGroups[g]).type = PXF_C_FLOAT, (d->*kGroups[g]).width = 32;
    pxf::ops::push(image, &m->head, PXF_OP_MINMAX, minmax_scan, pxf::ops::close_hook<PXF__minmax_done>);
    return image;
}

int PXF__minmax_range(PXF_IMAGE *image, int channel, float *low, float *high) {
    if (pxf::ops::check_top<PXF__minmax_done>(image, PXF_OP_MINMAX) != pxf::ops::Top::mine) return 0;
    auto *m = static_cast<const MinMax *>(pxf::ops::top_record(image));
    if (channel < 0 || channel >= m->channels) return 0;
    if (low) *low = m->low[channel];
    if (high) *high = m->high[channel];
    return 1;
}

int PXF__minmax_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__minmax_done>(image, PXF_OP_MINMAX)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *m = static_cast<MinMax *>(pxf::ops::top_record(image));
    if (PXF_IMAGE_DESC *d = pxf::ops::first_desc(image))
        for (int g = 0; g < 3; ++g) (d->*kGroups[g]).type = m->saved[g].type, (d->*kGroups[g]).width = m->saved[g].bits;
    pxf::ops::pop(image, &m->head);
    free_record(m);
    return 1;
}
