// Arbitrary bytes opened as a PNG file through the png driver module.
#include "plugin_fuzz.h"

PXF_PLUGIN_FUZZ_TARGET("png")
