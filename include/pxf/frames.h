/*
 * Frame sequences as one image: the "mpc" container, frame-numbered file
 * sequences, frame selection, playback with a bounded frame cache, and
 * rectangle reads of any open image.
 *
 * A multi-frame handle is an ordinary PXF_IMAGE: it has one image
 * description (every frame has the same size and channel layout), scanlines
 * are read with PXF_scan_read and operators stack on it as on any other.
 * PXF_set_frame chooses the frame that the following scanline reads (or, on a
 * container being written, writes) come from; it works through any stacked
 * operators.  info.frame of the handle follows the current frame.
 *
 * ---- The "mpc" container (extension ".mpc") ----
 *
 * Many frames of one size in one file, each stored with the run-length codec
 * of rla.h, found through an index sorted by frame number so that any frame
 * is reached without reading the others.  All integers are big-endian;
 * floats are IEEE 754 single precision stored as big-endian 32-bit words;
 * texts are NUL-padded.
 *
 * Header, 256 bytes at offset 0:
 *     0   8  magic "PXFMPC\r\n"
 *     8   2  version, 1 (a reader refuses any other)
 *    10   2  header size, 256
 *    12   4  number of frames in the index
 *    16   8  offset of the index (0 while the file is being written)
 *    24  16  window: left, right, bottom, top (32-bit signed)
 *    40  16  active window: left, right, bottom, top
 *    56  12  colour channels: count, element type (1 integer, 2 float,
 *            3 double), bits per element (32-bit signed each)
 *    68  12  matte channels: count, type, bits
 *    80  12  auxiliary channels: count, type, bits
 *    92   4  gamma
 *    96   4  aspect ratio
 *   100   4  frame rate (frames per second)
 *   104  32  primaries x, y of red, green, blue and the white point
 *   136  32  colour channel format name ("rgb", ...)
 *   168  32  auxiliary channel format name
 *   200  24  aspect format name
 *   224  32  reserved, zero
 *
 * Index, at the header's index offset:
 *     0   8  magic "MPCINDEX"
 *     8   4  number of entries (equal to the header's)
 *    12   4  reserved, zero
 *    16  24 per entry, in strictly ascending frame order:
 *             0  4  frame number (32-bit signed)
 *             4  4  reserved, zero
 *             8  8  offset of the frame block
 *            16  8  length of the frame block
 *
 * Frame block:
 *     0   4  magic "MPCF"
 *     4   4  frame number
 *     8   4  active scanlines n (active top - active bottom + 1)
 *    12   4  channels (colour + matte + auxiliary)
 *    16  4n  offset of each active scanline from the block's start, lowest
 *            scanline first, ascending
 *     then per scanline, per channel in the order colour, matte, auxiliary:
 *            a 32-bit length L and L bytes from the channel's run-length
 *            encoder (only the active window's columns are stored).
 *
 * A reader checks the header, the index and each entry against the file's
 * size before using them: an index or block reaching past the end, a block
 * overlapping the header or the index, frames out of order, or a frame block
 * whose header disagrees with the container's are refused with a message.
 *
 * Writing: PXF_open(info, "w") with the key "mpc" (or a name ending in
 * ".mpc") creates a container and starts frame info.frame; scanlines of a
 * frame are written in sequence from the window bottom, and PXF_set_frame
 * finishes the frame and starts another, in any order (a frame number given
 * again replaces the earlier frame).  With info.option_flag set, an existing
 * container is opened to append frames; the description given must match
 * its own (an existing empty file, such as one UTL_output_open made, is
 * started as a new container).  A container created by a failing write is
 * removed.  A frame left incomplete when the next begins or at close is not
 * indexed.
 *
 * Appending is safe against interruption: nothing inside the old container
 * is written.  The new frame blocks and then a whole new index go after its
 * old end; once they are on the disk (fdatasync), one 12-byte write of the
 * header's bytes 12 to 23 (frame count and index offset, within the file's
 * first sector) makes them the container's.  Until that write the header
 * still names the old index, so a writer killed at any point leaves the old
 * frames readable and the old bytes unchanged, with at most unreferenced
 * bytes after them (readers ignore them; the next append goes after them).
 * An append that fails with an error cuts the file back to its old size,
 * byte for byte as it was.  Each append leaves the old index behind as
 * unreferenced bytes: add many frames through one open (PXF_set_frame)
 * rather than one open each.
 *
 * ---- Sequences ----
 *
 * Opening for reading a name with a frame field (a run of '#', as in
 * "shot.####.rla", or a printf conversion such as "shot.%04d.rla") gives one
 * multi-frame handle over the existing files of that name, whatever their
 * driver: the frames are the numbers found in the directory, the first frame
 * describes the sequence, and every frame must match it in size and layout.
 * Numbers missing between the first and the last frame are reported once as
 * a warning at open and again as an error when such a frame is chosen.
 *
 * ---- Messages (catalogue set 902) ----
 *   700  "%s: This does not appear to be a multi-frame container"         -4
 *   701  "%s: container version %d is not supported"                     -4
 *   702  "%s: the frame index lies outside the file or is damaged"        -4
 *   703  "%s: index entry %d (frame %d) points outside the frame data"    -4
 *   704  "%s: the frame index is not in ascending frame order at entry %d" -4
 *   705  "%s: frame %d does not match the container's frame layout"       -4
 *   706  "%s: there is no frame %d"                                      -21
 *   707  "%s: the container holds no frames"                             -21
 *   708  "Frame %d of %s is incomplete: %d of %d scanlines written"       -2
 *   709  "%s: frames of another size or layout cannot be added"          -16
 *   710  "%s is not a multi-frame image"                                 -16
 *   711  "%s: frames missing from the sequence: %s" (warning)
 *   712  "%s: no frame of the sequence was found"                         -5
 *   713  "Frame %d (%s) differs in size or layout from the sequence"     -16
 *   714  "%s: the container's image description is damaged"               -4
 *   715  "Playback cache budget of %lu bytes cannot hold one frame of %lu bytes" -16
 *   716  "Playback cannot hold images of more than %d channels"           -16
 * and, shared with the rla driver: 52 cannot open, 53 bad scanline, 54
 * cannot read, 55 cannot read scanline, 56 cannot write, 57 cannot write
 * scanline, 58 cannot decode scanline, 70-80 channel types and widths, 94
 * no memory.
 */
