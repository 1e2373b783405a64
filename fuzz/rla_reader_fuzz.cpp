// Feeds arbitrary bytes to the RLA probe, the RLA reader (every image, a
// spread of scanlines in a scrambled order, with and without caller rows) and
// the channel decoders.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <pxf/err.h>
#include <pxf/pxf.h>
#include <pxf/rla.h>

#include "core/core_util.h"
#include "formats/rla_header.h"

namespace {

int swallow(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

std::FILE *open_bytes(std::vector<uint8_t> &bytes) {
    return fmemopen(bytes.data(), bytes.size(), "rb");
}

void read_image(PXF_IMAGE *image, int index) {
    const PXF_IMAGE_DESC &d = image->info.images[index];
    void *record = image->private_data[index];
    PXF_IMAGE_DESC shape = d;
    void **caller_rows = pxf__chan_alloc(&shape, d.window.right - d.window.left + 1, "fuzz");
    int lines[16];
    int n = 0;
    int bottom = d.window.bottom, top = d.window.top;
    lines[n++] = top + 1;
    lines[n++] = bottom - 1;
    int height = top - bottom + 1;
    for (int i = 0; i < 12; ++i) lines[n++] = top - int((int64_t(height) * (i * 7 % 12)) / 12);
    lines[n++] = d.active_window.bottom;
    lines[n++] = d.active_window.top;
    for (int i = 0; i < n; ++i) {
        void **rows = (i & 1) && caller_rows ? caller_rows : nullptr;
        image->scan(record, lines[i], &rows, image->private_data);
    }
    pxf__chan_free(caller_rows);
}

void decoders(const uint8_t *data, size_t size) {
    if (size < 4) return;
    int count = (data[0] | data[1] << 8) & 0x1fff;
    unsigned leading = data[2] & 0x3f;
    int trailing = data[3] & 0x3f;
    data += 4;
    size -= 4;
    std::vector<uint8_t> dest((size_t(count) + leading + trailing) * 8 + 8);
    int length = int(size);
    rla__dec_byte(data, length, dest.data(), count, leading, trailing);
    rla__dec_short(data, length, dest.data(), count, leading, trailing);
    rla__dec_word(data, length, dest.data(), count, leading, trailing);
    rla__dec_float(data, length, dest.data(), count, leading, trailing);
    rla__dec_double(data, length, dest.data(), count, leading, trailing);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = ERR_dcl_handler(nullptr, swallow, nullptr) >= 0;
    (void)quiet;
    std::vector<uint8_t> bytes(data, data + size);
    if (bytes.empty()) return 0;

    if (std::FILE *probe = open_bytes(bytes)) {
        PXF_rla_is_file(nullptr, probe);
        std::fclose(probe);
    }

    auto *image = static_cast<PXF_IMAGE *>(pxf::heap_alloc(sizeof(PXF_IMAGE)));
    pxf__init_obj(image, PXF_MODE_READ);
    image->info.handle = pxf::dup_string("fuzz.rla");
    std::FILE *stream = open_bytes(bytes);
    if (stream && pxf::rla::read_open_stream(image, stream, "fuzz.rla")) {
        int images = image->info.num_images < 4 ? image->info.num_images : 4;
        for (int i = 0; i < images; ++i) read_image(image, i);
        image->close(image);
    } else {
        pxf__free_obj(image);
    }

    decoders(data, size);
    return 0;
}
