// Gamma correction operator: 8-bit image channels converted between the
// file's response curve and the one the caller asked for, through composed
// 8-bit tables, in place.
#include <cmath>
#include <cstring>

#include <pxf/pxf.h>

#include <pxf/fmt.h>
#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/kernels.h"

namespace {

struct Gamma {
    PXF_OPERATOR head;
    PXF_RESPONSE_CURVE result;  // one 8-bit-out table per channel
    int32_t channels;           // image channels
    pxf::ops::Area area;        // scanlines and pixel span converted
    int32_t saved_bits;         // image bits before a write installation
};

const uint8_t *table_for(const Gamma &g, int channel) {
    // A curve with fewer tables than channels serves the rest with its last.
    int c = channel < g.result.channels ? channel : g.result.channels - 1;
    return static_cast<const uint8_t *>(g.result.tables[c]);
}

int read_scan(void *data, int line, void ***rows, void **table) {
    auto *g = static_cast<Gamma *>(data);
    if (!g || !g->head.saved_scan) return pxf::ops::missing_record();
    int status = g->head.saved_scan(g->head.saved_private, line, rows, table);
    if (status < 0) return status;
    void **in = *rows;
    for (int c = g->channels - 1; c >= 0; --c)
        pxf::ops::lookup_bytes(static_cast<uint8_t *>(in[c]) + g->area.first_pixel, std::size_t(g->area.pixels),
                               table_for(*g, c));
    return 0;
}

// The caller's 16-bit values are narrowed in its own rows before they go
// down: the rows hold 8-bit data afterwards.
int write_scan(void *data, int line, void ***rows, void **table) {
    auto *g = static_cast<Gamma *>(data);
    if (!g || !g->head.saved_scan) return pxf::ops::missing_record();
    if (line >= g->area.first_line && line <= g->area.last_line) {
        void **out = *rows;
        uint32_t last = uint32_t(g->result.entries - 1);
        for (int c = g->channels - 1; c >= 0; --c) {
            auto *row = static_cast<uint8_t *>(out[c]);
            std::size_t first = std::size_t(g->area.first_pixel), n = std::size_t(g->area.pixels);
            // Value i sits at bytes 2i and 2i + 1; its byte goes to byte i.
            // Shifting the row start keeps that relation for the span.
            uint8_t *span = row + first;
            if (first) std::memmove(span, row + 2 * first, 2 * n);
            pxf::ops::lookup_words_to_bytes(span, n, table_for(*g, c), last);
            std::memset(span + n, 0, std::size_t(g->area.after));
        }
    }
    return g->head.saved_scan(g->head.saved_private, line, rows, table);
}

// log2 of the gamma-table resolution, truncated.
int table_depth() {
    int r = FMT_def_gamma_tab_res();
    return r >= 2 ? int(std::log(double(r)) / std::log(2.0)) : 1;
}

// Gives an analytic curve its table description; kind and gamma stay.
bool describe(PXF_RESPONSE_CURVE &c, int channels, int entry_bits, int bits) {
    if (c.kind != PXF_CURVE_GAMMA) return true;
    if (entry_bits < 1 || entry_bits > 24) return false;
    c.reserved = nullptr;
    c.channels = channels;
    c.entries = 1 << entry_bits;
    c.type = PXF_C_INTEGER;
    c.bits = bits;
    return true;
}

// The composed tables must give bytes, and cover every byte when reading.
bool usable(const PXF_RESPONSE_CURVE &r, bool reading) {
    return r.kind == PXF_CURVE_TABLE && r.tables && r.type == PXF_C_INTEGER && r.bits <= 8 && r.channels >= 1 &&
           r.entries >= (reading ? 256 : 1);
}

}  // namespace

PXF_IMAGE *PXF__gamma(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    pxf__err = 0;
    if (!image) return image;
    const char *name = pxf::ops::operator_name(PXF_OP_GAMMA);
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    bool refused = false;
    if (image->info.num_images < 1) {
        pxf::fail(0, pxf::kErrCannotDo, pxf::kSetMessages, 61, "%s cannot store multiple images", name);
        refused = true;
    }
    // The width check runs even when the count refused the image: it looks
    // at the description the handle holds, whatever the count says.
    const PXF_IMAGE_DESC *held = image->info.images;
    if (held && held->chan.type == PXF_C_INTEGER && held->chan.width >= 9)
        return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 73, "%s cannot handle image channel width", name);
    // The tables work on bytes: float channels would be rewritten byte by byte.
    if (d && d->chan.type != PXF_C_INTEGER)
        return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 72, "%s cannot handle image channel type", name);
    if (refused || !d || !requested || !image->private_data) return image;
    PXF_RESPONSE_CURVE &have = d->curve;
    if (have.kind == PXF_CURVE_GAMMA && requested->kind == PXF_CURVE_GAMMA && have.gamma == requested->gamma)
        return image;

    auto *g = static_cast<Gamma *>(pxf::alloc_zeroed(sizeof(Gamma)));
    if (!g) {
        pxf__err = pxf::kErrNoMemory;
        return image;
    }
    g->result = {PXF_CURVE_GAMMA, 1.0f, nullptr, 1, 256, PXF_C_INTEGER, 8, nullptr};
    g->channels = d->chan.count > 0 ? d->chan.count : 0;
    g->area = pxf::ops::active_area(*d);
    int depth = table_depth();
    bool reading = image->mode == PXF_MODE_READ;
    bool ok;
    if (reading) {
        ok = describe(have, g->channels, 8, depth) && describe(*requested, g->channels, have.bits, 8) &&
             PXF_response_curve_comp(requested, &have, &g->result) == 0;
    } else {
        ok = describe(have, g->channels, d->chan.width, d->chan.width) &&
             describe(*requested, g->channels, depth, have.bits) &&
             PXF_response_curve_comp(&have, requested, &g->result) == 0;
    }
    if (!ok || !usable(g->result, reading)) {
        PXF_response_curve_done(&g->result);
        pxf::heap_free(g);
        return image;
    }
    if (!reading) {
        // The caller now hands over values of the table depth in 16-bit elements.
        g->saved_bits = d->chan.width;
        d->chan.width = depth;
    }
    pxf::ops::push(image, &g->head, PXF_OP_GAMMA, reading ? read_scan : write_scan,
                   pxf::ops::close_hook<PXF__gamma_done>);
    return image;
}

int PXF__gamma_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__gamma_done>(image, PXF_OP_GAMMA)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *g = static_cast<Gamma *>(pxf::ops::top_record(image));
    PXF_response_curve_done(&g->result);
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (image->mode != PXF_MODE_READ && d) d->chan.width = g->saved_bits;
    pxf::ops::pop(image, &g->head);
    pxf::heap_free(g);
    return 1;
}
