/*
 * A small driver plug-in for binary 8-bit RGB pixmaps ("P6"), scanlines
 * top down.  It recognises its files by their content.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <pxf/plugin.h>

const char *version = PXF_PLUGIN_PROTOCOL;
const char *imageKey = "ppm";
const char *imageExtension = ".ppm";
const char *imageName = "portable pixmap";
int imageOrientation = 0;
int imageAccess = PXF_ACCESS_READ | PXF_ACCESS_WRITE;

typedef struct {
    FILE *file;
    int width, height;
    int next; /* top down */
    unsigned char *row;
} ppm_file;

int imageIsFile(const char *path, void *stream) {
    char head[2];
    FILE *f = stream ? (FILE *)stream : fopen(path, "rb");
    int yes;
    if (!f) return 0;
    if (stream) rewind(f);
    yes = fread(head, 1, 2, f) == 2 && head[0] == 'P' && head[1] == '6';
    if (!stream) fclose(f);
    return yes;
}

static int ppm_close(PXF_IMAGE *image) {
    ppm_file *p = image->private_data ? (ppm_file *)image->private_data[0] : NULL;
    if (p) {
        if (p->file) fclose(p->file);
        free(p->row);
    }
    pxf__free_obj(image);
    return 0;
}

static int bad_line(void) {
    pxf__err = PXF_E_BAD_SCANLINE;
    return PXF_E_BAD_SCANLINE;
}

static int ppm_write(void *data, int line, void ***rows, void **table) {
    ppm_file *p = (ppm_file *)data;
    int x, c;
    (void)table;
    if (line != p->next) return bad_line();
    for (x = 0; x < p->width; ++x)
        for (c = 0; c < 3; ++c) p->row[3 * x + c] = ((unsigned char *)(*rows)[c])[x];
    if (fwrite(p->row, 3, (size_t)p->width, p->file) != (size_t)p->width) return PXF_E_FLUSH;
    --p->next;
    return 0;
}

static int ppm_read(void *data, int line, void ***rows, void **table) {
    ppm_file *p = (ppm_file *)data;
    int x, c;
    (void)table;
    if (line != p->next) return bad_line();
    if (fread(p->row, 3, (size_t)p->width, p->file) != (size_t)p->width) return bad_line();
    for (x = 0; x < p->width; ++x)
        for (c = 0; c < 3; ++c) ((unsigned char *)(*rows)[c])[x] = p->row[3 * x + c];
    --p->next;
    return 0;
}

static int attach(PXF_IMAGE *image, FILE *file, int width, int height, PXF_SCAN_FN scan) {
    ppm_file *p = (ppm_file *)calloc(1, sizeof *p);
    void **table = (void **)malloc(sizeof *table);
    unsigned char *row = (unsigned char *)malloc(3 * (size_t)width + 1);
    if (!p || !table || !row) {
        free(p);
        free(table);
        free(row);
        fclose(file);
        pxf__err = PXF_E_NO_MEMORY;
        return 0;
    }
    p->file = file;
    p->width = width;
    p->height = height;
    p->next = height - 1;
    p->row = row;
    table[0] = p;
    image->private_data = table;
    image->scan = scan;
    image->close = ppm_close;
    return 1;
}

int imageWriteOpen(PXF_IMAGE *image) {
    PXF_IMAGE_DESC *d = image->info.images;
    int width, height;
    FILE *f;
    if (pxf__image_verify("ppm", image, 0) != 0) return 0;
    if (d->chan.count != 3) {
        pxf__err = PXF_E_CANNOT_DO;
        return 0;
    }
    f = fopen(image->info.handle, "wb");
    if (!f) return 0;
    width = d->window.right - d->window.left + 1;
    height = d->window.top - d->window.bottom + 1;
    fprintf(f, "P6\n%d %d\n255\n", width, height);
    return attach(image, f, width, height, ppm_write);
}

int imageReadOpen(PXF_IMAGE *image) {
    int width, height, maximum;
    PXF_IMAGE_DESC *d;
    FILE *f = fopen(image->info.handle, "rb");
    if (!f) return 0;
    if (fscanf(f, "P6 %d %d %d", &width, &height, &maximum) != 3 || maximum != 255 || fgetc(f) == EOF) {
        fclose(f);
        return 0;
    }
    d = (PXF_IMAGE_DESC *)calloc(1, sizeof *d);
    if (!d) {
        fclose(f);
        return 0;
    }
    d->image_kind = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 2.2f;
    d->window.right = width - 1;
    d->window.top = height - 1;
    d->active_window = d->window;
    d->step = 1;
    d->orientation = 0;
    d->chan.count = 3;
    d->chan.type = d->matte.type = d->aux.type = d->index.type = PXF_C_INTEGER;
    d->chan.width = d->matte.width = d->aux.width = 8;
    d->index.width = 16;
    image->info.images = d;
    image->info.num_images = 1;
    return attach(image, f, width, height, ppm_read);
}
