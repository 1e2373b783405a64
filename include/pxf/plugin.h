/*
 * The image-driver plug-in protocol, for driver authors.
 *
 * A driver is a shared library that the application loads and hands to
 * PXF_init through its enumerator; the library looks the symbols below up
 * by name with dlsym and never loads anything itself.  Data symbols are
 * variables whose value is read once at PXF_init; function symbols are
 * entry points.  Declare the ones you provide exactly with these types:
 *
 *   const char *version = PXF_PLUGIN_PROTOCOL;          required
 *   int imageInit(void);                                optional; 0 declines loading
 *   const char *imageKey = "raw";                       required
 *   const char *imageExtension = ".raw";                default ""
 *   const char *imageName = "raw pixels";               required
 *   const char *imageDescription;                       default none
 *   const char *imageFormatString;                      default "%s.%04.4d%s"
 *   const char *imageNameSyntax;                        default none
 *   int imageAddExtension;                              default 1
 *   int imageUsage;                                     default 1
 *   int imageOrientation;                               required
 *   int imageBitsPerPaletteEntry;                       default 0
 *   int imageNumberOfChannels;                          default 3
 *   int imageBitsPerChannel;                            default 128
 *   int imageNumberOfMattes, imageBitsPerMatte;         default 0
 *   int imageNumberOfZChannels, imageBitsPerZChannel;   default 0
 *   int imageSupportsActiveWindow;                      default 0
 *   int imageAccess;                                    PXF_ACCESS_* bits, default 12
 *   int imageMultiFrame;                                default 0
 *   unsigned char imageHardLinkDuplicates;              default 1
 *   unsigned char imageSupportRemoteAccess;             default 0
 *   int imageCapability(PXF_CAP_SETTING ***, int *inputs, int *outputs, int *other);
 *   int imageCapsAvailUpdate(void *record);
 *   int imageReadOpen(PXF_IMAGE *);                     required with PXF_ACCESS_READ
 *   int imageWriteOpen(PXF_IMAGE *);                    required with PXF_ACCESS_WRITE
 *   int imageDone(void *);                              called by PXF_exit
 *   int imageIsFile(const char *path, void *stream);    1: the file is this driver's
 *   int imagePrivateUIPopup(void *), imagePrivateUIPopdown(void *);
 *
 * A missing required symbol or another protocol version makes PXF_init
 * report the library and skip it.  A key registered by an earlier library
 * is replaced by the later one's.
 *
 * What the values mean:
 *   - Strings (key, extension with its leading '.', names, format string,
 *     name syntax) are read once and kept by pointer: they must live as long
 *     as the module stays loaded (string literals do).
 *   - imageOrientation is the order of the driver's files: 0 top down (rows
 *     from window.top to window.bottom), 1 bottom up.  A reader sets bit 0
 *     of each description's `orientation` to the same value, and `step` to 1
 *     (rows follow one another; the field operator uses 2).
 *   - imageBitsPerChannel, imageBitsPerMatte and imageBitsPerZChannel are
 *     the largest element widths the driver stores; the default 128 means
 *     "any width" and 0 "none".  The library copies the counts and widths
 *     into the registry without acting on them; applications read them to
 *     fit an image to the driver.
 *   - imageIsFile(path, stream) answers whether the file is in the driver's
 *     format, from its content: `path` is the file name, `stream` is a
 *     caller-supplied argument passed through unchanged (PXF_get_file_type's
 *     second argument; usually null, in which case the driver opens `path`
 *     itself and must close it again).  It returns 1 for "mine", 0 for "not
 *     mine or cannot tell", and must not report.
 *
 * Scanlines are window rows (0 is the bottom row of the default window),
 * whatever the driver's file order; a driver that takes rows only in order
 * returns -2 (PXF_E_BAD_SCANLINE) for any other row, and the library
 * explains the refusal if the driver did not report it.  Declare
 * PXF_ACCESS_RANDOM together with PXF_ACCESS_READ when the reader takes rows
 * in any order.
 *
 * Memory: strings and records a driver puts into the handle (info.images,
 * format names of the channel groups, texts such as info.desc, the
 * private-data table) are allocated with malloc and are
 * freed by the library with the handle; the driver never frees them
 * itself.  Everything else the driver allocates (its own record, codec
 * state, file streams) it frees in its close function.  Strings the
 * library hands to the driver (info.handle, info.key, info.compression)
 * stay the library's; copy what must outlive the call.
 *
 * Errors: a driver reports a failure through ERR_report_cat (or ERR_printf)
 * with severity ERR_ERROR, sets pxf__err to the negative code and returns
 * it (scan) or 0 (open).  pxf__err is process-wide; the calling thread's
 * own copy (PXF_last_error) is kept by the library from the report.
 *
 * Threads: the library serialises the open and close functions (open
 * lock) and the scans of one image (the image's lock), but scans of
 * different images of the same driver run concurrently: a driver keeps
 * its state in the image's private data, not in globals.
 *
 * Read open (imageReadOpen) receives a handle whose info holds the caller's
 * key, file name (info.handle), option_flag, specific settings and
 * open_flag.  It must:
 *   - allocate info.images (num_images descriptions, with the library's
 *     allocator semantics: the handle frees them with free()), fill each
 *     description from the file (windows, groups with count, type, width
 *     and a heap-allocated format name, step and orientation 1, image_kind;
 *     matte.extra when the file says whether colour is premultiplied, and
 *     the PXF_CHAN_*_ASSUMED bits of chan.extra for defaults it filled in);
 *   - set private_data to a malloc'ed pointer table whose element 0 is the
 *     driver's record (both are freed with the handle by pxf__free_obj);
 *   - set scan (and optionally seek, direct_scan, lut_read) and close;
 *     close releases the driver's own resources and then calls
 *     pxf__free_obj(handle);
 *   - return non-zero on success; on failure report and return 0 (the
 *     library then frees the handle).
 * Write open (imageWriteOpen) receives a handle whose info and image
 * descriptions are the library's copies of the caller's; it checks them
 * (pxf__image_verify and its siblings for 8-bit drivers), labels or
 * converts the colour by matte.extra where its format fixes the matte's
 * meaning, records no property whose assumed bit is set, sets
 * private_data, scan and close the same way, and returns non-zero.
 *
 * Scan functions get private_data[0], the scanline, a pointer to the
 * caller's array of channel-row pointers (image, matte, auxiliary, index
 * rows; see pxf__chan_alloc) and the private-data table.  A reader may
 * either fill the caller's rows or store its own row array in *rows.
 * They return 0, or a negative code left in pxf__err as well.
 */
