/*
 * Colour conversions: RGB <-> CIE XYZ from a display's primaries and white,
 * spectral samples <-> XYZ and RGB, Lab, Luv, YIQ, clipping to the gamut.
 *
 * Colours are 3 floats.  3x3 matrices are 9 floats stored row by row and
 * applied to a row vector on the left: out[j] = sum of in[i] * M[i][j], so
 * row 0 of an RGB->XYZ matrix is the XYZ of full red.  Sample tables follow
 * the same rule: samples->XYZ is N rows of 3, XYZ->samples 3 rows of N.
 */
#ifndef PXF_RFL_H
#define PXF_RFL_H

#include "common.h"

PXF_BEGIN_DECLS

/* The current setup; rfl_samples is 0 when there is none. */
PXF_API extern int rfl_samples;
PXF_API extern float *rfl__samp_wl;          /* N + 1 bin boundaries */
PXF_API extern float *rfl__samp_mg;          /* N inverse bin widths */
PXF_API extern float *rfl__samp_to_xyz_ptr;  /* N rows of X, Y, Z */
PXF_API extern float *rfl__xyz_to_samp_ptr;  /* 3 rows of N */

/* Fixes the number of samples and the primaries (the given x, y pairs when
 * `use_given` is non-zero, else the colour defaults).  Returns N, 0 on
 * failure; while set up, returns the current N and changes nothing. */
PXF_API int RFL_init(int samples, int use_given, double red_x, double red_y,
                     double green_x, double green_y, double blue_x, double blue_y,
                     double white_x, double white_y);
/* 1, or 0 when there was no setup. */
PXF_API int RFL_done(void);
/* The current N and primaries; 0 (outputs untouched) without a setup. */
PXF_API int RFL_status(float *red_x, float *red_y, float *green_x, float *green_y,
                       float *blue_x, float *blue_y, float *white_x, float *white_y);

/* These return `matrix` filled in, or null without a setup. */
PXF_API float *RFL_rgb_xyz_mat(float *matrix);
PXF_API float *RFL_xyz_rgb_mat(float *matrix);
/* Current RGB to the RGB of a display with the given primaries and white. */
PXF_API float *RFL_rgb_rgb_mat(float *matrix, double red_x, double red_y,
                               double green_x, double green_y, double blue_x,
                               double blue_y, double white_x, double white_y);
/* 3 x N values each. */
PXF_API float *RFL_samp_xyz_mat(float *matrix);
PXF_API float *RFL_samp_rgb_mat(float *matrix);
PXF_API float *RFL_rgb_samp_mat(float *matrix);

/* One colour to N samples: 1, or 0 without a setup. */
PXF_API int RFL_xyz_samp(const float *xyz, float *samples);
PXF_API int RFL_rgb_samp(const float *rgb, float *samples);
/* N samples to a step spectrum, one value per nanometre from the minimum to
 * the maximum wavelength (both truncated), which `spectrum` must hold;
 * nanometres beyond the last bin get 0.  1, or 0 without a setup. */
PXF_API int RFL_samp_spectral(const float *samples, float *spectrum);

/* 1, or 0 (output untouched) when Y is outside 0.01 .. 1.0. */
PXF_API int RFL_xyz_lab(const float *xyz, float *lab);
PXF_API int RFL_xyz_luv(const float *xyz, float *luv);

/* Fixed matrices; each returns `matrix` filled in. */
PXF_API float *RFL_xyz_yiq_mat(float *matrix);
PXF_API float *RFL_yiq_xyz_mat(float *matrix);
PXF_API float *RFL_encode_mat(float *matrix);  /* RGB -> YIQ */
PXF_API float *RFL_decode_mat(float *matrix);  /* YIQ -> RGB */

/* Brings `in` into [0, maximum] by moving it toward its grey.  Returns 1. */
PXF_API int RFL_clip_rgb(const float *in, float *out, double maximum);
/* 1 with the inverse of the 3x3 `matrix` written, 0 when it is singular. */
PXF_API int RFL_trans_inv(const float *matrix, float *inverse);

PXF_END_DECLS

#endif /* PXF_RFL_H */
