// RGB to luminance: 8-bit RGB to one channel of Y in the same encoding.
#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "operators/colour.h"

PXF_IMAGE *PXF__rgb_Y_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    using namespace pxf::ops;
    pxf__err = 0;
    if (!colour::accepts(image, PXF_OP_RGB_Y, 3)) return image;
    bool made;
    float to_xyz[9], y[3];
    if (!colour::setup(*image, 3, made)) return image;
    RFL_rgb_xyz_mat(to_xyz);
    colour::column_of(to_xyz, 3, 1, y);
    return colour::install(image, requested, {PXF_OP_RGB_Y, 3, 1, y, made, false});
}

int PXF__rgb_Y_done(PXF_IMAGE *image) { return pxf::ops::colour::remove(image, PXF_OP_RGB_Y); }
