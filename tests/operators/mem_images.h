// Memory images for the operator tests: a writer kept open while readers
// are opened on the same name.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include <pxf/pxf.h>

namespace pxf::test {

// `channels` 8-bit "rgb" channels, width x height, top down, gamma 1.
inline PXF_IMAGE_DESC mem_desc(int width, int height, int channels) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.curve = {PXF_CURVE_GAMMA, 1.0f, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d.aspect_ratio = 1.0f;
    d.window = d.active_window = {0, width - 1, 0, height - 1};
    d.chan = {const_cast<char *>("rgb"), channels, PXF_C_INTEGER, 8, 0};
    d.matte = d.aux = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    return d;
}

// Opens `name` ("mem") for writing, or reading when `desc` is null; a writer
// gets every scanline, value(line, x, channel).  `adjust` may change the info.
inline PXF_IMAGE *open_mem(const std::string &name, PXF_IMAGE_DESC *desc = nullptr,
                           const std::function<uint8_t(int, int, int)> &value = nullptr,
                           const std::function<void(PXF_INFO &)> &adjust = nullptr) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>("mem");
    info.handle = const_cast<char *>(name.c_str());
    info.num_images = desc ? 1 : 0;
    info.images = desc;
    if (adjust) adjust(info);
    PXF_IMAGE *image = PXF_open(&info, desc ? "w" : "r");
    if (!image || !desc) return image;
    int width = desc->window.right - desc->window.left + 1;
    void **rows = pxf__chan_alloc(desc, width, "test");
    for (int line = desc->window.bottom; line <= desc->window.top; ++line) {
        for (int c = 0; c < desc->chan.count; ++c)
            for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = value(line, x, c);
        void **given = rows;
        EXPECT_EQ(PXF_scan_write(image, line, &given), 0);
    }
    pxf__chan_free(rows);
    return image;
}

}  // namespace pxf::test
