// Writing and checking RLA files in the tests: a fixture with the numbered
// catalogue, test pixels, and whole-file write and read-back helpers.
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

// One image: window 0..w-1 x 0..h-1, every group of the given type and width.
inline PXF_IMAGE_DESC image_desc(int width, int height, int channels, int type, int bits, int mattes = 0,
                                 int aux = 0) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = 1;
    d.curve.kind = PXF_CURVE_GAMMA;
    d.curve.gamma = 2.2f;
    d.window = {0, width - 1, 0, height - 1};
    d.active_window = d.window;
    d.step = d.orientation = 1;
    d.chan = {const_cast<char *>("rgb"), channels, type, bits, 0};
    d.matte = {nullptr, mattes, type, bits, 0};
    d.aux = {const_cast<char *>("z"), aux, type, bits, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    d.aspect = const_cast<char *>("square");
    d.aspect_ratio = 1.0f;
    return d;
}

inline int element_bytes(const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_DOUBLE) return 8;
    if (g.type == PXF_C_FLOAT) return 4;
    return g.width <= 8 ? 1 : g.width <= 16 ? 2 : 4;
}

// The group of channel c.
inline const PXF_CHAN_GROUP &group_of(const PXF_IMAGE_DESC &d, int c) {
    if (c < d.chan.count) return d.chan;
    if (c < d.chan.count + d.matte.count) return d.matte;
    return d.aux;
}

inline int channel_count(const PXF_IMAGE_DESC &d) { return d.chan.count + d.matte.count + d.aux.count; }

// Test pixels: runs and literals mixed, every bit of the width used.
inline double pixel(int image, int c, int x, int y, const PXF_CHAN_GROUP &g) {
    uint64_t v = (x / 6) % 3 == 0 ? uint64_t(y * 977 + c * 131 + image * 17)
                                  : uint64_t(x) * 2654435761u ^ uint64_t(y) * 40503u ^ uint64_t(c * 7 + image);
    if (g.type == PXF_C_FLOAT) return float(int64_t(v % 200001) - 100000) / 64.0f;
    if (g.type == PXF_C_DOUBLE) return double(int64_t(v % 2000001) - 1000000) / 3.0;
    int bits = g.width < 1 ? 8 : g.width;
    return double(bits >= 32 ? (v * 0x9E3779B1u) & 0xffffffffu : v & ((uint64_t(1) << bits) - 1));
}

inline void put_element(void *row, int x, const PXF_CHAN_GROUP &g, double v) {
    switch (g.type == PXF_C_INTEGER ? element_bytes(g) : g.type == PXF_C_FLOAT ? 3 : 5) {
    case 1: static_cast<uint8_t *>(row)[x] = uint8_t(v); break;
    case 2: static_cast<uint16_t *>(row)[x] = uint16_t(v); break;
    case 4: static_cast<uint32_t *>(row)[x] = uint32_t(v); break;
    case 3: static_cast<float *>(row)[x] = float(v); break;
    default: static_cast<double *>(row)[x] = v; break;
    }
}

inline double get_element(const void *row, int x, const PXF_CHAN_GROUP &g) {
    switch (g.type == PXF_C_INTEGER ? element_bytes(g) : g.type == PXF_C_FLOAT ? 3 : 5) {
    case 1: return static_cast<const uint8_t *>(row)[x];
    case 2: return static_cast<const uint16_t *>(row)[x];
    case 4: return static_cast<const uint32_t *>(row)[x];
    case 3: return static_cast<const float *>(row)[x];
    default: return static_cast<const double *>(row)[x];
    }
}

// Fills the window row `y` of every channel with the test pixels.
inline void fill_row(void **rows, const PXF_IMAGE_DESC &d, int image, int y) {
    int width = d.window.right - d.window.left + 1;
    for (int c = 0; c < channel_count(d); ++c)
        for (int x = 0; x < width; ++x) put_element(rows[c], x, group_of(d, c), pixel(image, c, x, y, group_of(d, c)));
}

class RlaFile : public ::testing::Test {
protected:
    void SetUp() override {
#ifdef TEST_CATALOG
        catalog_ = catopen(TEST_CATALOG, 0);
        ASSERT_NE(catalog_, reinterpret_cast<nl_catd>(-1));
#endif
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
        PXF_info_init(&info_);
    }
    void TearDown() override {
        info_.images = nullptr;  // the descriptions belong to the test
        info_.num_images = 0;
        PXF_info_cleanup(&info_, 1);
        PXF_exit();
        if (catalog_) catclose(catalog_);
        pxf__msg_cat = nullptr;
    }

    void describe(std::vector<PXF_IMAGE_DESC> images) {
        images_ = std::move(images);
        info_.images = images_.data();
        info_.num_images = int(images_.size());
    }

    PXF_IMAGE *open(const std::string &path, const char *mode, const char *key = "rla") {
        free(info_.handle);
        info_.handle = strdup(path.c_str());
        free(info_.key);
        info_.key = key ? strdup(key) : nullptr;
        return PXF_open(&info_, mode);
    }

    // Writes every scanline of every image of the description; true when all went well.
    bool write(const std::string &path) {
        PXF_IMAGE *image = open(path, "w");
        if (!image) return false;
        bool ok = true;
        for (int i = 0; i < image->info.num_images; ++i) {
            PXF_IMAGE_DESC d = image->info.images[i];
            void **rows = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, "test");
            for (int y = d.window.bottom; ok && y <= d.window.top; ++y) {
                fill_row(rows, d, i, y);
                void **r = rows;
                ok = image->scan(image->private_data[i], y, &r, image->private_data) == 0;
            }
            pxf__chan_free(rows);
        }
        return PXF_close(image) == 0 && ok;
    }

    // Reads every scanline of every image in a scrambled order and compares
    // each element with what write() stored (zero outside the active window).
    void expect_read_back(const std::string &path, bool own_rows = false) {
        PXF_IMAGE *image = open(path, "r", nullptr);
        ASSERT_NE(image, nullptr);
        ASSERT_EQ(image->info.num_images, int(images_.size()));
        std::mt19937 rng(7);
        for (int i = 0; i < image->info.num_images; ++i) {
            PXF_IMAGE_DESC d = image->info.images[i];
            EXPECT_EQ(d.image_kind, i == 0 ? 1 : 2);
            int width = d.window.right - d.window.left + 1;
            void **buffer = pxf__chan_alloc(&d, width, "test");
            std::vector<int> lines;
            for (int y = d.window.bottom; y <= d.window.top; ++y) lines.push_back(y);
            std::shuffle(lines.begin(), lines.end(), rng);
            for (int y : lines) {
                void **rows = own_rows ? nullptr : buffer;
                ASSERT_EQ(image->scan(image->private_data[i], y, &rows, image->private_data), 0) << "line " << y;
                for (int c = 0; c < channel_count(d); ++c)
                    for (int x = 0; x < width; ++x) {
                        const PXF_CHAN_GROUP &g = group_of(d, c);
                        bool active = x + d.window.left >= d.active_window.left &&
                                      x + d.window.left <= d.active_window.right && y >= d.active_window.bottom &&
                                      y <= d.active_window.top;
                        double want = active ? pixel(i, c, x, y, g) : 0.0;
                        ASSERT_EQ(get_element(rows[c], x, g), want)
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
