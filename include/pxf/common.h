/* Shared definitions for every public header of the library. */
#ifndef PXF_COMMON_H
#define PXF_COMMON_H

#include <stddef.h>
#include <stdint.h>

/* Marks every name the library exports; everything else is built hidden. */
#if defined(__GNUC__) || defined(__clang__)
#define PXF_API __attribute__((visibility("default")))
#else
#define PXF_API
#endif

#ifdef __cplusplus
#define PXF_BEGIN_DECLS extern "C" {
#define PXF_END_DECLS }
#else
#define PXF_BEGIN_DECLS
#define PXF_END_DECLS
#endif

#endif /* PXF_COMMON_H */
