/*
 * Small string and pointer helpers shared by the library and its drivers.
 */
#ifndef PXF_STR_H
#define PXF_STR_H

#include "common.h"

PXF_BEGIN_DECLS

/* Grows (or shrinks) a heap string buffer to `size` bytes, keeping its
 * contents; a null string allocates a fresh buffer.  On failure reports
 * "No more internal memory" and returns null, leaving the old buffer valid. */
PXF_API char *STR_more(char *string, uint32_t size);

/* Frees a pointer taken from the library's allocator; null is harmless. */
PXF_API void EPTR_free(void *pointer);

PXF_END_DECLS

#endif /* PXF_STR_H */
