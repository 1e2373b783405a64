/*
 * Machine-independent byte order: integers and IEEE floats of fixed widths
 * stored in big-endian or little-endian order, in memory and in files,
 * whatever the order of the machine.
 *
 * Memory functions take or return the value and touch exactly the field's
 * bytes (any alignment).  Floats travel as their bit patterns, so NaN
 * payloads and the sign of zero survive a round trip.  File functions
 * return 0, or -1 when the stream failed or ended before the whole field
 * (the value is then left untouched); they report nothing, since reaching
 * the end of a file is often expected.
 */
#ifndef PXF_WMI_H
#define PXF_WMI_H

#include <stdio.h>

#include "common.h"

PXF_BEGIN_DECLS

/* Byte orders. */
#define WMI_BIG_ENDIAN 0    /* most significant byte first ("network order") */
#define WMI_LITTLE_ENDIAN 1 /* least significant byte first */

/* The order of the machine the library runs on. */
PXF_API int WMI_host_order(void);

/* Stores a field of 2, 4 or 8 bytes at `bytes` in `order`. */
PXF_API void WMI_put_u16(unsigned char *bytes, uint16_t value, int order);
PXF_API void WMI_put_u32(unsigned char *bytes, uint32_t value, int order);
PXF_API void WMI_put_u64(unsigned char *bytes, uint64_t value, int order);
PXF_API void WMI_put_f32(unsigned char *bytes, float value, int order);
PXF_API void WMI_put_f64(unsigned char *bytes, double value, int order);

/* Reads a field of 2, 4 or 8 bytes at `bytes` in `order`; the i forms sign-extend. */
PXF_API uint16_t WMI_get_u16(const unsigned char *bytes, int order);
PXF_API uint32_t WMI_get_u32(const unsigned char *bytes, int order);
PXF_API uint64_t WMI_get_u64(const unsigned char *bytes, int order);
PXF_API int16_t WMI_get_i16(const unsigned char *bytes, int order);
PXF_API int32_t WMI_get_i32(const unsigned char *bytes, int order);
PXF_API int64_t WMI_get_i64(const unsigned char *bytes, int order);
PXF_API float WMI_get_f32(const unsigned char *bytes, int order);
PXF_API double WMI_get_f64(const unsigned char *bytes, int order);

/* Writes one field to `stream`: 0, or -1 when the write failed. */
PXF_API int WMI_write_u8(FILE *stream, uint8_t value);
PXF_API int WMI_write_u16(FILE *stream, uint16_t value, int order);
PXF_API int WMI_write_u32(FILE *stream, uint32_t value, int order);
PXF_API int WMI_write_u64(FILE *stream, uint64_t value, int order);
PXF_API int WMI_write_f32(FILE *stream, float value, int order);
PXF_API int WMI_write_f64(FILE *stream, double value, int order);

/* Reads one field from `stream` into *value: 0, or -1 on a short read
 * (end of file or error; *value untouched, the stream's position unspecified). */
PXF_API int WMI_read_u8(FILE *stream, uint8_t *value);
PXF_API int WMI_read_u16(FILE *stream, uint16_t *value, int order);
PXF_API int WMI_read_u32(FILE *stream, uint32_t *value, int order);
PXF_API int WMI_read_u64(FILE *stream, uint64_t *value, int order);
PXF_API int WMI_read_f32(FILE *stream, float *value, int order);
PXF_API int WMI_read_f64(FILE *stream, double *value, int order);

PXF_END_DECLS

#endif /* PXF_WMI_H */
