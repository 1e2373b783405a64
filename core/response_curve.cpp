// Releasing a response curve's tables.
#include <pxf/pxf.h>

#include "foundation/alloc.h"

int PXF_response_curve_done(PXF_RESPONSE_CURVE *curve) {
    if (curve && curve->kind == PXF_CURVE_TABLE && curve->tables) {
        pxf::heap_free(curve->tables[0]);  // one block holds every channel's table
        pxf::heap_free(curve->tables);
        curve->tables = nullptr;
    }
    return 1;
}
