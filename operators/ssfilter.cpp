// Symmetric separable filter stage: the same kernel along x and y, stretched
// so that its support reaches `radius` pixels; the image keeps its size.
#include <cmath>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/resampler.h"

namespace {

// Wider supports would hold thousands of rows in the ring.
constexpr float kMaxRadius = 1000.0f;

struct Filter {
    PXF_OPERATOR head;
    pxf::ops::Resampler *engine;
};

int ssfilter_scan(void *data, int line, void ***rows, void **table) {
    auto *f = static_cast<Filter *>(data);
    if (!f || !f->head.saved_scan) return pxf::ops::missing_record();
    return pxf::ops::resampler_read(*f->engine, line, f->head.saved_scan, f->head.saved_private, rows, table);
}

}  // namespace

PXF_IMAGE *PXF__ssfilter(PXF_IMAGE *image, const char *filter, float radius) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data || !image->scan || image->mode != PXF_MODE_READ) return image;
    const char *name = pxf::ops::operator_name(PXF_OP_SSFILTER);
    const pxf::ops::Kernel *kernel = pxf::ops::kernel_or_report(filter, name);
    if (!kernel) return image;
    if (!(radius > 0.0f && radius <= kMaxRadius))
        return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 232, "%s: bad radius %g (above 0, at most %g)",
                         name, double(radius), double(kMaxRadius));
    if (!pxf::ops::groups_ok(*d) || pxf::ops::row_width(*d) <= 0 || d->window.top < d->window.bottom) {
        pxf__err = PXF_E_CANNOT_DO;
        return image;
    }
    auto *f = static_cast<Filter *>(pxf::alloc_zeroed(sizeof(Filter)));
    if (!f) return image;
    if (!(f->engine = pxf::ops::resampler_new(*d, *d, *kernel, double(radius) / kernel->radius, name))) {
        pxf::heap_free(f);
        return image;
    }
    pxf::ops::push(image, &f->head, PXF_OP_SSFILTER, ssfilter_scan, pxf::ops::close_hook<PXF__ssfilter_done>);
    return image;
}

int PXF__ssfilter_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__ssfilter_done>(image, PXF_OP_SSFILTER)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *f = static_cast<Filter *>(pxf::ops::top_record(image));
    pxf::ops::pop(image, &f->head);
    pxf::ops::resampler_free(f->engine);
    pxf::heap_free(f);
    return 1;
}