#ifndef PXF_FRAMES_H
#define PXF_FRAMES_H

#include "pxf.h"
#include "rct.h"

PXF_BEGIN_DECLS

/* pxf__err: the requested frame is not in the image. */
#define PXF_E_NO_FRAME (-21)

/* The container driver (see plugin.h for the protocol of these three). */
PXF_API int PXF_mpc_is_file(const char *path, void *stream);
PXF_API int PXF_mpc_r_open(PXF_IMAGE *image);
PXF_API int PXF_mpc_w_open(PXF_IMAGE *image);

/* Whether `image` has frames to choose from (1/0). */
PXF_API int PXF_multiframe_is(PXF_IMAGE *image);
/* Number of frames (0 or more), or -1 with pxf__err -16 for an image that
 * is not multi-frame.  For a sequence with gaps: the frames that exist. */
PXF_API int PXF_multiframe_count(PXF_IMAGE *image);
/* Frame number of the index-th frame in ascending order into *frame; 0, or
 * -1 when index is out of range or the image is not multi-frame. */
PXF_API int PXF_multiframe_frame(PXF_IMAGE *image, int index, int *frame);

/* The current frame number of a multi-frame image, or -1 (pxf__err -16). */
PXF_API int PXF_get_frame(PXF_IMAGE *image);
/* Makes `frame` the current frame: 0, or a negative code after a report
 * (-21 no such frame, -16 not a multi-frame image, -2 an incomplete frame
 * left behind by a writer). */
PXF_API int PXF_set_frame(PXF_IMAGE *image, int frame);

/*
 * Reads the rectangle `rect` (image window coordinates, inclusive) of an
 * open image of any driver, clipped to the image window; `rect` receives
 * the clipped rectangle.  rows[r] is a channel buffer (as PXF_chan_alloc
 * makes for the image's first description and at least the clipped width)
 * that receives scanline ymin + r, columns xmin onwards.  Each needed
 * scanline is read once, in the driver's scanline order.  Returns the number
 * of rows filled (0 when the rectangle misses the window; `rect` is then left
 * invalid), or a negative code.
 */
PXF_API int PXF_get_region(PXF_IMAGE *image, RCT_RECT *rect, void ***rows);

/*
 * Playback: a bounded cache of decoded frames over a multi-frame image.
 *
 * The library starts no thread.  PXF_playback_prefetch decodes frames ahead
 * of the playhead into the cache and may run on one application thread while
 * another steps and reads; all cache state is guarded by the playback's own
 * lock, and frames are decoded through the image handle's lock.  Memory for
 * decoded frames never exceeds the budget given at creation (at least one
 * frame must fit); the frames farthest from the playhead are dropped first.
 * The image must not be used directly while a playback runs over it.
 */
typedef struct PXF_PLAYBACK PXF_PLAYBACK;

/* Playback modes. */
#define PXF_PLAY_ONCE 0 /* stop at the ends */
#define PXF_PLAY_LOOP 1 /* wrap from the last frame to the first and back */

/* A playback over `image` starting at its current frame, at the image's
 * frame rate (info.frame_rate, else the configured default), with at most
 * `budget` bytes of decoded frames; null after a report. */
PXF_API PXF_PLAYBACK *PXF_playback_open(PXF_IMAGE *image, size_t budget);
/* Frees the cache; the image stays open.  Null is accepted. */
PXF_API void PXF_playback_close(PXF_PLAYBACK *playback);
PXF_API void PXF_playback_set_mode(PXF_PLAYBACK *playback, int mode);
PXF_API void PXF_playback_set_rate(PXF_PLAYBACK *playback, float frames_per_second);
PXF_API float PXF_playback_rate(PXF_PLAYBACK *playback);
/* Moves the playhead by `frames` positions in the frame list (negative
 * backwards); returns the new frame number, or -1 at an end in
 * PXF_PLAY_ONCE mode (the playhead then stays on the end frame). */
PXF_API int PXF_playback_step(PXF_PLAYBACK *playback, int frames);
/* Moves the playhead by the frames that `seconds` of playing cover at the
 * rate (fractions carry over); the new frame number as for step. */
PXF_API int PXF_playback_advance(PXF_PLAYBACK *playback, double seconds);
/* The frame number at the playhead. */
PXF_API int PXF_playback_frame(PXF_PLAYBACK *playback);
/* Copies scanline `line` of the frame at the playhead into the caller's
 * channel buffer (`*rows`), decoding the frame first when it is not cached;
 * 0 or a negative code. */
PXF_API int PXF_playback_read(PXF_PLAYBACK *playback, int line, void ***rows);
/* Decodes up to `count` frames ahead of the playhead (in the direction of
 * the last step) that are not cached and fit the budget; returns how many it
 * decoded, or a negative code. */
PXF_API int PXF_playback_prefetch(PXF_PLAYBACK *playback, int count);
/* Number of frames in the cache and the bytes they hold. */
PXF_API int PXF_playback_cached(PXF_PLAYBACK *playback, size_t *bytes);

PXF_END_DECLS

#endif /* PXF_FRAMES_H */
