// Pipe images: scanline packets streamed to standard output for a consumer
// at the other end of a pipe.  Write only.
#include <cstdio>

#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core/registry.h"

int pipe_number = 0;

namespace {

constexpr int32_t kPacketScanline = 2;

struct PipeImage {
    int32_t pipe_number;
    int32_t width;
    int32_t height;
    int32_t channels;
};

int write_scan(void *data, int row, void ***rows, void **) {
    auto *p = static_cast<PipeImage *>(data);
    if (p->height > row) {
        std::fwrite(&kPacketScanline, 4, 1, stdout);
        std::fwrite(&p->width, 4, 1, stdout);
        for (int c = 0; c < p->channels; ++c) std::fwrite((*rows)[c], 1, std::size_t(p->width), stdout);
    }
    if (std::fflush(stdout) != 0) {
        pxf__err = pxf::kErrFlush;
        return pxf::kErrFlush;
    }
    pxf__err = 0;
    return 0;
}

int close_pipe(PXF_IMAGE *image) {
    pxf__free_obj(image);
    pxf__err = 0;
    return 0;
}

}  // namespace

int PXF_pipe_is_file(const char *, void *) { return 0; }

int PXF_pipe_r_open(PXF_IMAGE *) { return 1; }

int PXF_pipe_w_open(PXF_IMAGE *image) {
    auto **table = static_cast<void **>(pxf::heap_alloc(sizeof(void *)));
    auto *p = static_cast<PipeImage *>(pxf::heap_alloc(sizeof(PipeImage)));
    if (!table || !p) {
        pxf::heap_free(table);
        pxf::heap_free(p);
        pxf__err = pxf::kErrNoMemory;
        return 0;
    }
    table[0] = p;
    image->private_data = table;  // released with the handle
    p->pipe_number = pipe_number;
    if (image->info.num_images != 1)
        return pxf::fail(0, pxf::kErrCannotDo, pxf::kSetMessages, 61, "%s cannot store multiple images",
                         image->info.key);
    image->scan = write_scan;
    image->close = close_pipe;
    const PXF_BOUNDS &active = image->info.images[0].active_window;
    p->width = active.right + 1;
    p->height = active.top + 1;
    p->channels = p->pipe_number == 4 ? 4 : 3;
    return 1;
}

namespace pxf {

const PXF_TYPE pipe_driver_type = {
    .next = nullptr,
    .builtin = 1,
    .version = "3.2",
    .key = "pipe",
    .extension = ".pipe",
    .name = "pipe",
    .description = "ipc",
    .format_string = "%s.%04.4d%s",
    .name_syntax = "Name.####.Ext",
    .add_extension = 1,
    .usage = 1,
    .orientation = 1,
    .bits_per_palette_entry = 0,
    .number_of_channels = 3,
    .bits_per_channel = -1,
    .number_of_mattes = 1,
    .bits_per_matte = -1,
    .number_of_z_channels = 0,
    .bits_per_z_channel = 0,
    .supports_active_window = 1,
    .access = 12,
    .multi_frame = 0,
    .hard_link_duplicates = 0,
    .supports_remote_access = 0,
    .capability = nullptr,
    .caps_avail_update = nullptr,
    .read_open = PXF_pipe_r_open,
    .write_open = PXF_pipe_w_open,
    .done = nullptr,
    .is_file = PXF_pipe_is_file,
    .private_ui_popup = nullptr,
    .private_ui_popdown = nullptr,
    .text_set = 0,
    .text_number = 0,
};

}  // namespace pxf
