// A test pattern written through a driver's scanline function and read back
// element by element.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include <pxf/pxf.h>

#include "support/elements.h"

namespace pxf::test {

// Runs and literals mixed, every bit of the width used.
inline double pixel(int image, int c, int x, int y, const PXF_CHAN_GROUP &g) {
    uint64_t v = (x / 6) % 3 == 0 ? uint64_t(y * 977 + c * 131 + image * 17)
                                  : uint64_t(x) * 2654435761u ^ uint64_t(y) * 40503u ^ uint64_t(c * 7 + image);
    if (g.type == PXF_C_FLOAT) return float(int64_t(v % 200001) - 100000) / 64.0f;
    if (g.type == PXF_C_DOUBLE) return double(int64_t(v % 2000001) - 1000000) / 3.0;
    return double(g.width >= 32 ? (v * 0x9E3779B1u) & 0xffffffffu : v & ((uint64_t(1) << g.width) - 1));
}

// The scanlines of a window bottom up, or shuffled by `rng`.
inline std::vector<int> lines_of(const PXF_BOUNDS &w, std::mt19937 *rng) {
    std::vector<int> lines;
    for (int y = w.bottom; y <= w.top; ++y) lines.push_back(y);
    if (rng) std::shuffle(lines.begin(), lines.end(), *rng);
    return lines;
}

// Writes the pattern to every scanline of every image of an open writer.
inline bool write_pattern(PXF_IMAGE *image, std::mt19937 *rng = nullptr) {
    bool ok = true;
    for (int i = 0; ok && i < image->info.num_images; ++i) {
        PXF_IMAGE_DESC d = image->info.images[i];
        void **rows = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, "test");
        for (int y : lines_of(d.window, rng)) {
            for (int c = 0; c < d.chan.count + d.matte.count + d.aux.count; ++c)
                for (int x = 0; x <= d.window.right - d.window.left; ++x) {
                    const double v = pixel(i, c, x, y, group_of(d, c));
                    element(rows[c], x, group_of(d, c), &v);
                }
            void **r = rows;
            ok = ok && image->scan(image->private_data[i], y, &r, image->private_data) == 0;
        }
        pxf__chan_free(rows);
    }
    return ok;
}

// Reads every scanline of every image in an order shuffled by `rng`, into the
// caller's rows or the reader's own, and compares every element with the
// pattern (zero outside the active window).
inline void expect_pattern(PXF_IMAGE *image, bool own_rows, std::mt19937 &rng) {
    for (int i = 0; i < image->info.num_images; ++i) {
        PXF_IMAGE_DESC d = image->info.images[i];
        const PXF_BOUNDS &w = d.window, &a = d.active_window;
        void **buffer = pxf__chan_alloc(&d, w.right - w.left + 1, "test");
        for (int y : lines_of(w, &rng)) {
            void **rows = own_rows ? nullptr : buffer;
            ASSERT_EQ(image->scan(image->private_data[i], y, &rows, image->private_data), 0) << "line " << y;
            for (int c = 0; c < d.chan.count + d.matte.count + d.aux.count; ++c)
                for (int x = 0; x <= w.right - w.left; ++x) {
                    const bool active = x + w.left >= a.left && x + w.left <= a.right && y >= a.bottom && y <= a.top;
                    ASSERT_EQ(element(rows[c], x, group_of(d, c)), active ? pixel(i, c, x, y, group_of(d, c)) : 0.0)
                        << "image " << i << " channel " << c << " x " << x << " y " << y;
                }
        }
        pxf__chan_free(buffer);
    }
}

}  // namespace pxf::test
