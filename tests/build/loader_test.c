/* Loads the shipped plug-ins through PXF_PLUGIN_PATH with the library's
 * loader, then checks the per-thread error and the explained refusal of an
 * out-of-order scanline.  Usage: loader_test SCRATCH_DIR */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <pxf/err.h>
#include <pxf/pxf.h>

static int failures;
#define CHECK(cond)                                                   \
    do {                                                              \
        if (!(cond)) {                                                \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                               \
        }                                                             \
    } while (0)

static int quiet(const char *name, int severity, const char *text, ERR_DESCRIPTOR *d, void *data) {
    (void)name, (void)severity, (void)text, (void)d, (void)data;
    return 0;
}

static void describe(PXF_IMAGE_DESC *d) {
    memset(d, 0, sizeof *d);
    d->image_kind = 1;
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 2.2f;
    d->window.right = 7;
    d->window.top = 3;
    d->active_window = d->window;
    d->step = 1;
    d->chan.count = 3;
    d->chan.type = d->matte.type = d->aux.type = d->index.type = PXF_C_INTEGER;
    d->chan.width = 8;
}

/* Another thread's failure does not show in this thread's last error. */
static void *fail_elsewhere(void *arg) {
    const char *text = NULL;
    int *code = arg;
    CHECK(PXF_last_error(&text) == 0 && text && text[0] == '\0');
    ERR_printf(ERR_ERROR, "other thread");
    *code = PXF_last_error(&text);
    CHECK(strcmp(text, "other thread") == 0);
    return NULL;
}

int main(int argc, char **argv) {
    char path[4096], key[] = "png";
    const char *text = NULL;
    PXF_IMAGE_DESC desc;
    PXF_INFO info;
    PXF_IMAGE *image;
    void **rows;
    pthread_t thread;
    int y, other = 0;

    if (argc < 2 || !getenv("PXF_PLUGIN_PATH")) return fprintf(stderr, "usage: PXF_PLUGIN_PATH=DIR %s SCRATCH\n", argv[0]), 2;
    CHECK(PXF_VERSION_NUMBER == PXF_VERSION_MAJOR * 10000 + PXF_VERSION_MINOR * 100 + PXF_VERSION_PATCH);
    {
        char built[32];
        snprintf(built, sizeof built, "%d.%d.%d", PXF_VERSION_MAJOR, PXF_VERSION_MINOR, PXF_VERSION_PATCH);
        CHECK(strcmp(PXF_version(), built) == 0);
    }

    /* A missing directory in the application's list is no error. */
    CHECK(PXF_load_plugins(NULL, "/nonexistent/pxf:") == 0);
    CHECK(PXF_find("png") && PXF_find("tiff") && PXF_find(".tif"));
    CHECK(PXF_find("rla") != NULL); /* the built-ins follow */
    /* Once the registry exists a second call loads nothing and succeeds. */
    CHECK(PXF_load_plugins(NULL, NULL) == 0 && PXF_find("png"));

    /* A PNG written in order, then refused out of order. */
    ERR_dcl_handler(NULL, quiet, NULL);
    describe(&desc);
    PXF_info_init(&info);
    snprintf(path, sizeof path, "%s/loader.png", argv[1]);
    info.handle = path;
    info.key = key;
    info.num_images = 1;
    info.images = &desc;
    image = PXF_open(&info, "w");
    CHECK(image != NULL);
    if (!image) return 1;
    rows = PXF_chan_alloc(&desc, 8, "loader_test", NULL);
    PXF_clear_last_error();
    CHECK(PXF_scan_write(image, 0, &rows) == PXF_E_BAD_SCANLINE); /* png writes top row first */
    CHECK(PXF_last_error(&text) == PXF_E_BAD_SCANLINE);
    CHECK(strstr(text, "only in order") && strstr(text, "top row first") && strstr(text, "loader.png"));
    CHECK(PXF_scan_write(image, 9, &rows) == PXF_E_BAD_SCANLINE);
    PXF_last_error(&text);
    CHECK(strstr(text, "outside the window") != NULL);
    for (y = 3; y >= 0; --y) CHECK(PXF_scan_write(image, y, &rows) == 0);
    CHECK(PXF_close(image) == 0);

    image = PXF_open(&info, "r");
    CHECK(image != NULL);
    if (image) {
        void **got = rows;
        CHECK(PXF_scan_read(image, 3, &got) == 0);
        got = rows;
        CHECK(PXF_scan_read(image, 1, &got) == 0);
        got = rows;
        PXF_clear_last_error();
        CHECK(PXF_scan_read(image, 3, &got) == PXF_E_BAD_SCANLINE);
        CHECK(PXF_last_error(&text) == PXF_E_BAD_SCANLINE && strstr(text, "reads rows only in order"));
        PXF_close(image);
    }

    /* Failures on another thread leave this thread's record alone. */
    CHECK(pthread_create(&thread, NULL, fail_elsewhere, &other) == 0);
    pthread_join(thread, NULL);
    CHECK(other < 0);
    CHECK(PXF_last_error(&text) == PXF_E_BAD_SCANLINE && strstr(text, "reads rows only in order"));
    PXF_clear_last_error();
    CHECK(PXF_last_error(&text) == 0 && text[0] == '\0');

    PXF_chan_free(rows);
    ERR_can_handler(NULL);
    PXF_exit();
    if (failures) fprintf(stderr, "%d failures\n", failures);
    return failures != 0;
}
