// The OpenEXR driver, fed arbitrary files.
#define PLUGIN_NAME "exr"
#include "plugin_fuzz.h"
