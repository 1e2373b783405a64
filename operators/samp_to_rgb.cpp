// Colour samples to RGB channels, on a handle open for writing.
#include <pxf/pxf.h>

#include "operators/sample_channels.h"

PXF_IMAGE *PXF__samp_to_rgb(PXF_IMAGE *image, int samples) {
    return pxf::ops::samples::install(image, samples, PXF_OP_SAMP_TO_RGB);
}

int PXF__samp_to_rgb_done(PXF_IMAGE *image) { return pxf::ops::samples::remove(image, PXF_OP_SAMP_TO_RGB); }
