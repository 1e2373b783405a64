// Arbitrary bytes opened as a TIFF file through the tiff driver module.
#include "plugin_fuzz.h"

PXF_PLUGIN_FUZZ_TARGET("tiff")
