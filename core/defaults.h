// The format and colour defaults that the image core reads.
#pragma once

#include <nl_types.h>

extern "C" {
int FMT_init(nl_catd catalog);
int FMT_exit(void);
float FMT_def_gamma(void);
int FMT_def_gamma_tab_res(void);
int CLR_init(nl_catd catalog);
int CLR_exit(void);
float *CLR_def_red_primary(void);
float *CLR_def_green_primary(void);
float *CLR_def_blue_primary(void);
float *CLR_def_white_point(void);
extern char *pxf__default;
extern char *pxf__def_name;
}
