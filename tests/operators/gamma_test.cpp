// The gamma correction operator: the typical request end to end through a
// memory image, the write path, refusals and out-of-memory installs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include <pxf/fmt.h>

#include "mem_images.h"
#include "support/test_support.h"
#include "synthetic.h"

namespace {

using pxf::test::top_of;

uint8_t pattern(int line, int x, int c) { return uint8_t(line * 29 + x * 7 + c * 85); }

// trunc(pow(i / 255, exponent) x 255 + 0.5), the composed 8-bit table.
uint8_t corrected(uint8_t v, float exponent) {
    return uint8_t(std::pow(v * (1.0 / 255), double(exponent)) * 255 + 0.5);
}

class GammaOperator : public ::testing::Test {
protected:
    void TearDown() override { PXF_exit(); }
};

TEST_F(GammaOperator, TypicalRequestThroughAMemoryImage) {
    const int width = 37, height = 5;
    PXF_IMAGE_DESC desc = pxf::test::mem_desc(width, height, 3);
    desc.curve.gamma = 1.8f;  // how the file's values were made
    PXF_IMAGE *writer = pxf::test::write_mem("typical", desc, pattern);
    ASSERT_NE(writer, nullptr);

    PXF_IMAGE *reader = pxf::test::read_mem("typical");
    ASSERT_NE(reader, nullptr);
    PXF_RESPONSE_CURVE wanted{PXF_CURVE_GAMMA, 2.2f, nullptr, 0, 0, 0, 0, nullptr};
    ASSERT_EQ(PXF__gamma(reader, &wanted), reader);
    ASSERT_EQ(top_of(reader)->tag, PXF_OP_GAMMA);
    // The analytic curves got their table descriptions.
    EXPECT_EQ(wanted.channels, 3);
    EXPECT_EQ(wanted.entries, 1 << reader->info.images[0].curve.bits);
    EXPECT_EQ(wanted.bits, 8);
    EXPECT_EQ(reader->info.images[0].curve.entries, 256);

    for (int line = 0; line < height; ++line) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(reader, line, &rows), 0);
        for (int c = 0; c < 3; ++c)
            for (int x = 0; x < width; ++x)
                ASSERT_EQ(static_cast<uint8_t *>(rows[c])[x], corrected(pattern(line, x, c), 1.8f / 2.2f))
                    << line << " " << x << " " << c;
    }
    EXPECT_EQ(PXF_close(reader), 0);
    EXPECT_EQ(PXF_close(writer), 0);
}

TEST_F(GammaOperator, WritingNarrowsTheCallersDeepValuesInPlace) {
    const int width = 12, height = 4;
    PXF_IMAGE_DESC desc = pxf::test::synthetic_desc(width, height, 2, PXF_C_INTEGER, 8);
    desc.curve.gamma = 2.2f;
    desc.active_window = {2, 9, 1, 2};
    PXF_IMAGE *image = pxf::test::synthetic_image(desc, PXF_MODE_WRITE);
    PXF_RESPONSE_CURVE linear{PXF_CURVE_GAMMA, 1.0f, nullptr, 0, 0, 0, 0, nullptr};
    PXF__gamma(image, &linear);
    ASSERT_EQ(top_of(image)->tag, PXF_OP_GAMMA);
    int depth = int(std::log2(FMT_def_gamma_tab_res()));
    ASSERT_EQ(image->info.images[0].chan.width, depth);  // the caller now supplies these

    pxf::test::written_lines().clear();
    void **rows = pxf__chan_alloc(&image->info.images[0], width, "test");
    auto value = [&](int x, int c) { return uint16_t((x * 331 + c * 1000) % (1 << depth)); };
    for (int c = 0; c < 2; ++c)
        for (int x = 2; x <= 9; ++x) static_cast<uint16_t *>(rows[c])[x] = value(x, c);
    void **given = rows;
    ASSERT_EQ(PXF_scan_write(image, 1, &given), 0);
    const std::vector<uint8_t> &bytes = pxf::test::written_lines().at(1);
    ASSERT_EQ(bytes.size(), std::size_t(2 * width));
    int top = (1 << depth) - 1;
    for (int c = 0; c < 2; ++c)
        for (int x = 0; x < width; ++x) {
            uint8_t expected = 0;
            if (x >= 2 && x <= 9) expected = uint8_t(std::pow(value(x, c) * (1.0 / top), double(1.0f / 2.2f)) * 255 + 0.5);
            EXPECT_EQ(bytes[std::size_t(c * width + x)], expected) << c << " " << x;
        }
    pxf__chan_free(rows);
    EXPECT_EQ(PXF__gamma_done(image), 1);
    EXPECT_EQ(image->info.images[0].chan.width, 8);
    PXF_close(image);
}

TEST_F(GammaOperator, RefusesWhatItCannotHandle) {
    PXF_RESPONSE_CURVE wanted{PXF_CURVE_GAMMA, 2.2f, nullptr, 0, 0, 0, 0, nullptr};
    pxf::test::ReportCapture capture;

    PXF_IMAGE *deep = pxf::test::synthetic_image(pxf::test::synthetic_desc(8, 2, 3, PXF_C_INTEGER, 16), PXF_MODE_READ);
    void *driver = deep->private_data[0];
    EXPECT_EQ(PXF__gamma(deep, &wanted), deep);
    EXPECT_EQ(deep->private_data[0], driver);
    EXPECT_EQ(capture.last(), "gamma correction operator cannot handle image channel width");
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    PXF_close(deep);

    PXF_IMAGE *empty = pxf::test::synthetic_image(pxf::test::synthetic_desc(8, 2, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    empty->info.num_images = 0;
    capture.clear();
    EXPECT_EQ(PXF__gamma(empty, &wanted), empty);
    EXPECT_EQ(capture.last(), "gamma correction operator cannot store multiple images");
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    empty->info.num_images = 1;

    // Same gamma on both sides: nothing to do, no message.
    capture.clear();
    wanted.gamma = 1.0f;
    driver = empty->private_data[0];
    EXPECT_EQ(PXF__gamma(empty, &wanted), empty);
    EXPECT_EQ(empty->private_data[0], driver);
    EXPECT_TRUE(capture.reports().empty());
    PXF_close(empty);
}

TEST_F(GammaOperator, OutOfMemoryLeavesTheChainAlone) {
    PXF_IMAGE *image = pxf::test::synthetic_image(pxf::test::synthetic_desc(8, 2, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    void *driver = image->private_data[0];
    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure(
        [&] {
            PXF_RESPONSE_CURVE wanted{PXF_CURVE_GAMMA, 2.2f, nullptr, 0, 0, 0, 0, nullptr};
            PXF__gamma(image, &wanted);
            if (image->private_data[0] == driver) return false;
            EXPECT_EQ(PXF__gamma_done(image), 1);
            return true;
        },
        [&](int) {
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY);
        });
    PXF_close(image);
}

}  // namespace
