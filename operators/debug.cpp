// A stage that does nothing, for putting a break point in a chain.
#include <pxf/pxf.h>

PXF_IMAGE *PXF__debug(PXF_IMAGE *image) { return image; }

int PXF__debug_done(PXF_IMAGE *) { return 1; }
