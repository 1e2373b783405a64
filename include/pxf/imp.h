/*
 * Image processes (IMP_): whole-image jobs that read an open image and
 * write a new file.
 *
 *   "none"    copies the image as it is.
 *   "mipmap"  writes a mipmapped texture: one image per level, from the
 *             image itself down to 1 x 1 (PXF_mipmap_levels), each level
 *             filtered from the one before, all chained in one file (the
 *             rla driver: image i of the file is level i).  Colour textures
 *             keep every channel group; scalar textures keep the first image
 *             channel; bump textures hold the height and its slopes dh/du,
 *             dh/dv in three float channels (see PXF__mipmap in pxf.h).
 *             Levels start at the window's origin (0, 0).
 *   "swatch"  writes a small preview: the image scaled so that its longer
 *             side is `size` pixels (the proportions are kept).
 *
 * Messages (set 902): 234 "Unknown image process %s",
 * 235 "%s: cannot write %d images to %s" (the output format holds one),
 * plus those of the scale and mipmap stages (pxf.h).
 */
#ifndef PXF_IMP_H
#define PXF_IMP_H

#include "pxf.h"

PXF_BEGIN_DECLS

#define IMP_NONE 0
#define IMP_MIPMAP 1
#define IMP_SWATCH 2

/* Called after each scanline written: `done` of `total` scanlines. */
typedef void (*IMP_PROGRESS_FN)(void *data, long done, long total);

typedef struct IMP_OPTIONS {
    int32_t kind;            /* mipmap: PXF_TEXTURE_COLOUR, _SCALAR or _BUMP */
    const char *filter;      /* filter name (see PXF__scale_init); null: the default */
    int32_t size;            /* swatch: the longer side in pixels (1 to 1000000) */
    PXF_CHAN_TYPE output[3]; /* mipmap: integer types for float groups (type 0: keep) */
    IMP_PROGRESS_FN progress;
    void *progress_data;
} IMP_OPTIONS;

/* Defaults: colour texture, default filter, size 0, groups kept, no progress. */
PXF_API void IMP_options_init(IMP_OPTIONS *options);

/* The process type of a name ("none", "mipmap", "swatch"), or -1 after
 * reporting 902/234. */
PXF_API int IMP_process_type(const char *name);
/* The name of a process type, or null. */
PXF_API const char *IMP_process_name(int type);

/* Runs process `type` on `source` (an image open for reading; operators may
 * be stacked on it, and the process stacks and removes its own) and writes
 * the result as described by `output`: an initialised PXF_INFO that names
 * the file (handle, and key or extension) and gives its texts; the process
 * supplies the images and leaves the caller's fields as they were.
 * 0 on success; -1 with pxf__err set and the reason reported otherwise. */
PXF_API int IMP_run(int type, PXF_IMAGE *source, PXF_INFO *output, const IMP_OPTIONS *options);

PXF_END_DECLS

#endif
