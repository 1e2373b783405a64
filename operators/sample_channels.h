// The write-side sample operators: the caller writes N float spectral
// samples per pixel, the file below receives three float channels (RGB or
// XYZ).  Shared by the two operators, which differ only in the matrix.
#pragma once

#include <pxf/pxf.h>

namespace pxf::ops::samples {

// Installs the tag's stage for `samples` samples per pixel.
PXF_IMAGE *install(PXF_IMAGE *image, int samples, int tag);
int remove(PXF_IMAGE *image, int tag);

}  // namespace pxf::ops::samples
