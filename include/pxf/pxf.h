/*
 * Image files: description, driver registry, open, scan, seek and close.
 */
#ifndef PXF_PXF_H
#define PXF_PXF_H

#include <nl_types.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Reason for the last failure: a negative code (see the codes below). */
PXF_API extern int pxf__err;
/* The message catalogue handed to PXF_init; null means the built-in texts. */
PXF_API extern nl_catd pxf__msg_cat;

PXF_END_DECLS

#endif /* PXF_PXF_H */
