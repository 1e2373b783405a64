// The OpenEXR driver, fed arbitrary files.
#define PLUGIN_NAME "exr"
#include "driver_fuzz.h"
