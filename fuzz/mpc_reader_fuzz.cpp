// Feeds arbitrary bytes to the container probe and reader: every frame of the
// index (up to a few), a spread of scanlines of each, with and without the
// caller's rows.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include <pxf/err.h>
#include <pxf/frames.h>

#include "core/core_util.h"

namespace {

int swallow(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

void read_frame(PXF_IMAGE *image) {
    PXF_IMAGE_DESC d = image->info.images[0];
    void **caller_rows = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, "fuzz");
    int bottom = d.window.bottom, top = d.window.top;
    int64_t height = int64_t(top) - bottom + 1;
    int lines[] = {top + 1, bottom - 1, bottom, top, d.active_window.bottom, d.active_window.top,
                   int(bottom + height / 3), int(bottom + height / 2)};
    for (int i = 0; i < int(sizeof lines / sizeof lines[0]); ++i) {
        void **rows = (i & 1) && caller_rows ? caller_rows : nullptr;
        PXF_scan_read(image, lines[i], &rows);
    }
    pxf__chan_free(caller_rows);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = ERR_dcl_handler(nullptr, swallow, nullptr) >= 0;
    static int fd = memfd_create("mpc_fuzz", 0);
    (void)quiet;
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != ssize_t(size)) return 0;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    PXF_mpc_is_file(path, nullptr);

    auto *image = static_cast<PXF_IMAGE *>(pxf::heap_alloc(sizeof(PXF_IMAGE)));
    pxf__init_obj(image, PXF_MODE_READ);
    image->info.handle = pxf::dup_string(path);
    if (!PXF_mpc_r_open(image)) {
        pxf__free_obj(image);
        return 0;
    }
    int count = PXF_multiframe_count(image);
    for (int i = 0; i < count && i < 6; ++i) {
        int frame = 0;
        // From both ends: the last entries are the ones a damaged index reaches first.
        if (PXF_multiframe_frame(image, i & 1 ? count - 1 - i / 2 : i / 2, &frame) == 0 &&
            PXF_set_frame(image, frame) == 0)
            read_frame(image);
    }
    if (!count) read_frame(image);
    image->close(image);
    return 0;
}
