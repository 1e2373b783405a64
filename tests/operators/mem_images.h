// Memory images for the operator tests: a writer that stays open while
// readers are opened on the same name.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include <pxf/pxf.h>

namespace pxf::test {

// One image of `channels` 8-bit channels (plus `mattes`), width x height, top down.
inline PXF_IMAGE_DESC mem_desc(int width, int height, int channels, int mattes = 0) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = 1;
    d.curve = {PXF_CURVE_GAMMA, 1.0f, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d.aspect_ratio = 1.0f;
    d.window = {0, width - 1, 0, height - 1};
    d.active_window = d.window;
    d.step = 1;
    d.chan = {const_cast<char *>("rgb"), channels, PXF_C_INTEGER, 8, 0};
    d.matte = {nullptr, mattes, PXF_C_INTEGER, 8, 0};
    d.aux = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    return d;
}

// Opens `name` for writing and writes every scanline: channel c of pixel x
// on `line` gets value(line, x, c).  `adjust` may change the info first.
inline PXF_IMAGE *write_mem(const std::string &name, PXF_IMAGE_DESC desc,
                            const std::function<uint8_t(int, int, int)> &value,
                            const std::function<void(PXF_INFO &)> &adjust = nullptr) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>("mem");
    info.handle = const_cast<char *>(name.c_str());
    info.num_images = 1;
    info.images = &desc;
    if (adjust) adjust(info);
    PXF_IMAGE *writer = PXF_open(&info, "w");
    EXPECT_NE(writer, nullptr) << name;
    if (!writer) return nullptr;
    int width = desc.window.right - desc.window.left + 1;
    int channels = desc.chan.count + desc.matte.count;
    void **rows = pxf__chan_alloc(&desc, width, "test");
    for (int line = desc.window.bottom; line <= desc.window.top; ++line) {
        for (int c = 0; c < channels; ++c)
            for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = value(line, x, c);
        void **given = rows;
        EXPECT_EQ(PXF_scan_write(writer, line, &given), 0);
    }
    pxf__chan_free(rows);
    return writer;
}

inline PXF_IMAGE *read_mem(const std::string &name) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>("mem");
    info.handle = const_cast<char *>(name.c_str());
    return PXF_open(&info, "r");
}

}  // namespace pxf::test
