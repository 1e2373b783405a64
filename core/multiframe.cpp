// The multi-frame layer's places in the open and close paths.  Until the
// layer has containers of its own it claims no request and no handle.
#include <pxf/pxf.h>

PXF_IMAGE *PXF_multiframe_open(PXF_INFO *, const char *) { return nullptr; }

int PXF_multiframe_add(PXF_IMAGE *) { return 0; }

int PXF_multiframe_used(PXF_IMAGE *) { return 0; }

int PXF_multiframe_set_closed(PXF_IMAGE *) { return 0; }
