// Mipmap stage: one level of a texture made from the image.  A compound
// stage: a raster copy at the bottom, one halving scale stage per level, the
// colour stage, its own record (the texture kind) and the quantize operator
// on top.  Its record carries no tag and is known by its close hook.
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/kernels.h"
#include "operators/resampler.h"

namespace {

constexpr const char *kName = "mipmap operator";
constexpr PXF_CHAN_GROUP PXF_IMAGE_DESC::*kGroups[3] = {&PXF_IMAGE_DESC::chan, &PXF_IMAGE_DESC::matte,
                                                       &PXF_IMAGE_DESC::aux};

struct Mipmap {
    PXF_OPERATOR head;  // tag 0
    int32_t kind;
    int32_t scales;     // halving stages stacked below
    bool raster;        // a raster copy stacked below them
    bool quantized;     // the quantize operator stacked above
    bool clamp[3];      // float groups brought into 0..1 for quantizing
    uint8_t saved_open_flag;
    PXF_CHAN_GROUP saved[3];  // the groups as the stage below delivers them
    int32_t counts[3];
    int32_t width, lines, bottom;
    std::size_t row_bytes[3];
    // Bump textures: the height rows last read (slot = row % 3) as 0..1 floats.
    float height_scale;
    int32_t height_rows[3];
    float *heights;
    void **buffer;
};

int mipmap_close(PXF_IMAGE *image) {
    PXF__mipmap_done(image);
    return PXF_close_do_it(image);
}

float height_value(const void *row, int x, const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT) return static_cast<const float *>(row)[x];
    if (g.type == PXF_C_DOUBLE) return static_cast<float>(static_cast<const double *>(row)[x]);
    if (g.width <= 8) return static_cast<const uint8_t *>(row)[x];
    if (g.width <= 16) return static_cast<const uint16_t *>(row)[x];
    return static_cast<float>(static_cast<const uint32_t *>(row)[x]);
}

// Height row `index` (0 = bottom scanline) from below, kept in its slot.
const float *height_row(Mipmap &m, int index, void **table, int *status) {
    float *slot = m.heights + std::size_t(index % 3) * std::size_t(m.width);
    if (m.height_rows[index % 3] == index) return slot;
    void **in = nullptr;
    *status = m.head.saved_scan(m.head.saved_private, m.bottom + index, &in, table);
    if (*status < 0) return nullptr;
    for (int x = 0; x < m.width; ++x) slot[x] = height_value(in[0], x, m.saved[0]) * m.height_scale;
    m.height_rows[index % 3] = index;
    return slot;
}

int bump_scan(Mipmap &m, int line, void ***rows, void **table) {
    const int y = line - m.bottom;
    if (y < 0 || y >= m.lines)
        return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, pxf::kSetMessages, 53,
                         "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
    const int below = y > 0 ? y - 1 : y, above = y + 1 < m.lines ? y + 1 : y;
    int status = 0;
    const float *lo = height_row(m, below, table, &status);
    const float *hi = lo ? height_row(m, above, table, &status) : nullptr;
    const float *h = hi ? height_row(m, y, table, &status) : nullptr;
    if (!h) {
        for (int32_t &r : m.height_rows) r = -1;
        return status;
    }
    auto *out = reinterpret_cast<float *const *>(m.buffer);
    const int w = m.width;
    const float du = float(w), dv = above > below ? float(m.lines) / float(above - below) : 0.0f;
    for (int x = 0; x < w; ++x) {
        int l = x > 0 ? x - 1 : x, r = x + 1 < w ? x + 1 : x;
        out[0][x] = h[x];
        out[1][x] = r > l ? (h[r] - h[l]) * du / float(r - l) : 0.0f;
        out[2][x] = (hi[x] - lo[x]) * dv;
    }
    *rows = m.buffer;
    return 0;
}

