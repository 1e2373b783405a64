/* A driver built outside the library's tree with pxf_add_plugin: it
 * recognises files that start with "OUTSIDE" and opens none of them. */
#include <stdio.h>
#include <string.h>

#include <pxf/err.h>
#include <pxf/plugin.h>

const char *version = PXF_PLUGIN_PROTOCOL;
const char *imageKey = "outside";
const char *imageExtension = ".outside";
const char *imageName = "outside driver";
int imageOrientation = 0;
int imageAccess = PXF_ACCESS_READ;

int imageIsFile(const char *path, void *stream) {
    char head[8] = {0};
    FILE *f;
    (void)stream;
    if (!path || !(f = fopen(path, "rb"))) return 0;
    if (fread(head, 1, 7, f) != 7) head[0] = '\0';
    fclose(f);
    return strcmp(head, "OUTSIDE") == 0;
}

int imageReadOpen(PXF_IMAGE *image) {
    ERR_printf(ERR_ERROR, "%s: the outside driver reads nothing", image->info.handle);
    pxf__err = PXF_E_CANNOT_DO;
    return 0;
}
