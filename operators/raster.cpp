// Raster stage: keeps every scanline of the window in memory, read from the
// stage below in its own order on the first request, so that the stages
// above can read scanlines in any order and as often as they like (texture
// filtering walks rows back and forth).
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"

namespace {

struct Raster {
    PXF_OPERATOR head;  // carries no tag
    int32_t bottom, lines;
    int32_t channels;
    bool bottom_up;
    bool filled;
    std::size_t line_bytes;   // one scanline, all channels
    std::size_t *offsets;     // of each channel's row within a scanline
    unsigned char *cache;     // lines x line_bytes
    void **buffer;            // the rows handed to the caller
};

int raster_close(PXF_IMAGE *image);

// Reads every scanline from below, in the order the stage below delivers.
int fill(Raster &r, void **table) {
    for (int k = 0; k < r.lines; ++k) {
        int line = r.bottom_up ? r.bottom + k : r.bottom + r.lines - 1 - k;
        void **in = r.buffer;
        int status = r.head.saved_scan(r.head.saved_private, line, &in, table);
        if (status < 0) return status;
        unsigned char *to = r.cache + std::size_t(line - r.bottom) * r.line_bytes;
        for (int c = 0; c < r.channels; ++c) {
            std::size_t end = c + 1 < r.channels ? r.offsets[c + 1] : r.line_bytes;
            if (in[c] != to + r.offsets[c]) std::memcpy(to + r.offsets[c], in[c], end - r.offsets[c]);
        }
    }
    r.filled = true;
    return 0;
}

int raster_scan(void *data, int line, void ***rows, void **table) {
    auto *r = static_cast<Raster *>(data);
    if (!r || !r->head.saved_scan) return pxf::ops::missing_record();
    if (line < r->bottom || line >= r->bottom + r->lines)
        return pxf::fail(PXF_E_BAD_SCANLINE, PXF_E_BAD_SCANLINE, pxf::kSetMessages, 53,
                         "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
    if (!r->filled) {
        int status = fill(*r, table);
        if (status < 0) return status;
    }
    // A copy, so that stages above that convert in place leave the raster intact.
    std::memcpy(r->buffer[0], r->cache + std::size_t(line - r->bottom) * r->line_bytes, r->line_bytes);
    *rows = r->buffer;
    return 0;
}

void free_raster(Raster *r) {
    pxf__chan_free(r->buffer);
    pxf::heap_free(r->offsets);
    pxf::heap_free(r->cache);
    pxf::heap_free(r);
}

int raster_close(PXF_IMAGE *image) {
    PXF__raster_done(image);
    return PXF_close_do_it(image);
}

}  // namespace

PXF_IMAGE *PXF__raster(PXF_IMAGE *image) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data || !image->scan || image->mode != PXF_MODE_READ) return image;
    int lines = d->window.top - d->window.bottom + 1;
    int width = pxf::ops::row_width(*d);
    if (lines <= 0 || width <= 0) return image;
    auto *r = static_cast<Raster *>(pxf::alloc_zeroed(sizeof(Raster)));
    if (!r) return image;
    r->bottom = d->window.bottom;
    r->lines = lines;
    r->bottom_up = d->orientation & 1;
    if (!(r->buffer = pxf__chan_alloc(d, width, "raster"))) {
        free_raster(r);
        return image;
    }
    r->line_bytes = std::size_t(chan_alloc_size);
    r->channels = (d->chan.count > 0 ? d->chan.count : 0) + (d->matte.count > 0 ? d->matte.count : 0) +
                  (d->aux.count > 0 ? d->aux.count : 0) + (d->chan.count == 0 && d->index.count > 0 ? d->index.count : 0);
    r->offsets = static_cast<std::size_t *>(pxf::alloc((r->channels ? r->channels : 1) * sizeof(std::size_t)));
    r->cache = static_cast<unsigned char *>(pxf::alloc(r->line_bytes * std::size_t(lines) + 1));
    if (!r->offsets || !r->cache) {
        free_raster(r);
        return image;
    }
    auto *base = static_cast<unsigned char *>(r->buffer[0]);
    for (int c = 0; c < r->channels; ++c) r->offsets[c] = std::size_t(static_cast<unsigned char *>(r->buffer[c]) - base);
    pxf::ops::push(image, &r->head, 0, raster_scan, raster_close);
    return image;
}

int PXF__raster_done(PXF_IMAGE *image) {
    if (!pxf::ops::top_record(image)) return 1;
    // Without a tag the record is known by its close hook: a raster below
    // another stage is left alone rather than freeing a foreign record.
    if (image->close != raster_close) return 0;
    auto *r = static_cast<Raster *>(pxf::ops::top_record(image));
    pxf::ops::pop(image, &r->head);
    free_raster(r);
    return 1;
}
