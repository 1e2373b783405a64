/*
 * Format defaults (gamma, frame rate, field dominance, default key and file
 * name, image data type, swatch size, the aspect table) and framebuffer
 * descriptions.  Both start from built-in values that the configuration
 * file may override or extend; every query initialises its database on
 * first use.
 */
#ifndef PXF_FMT_H
#define PXF_FMT_H

#include <nl_types.h>

#include "common.h"

PXF_BEGIN_DECLS

/* A named resolution with the picture's display aspect ratio. */
typedef struct FMT_ASPECT {
    char *name;
    int x_res;
    int y_res;
    float aspect;
} FMT_ASPECT;

/* A display device.  Primaries and white are chromaticities x, y, z. */
typedef struct FB_ENTRY {
    char *name;
    int reserved_1;      /* never set by the configuration file */
    int reserved_2;      /* never set by the configuration file */
    int x_res;
    int y_res;
    float aspect;
    float red[3];
    float green[3];
    float blue[3];
    float white[3];
    float gamma;
    float reserved_3;    /* never set by the configuration file */
} FB_ENTRY;

/* An image data type and its channel count (-1: variable). */
typedef struct FMT_CHAN_TYPE {
    const char *name;
    int channels;
} FMT_CHAN_TYPE;

PXF_API extern float fmt__def_gamma;
PXF_API extern float fmt__def_input_gamma;
PXF_API extern int fmt__gamma_tab_res;
PXF_API extern int fmt__def_frame_rate;
PXF_API extern int fmt__def_dominance;
PXF_API extern char *fmt__def_aspect;
PXF_API extern char *fmt__def_chan_type;
PXF_API extern char *pxf__default;   /* default format key */
PXF_API extern char *pxf__def_name;  /* default file base name */
PXF_API extern char *fb__default;    /* default framebuffer name */
PXF_API extern const FMT_CHAN_TYPE fmt__chan_type[];
PXF_API extern const int fmt__num_chan_type;

/* 0; -1 when a record cannot be allocated; -10 when a string cannot be saved.
 * Called again, only restarts the aspect table iteration. */
PXF_API int FMT_init(nl_catd catalog);
PXF_API int FMT_exit(void);
PXF_API FMT_ASPECT *FMT_find(const char *name);
PXF_API FMT_ASPECT *FMT_info(void);
PXF_API int FMT_def_dominance(void);
PXF_API int FMT_def_frame_rate(void);
PXF_API int FMT_def_gamma_tab_res(void);
PXF_API int FMT_def_swatch(void);
PXF_API float FMT_def_gamma(void);
PXF_API float FMT_def_input_gamma(void);
PXF_API char *FMT_def_aspect(void);
PXF_API char *FMT_def_image_data(void);

/* 0, or -1 on any failure.  Called again, only restarts the iteration. */
PXF_API int FB_init(nl_catd catalog);
PXF_API int FB_exit(void);
PXF_API FB_ENTRY *FB_find(const char *name);
PXF_API FB_ENTRY *FB_info(void);
PXF_API char *FB_def_framebuffer(void);
/* Internal; applications must not call it. */
PXF_API void FB_symbols(void);

PXF_END_DECLS

#endif /* PXF_FMT_H */
