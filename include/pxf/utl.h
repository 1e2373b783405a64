/*
 * Small utilities shared by the library and its applications.
 */
#ifndef PXF_UTL_H
#define PXF_UTL_H

#include "common.h"

PXF_BEGIN_DECLS

/* Converts the whole of `text` (surrounding blanks allowed) to a finite
 * number in *value.  Returns 1 when it converted, 0 otherwise (*value is then 0). */
PXF_API int UTL_cnv_atof(const char *text, double *value);

PXF_END_DECLS

#endif /* PXF_UTL_H */

/* The debugging allocator (UTL_debug_malloc, UTL_malloc, ...). */
#include "utl_debug.h"
