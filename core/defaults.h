// The format and colour defaults that the image core reads.
#pragma once

#include <nl_types.h>

#include <pxf/fmt.h>

extern "C" {
int CLR_init(nl_catd catalog);
int CLR_exit(void);
float *CLR_def_red_primary(void);
float *CLR_def_green_primary(void);
float *CLR_def_blue_primary(void);
float *CLR_def_white_point(void);
}
