/*
 * Writes a small image, opens it again with the cast operator stacked on
 * the reading handle, and reads it back: the 8-bit values the driver holds
 * come out as linear floats.
 *
 *   round_trip            a memory image (the "mem" driver)
 *   round_trip FILE.rla   a file, driver chosen by the extension
 */
#include <stdio.h>
#include <string.h>

#include <pxf/pxf.h>

enum { WIDTH = 8, HEIGHT = 4 };

static void describe(PXF_IMAGE_DESC *d) {
    memset(d, 0, sizeof *d);
    d->image_kind = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 2.2f; /* the stored values are gamma encoded */
    d->window.right = WIDTH - 1;
    d->window.top = HEIGHT - 1;
    d->active_window = d->window;
    d->step = 1;
    d->chan.count = 3;
    d->matte.count = 1;
    d->chan.type = d->matte.type = d->aux.type = d->index.type = PXF_C_INTEGER;
    d->chan.width = d->matte.width = d->aux.width = 8;
    d->index.width = 16;
}

int main(int argc, char **argv) {
    char memory_name[] = "round trip", key[] = "mem";
    PXF_IMAGE_DESC desc;
    PXF_INFO info;
    PXF_IMAGE *writer, *reader;
    void **rows;
    int x, y, c, i, bottom_up, status = 0;

    /* 1. Describe and write the image, scanline by scanline. */
    describe(&desc);
    PXF_info_init(&info);
    info.handle = argc > 1 ? argv[1] : memory_name;
    info.key = argc > 1 ? NULL : key; /* a file: the driver comes from the name */
    info.num_images = 1;
    info.images = &desc;
    writer = PXF_open(&info, "w");
    if (!writer) return 1; /* the library has reported why */
    rows = PXF_chan_alloc(&desc, WIDTH, "round_trip", NULL);
    if (!rows) return 1;
    /* Drivers take scanlines in their own order: bottom up when bit 0 of
     * the driver's orientation is set. */
    bottom_up = writer->driver && (writer->driver->orientation & 1);
    for (i = 0; i < HEIGHT; ++i) {
        y = bottom_up ? i : HEIGHT - 1 - i;
        for (x = 0; x < WIDTH; ++x) {
            for (c = 0; c < 3; ++c) ((unsigned char *)rows[c])[x] = (unsigned char)(x * 255 / (WIDTH - 1));
            ((unsigned char *)rows[3])[x] = 255; /* opaque */
        }
        if (PXF_scan_write(writer, y, &rows) != 0) return 1;
    }
    /* A memory image lives while its writer is open; a file is complete
     * once closed. */
    if (argc > 1 && PXF_close(writer) != 0) return 1;

    /* 2. Open it again and stack the cast operator on the reading handle:
     * from now on the handle describes, and delivers, 32-bit floats. */
    reader = PXF_open(&info, "r");
    if (!reader) return 1;
    reader = PXF__cast(reader);
    printf("reading %s as %s %d-bit, gamma %g\n", info.handle,
           reader->info.images[0].chan.type == PXF_C_FLOAT ? "float" : "integer",
           reader->info.images[0].chan.width, reader->info.images[0].curve.gamma);

    /* 3. Read in the file's own order (orientation bit 0: bottom up): the
     * driver fills our rows, the operator hands back its own. */
    bottom_up = reader->info.images[0].orientation & 1;
    for (i = 0; i < HEIGHT && status == 0; ++i) {
        void **got = rows;
        y = bottom_up ? i : HEIGHT - 1 - i;
        status = PXF_scan_read(reader, y, &got);
        if (status == 0 && y == 0) {
            printf("red of the last scanline:");
            for (x = 0; x < WIDTH; ++x) printf(" %.3f", ((float *)got[0])[x]);
            printf("\n");
        }
    }

    /* 4. Closing the reader removes the operator, then closes the driver. */
    PXF_close(reader);
    if (argc == 1) PXF_close(writer);
    PXF_chan_free(rows);
    PXF_info_cleanup(&info, 0);
    return status == 0 ? 0 : 1;
}
