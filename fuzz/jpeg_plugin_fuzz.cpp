// The JPEG driver, fed arbitrary files.
#define PLUGIN_NAME "jpeg"
#include "driver_fuzz.h"
