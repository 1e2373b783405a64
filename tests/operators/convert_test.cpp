// The cast and quantize operators over the synthetic driver.
#include "images.h"

namespace {

using namespace pxf::test;

constexpr int W = 70, H = 3;  // wider than one vector of the wide paths

TEST(Cast, IntegersScaleByTheirLargestValueAndGammaOnlyCountsAtEightBits) {
    for (int bits : {1, 8, 12, 16, 24, 32})
        for (float gamma : {1.0f, 2.2f}) {
            PXF_IMAGE_DESC d = synthetic_desc(W, H, 2, PXF_C_INTEGER, bits, 1, 1);
            d.curve.gamma = gamma;
            d.matte.width = 10;
            d.aux.width = 20;
            PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
            ASSERT_EQ(PXF__cast(image), image);
            const PXF_IMAGE_DESC &now = image->info.images[0];
            EXPECT_TRUE(now.chan.type == PXF_C_FLOAT && now.aux.type == PXF_C_FLOAT && now.chan.width == 32);
            EXPECT_EQ(now.curve.gamma, 1.0f);
            float *table = PXF_gamma_btof(gamma);
            expect_rows<float>(image, 4, [&](int l, int x, int c) {
                int b = c < 2 ? bits : c == 2 ? 10 : 20;
                uint32_t v = integer_pixel(l, x, c, b);
                return c < 2 && bits == 8 && gamma != 1.0f ? table[v] : float(v) * float(1.0 / (std::pow(2.0, b) - 1));
            });
            PXF_gamma_done(table);
            EXPECT_EQ(PXF__cast_done(image), 1);
            EXPECT_EQ(std::memcmp(&image->info.images[0], &d, sizeof d), 0);
            PXF_close(image);
        }
}

TEST(Cast, RefusalsAndOutOfMemoryLeaveNoTrace) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, 8, 1), PXF_MODE_READ);
    image->info.images[0].curve.gamma = 2.2f;
    image->info.images[0].matte.width = 40;
    ReportCapture capture;
    PXF__cast(image);
    EXPECT_EQ(capture.last(), "cast operator cannot handle matte channel width");
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    image->info.images[0].matte.width = 8;
    expect_clean_failures(image, [&] { PXF__cast(image); }, PXF__cast_done);
    PXF_close(image);
}

TEST(Quantize, ConvertsOnlyTheRequestedGroupsAndGivesTheDescriptionBack) {
    PXF_IMAGE_DESC d = synthetic_desc(W, H, 1, PXF_C_FLOAT, 32, 1, 1);
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    const PXF_CHAN_TYPE request[3] = {{0, 0}, {PXF_C_INTEGER, 12}, {PXF_C_FLOAT, 32}};
    expect_clean_failures(image, [&] { PXF__quantize(image, request); }, PXF__quantize_done);
    PXF__quantize(image, request);
    EXPECT_EQ(image->info.images[0].matte.width, 12);
    for (int line = 0; line < H; ++line) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, line, &rows), 0);
        for (int x = 0; x < W; ++x) {
            ASSERT_EQ(static_cast<float *>(rows[0])[x], float_pixel(line, x, 0));
            // Up only within 0.05 of the next code.
            ASSERT_EQ(static_cast<uint16_t *>(rows[1])[x], uint16_t(float_pixel(line, x, 1) * 4095.95f));
            ASSERT_EQ(static_cast<float *>(rows[2])[x], float_pixel(line, x, 2));
        }
    }
    EXPECT_EQ(PXF__quantize_done(image), 1);
    EXPECT_EQ(std::memcmp(&image->info.images[0], &d, sizeof d), 0);
    PXF_close(image);
}

TEST(Convert, NothingToDoInstallsNothing) {
    const PXF_CHAN_TYPE bytes[3] = {{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}};
    const PXF_CHAN_TYPE too_deep[3] = {{PXF_C_INTEGER, 33}, {0, 0}, {0, 0}};
    const struct {
        int type, mode, model_flag;
        const PXF_CHAN_TYPE *quantize_to;  // none: cast
    } cases[] = {
        {PXF_C_FLOAT, PXF_MODE_READ, 1, nullptr},     // already floats
        {PXF_C_INTEGER, PXF_MODE_READ, 1, bytes},     // already integers
        {PXF_C_FLOAT, PXF_MODE_READ, 0, bytes},       // floats outside the 0..1 model
        {PXF_C_FLOAT, PXF_MODE_WRITE, 1, bytes},      // reading only
        {PXF_C_FLOAT, PXF_MODE_READ, 1, too_deep},
    };
    for (const auto &c : cases) {
        PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, c.type, c.type == PXF_C_FLOAT ? 32 : 8, 1), c.mode);
        image->info.open_flag = c.model_flag;
        void *driver = image->private_data[0];
        EXPECT_EQ(c.quantize_to ? PXF__quantize(image, c.quantize_to) : PXF__cast(image), image);
        EXPECT_EQ(image->private_data[0], driver);
        PXF_close(image);
    }
}

}  // namespace
