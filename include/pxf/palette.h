/*
 * Palette files: PXF_LUT records (see pxf.h) read from and written to the
 * palette formats paint programs exchange, and a binary form of our own that
 * keeps everything a PXF_LUT holds.
 *
 * A palette gives the colour of each value of an image's colour-index
 * channel group (PXF_IMAGE_DESC.index: integer elements of at most 16 bits),
 * so a palette holds from 1 to PXF_LUT_MAX_ENTRIES entries: entry i is the
 * colour of index i.
 *
 * ---- Entry layout (PXF_LUT_ENTRY, 8 bytes) ----
 *     0  2  red     } intensities from 0 to 65535, in the palette's own
 *     2  2  green   } encoding (PXF_LUT.gamma says which); an 8-bit value v
 *     4  2  blue    } is held as v * 257, so 8-bit palettes round-trip exactly
 *     6  2  flags: bit 0 PXF_LUT_LOCKED (the entry is reserved: an
 *           application keeps it when it rebuilds the palette); the other
 *           bits are reserved and kept as they are
 * PXF_LUT.maximum is the highest index in use; the text forms store entries
 * 0 to maximum, and a palette read from one has maximum = count - 1.
 *
 * ---- Formats ----
 * PXF_LUT_GPL ("GIMP Palette", extension .gpl): text.  The line
 *     "GIMP Palette", optional "Name: ..." and "Columns: N" lines, comments
 *     starting with '#', blank lines, then one colour a line: three integers
 *     from 0 to 255 separated by blanks, optionally followed by a name.
 * PXF_LUT_JASC ("JASC-PAL", extension .pal): text.  The lines "JASC-PAL",
 *     the version "0100", the number of colours, then that many lines of three
 *     integers from 0 to 255.  Lines after the last colour are ignored.
 *     An optional fourth number (alpha) on a colour line is ignored.  GIMP
 *     palettes are written with "\n" line ends, JASC ones with "\r\n"; both
 *     are accepted either way.
 *     They hold 8 bits a component (16-bit components are rounded) and no
 *     gamma or flags: read back, gamma is 1.0 and flags are 0.
 * PXF_LUT_BINARY (extension .lut): every field of the record.  All integers
 *     are big-endian; the gamma is an IEEE 754 single stored as a big-endian
 *     32-bit word.
 *     0  36  the text "Quorvalen Palette File, Version 1.0" and "\n"
 *    36   4  reserved, zero
 *    40   4  number of entries n (1 to 65536)
 *    44   4  maximum: highest index in use (32-bit signed, -1 to n - 1)
 *    48   4  gamma (finite, greater than 0)
 *    52   4  reserved, zero
 *    56  8n  the entries: red, green, blue, flags (16 bits each)
 *     The file is exactly 56 + 8n bytes long; anything else is refused.
 *
 * Reading checks every field against the bytes present and refuses a file
 * that is damaged, truncated or larger than a palette can be (16 MiB for the
 * text forms), with one of the messages below; nothing past the data is read.
 * Writing goes through a temporary file (UTL_output_open), so a failed write
 * leaves an existing file as it was.
 *
 * ---- Messages (catalogue set 902) and pxf__err ----
 *   720  "%s: This does not appear to be a palette file"                    -4
 *   721  "%s: palette line %d is not understood"                           -4
 *   722  "%s: the palette is damaged or truncated"                          -4
 *   723  "%s: palette version %s is not supported"                         -4
 *   724  "%s: a palette of %lu entries is more than a colour index can address" -4 reading, -16 writing
 *   725  "%s: the palette has no entries"                                   -4 reading, -16 writing
 *   726  "Unknown palette format %d"                                        -16
 * and 52 "Cannot open file %s; %s" (-5), 54 "Cannot read from %s; %s" (-5),
 * 56 "Cannot write to %s; %s" (-20), 94 "No more internal memory" (-10).
 */
#ifndef PXF_PALETTE_H
#define PXF_PALETTE_H

#include <stddef.h>

#include "pxf.h"

PXF_BEGIN_DECLS

/* The most entries a palette holds: one for each value of a 16-bit index. */
#define PXF_LUT_MAX_ENTRIES 65536u
/* PXF_LUT_ENTRY.flags: the entry is reserved. */
#define PXF_LUT_LOCKED 0x0001u

typedef enum PXF_LUT_FORMAT {
    PXF_LUT_ANY = 0,    /* reading: found from the contents; writing: from the extension */
    PXF_LUT_GPL = 1,    /* GIMP palette text */
    PXF_LUT_JASC = 2,   /* JASC palette text */
    PXF_LUT_BINARY = 3  /* the library's own binary form */
} PXF_LUT_FORMAT;

/* The format of `size` bytes of palette data (PXF_LUT_ANY: none of them).
 * Only the first line is looked at. */
PXF_API PXF_LUT_FORMAT PXF_lut_format_of(const void *data, size_t size);
/* The format a name's extension asks for when writing: ".gpl" GIMP, ".pal"
 * JASC, anything else (".lut" included) the binary form.  Case is ignored. */
PXF_API PXF_LUT_FORMAT PXF_lut_format_for_name(const char *path);
/* "gpl", "jasc", "binary", or null for another value. */
PXF_API const char *PXF_lut_format_name(PXF_LUT_FORMAT format);

/* A new palette from `size` bytes of `format` data (PXF_LUT_ANY: found from
 * the contents); `name` names the data in messages.  Null after a report. */
PXF_API PXF_LUT *PXF_lut_parse(const void *data, size_t size, const char *name, PXF_LUT_FORMAT format);
/* The same from the file `path`.  *found (may be null) receives the format
 * read.  Free the result with PXF_lut_free. */
PXF_API PXF_LUT *PXF_lut_load(const char *path, PXF_LUT_FORMAT format, PXF_LUT_FORMAT *found);

/* The bytes of `lut` in `format` (not PXF_LUT_ANY): a new block from
 * ERR_malloc that the caller releases with ERR_free, its length in *size.
 * Null after a report.  `name` names the palette in messages and, in the
 * GIMP form, in its "Name:" line (null: "palette"). */
PXF_API void *PXF_lut_format(const PXF_LUT *lut, PXF_LUT_FORMAT format, const char *name, size_t *size);
/* Writes `lut` to `path` in `format` (PXF_LUT_ANY: from the extension),
 * replacing the file only when the whole palette is written.  0, or a
 * negative code after a report. */
PXF_API int PXF_lut_save(const PXF_LUT *lut, const char *path, PXF_LUT_FORMAT format);

/* Describes in `group` the colour-index channels of an image that `lut`
 * colours: one integer channel wide enough for indices 0 to the palette's
 * maximum (1 to 16 bits; the elements are stored in 2 bytes whatever the
 * width).  The group's format name is left as it is.  Returns the width, or
 * -1 when lut or group is null or the palette has no entries. */
PXF_API int PXF_lut_index_group(const PXF_LUT *lut, PXF_CHAN_GROUP *group);

PXF_END_DECLS

#endif