int mipmap_scan(void *data, int line, void ***rows, void **table) {
    auto *m = static_cast<Mipmap *>(data);
    if (!m || !m->head.saved_scan) return pxf::ops::missing_record();
    if (m->kind == PXF_TEXTURE_BUMP) return bump_scan(*m, line, rows, table);
    int status = m->head.saved_scan(m->head.saved_private, line, rows, table);
    if (status < 0) return status;
    void **in = *rows;
    // The channels kept sit at the start of each group below.
    int from = 0, to = 0;
    for (int g = 0; g < 3; ++g) {
        for (int c = 0; c < m->counts[g]; ++c) {
            if (m->clamp[g]) {
                auto *src = static_cast<const float *>(in[from + c]);
                auto *dst = static_cast<float *>(m->buffer[to + c]);
                for (int x = 0; x < m->width; ++x) {
                    float v = src[x] > 0.0f ? src[x] : 0.0f;  // NaN to 0
                    dst[x] = v < 1.0f ? v : 1.0f;
                }
            } else {
                std::memcpy(m->buffer[to + c], in[from + c], m->row_bytes[g]);
            }
        }
        from += m->saved[g].count > 0 ? m->saved[g].count : 0;
        to += m->counts[g];
    }
    *rows = m->buffer;
    return 0;
}

void restore_groups(const Mipmap &m, PXF_IMAGE_DESC &d) {
    for (int g = 0; g < 3; ++g) d.*kGroups[g] = m.saved[g];
}

// Takes off what PXF__mipmap stacked below its record, newest first.
void remove_members(PXF_IMAGE *image, const Mipmap &m) {
    for (int k = 0; k < m.scales; ++k) PXF__scale_done(image);
    if (m.raster) PXF__raster_done(image);
}

void free_mipmap(Mipmap *m) {
    pxf::heap_free(m->heights);
    pxf__chan_free(m->buffer);
    pxf::heap_free(m);
}

bool request_ok(const PXF_IMAGE_DESC &d, const PXF_MIPMAP_REQUEST &q) {
    const char *why = nullptr;
    const int levels = PXF_mipmap_levels(pxf::ops::row_width(d), d.window.top - d.window.bottom + 1);
    if (q.kind < PXF_TEXTURE_COLOUR || q.kind > PXF_TEXTURE_BUMP) why = "unknown texture kind";
    else if (q.level < 0 || q.level >= levels) why = "no such level";
    else if (!pxf::ops::groups_ok(d)) why = "unsupported channel types";
    else if (q.kind != PXF_TEXTURE_COLOUR && d.chan.count < 1) why = "no image channel";
    if (!why) return true;
    return pxf::fail(false, pxf::kErrCannotDo, pxf::kSetMessages, 233, "%s: bad texture request (%s)", kName, why);
}

// Where a colour transform joins the chain: the level in the primaries and
// response the texture is wanted in.  Textures are kept in the image's own
// colour description for now: the request names no other, so nothing is
// stacked here.
bool install_colour_stage(PXF_IMAGE *, const PXF_MIPMAP_REQUEST &) { return true; }

}  // namespace

int PXF_mipmap_levels(int width, int height) {
    if (width < 1 || height < 1) return 0;
    int side = width > height ? width : height, levels = 1;
    while (side > 1) side >>= 1, ++levels;
    return levels;
}

