// The cast and quantize operators over the synthetic driver.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>

#include <pxf/fmt.h>

#include "support/test_support.h"
#include "synthetic.h"

namespace {

using namespace pxf::test;

constexpr int W = 70, H = 3;  // wider than one vector of the wide paths

float scale(int bits) { return float(1.0 / (std::pow(2.0, bits) - 1)); }

// Reads every scanline and compares channel c of pixel x with expect(line, x, c).
template <class T, class F>
void expect_rows(PXF_IMAGE *image, int channels, F expect) {
    for (int line = 0; line < H; ++line) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, line, &rows), 0);
        for (int c = 0; c < channels; ++c)
            for (int x = 0; x < W; ++x)
                ASSERT_EQ(static_cast<T *>(rows[c])[x], expect(line, x, c)) << line << " " << x << " " << c;
    }
}

// Installs with every allocation failing in turn: each failure leaves the
// chain and the description exactly as they were.
void expect_clean_failures(PXF_IMAGE *image, const std::function<void()> &install, int (*remove)(PXF_IMAGE *)) {
    PXF_IMAGE_DESC before = image->info.images[0];
    void *driver = image->private_data[0];
    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    ReportCapture capture;
    for_each_allocation_failure(
        [&] {
            install();
            return image->private_data[0] != driver && remove(image) == 1;
        },
        [&](int) {
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(std::memcmp(&image->info.images[0], &before, sizeof before), 0);
        });
}

TEST(Cast, IntegersScaleByTheirLargestValueAndGammaOnlyCountsAtEightBits) {
    for (int bits : {1, 8, 12, 16, 24, 32})
        for (float gamma : {1.0f, 2.2f}) {
            PXF_IMAGE_DESC d = synthetic_desc(W, H, 2, PXF_C_INTEGER, bits, 1, 1);
            d.curve.gamma = gamma;
            d.matte.width = 10;
            d.aux.width = 20;
            PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
            ASSERT_EQ(PXF__cast(image), image);
            ASSERT_EQ(top_of(image)->tag, PXF_OP_CAST);
            const PXF_IMAGE_DESC &now = image->info.images[0];
            EXPECT_TRUE(now.chan.type == PXF_C_FLOAT && now.aux.type == PXF_C_FLOAT && now.chan.width == 32);
            EXPECT_EQ(now.curve.gamma, 1.0f);
            float *table = PXF_gamma_btof(gamma);
            expect_rows<float>(image, 4, [&](int l, int x, int c) {
                int b = c < 2 ? bits : c == 2 ? 10 : 20;
                uint32_t v = integer_pixel(l, x, c, b);
                return c < 2 && bits == 8 && gamma != 1.0f ? table[v] : float(v) * scale(b);
            });
            PXF_gamma_done(table);
            EXPECT_EQ(PXF__cast_done(image), 1);
            EXPECT_EQ(std::memcmp(&image->info.images[0], &d, sizeof d), 0);
            PXF_close(image);
        }
}

TEST(Cast, FloatImagesGetNothingAndIntegerMattesKeepTheScanFunction) {
    PXF_IMAGE *floats = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32, 1), PXF_MODE_READ);
    void *driver = floats->private_data[0];
    EXPECT_EQ(PXF__cast(floats), floats);
    EXPECT_EQ(floats->private_data[0], driver);

    // Float image channels with an integer matte: the record goes on, the
    // scan function stays.
    floats->info.images[0].matte.type = PXF_C_INTEGER;
    floats->info.images[0].matte.width = 8;
    PXF_SCAN_FN scan = floats->scan;
    PXF__cast(floats);
    EXPECT_EQ(top_of(floats)->tag, PXF_OP_CAST);
    EXPECT_EQ(floats->scan, scan);
    EXPECT_EQ(floats->info.images[0].matte.type, PXF_C_FLOAT);
    event_log.clear();
    EXPECT_EQ(PXF_close(floats), 0);
    EXPECT_EQ(event_log, std::vector<std::string>{"close"});
}

