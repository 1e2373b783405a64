// RLA file tests: a fixture with the numbered catalogue, test pixels, and
// whole-file write and read-back helpers.
#pragma once

#include <gtest/gtest.h>
#include <nl_types.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <pxf/pxf.h>

#include "support/test_support.h"

namespace pxf::test {

inline std::string numbered(int n, const std::string &text) { return "[" + std::to_string(n) + "] " + text; }

// Window 0..width-1 x 0..height-1, every group of the given type and width.
inline PXF_IMAGE_DESC image_desc(int width, int height, int channels, int type, int bits, int mattes = 0,
                                 int aux = 0) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = d.step = d.orientation = 1;
    d.curve = {PXF_CURVE_GAMMA, 2.2f, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d.window = d.active_window = {0, width - 1, 0, height - 1};
    d.chan = {const_cast<char *>("rgb"), channels, type, bits, 0};
    d.matte = {nullptr, mattes, type, bits, 0};
    d.aux = {const_cast<char *>("z"), aux, type, bits, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    d.aspect = const_cast<char *>("square");
    d.aspect_ratio = 1.0f;
    return d;
}

inline const PXF_CHAN_GROUP &group_of(const PXF_IMAGE_DESC &d, int c) {
    return c < d.chan.count ? d.chan : c < d.chan.count + d.matte.count ? d.matte : d.aux;
}

// Test pixels: runs and literals mixed, every bit of the width used.
inline double pixel(int image, int c, int x, int y, const PXF_CHAN_GROUP &g) {
    uint64_t v = (x / 6) % 3 == 0 ? uint64_t(y * 977 + c * 131 + image * 17)
                                  : uint64_t(x) * 2654435761u ^ uint64_t(y) * 40503u ^ uint64_t(c * 7 + image);
    if (g.type == PXF_C_FLOAT) return float(int64_t(v % 200001) - 100000) / 64.0f;
    if (g.type == PXF_C_DOUBLE) return double(int64_t(v % 2000001) - 1000000) / 3.0;
    return double(g.width >= 32 ? (v * 0x9E3779B1u) & 0xffffffffu : v & ((uint64_t(1) << g.width) - 1));
}

// Element x of a row, as a double, by the group's element type (set when `v` is given).
inline double element(void *row, int x, const PXF_CHAN_GROUP &g, const double *v = nullptr) {
    if (g.type == PXF_C_FLOAT) return v ? static_cast<float *>(row)[x] = float(*v) : static_cast<float *>(row)[x];
    if (g.type == PXF_C_DOUBLE) return v ? static_cast<double *>(row)[x] = *v : static_cast<double *>(row)[x];
    if (g.width <= 8) return v ? static_cast<uint8_t *>(row)[x] = uint8_t(*v) : static_cast<uint8_t *>(row)[x];
    if (g.width <= 16) return v ? static_cast<uint16_t *>(row)[x] = uint16_t(*v) : static_cast<uint16_t *>(row)[x];
    return v ? static_cast<uint32_t *>(row)[x] = uint32_t(*v) : static_cast<uint32_t *>(row)[x];
}

class RlaFile : public ::testing::Test {
protected:
    void SetUp() override {
        catalog_ = catopen(TEST_CATALOG, 0);
        ASSERT_NE(catalog_, reinterpret_cast<nl_catd>(-1));
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
        PXF_info_init(&info_);
    }
    void TearDown() override {
        info_.images = nullptr;  // the descriptions belong to the test
        info_.num_images = 0;
        PXF_info_cleanup(&info_, 1);
        PXF_exit();
        catclose(catalog_);
        pxf__msg_cat = nullptr;
    }
    void describe(std::vector<PXF_IMAGE_DESC> images) {
        images_ = std::move(images);
        info_.images = images_.data();
        info_.num_images = int(images_.size());
    }
    PXF_IMAGE *open(const std::string &path, const char *mode, const char *key = "rla") {
        free(info_.handle);
        free(info_.key);
        info_.handle = strdup(path.c_str());
        info_.key = key ? strdup(key) : nullptr;
        return PXF_open(&info_, mode);
    }

    // Writes every scanline of every image of the description.
    bool write(const std::string &path) {
        PXF_IMAGE *image = open(path, "w");
        if (!image) return false;
        bool ok = true;
        for (int i = 0; i < image->info.num_images; ++i) {
            PXF_IMAGE_DESC d = image->info.images[i];
            void **rows = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, "test");
            for (int y = d.window.bottom; ok && y <= d.window.top; ++y) {
                for (int c = 0; c < d.chan.count + d.matte.count + d.aux.count; ++c)
                    for (int x = 0; x <= d.window.right - d.window.left; ++x) {
                        double v = pixel(i, c, x, y, group_of(d, c));
                        element(rows[c], x, group_of(d, c), &v);
                    }
                void **r = rows;
                ok = image->scan(image->private_data[i], y, &r, image->private_data) == 0;
            }
            pxf__chan_free(rows);
        }
        return PXF_close(image) == 0 && ok;
    }

    // Reads every scanline of every image in a scrambled order, into the
    // caller's rows or the reader's own, and compares every element with
    // what write() stored (zero outside the active window).
    void expect_read_back(const std::string &path, bool own_rows = false) {
        PXF_IMAGE *image = open(path, "r", nullptr);
        ASSERT_NE(image, nullptr);
        ASSERT_EQ(image->info.num_images, int(images_.size()));
        std::mt19937 rng(7);
        for (int i = 0; i < image->info.num_images; ++i) {
            PXF_IMAGE_DESC d = image->info.images[i];
            EXPECT_EQ(d.image_kind, i == 0 ? 1 : 2);
            const PXF_BOUNDS &w = d.window, &a = d.active_window;
            void **buffer = pxf__chan_alloc(&d, w.right - w.left + 1, "test");
            std::vector<int> lines;
            for (int y = w.bottom; y <= w.top; ++y) lines.push_back(y);
            std::shuffle(lines.begin(), lines.end(), rng);
            for (int y : lines) {
                void **rows = own_rows ? nullptr : buffer;
                ASSERT_EQ(image->scan(image->private_data[i], y, &rows, image->private_data), 0) << "line " << y;
                for (int c = 0; c < d.chan.count + d.matte.count + d.aux.count; ++c)
                    for (int x = 0; x <= w.right - w.left; ++x) {
                        bool active = x + w.left >= a.left && x + w.left <= a.right && y >= a.bottom && y <= a.top;
                        ASSERT_EQ(element(rows[c], x, group_of(d, c)), active ? pixel(i, c, x, y, group_of(d, c)) : 0.0)
                            << "image " << i << " channel " << c << " x " << x << " y " << y;
                    }
            }
            pxf__chan_free(buffer);
        }
        EXPECT_EQ(PXF_close(image), 0);
    }

    nl_catd catalog_ = nullptr;
    PXF_INFO info_{};
    std::vector<PXF_IMAGE_DESC> images_;
    TempDir dir_;
};

}  // namespace pxf::test
