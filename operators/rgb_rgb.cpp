// RGB to RGB colour transform: 8-bit RGB in the image's primaries to RGB in
// the primaries of the current colour setup.
#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "operators/colour.h"

PXF_IMAGE *PXF__rgb_rgb_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    using namespace pxf::ops;
    pxf__err = 0;
    if (!colour::accepts(image, PXF_OP_RGB_RGB, 3)) return image;
    const PXF_INFO &i = image->info;
    // The setup's RGB to the image's RGB, turned round.
    float to_image[9], to_target[9];
    if (!RFL_rgb_rgb_mat(to_image, i.red_pri[0], i.red_pri[1], i.green_pri[0], i.green_pri[1], i.blue_pri[0],
                         i.blue_pri[1], i.white_pt[0], i.white_pt[1]) ||
        !RFL_trans_inv(to_image, to_target))
        return image;
    return colour::install(image, requested, {PXF_OP_RGB_RGB, 3, 3, to_target, false, true});
}

int PXF__rgb_rgb_done(PXF_IMAGE *image) { return pxf::ops::colour::remove(image, PXF_OP_RGB_RGB); }
