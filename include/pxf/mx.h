/*
 * Matrices: 4x4 (MX4F_ single, MX4D_ double precision) and N x N (MXNF_,
 * MXND_), and a 2-D collinearity test.
 *
 * Conventions
 * - Storage is row by row: m[row][column], and N x N matrices are arrays of
 *   n * n elements, element (r, c) at r * n + c.
 * - The transforms (rotate, scale, translate, transform) treat points as row
 *   vectors multiplied on the left, p' = p * M, with the translation in the
 *   bottom row; a * b therefore applies a first, then b.
 * - Coordinates are right-handed.  A positive angle (in radians) turns
 *   counterclockwise when looking from the positive end of the axis toward the
 *   origin: about z, x turns toward y; about x, y toward z; about y, z toward x.
 * - Inversion and solving use LU decomposition with partial pivoting.  A
 *   matrix counts as singular when a pivot falls to n * machine epsilon of
 *   its largest element, or its estimated condition number exceeds
 *   1 / (n * machine epsilon): the function returns -1 and leaves its
 *   output untouched, instead of dividing by (almost) zero.  The float
 *   4x4 functions compute in double precision.
 * - Results: 0 for success, -1 for failure; N x N functions that need
 *   working memory beyond 8 x 8 report "No more internal memory" when there
 *   is none and return -1.
 */
#ifndef PXF_MX_H
#define PXF_MX_H

#include <stdio.h>

#include "common.h"

PXF_BEGIN_DECLS

typedef struct MX4F {
    float m[4][4];
} MX4F;

typedef struct MX4D {
    double m[4][4];
} MX4D;

/* out = I. */
PXF_API void MX4F_identity(MX4F *out);
/* out = a * b; out may be a or b. */
PXF_API void MX4F_multiply(const MX4F *a, const MX4F *b, MX4F *out);
/* out = the transpose of m; out may be m. */
PXF_API void MX4F_transpose(const MX4F *m, MX4F *out);
/* out = the inverse of m; -1 (out untouched) when m is singular. out may be m. */
PXF_API int MX4F_invert(const MX4F *m, MX4F *out);
/* The determinant of m. */
PXF_API float MX4F_determinant(const MX4F *m);
/* Solves a * x = b for the column vector x; -1 when a is singular. x may be b. */
PXF_API int MX4F_solve(const MX4F *a, const float b[4], float x[4]);
/* out = rotation about the x, y or z axis by `radians`. */
PXF_API void MX4F_rotate_x(MX4F *out, float radians);
PXF_API void MX4F_rotate_y(MX4F *out, float radians);
PXF_API void MX4F_rotate_z(MX4F *out, float radians);
/* out = rotation by `radians` about the axis (x, y, z) through the origin
 * (any length but zero); -1 (out untouched) for a zero or non-finite axis. */
PXF_API int MX4F_rotate(MX4F *out, float x, float y, float z, float radians);
/* out = scaling by (sx, sy, sz). */
PXF_API void MX4F_scale(MX4F *out, float sx, float sy, float sz);
/* out = translation by (tx, ty, tz). */
PXF_API void MX4F_translate(MX4F *out, float tx, float ty, float tz);
/* out = in * m for the row vector in (x, y, z, w); out may be in. */
PXF_API void MX4F_transform(const MX4F *m, const float in[4], float out[4]);
/* Writes m to stream, one row per line; 0, or -1 when the write failed. */
PXF_API int MX4F_print(FILE *stream, const MX4F *m);

/* The same in double precision. */
PXF_API void MX4D_identity(MX4D *out);
PXF_API void MX4D_multiply(const MX4D *a, const MX4D *b, MX4D *out);
PXF_API void MX4D_transpose(const MX4D *m, MX4D *out);
PXF_API int MX4D_invert(const MX4D *m, MX4D *out);
PXF_API double MX4D_determinant(const MX4D *m);
PXF_API int MX4D_solve(const MX4D *a, const double b[4], double x[4]);
PXF_API void MX4D_rotate_x(MX4D *out, double radians);
PXF_API void MX4D_rotate_y(MX4D *out, double radians);
PXF_API void MX4D_rotate_z(MX4D *out, double radians);
PXF_API int MX4D_rotate(MX4D *out, double x, double y, double z, double radians);
PXF_API void MX4D_scale(MX4D *out, double sx, double sy, double sz);
PXF_API void MX4D_translate(MX4D *out, double tx, double ty, double tz);
PXF_API void MX4D_transform(const MX4D *m, const double in[4], double out[4]);
PXF_API int MX4D_print(FILE *stream, const MX4D *m);

/* N x N, single precision.  n must be at least 1; -1 otherwise. */
/* m = I. */
PXF_API int MXNF_identity(float *m, int n);
/* out = a * b; out must not overlap a or b (-1 if it is one of them). */
PXF_API int MXNF_multiply(const float *a, const float *b, float *out, int n);
/* out = the transpose of m; out may be m. */
PXF_API int MXNF_transpose(const float *m, float *out, int n);
/* Replaces a with its LU decomposition (unit lower triangle below the
 * diagonal, upper triangle on and above it) and fills pivot[n] with the row
 * exchanges; -1 for a singular matrix (a is then undefined). */
PXF_API int MXNF_lu(float *a, int *pivot, int n);
/* Solves a * x = b with the decomposition from MXNF_lu; b is replaced by x. */
PXF_API int MXNF_lu_solve(const float *lu, const int *pivot, float *b, int n);
/* out = the inverse of m; -1 (out untouched) when singular.  out may be m. */
PXF_API int MXNF_invert(const float *m, float *out, int n);
/* Solves a * x = b for the column vector x; -1 when a is singular. x may be b. */
PXF_API int MXNF_solve(const float *a, const float *b, float *x, int n);
/* *det = the determinant of m (0 for a singular matrix); -1 only for bad arguments or no memory. */
PXF_API int MXNF_determinant(const float *m, int n, float *det);
/* Writes m to stream, one row per line. */
PXF_API int MXNF_print(FILE *stream, const float *m, int n);

/* N x N, double precision. */
PXF_API int MXND_identity(double *m, int n);
PXF_API int MXND_multiply(const double *a, const double *b, double *out, int n);
PXF_API int MXND_transpose(const double *m, double *out, int n);
PXF_API int MXND_lu(double *a, int *pivot, int n);
PXF_API int MXND_lu_solve(const double *lu, const int *pivot, double *b, int n);
PXF_API int MXND_invert(const double *m, double *out, int n);
PXF_API int MXND_solve(const double *a, const double *b, double *x, int n);
PXF_API int MXND_determinant(const double *m, int n, double *det);
PXF_API int MXND_print(FILE *stream, const double *m, int n);

/* 1 when the points a, b and c (x, y) lie on one line: the sine of the angle
 * at a between b and c is at most `tolerance` (0 asks for exact collinearity).
 * Coincident points are collinear. */
PXF_API int POINT_2D_is_colinear(const double a[2], const double b[2], const double c[2], double tolerance);

PXF_END_DECLS

#endif /* PXF_MX_H */
