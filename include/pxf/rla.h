/*
 * Run-length codec for the channels of RLA scanlines.
 *
 * An integer channel of element size s (1, 2 or 4 bytes) is stored as its s byte
 * planes, most significant byte first, one plane after the other in one stream.  Each
 * plane is a sequence of packets opened by a signed count byte c:
 *     0 ... 127   a run: the next byte repeated c + 1 times
 *    -1 ... -128  a literal: the next -c bytes as they stand
 * Float and double channels are stored uncompressed, in host byte order.
 *
 * Encoders encode `count` elements of `elements`, beginning at element `start`, into
 * `out` and return the number of bytes written (0 for a count of 0).  `out` must hold
 * RLA_ENCODED_MAX(count, element size) bytes; nothing beyond the returned size is
 * written.  An encoder returns -1 and writes nothing when that size would not fit in
 * an int.
 *
 * Decoders clear `leading` elements of `dest`, decode `count` elements behind them from
 * the `length` bytes of `block`, clear `trailing` elements behind those, and return the
 * number of elements written (leading + count + trailing).  They never read outside the
 * block nor write outside those elements.  A block that is damaged (a packet reaching
 * past the block or past the end of a plane, a plane cut short, bytes left over after
 * the last plane, or for float and double a length other than count elements) gives 0
 * with all leading + count + trailing elements cleared.  Negative lengths or counts, or
 * a total above INT_MAX, give 0 and write nothing.
 *
 * Inactive decoders stand in for a channel the file does not carry: they clear `count`
 * elements of `dest` and return 0.
 *
 * No codec routine allocates memory or reports a message.
 */
#ifndef PXF_RLA_H
#define PXF_RLA_H

#include "common.h"

PXF_BEGIN_DECLS

/* The largest block the encoders write for n elements of `size` bytes each. */
#define RLA_ENCODED_MAX(n, size) ((size) * ((n) + ((n) + 127) / 128))

typedef int (*RLA_ENCODER)(const void *elements, int start, unsigned count, unsigned char *out);
typedef int (*RLA_DECODER)(const unsigned char *block, int length, void *dest, int count,
                           unsigned leading, int trailing);
typedef int (*RLA_INACT_DECODER)(void *dest, int count);

/* Elements: unsigned char, uint16_t, uint32_t, float and double respectively. */
PXF_API int rla__enc_byte(const void *elements, int start, unsigned count, unsigned char *out);
PXF_API int rla__enc_short(const void *elements, int start, unsigned count, unsigned char *out);
PXF_API int rla__enc_word(const void *elements, int start, unsigned count, unsigned char *out);
PXF_API int rla__enc_float(const void *elements, int start, unsigned count, unsigned char *out);
PXF_API int rla__enc_double(const void *elements, int start, unsigned count, unsigned char *out);

PXF_API int rla__dec_byte(const unsigned char *block, int length, void *dest, int count,
                          unsigned leading, int trailing);
PXF_API int rla__dec_short(const unsigned char *block, int length, void *dest, int count,
                           unsigned leading, int trailing);
PXF_API int rla__dec_word(const unsigned char *block, int length, void *dest, int count,
                          unsigned leading, int trailing);
PXF_API int rla__dec_float(const unsigned char *block, int length, void *dest, int count,
                           unsigned leading, int trailing);
PXF_API int rla__dec_double(const unsigned char *block, int length, void *dest, int count,
                            unsigned leading, int trailing);

PXF_API int rla__inact_dec_byte(void *dest, int count);
PXF_API int rla__inact_dec_short(void *dest, int count);
/* Word and float elements are both 4 bytes: the same routine under two names. */
PXF_API int rla__inact_dec_word(void *dest, int count);
PXF_API int rla__inact_dec_float(void *dest, int count);
PXF_API int rla__inact_dec_double(void *dest, int count);

PXF_END_DECLS

#endif /* PXF_RLA_H */
