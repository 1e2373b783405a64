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

/*
 * The built-in "rla" image driver (extension ".rla"; ".rlb" is read as well).
 *
 * A file holds one or more images, each a 740-byte header, a table of 32-bit
 * big-endian scanline offsets (one per scanline of the active window, lowest
 * first) and, per scanline, one block per channel (image, matte, auxiliary):
 * a 16-bit big-endian length and that many bytes from the channel's encoder.
 * The header's last 4 bytes hold the file offset of the next image's header,
 * 0 in the last image.
 *
 * PXF_rla_is_file answers 1 for a file whose first header is plausible; with a
 * stream (a FILE *) it rewinds and reads that stream, otherwise it opens path.
 * The open functions follow the driver protocol of plugin.h.  The file name
 * "/dev/stdout" writes to standard output (the header is then not patched at
 * close) and "/dev/stdin" reads standard input.  Other names are looked up in
 * the directory $QV_IMG_DIR unless they start with "/" or "./".
 *
 * Images after the first are reached through the handle's private-data
 * table: image i is scanned with image->scan(image->private_data[i], ...).
 * The reader reads scanlines in any order.
 *
 * Reader messages (catalogue set 902), besides those shared with the rest of
 * the library (52 cannot open, 53 bad scanline, 94 no memory, 70-80 channel
 * type and width):
 *    54  "Cannot read from %s; %s"                          pxf__err -4
 *    55  "Cannot read scanline %d; %s"                      pxf__err -2
 *    58  "Cannot decode scanline %d"                        pxf__err -2
 *    59  "%s: This does not appear to be a Quorvalen file"  pxf__err -4
 *    89  "unexpected end of file"   (reason text for 54 and 55)
 *    90  "offset out of range"      (reason text for 55)
 *    97  "%s: the file is incomplete (its writing was interrupted)"  pxf__err -4
 * Writer messages: 52, 53, 56 "Cannot write to %s; %s", 57 "Cannot write
 * scanline %d; %s", 70-80, 88, 94, and
 *    60  "%s cannot handle the image window"                pxf__err -16
 * for windows the header cannot hold (coordinates outside 0..32767, inverted,
 * or an active window reaching outside the window), and
 *   241  "%s cannot hold scanlines %d pixels wide of %d-byte elements: an
 *        encoded channel may exceed the %d-byte block limit"  pxf__err -16
 * when one channel's encoded scanline could be longer than a block's 16-bit
 * length can say.
 *    98  "%s: %d scanlines not written, filled with zero"   (warning, at close)
 *    99  "%s: an earlier write failed; the file was not kept"  (at close,
 *        which then returns -20)
 *
 * A named file is written as a temporary file in the same directory and
 * renamed over the name at close, once every scanline and the offset tables
 * are in place; a failed open, scanline write or close leaves any old file
 * of that name untouched.  Until then the first
 * header's storage type (offset 18) holds -1, so the probe refuses a file
 * whose writer was killed and the reader reports it with number 97.
 * Terminals, pipes and devices are written in place and never removed.
 */
struct PXF_IMAGE;
PXF_API int PXF_rla_is_file(const char *path, void *stream);
PXF_API int PXF_rla_r_open(struct PXF_IMAGE *image);
PXF_API int PXF_rla_w_open(struct PXF_IMAGE *image);

PXF_END_DECLS

#endif /* PXF_RLA_H */
