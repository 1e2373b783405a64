// The JPEG driver, fed arbitrary files.
#define PLUGIN_NAME "jpeg"
#include "plugin_fuzz.h"