TEST(Cast, RefusalsAndOutOfMemoryLeaveNoTrace) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, 8, 1), PXF_MODE_READ);
    image->info.images[0].curve.gamma = 2.2f;
    image->info.images[0].matte.width = 40;
    {
        ReportCapture capture;
        PXF__cast(image);
        EXPECT_EQ(capture.last(), "cast operator cannot handle matte channel width");
        EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    }
    image->info.images[0].matte.width = 8;
    expect_clean_failures(image, [&] { PXF__cast(image); }, PXF__cast_done);
    PXF_close(image);
}

// Quantizes the given values of channel 0 to `bits`.
template <class T>
std::vector<T> quantize(std::vector<float> values, int bits) {
    float_override = values;
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 1, PXF_C_FLOAT, 32), PXF_MODE_READ);
    const PXF_CHAN_TYPE request[3] = {{PXF_C_INTEGER, bits}, {0, 0}, {0, 0}};
    PXF__quantize(image, request);
    EXPECT_EQ(image->info.images[0].chan.width, bits);
    void **rows = nullptr;
    EXPECT_EQ(PXF_scan_read(image, 0, &rows), 0);
    std::vector<T> out(static_cast<T *>(rows[0]), static_cast<T *>(rows[0]) + values.size());
    PXF_close(image);
    float_override.clear();
    return out;
}

TEST(Quantize, RoundsUpOnlyNearTheNextCodeAndNeverClips) {
    EXPECT_EQ(quantize<uint8_t>({1.0f, 0.5f, 0.99f, 0.0f, 254.0f / 255, 254.2f / 255}, 8),
              (std::vector<uint8_t>{255, 127, 253, 0, 254, 255}));
    EXPECT_EQ(quantize<uint16_t>({1.0f, 0.5f}, 12), (std::vector<uint16_t>{4095, 2047}));
    EXPECT_EQ(quantize<uint8_t>({1.5f}, 8), (std::vector<uint8_t>{383 & 0xff}));  // 383.9: low bits kept
    auto wide = quantize<uint32_t>({0.75f}, 32);
    EXPECT_EQ(wide[0], uint32_t(0.75f * float(4294967295.0 + 0.95)));  // above 2^31, kept unsigned
}

TEST(Quantize, UntouchedGroupsPassThroughAndTheDescriptionComesBack) {
    PXF_IMAGE_DESC d = synthetic_desc(W, H, 1, PXF_C_FLOAT, 32, 1, 1);
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    const PXF_CHAN_TYPE request[3] = {{0, 0}, {PXF_C_INTEGER, 16}, {PXF_C_FLOAT, 32}};
    PXF__quantize(image, request);
    ASSERT_EQ(top_of(image)->tag, PXF_OP_QUANTIZE);
    EXPECT_EQ(image->info.images[0].matte.type, PXF_C_INTEGER);
    for (int line = 0; line < H; ++line) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, line, &rows), 0);
        for (int x = 0; x < W; ++x) {
            ASSERT_EQ(static_cast<float *>(rows[0])[x], float_pixel(line, x, 0));
            ASSERT_EQ(static_cast<uint16_t *>(rows[1])[x], uint16_t(float_pixel(line, x, 1) * 65535.95f));
            ASSERT_EQ(static_cast<float *>(rows[2])[x], float_pixel(line, x, 2));
        }
    }
    EXPECT_EQ(PXF__quantize_done(image), 1);
    EXPECT_EQ(std::memcmp(&image->info.images[0], &d, sizeof d), 0);
    expect_clean_failures(image, [&] { PXF__quantize(image, request); }, PXF__quantize_done);
    PXF_close(image);
}

TEST(Quantize, StaysAwayWhenThereIsNothingToDo) {
    const PXF_CHAN_TYPE bytes[3] = {{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}};
    const PXF_CHAN_TYPE too_deep[3] = {{PXF_C_INTEGER, 33}, {0, 0}, {0, 0}};
    PXF_IMAGE *integer = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF_IMAGE *flagged = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32), PXF_MODE_READ);
    flagged->info.open_flag = 0;
    PXF_IMAGE *writing = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32), PXF_MODE_WRITE);
    PXF_IMAGE *deep = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32), PXF_MODE_READ);
    for (PXF_IMAGE *image : {integer, flagged, writing, deep}) {
        void *driver = image->private_data[0];
        EXPECT_EQ(PXF__quantize(image, image == deep ? too_deep : bytes), image);
        EXPECT_EQ(image->private_data[0], driver);
        PXF_close(image);
    }
}

}  // namespace
