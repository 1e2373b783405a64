/* An application built against an installed copy of the library: it
 * writes a small image into memory, reads it back and lists the drivers. */
#include <stdio.h>
#include <string.h>

#include <pxf/pxf.h>

int main(int argc, char **argv) {
    PXF_IMAGE_DESC desc;
    PXF_INFO info;
    PXF_IMAGE *out, *in;
    PXF_TYPE *driver;
    void **rows;
    int y, x, bad = 0;
    char name[] = "outside", key[] = "mem";

    if (argc > 1 && strcmp(argv[1], "--version") == 0) {
        /* The headers it was built with and the library it runs with agree. */
        char built[32];
        snprintf(built, sizeof built, "%d.%d.%d", PXF_VERSION_MAJOR, PXF_VERSION_MINOR, PXF_VERSION_PATCH);
        printf("%s\n", built);
        return strcmp(built, PXF_version()) != 0;
    }
    memset(&desc, 0, sizeof desc);
    desc.image_kind = 1;
    desc.curve.kind = PXF_CURVE_GAMMA;
    desc.curve.gamma = 2.2f;
    desc.window.right = 7;
    desc.window.top = 3;
    desc.active_window = desc.window;
    desc.step = 1;
    desc.chan.count = 3;
    desc.chan.type = desc.matte.type = desc.aux.type = desc.index.type = PXF_C_INTEGER;
    desc.chan.width = desc.matte.width = desc.aux.width = 8;
    desc.index.width = 16;

    PXF_info_init(&info);
    info.key = key;
    info.handle = name;
    info.num_images = 1;
    info.images = &desc;
    out = PXF_open(&info, "w");
    if (!out) return 1;
    rows = PXF_chan_alloc(&desc, 8, "outside", NULL);
    for (y = 3; y >= 0; --y) {
        for (x = 0; x < 8; ++x) ((unsigned char *)rows[0])[x] = (unsigned char)(x * 10 + y);
        if (PXF_scan_write(out, y, &rows) != 0) return 1;
    }
    in = PXF_open(&info, "r");
    if (!in) return 1;
    for (y = 3; y >= 0; --y) {
        void **got = rows;
        if (PXF_scan_read(in, y, &got) != 0) return 1;
        for (x = 0; x < 8; ++x) bad += ((unsigned char *)got[0])[x] != x * 10 + y;
    }
    PXF_close(in);
    PXF_close(out);
    PXF_chan_free(rows);
    driver = PXF_find("mem");
    printf("read back %s through the %s driver\n", bad ? "wrong pixels" : "every pixel", driver ? driver->name : "?");
    return bad != 0;
}