#ifndef PXF_PLUGIN_H
#define PXF_PLUGIN_H

#include "pxf.h"

/* The only protocol version the library accepts. */
#define PXF_PLUGIN_PROTOCOL "3.2"

/* imageAccess bits. */
#define PXF_ACCESS_READ 4
#define PXF_ACCESS_WRITE 8
#define PXF_ACCESS_RANDOM 16 /* with PXF_ACCESS_READ: PXF_seek needs no reopen */

/* Symbol names (a message catalogue may rename them, set 900). */
#define PXF_SYM_VERSION "version"
#define PXF_SYM_INIT "imageInit"
#define PXF_SYM_KEY "imageKey"
#define PXF_SYM_EXTENSION "imageExtension"
#define PXF_SYM_NAME "imageName"
#define PXF_SYM_DESCRIPTION "imageDescription"
#define PXF_SYM_FORMAT_STRING "imageFormatString"
#define PXF_SYM_NAME_SYNTAX "imageNameSyntax"
#define PXF_SYM_ADD_EXTENSION "imageAddExtension"
#define PXF_SYM_USAGE "imageUsage"
#define PXF_SYM_ORIENTATION "imageOrientation"
#define PXF_SYM_BITS_PER_PALETTE_ENTRY "imageBitsPerPaletteEntry"
#define PXF_SYM_NUMBER_OF_CHANNELS "imageNumberOfChannels"
#define PXF_SYM_BITS_PER_CHANNEL "imageBitsPerChannel"
#define PXF_SYM_NUMBER_OF_MATTES "imageNumberOfMattes"
#define PXF_SYM_BITS_PER_MATTE "imageBitsPerMatte"
#define PXF_SYM_NUMBER_OF_Z_CHANNELS "imageNumberOfZChannels"
#define PXF_SYM_BITS_PER_Z_CHANNEL "imageBitsPerZChannel"
#define PXF_SYM_SUPPORTS_ACTIVE_WINDOW "imageSupportsActiveWindow"
#define PXF_SYM_ACCESS "imageAccess"
#define PXF_SYM_MULTI_FRAME "imageMultiFrame"
#define PXF_SYM_HARD_LINK_DUPLICATES "imageHardLinkDuplicates"
#define PXF_SYM_SUPPORT_REMOTE_ACCESS "imageSupportRemoteAccess"
#define PXF_SYM_CAPABILITY "imageCapability"
#define PXF_SYM_CAPS_AVAIL_UPDATE "imageCapsAvailUpdate"
#define PXF_SYM_READ_OPEN "imageReadOpen"
#define PXF_SYM_WRITE_OPEN "imageWriteOpen"
#define PXF_SYM_DONE "imageDone"
#define PXF_SYM_IS_FILE "imageIsFile"
#define PXF_SYM_PRIVATE_UI_POPUP "imagePrivateUIPopup"
#define PXF_SYM_PRIVATE_UI_POPDOWN "imagePrivateUIPopdown"

#endif /* PXF_PLUGIN_H */
