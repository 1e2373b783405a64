// Rectangles of an open image: each scanline the rectangle covers is read
// once, in the driver's order, and its columns copied out.
#include <cstring>

#include <pxf/frames.h>

#include "core/core_util.h"

namespace {

int element_bytes(const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT) return 4;
    if (g.type == PXF_C_DOUBLE) return 8;
    return g.width <= 8 ? 1 : g.width <= 16 ? 2 : 4;
}

}  // namespace

int PXF_get_region(PXF_IMAGE *image, RCT_RECT *rect, void ***rows) {
    pxf__err = 0;
    if (!image || !rect || !rows || !image->info.images || image->info.num_images < 1)
        return pxf__err = pxf::kErrCannotDo;
    PXF_IMAGE_DESC d = image->info.images[0];
    RCT_RECT window = {d.window.left, d.window.bottom, d.window.right, d.window.top}, clipped;
    if (!RCT_valid(rect) || !RCT_intersect(&window, rect, &clipped)) {
        RCT_set(rect, 0, 0, -1, -1);
        return 0;
    }
    *rect = clipped;
    // The channels as a scanline read delivers them: colour, matte,
    // auxiliary, or the colour index when there is no colour.
    struct Part {
        int count, bytes;
    } parts[4] = {{d.chan.count, element_bytes(d.chan)},
                  {d.matte.count, element_bytes(d.matte)},
                  {d.aux.count, element_bytes(d.aux)},
                  {d.chan.count ? 0 : d.index.count, 2}};
    int width = d.window.right - d.window.left + 1;
    void **scratch = pxf__chan_alloc(&d, width, "PXF_get_region");
    if (!scratch) {
        pxf::report_no_memory();
        return pxf__err = pxf::kErrNoMemory;
    }
    int x0 = clipped.xmin - d.window.left, n = clipped.xmax - clipped.xmin + 1;
    int count = clipped.ymax - clipped.ymin + 1;
    bool bottom_up = d.orientation & 1;
    int result = count;
    for (int k = 0; k < count; ++k) {
        int r = bottom_up ? k : count - 1 - k;
        void **got = scratch;
        int status = PXF_scan_read(image, clipped.ymin + r, &got);
        if (status != 0) {
            result = status;
            break;
        }
        int c = 0;
        for (const Part &p : parts)
            for (int i = 0; i < p.count; ++i, ++c)
                std::memcpy(rows[r][c], static_cast<unsigned char *>(got[c]) + std::size_t(x0) * p.bytes,
                            std::size_t(n) * p.bytes);
    }
    pxf__chan_free(scratch);
    if (result < 0) pxf__err = result;
    return result;
}
