/*
 * Colour defaults: primaries and white point, the visible wavelength range,
 * the colour-matching (tristimulus) table and the spectral sample bins.
 * Chromaticities are x, y, z with z = 1 - x - y.
 */
#ifndef PXF_CLR_H
#define PXF_CLR_H

#include <nl_types.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Rows of the built-in tristimulus table: 380 to 780 nm in 1 nm steps. */
#define CLR_XYZ_TAB_RES 401

/* How N spectral samples divide the wavelength range. */
typedef struct CLR_BINS {
    int n;               /* number of samples */
    int uniform;         /* boundaries spread evenly over the range */
    float *bounds;       /* n + 1 boundaries in nanometres, ascending */
    float *inv_width;    /* n values 1 / (bounds[k+1] - bounds[k]) */
    float *samp_to_xyz;  /* n rows of X, Y, Z: what one unit of sample i gives */
    float *xyz_to_samp;  /* 3 rows of n values */
} CLR_BINS;

PXF_API extern float rfl__def_red_pri[3];
PXF_API extern float rfl__def_green_pri[3];
PXF_API extern float rfl__def_blue_pri[3];
PXF_API extern float rfl__def_white_pt[3];
PXF_API extern int rfl__def_color_samp;
/* CIE 1931 2-degree observer x, y, z bar at 1 nm, each column summing to 1. */
PXF_API extern const float rfl__def_xyz_func[CLR_XYZ_TAB_RES][3];
/* The table in use (rows of x, y, z bar over the current range and resolution). */
PXF_API extern const float (*rfl__xyz_func)[3];

/* 0, or -1 on any error (the database is then torn down).  Called again,
 * only restarts the iterations. */
PXF_API int CLR_init(nl_catd catalog);
PXF_API int CLR_exit(void);
PXF_API CLR_BINS *CLR_find(int n);
PXF_API int CLR_def_color_samp(void);
PXF_API float CLR_def_min_wavelength(void);
PXF_API float CLR_def_max_wavelength(void);
PXF_API int CLR_def_xyz_tab_res(void);
PXF_API float *CLR_def_red_primary(void);
PXF_API float *CLR_def_green_primary(void);
PXF_API float *CLR_def_blue_primary(void);
PXF_API float *CLR_def_white_point(void);
/* Internal; applications must not call it. */
PXF_API void CLR_symbols(void);

PXF_END_DECLS

#endif /* PXF_CLR_H */
