// Images for the operator tests (a hand-made driver with known pixels, and
// memory images) and the checks the tests share.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <pxf/fmt.h>
#include <pxf/pxf.h>

#include "support/test_support.h"

namespace pxf::test {

// "close" when a synthetic image closes, and what tests add.
inline std::vector<std::string> event_log;
// Scanlines read from synthetic images.
inline int scan_count = 0;
// What reached synthetic write images (8-bit image channels), by scanline:
// every channel row in turn.
inline std::map<int, std::vector<uint8_t>> written_lines;

// Window 0..width-1 x 0..height-1, top down, gamma 1, aspect 1, every group alike.
PXF_IMAGE_DESC synthetic_desc(int width, int height, int channels, int type, int bits, int mattes = 0, int aux = 0);
PXF_IMAGE *synthetic_image(const PXF_IMAGE_DESC &desc, int mode);

// The pixels delivered: integers of `bits` bits, or floats in 0..1.
uint32_t integer_pixel(int line, int x, int c, int bits);
float float_pixel(int line, int x, int c);

// Opens memory image `name` for writing, or reading when `desc` is null; a
// writer gets every scanline, value(line, x, channel) in 8-bit channels.
// `adjust` may change the info first.
PXF_IMAGE *open_mem(const std::string &name, PXF_IMAGE_DESC *desc = nullptr,
                    const std::function<uint8_t(int, int, int)> &value = nullptr,
                    const std::function<void(PXF_INFO &)> &adjust = nullptr);

inline PXF_OPERATOR *top_of(PXF_IMAGE *image) { return static_cast<PXF_OPERATOR *>(image->private_data[0]); }

// Reads the given scanlines (every one when none is given) and compares
// channel c of pixel x with expect(line, x, c).
template <class T, class F>
void expect_rows(PXF_IMAGE *image, int channels, F expect, std::vector<int> lines = {}) {
    const PXF_BOUNDS &w = image->info.images[0].window;
    for (int l = w.bottom; lines.empty() && l <= w.top; ++l) lines.push_back(l);
    for (int line : lines) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, line, &rows), 0) << line;
        for (int c = 0; c < channels; ++c)
            for (int x = 0; x <= w.right - w.left; ++x)
                ASSERT_EQ(static_cast<T *>(rows[c])[x], expect(line, x, c)) << line << " " << x << " " << c;
    }
}

// Installs with every allocation failing in turn: each failure must leave
// the chain and the description as they were (and pxf__err at `error` when
// given); the run that succeeds is removed again.
void expect_clean_failures(PXF_IMAGE *image, const std::function<void()> &install, int (*remove)(PXF_IMAGE *),
                           int error = 0);

}  // namespace pxf::test
