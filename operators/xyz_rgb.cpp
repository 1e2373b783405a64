// XYZ to RGB colour transform: 8-bit XYZ to RGB in the primaries of the
// colour setup (the image's own when there is none yet).
#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "operators/colour.h"

PXF_IMAGE *PXF__xyz_rgb_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    using namespace pxf::ops;
    pxf__err = 0;
    if (!colour::accepts(image, PXF_OP_XYZ_RGB, 3)) return image;
    bool made;
    float to_rgb[9];
    if (!colour::setup(*image, 3, made)) return image;
    RFL_xyz_rgb_mat(to_rgb);
    return colour::install(image, requested, {PXF_OP_XYZ_RGB, 3, 3, to_rgb, made, true});
}

int PXF__xyz_rgb_done(PXF_IMAGE *image) { return pxf::ops::colour::remove(image, PXF_OP_XYZ_RGB); }
