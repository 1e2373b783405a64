// Scale stage: delivers the image at another size, each output scanline
// filtered from the few source rows it needs.
#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "operators/chain.h"
#include "operators/resampler.h"

namespace {

struct Scale {
    PXF_OPERATOR head;
    // The fields of the description below that the new size changes.
    PXF_BOUNDS window, active_window;
    float aspect_ratio;
    int32_t x_res, y_res;
    pxf::ops::Resampler *engine;
};

int scale_scan(void *data, int line, void ***rows, void **table) {
    auto *s = static_cast<Scale *>(data);
    if (!s || !s->head.saved_scan) return pxf::ops::missing_record();
    return pxf::ops::resampler_read(*s->engine, line, s->head.saved_scan, s->head.saved_private, rows, table);
}

}  // namespace

PXF_IMAGE *PXF__scale_init(PXF_IMAGE *image, int width, int height, const char *filter) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data || !image->scan || image->mode != PXF_MODE_READ) return image;
    const char *name = pxf::ops::operator_name(PXF_OP_SCALE);
    const pxf::ops::Kernel *kernel = pxf::ops::kernel_or_report(filter, name);
    if (!kernel || !pxf::ops::size_ok(width, height, name)) return image;
    if (!pxf::ops::groups_ok(*d) || pxf::ops::row_width(*d) <= 0 || d->window.top < d->window.bottom) {
        pxf__err = PXF_E_CANNOT_DO;
        return image;
    }
    if (width == pxf::ops::row_width(*d) && height == d->window.top - d->window.bottom + 1) return image;

    auto *s = static_cast<Scale *>(pxf::alloc_zeroed(sizeof(Scale)));
    if (!s) return image;
    s->window = d->window;
    s->active_window = d->active_window;
    s->aspect_ratio = d->aspect_ratio;
    s->x_res = d->x_res;
    s->y_res = d->y_res;
    PXF_IMAGE_DESC target = *d;
    pxf::ops::resize_desc(target, *d, width, height);
    if (!(s->engine = pxf::ops::resampler_new(*d, target, *kernel, 1.0, name))) {
        pxf::heap_free(s);
        return image;
    }
    *d = target;
    pxf::ops::push(image, &s->head, PXF_OP_SCALE, scale_scan, pxf::ops::close_hook<PXF__scale_done>);
    return image;
}

int PXF__scale_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__scale_done>(image, PXF_OP_SCALE)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *s = static_cast<Scale *>(pxf::ops::top_record(image));
    if (PXF_IMAGE_DESC *d = pxf::ops::first_desc(image)) {
        d->window = s->window;
        d->active_window = s->active_window;
        d->aspect_ratio = s->aspect_ratio;
        d->x_res = s->x_res;
        d->y_res = s->y_res;
    }
    pxf::ops::pop(image, &s->head);
    pxf::ops::resampler_free(s->engine);
    pxf::heap_free(s);
    return 1;
}
