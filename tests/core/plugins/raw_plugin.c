/*
 * A small driver plug-in for raw 8-bit pixel files: a 7-byte magic, four
 * 32-bit host-order integers (width, height, image channels, matte
 * channels), then one row per channel for each scanline, bottom up (top down
 * with RAW_TOP_DOWN).  Compile-time switches make the variants, including
 * the broken ones the registry must refuse.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <pxf/plugin.h>

#ifndef RAW_VERSION
#define RAW_VERSION "3.2"
#endif
#ifndef RAW_KEY
#define RAW_KEY "raw"
#endif
#ifndef RAW_EXTENSION
#define RAW_EXTENSION ".raw"
#endif
#ifndef RAW_NAME
#define RAW_NAME "raw pixels"
#endif
#ifndef RAW_ACCESS
#define RAW_ACCESS 12
#endif
#ifdef RAW_TOP_DOWN
#define MAGIC "PXTOP1\n"
#define ORIENTATION 0
#else
#define MAGIC "PXRAW1\n"
#define ORIENTATION 1
#endif

const char *version = RAW_VERSION;
#ifndef RAW_NO_KEY
const char *imageKey = RAW_KEY;
#endif
const char *imageExtension = RAW_EXTENSION;
const char *imageName = RAW_NAME;
int imageOrientation = ORIENTATION;
int imageAccess = RAW_ACCESS;
#ifndef RAW_BARE /* the bare variant leaves these to the registry's defaults */
const char *imageDescription = "raw 8-bit pixels";
int imageNumberOfChannels = 4;
int imageBitsPerChannel = 8;
#endif
#ifdef RAW_MULTI_FRAME
int imageMultiFrame = 2;
#endif

#ifdef RAW_DECLINE
int imageInit(void) { return 0; }
#else
int imageInit(void) { return 1; }
#endif

typedef struct {
    FILE *file;
    int32_t width, groups;
    int next, writing;
} raw_file;

int imageIsFile(const char *path, void *stream) {
    char head[7];
    FILE *f = stream ? (FILE *)stream : fopen(path, "rb");
    int yes;
    if (!f) return 0;
    if (stream) rewind(f);
    yes = fread(head, 1, 7, f) == 7 && memcmp(head, MAGIC, 7) == 0;
    if (!stream) fclose(f);
    return yes;
}

static int raw_close(PXF_IMAGE *image) {
    raw_file *r = image->private_data ? (raw_file *)image->private_data[0] : NULL;
    if (r && r->file) fclose(r->file);
    return pxf__free_obj(image) ? 0 : -1;
}

/* Reads or writes one line: every channel row in turn, lines in file order. */
static int raw_scan(void *data, int line, void ***rows, void **table) {
    raw_file *r = (raw_file *)data;
    int c;
    (void)table;
    if (line != r->next) return pxf__err = PXF_E_BAD_SCANLINE;
    for (c = 0; c < r->groups; ++c) {
        size_t done = r->writing ? fwrite((*rows)[c], 1, (size_t)r->width, r->file)
                                 : fread((*rows)[c], 1, (size_t)r->width, r->file);
        if (done != (size_t)r->width) return r->writing ? PXF_E_FLUSH : (pxf__err = PXF_E_BAD_SCANLINE);
    }
    r->next += ORIENTATION ? 1 : -1;
    return 0;
}

/* head: width, height, image channels, matte channels. */
static int attach(PXF_IMAGE *image, FILE *file, const int32_t head[4], int writing) {
    raw_file *r = (raw_file *)calloc(1, sizeof *r);
    void **table = (void **)malloc(sizeof *table);
    if (!r || !table) {
        free(r);
        free(table);
        fclose(file);
        pxf__err = PXF_E_NO_MEMORY;
        return 0;
    }
    r->file = file;
    r->width = head[0];
    r->groups = head[2] + head[3];
    r->next = ORIENTATION ? 0 : head[1] - 1;
    r->writing = writing;
    table[0] = r;
    image->private_data = table;
    image->scan = raw_scan;
    image->close = raw_close;
    return 1;
}

#ifndef RAW_NO_WRITE
int imageWriteOpen(PXF_IMAGE *image) {
    PXF_IMAGE_DESC *d = image->info.images;
    int32_t head[4];
    FILE *f;
    if (pxf__image_verify(RAW_NAME, image, 0) != 0 || pxf__matte_verify(RAW_NAME, image, 0) != 0) return 0;
    if (!(f = fopen(image->info.handle, "wb"))) return (pxf__err = PXF_E_MISSING_FIELD), 0;
    head[0] = d->window.right - d->window.left + 1;
    head[1] = d->window.top - d->window.bottom + 1;
    head[2] = d->chan.count;
    head[3] = d->matte.count;
    fwrite(MAGIC, 1, 7, f);
    fwrite(head, 4, 4, f);
    return attach(image, f, head, 1);
}
#endif

int imageReadOpen(PXF_IMAGE *image) {
    char magic[7];
    int32_t head[4];
    PXF_IMAGE_DESC *d;
    FILE *f = fopen(image->info.handle, "rb");
    if (!f) return 0;
    if (fread(magic, 1, 7, f) != 7 || memcmp(magic, MAGIC, 7) != 0 || fread(head, 4, 4, f) != 4 ||
        !(d = (PXF_IMAGE_DESC *)calloc(1, sizeof *d))) {
        fclose(f);
        return 0;
    }
    d->image_kind = d->step = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 1.0f;
    d->window.right = head[0] - 1;
    d->window.top = head[1] - 1;
    d->active_window = d->window;
    d->orientation = ORIENTATION;
    d->chan.count = head[2];
    d->matte.count = head[3];
    d->chan.type = d->matte.type = d->aux.type = d->index.type = PXF_C_INTEGER;
    d->chan.width = d->matte.width = d->aux.width = 8;
    d->index.width = 16;
    image->info.images = d;
    image->info.num_images = 1;
    return attach(image, f, head, 0);
}
