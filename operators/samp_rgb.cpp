// Colour samples to RGB: N 8-bit spectral samples per pixel to RGB in the
// primaries of the colour setup.
#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "foundation/alloc.h"
#include "operators/colour.h"

PXF_IMAGE *PXF__samp_rgb_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    using namespace pxf::ops;
    pxf__err = 0;
    PXF_IMAGE_DESC *d = first_desc(image);
    if (!d || !colour::accepts(image, PXF_OP_SAMP_RGB, d->chan.count)) return image;
    int n = d->chan.count;
    bool made;
    if (!colour::setup(*image, n, made)) return image;
    pxf::HeapPtr<float> to_rgb(pxf::alloc_array<float>(std::size_t(3 * n)));
    if (!to_rgb) {
        if (made) RFL_done();
        pxf__err = PXF_E_NO_MEMORY;
        return image;
    }
    RFL_samp_rgb_mat(to_rgb.get());
    return colour::install(image, requested, {PXF_OP_SAMP_RGB, n, 3, to_rgb.get(), made, true});
}

int PXF__samp_rgb_done(PXF_IMAGE *image) { return pxf::ops::colour::remove(image, PXF_OP_SAMP_RGB); }