PXF_IMAGE *PXF__mipmap(PXF_IMAGE *image, const PXF_MIPMAP_REQUEST *request) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !request || !image->private_data || !image->scan || image->mode != PXF_MODE_READ) return image;
    if (!pxf::ops::kernel_or_report(request->filter, kName) || !request_ok(*d, *request)) return image;

    auto *m = static_cast<Mipmap *>(pxf::alloc_zeroed(sizeof(Mipmap)));
    if (!m) return image;
    auto undo = [&] {
        remove_members(image, *m);
        free_mipmap(m);
        return image;
    };
    if (!request->random_access) {
        void *before = pxf::ops::top_record(image);
        PXF__raster(image);
        if (pxf::ops::top_record(image) == before) return undo();
        m->raster = true;
    }
    for (int k = 0; k < request->level; ++k) {
        int w = pxf::ops::row_width(*d) / 2, h = (d->window.top - d->window.bottom + 1) / 2;
        void *before = pxf::ops::top_record(image);
        PXF__scale_init(image, w > 0 ? w : 1, h > 0 ? h : 1, request->filter);
        if (pxf::ops::top_record(image) == before) return undo();
        ++m->scales;
    }
    if (!install_colour_stage(image, *request)) return undo();

    m->kind = request->kind;
    m->width = pxf::ops::row_width(*d);
    m->bottom = d->window.bottom;
    m->lines = d->window.top - d->window.bottom + 1;
    m->saved_open_flag = image->info.open_flag;
    for (int g = 0; g < 3; ++g) m->saved[g] = d->*kGroups[g];
    for (int32_t &r : m->height_rows) r = -1;
    PXF_IMAGE_DESC level = *d;
    if (m->kind != PXF_TEXTURE_COLOUR) {
        level.matte.count = level.aux.count = 0;
        level.chan.count = m->kind == PXF_TEXTURE_BUMP ? 3 : 1;
        level.chan.format = const_cast<char *>(m->kind == PXF_TEXTURE_BUMP ? "bump" : "scalar");
    }
    if (m->kind == PXF_TEXTURE_BUMP) {
        level.chan.type = PXF_C_FLOAT;
        level.chan.width = 32;
        m->height_scale = d->chan.type == PXF_C_INTEGER ? pxf::ops::reciprocal(d->chan.width) : 1.0f;
        if (!(m->heights = pxf::alloc_array<float>(3 * std::size_t(m->width)))) return undo();
    }
    bool quantize = false;
    for (int g = 0; g < 3; ++g) {
        const PXF_CHAN_GROUP &group = level.*kGroups[g];
        m->counts[g] = group.count > 0 ? group.count : 0;
        m->row_bytes[g] = std::size_t(m->width) * pxf::ops::element_size(group.type, group.width);
        const PXF_CHAN_TYPE &want = request->output[g];
        m->clamp[g] = m->counts[g] > 0 && want.type == PXF_C_INTEGER && want.bits >= 1 && want.bits <= 32 &&
                      group.type == PXF_C_FLOAT && m->kind != PXF_TEXTURE_BUMP;
        quantize |= m->clamp[g];
    }
    if (!(m->buffer = pxf__chan_alloc(&level, m->width, kName))) return undo();
    for (int g = 0; g < 3; ++g) d->*kGroups[g] = level.*kGroups[g];
    pxf::ops::push(image, &m->head, 0, mipmap_scan, mipmap_close);
    if (quantize) {
        // Clamped to 0..1 above, the values are in the model quantize expects.
        image->info.open_flag = 1;
        void *before = pxf::ops::top_record(image);
        PXF__quantize(image, request->output);
        if (pxf::ops::top_record(image) == before) {
            PXF__mipmap_done(image);
            return image;
        }
        m->quantized = true;
    }
    return image;
}

int PXF__mipmap_done(PXF_IMAGE *image) {
    if (!pxf::ops::top_record(image)) return 1;
    if (image->close != mipmap_close) {
        // Our quantize operator may sit on top of the record.
        auto *top = static_cast<PXF_OPERATOR *>(pxf::ops::top_record(image));
        if (top->tag != PXF_OP_QUANTIZE || top->saved_close != mipmap_close ||
            !static_cast<Mipmap *>(top->saved_private)->quantized)
            return 0;
        PXF__quantize_done(image);
    }
    auto *m = static_cast<Mipmap *>(pxf::ops::top_record(image));
    if (PXF_IMAGE_DESC *d = pxf::ops::first_desc(image)) restore_groups(*m, *d);
    image->info.open_flag = m->saved_open_flag;
    pxf::ops::pop(image, &m->head);
    remove_members(image, *m);
    free_mipmap(m);
    return 1;
}
