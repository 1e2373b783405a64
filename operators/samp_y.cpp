// Colour samples to luminance: N 8-bit spectral samples to one channel of Y.
#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "foundation/alloc.h"
#include "operators/colour.h"

PXF_IMAGE *PXF__samp_Y_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    using namespace pxf::ops;
    pxf__err = 0;
    PXF_IMAGE_DESC *d = first_desc(image);
    if (!d || !colour::accepts(image, PXF_OP_SAMP_Y, d->chan.count)) return image;
    int n = d->chan.count;
    bool made;
    if (!colour::setup(*image, n, made)) return image;
    pxf::HeapPtr<float> to_xyz(pxf::alloc_array<float>(std::size_t(4 * n)));
    if (!to_xyz) {
        if (made) RFL_done();
        pxf__err = PXF_E_NO_MEMORY;
        return image;
    }
    float *y = to_xyz.get() + 3 * n;
    RFL_samp_xyz_mat(to_xyz.get());
    colour::column_of(to_xyz.get(), n, 1, y);
    return colour::install(image, requested, {PXF_OP_SAMP_Y, n, 1, y, made, false});
}

int PXF__samp_Y_done(PXF_IMAGE *image) { return pxf::ops::colour::remove(image, PXF_OP_SAMP_Y); }
