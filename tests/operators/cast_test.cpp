// The cast operator over the synthetic driver: values, description, the
// kept asymmetries, removal and out-of-memory installs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include <pxf/fmt.h>

#include "support/test_support.h"
#include "synthetic.h"

namespace {

using pxf::test::integer_pixel;
using pxf::test::synthetic_desc;
using pxf::test::synthetic_image;
using pxf::test::top_of;

constexpr int W = 70, H = 3;  // wider than one vector of the wide paths

// Reads every scanline and checks each float against `expect(line, x, c)`.
template <class F>
void expect_rows(PXF_IMAGE *image, int channels, F expect) {
    for (int line = 0; line < H; ++line) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, line, &rows), 0);
        for (int c = 0; c < channels; ++c)
            for (int x = 0; x < W; ++x)
                ASSERT_EQ(static_cast<float *>(rows[c])[x], expect(line, x, c)) << line << " " << x << " " << c;
    }
}

TEST(Cast, IntegerDepthsScaleByTheirLargestValue) {
    for (int bits : {1, 5, 8, 12, 16, 24, 32}) {
        PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, bits), PXF_MODE_READ);
        image->info.images[0].curve.gamma = 2.2f;  // ignored beyond 8 bits, and below
        if (bits == 8) image->info.images[0].curve.gamma = 1.0f;
        ASSERT_EQ(PXF__cast(image), image);
        ASSERT_EQ(top_of(image)->tag, PXF_OP_CAST);
        const PXF_IMAGE_DESC &d = image->info.images[0];
        EXPECT_EQ(d.chan.type, PXF_C_FLOAT);
        EXPECT_EQ(d.chan.width, 32);
        EXPECT_EQ(d.curve.gamma, 1.0f);
        float scale = float(1.0 / (std::pow(2.0, bits) - 1));
        expect_rows(image, 3, [&](int l, int x, int c) { return float(integer_pixel(l, x, c, bits)) * scale; });
        EXPECT_EQ(PXF__cast_done(image), 1);
        EXPECT_EQ(image->info.images[0].chan.width, bits);
        EXPECT_EQ(image->info.images[0].chan.type, PXF_C_INTEGER);
        EXPECT_EQ(image->info.images[0].curve.gamma, bits == 8 ? 1.0f : 2.2f);
        PXF_close(image);
    }
}

TEST(Cast, EightBitDataWithAGammaGoesThroughTheTable) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 2, PXF_C_INTEGER, 8), PXF_MODE_READ);
    image->info.images[0].curve.gamma = 2.2f;
    PXF__cast(image);
    float *table = PXF_gamma_btof(2.2f);
    expect_rows(image, 2, [&](int l, int x, int c) { return table[integer_pixel(l, x, c, 8)]; });
    PXF_gamma_done(table);
    PXF_close(image);
}

TEST(Cast, MatteAndAuxiliaryUseTheirOwnDepths) {
    PXF_IMAGE_DESC d = synthetic_desc(W, H, 1, PXF_C_INTEGER, 8, 1, 2);
    d.matte.width = 10;
    d.aux.width = 20;
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    PXF__cast(image);
    expect_rows(image, 4, [&](int l, int x, int c) {
        int bits = c == 0 ? 8 : c == 1 ? 10 : 20;
        return float(integer_pixel(l, x, c, bits)) * float(1.0 / (std::pow(2.0, bits) - 1));
    });
    PXF_close(image);
}

TEST(Cast, FloatImagesAreLeftAlone) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32, 1, 1), PXF_MODE_READ);
    void *driver = image->private_data[0];
    PXF_SCAN_FN scan = image->scan;
    EXPECT_EQ(PXF__cast(image), image);
    EXPECT_EQ(image->private_data[0], driver);
    EXPECT_EQ(image->scan, scan);
    PXF_close(image);
}

TEST(Cast, FloatImageWithIntegerMatteKeepsTheScanFunction) {
    PXF_IMAGE_DESC d = synthetic_desc(W, H, 3, PXF_C_FLOAT, 32, 1);
    d.matte.type = PXF_C_INTEGER;
    d.matte.width = 8;
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    PXF_SCAN_FN scan = image->scan;
    PXF__cast(image);
    EXPECT_EQ(top_of(image)->tag, PXF_OP_CAST);
    EXPECT_EQ(image->scan, scan);
    EXPECT_EQ(image->info.images[0].matte.type, PXF_C_FLOAT);
    pxf::test::event_log().clear();
    EXPECT_EQ(PXF_close(image), 0);  // the record still comes off before the driver closes
    EXPECT_EQ(pxf::test::event_log().size(), 1u);
}

TEST(Cast, OutOfMemoryLeavesChainAndDescriptionAsTheyWere) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, 8, 1), PXF_MODE_READ);
    image->info.images[0].curve.gamma = 2.2f;
    PXF_IMAGE_DESC before = image->info.images[0];
    void *driver = image->private_data[0];
    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure(
        [&] {
            PXF__cast(image);
            if (image->private_data[0] == driver) return false;
            PXF__cast_done(image);
            return true;
        },
        [&](int) {
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(std::memcmp(&image->info.images[0], &before, sizeof before), 0);
        });
    PXF_close(image);
}

TEST(Cast, DeeperThan32BitsIsRefusedWithAMessage) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 1, PXF_C_INTEGER, 8, 1), PXF_MODE_READ);
    image->info.images[0].matte.width = 40;
    pxf::test::ReportCapture capture;
    void *driver = image->private_data[0];
    EXPECT_EQ(PXF__cast(image), image);
    EXPECT_EQ(image->private_data[0], driver);
    EXPECT_EQ(capture.last(), "cast operator cannot handle matte channel width");
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    image->info.images[0].matte.width = 8;
    PXF_close(image);
}

}  // namespace
