// The gamma correction operator: the typical request end to end through a
// memory image, the write path, refusals and out-of-memory installs.
#include <gtest/gtest.h>

#include <cmath>

#include <pxf/fmt.h>

#include "mem_images.h"
#include "support/test_support.h"
#include "synthetic.h"

namespace {

using namespace pxf::test;

// trunc(pow(v / 255, exponent) x 255 + 0.5): the composed 8-bit table.
uint8_t corrected(double v, int top, float exponent) {
    return uint8_t(std::pow(v * (1.0 / top), double(exponent)) * 255 + 0.5);
}

PXF_RESPONSE_CURVE gamma_curve(float g) { return {PXF_CURVE_GAMMA, g, nullptr, 0, 0, 0, 0, nullptr}; }

TEST(GammaOperator, TypicalRequestThroughAMemoryImage) {
    const int width = 37, height = 5;
    auto pattern = [](int line, int x, int c) { return uint8_t(line * 29 + x * 7 + c * 85); };
    PXF_IMAGE_DESC desc = mem_desc(width, height, 3);
    desc.curve.gamma = 1.8f;  // how the file's values were made
    PXF_IMAGE *writer = open_mem("typical", &desc, pattern);
    PXF_IMAGE *reader = open_mem("typical");
    ASSERT_TRUE(writer && reader);
    PXF_RESPONSE_CURVE wanted = gamma_curve(2.2f);
    ASSERT_EQ(PXF__gamma(reader, &wanted), reader);
    ASSERT_EQ(top_of(reader)->tag, PXF_OP_GAMMA);
    // Both analytic curves got their table descriptions.
    EXPECT_EQ(wanted.entries, 1 << reader->info.images[0].curve.bits);
    EXPECT_EQ(reader->info.images[0].curve.entries, 256);

    for (int line = 0; line < height; ++line) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(reader, line, &rows), 0);
        for (int c = 0; c < 3; ++c)
            for (int x = 0; x < width; ++x)
                ASSERT_EQ(static_cast<uint8_t *>(rows[c])[x], corrected(pattern(line, x, c), 255, 1.8f / 2.2f));
    }
    EXPECT_EQ(PXF_close(reader), 0);
    EXPECT_EQ(PXF_close(writer), 0);
    PXF_exit();
}

TEST(GammaOperator, WritingNarrowsTheCallersDeepValuesInPlace) {
    const int width = 12;
    PXF_IMAGE_DESC desc = synthetic_desc(width, 4, 2, PXF_C_INTEGER, 8);
    desc.curve.gamma = 2.2f;
    desc.active_window = {2, 9, 1, 2};
    PXF_IMAGE *image = synthetic_image(desc, PXF_MODE_WRITE);
    PXF_RESPONSE_CURVE linear = gamma_curve(1.0f);
    PXF__gamma(image, &linear);
    int depth = int(std::log2(FMT_def_gamma_tab_res())), top = (1 << depth) - 1;
    ASSERT_EQ(image->info.images[0].chan.width, depth);  // what the caller now supplies

    void **rows = pxf__chan_alloc(&image->info.images[0], width, "test");
    auto value = [&](int x, int c) { return uint16_t((x * 331 + c * 1000) % (top + 1)); };
    for (int c = 0; c < 2; ++c)
        for (int x = 2; x <= 9; ++x) static_cast<uint16_t *>(rows[c])[x] = value(x, c);
    ASSERT_EQ(PXF_scan_write(image, 1, &rows), 0);
    const std::vector<uint8_t> &bytes = written_lines.at(1);
    ASSERT_EQ(bytes.size(), std::size_t(2 * width));
    for (int c = 0; c < 2; ++c)
        for (int x = 0; x < width; ++x)
            EXPECT_EQ(bytes[std::size_t(c * width + x)], x < 2 || x > 9 ? 0 : corrected(value(x, c), top, 1.0f / 2.2f));
    pxf__chan_free(rows);
    EXPECT_EQ(PXF__gamma_done(image), 1);
    EXPECT_EQ(image->info.images[0].chan.width, 8);
    PXF_close(image);
}

TEST(GammaOperator, RefusalsAndOutOfMemoryLeaveTheChainAlone) {
    PXF_RESPONSE_CURVE wanted = gamma_curve(2.2f);
    PXF_IMAGE *image = synthetic_image(synthetic_desc(8, 2, 3, PXF_C_INTEGER, 16), PXF_MODE_READ);
    void *driver = image->private_data[0];
    ReportCapture capture;
    EXPECT_EQ(PXF__gamma(image, &wanted), image);
    EXPECT_EQ(capture.last(), "gamma correction operator cannot handle image channel width");
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    image->info.images[0].chan.type = PXF_C_FLOAT;
    EXPECT_EQ(PXF__gamma(image, &wanted), image);
    EXPECT_EQ(capture.last(), "gamma correction operator cannot handle image channel type");
    image->info.images[0].chan = {nullptr, 3, PXF_C_INTEGER, 8, 0};
    image->info.num_images = 0;
    EXPECT_EQ(PXF__gamma(image, &wanted), image);
    EXPECT_EQ(capture.last(), "gamma correction operator cannot store multiple images");
    image->info.num_images = 1;
    capture.clear();
    wanted.gamma = 1.0f;  // the same gamma on both sides: nothing to do
    EXPECT_EQ(PXF__gamma(image, &wanted), image);
    EXPECT_TRUE(capture.reports().empty());
    EXPECT_EQ(image->private_data[0], driver);

    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    for_each_allocation_failure(
        [&] {
            PXF_RESPONSE_CURVE again = gamma_curve(2.2f);
            PXF__gamma(image, &again);
            return image->private_data[0] != driver && PXF__gamma_done(image) == 1;
        },
        [&](int) {
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY);
        });
    PXF_close(image);
}

}  // namespace
