// Built-in colour defaults, until the colour defaults database lands.
#include "core/defaults.h"

namespace {
float red[3] = {0.67f, 0.33f, 0.0f};
float green[3] = {0.21f, 0.71f, 0.08f};
float blue[3] = {0.14f, 0.08f, 0.78f};
float white[3] = {0.31f, 0.316f, 0.374f};
}  // namespace

extern "C" {
int CLR_init(nl_catd) { return 0; }
int CLR_exit(void) { return 0; }
float *CLR_def_red_primary(void) { return red; }
float *CLR_def_green_primary(void) { return green; }
float *CLR_def_blue_primary(void) { return blue; }
float *CLR_def_white_point(void) { return white; }
}
