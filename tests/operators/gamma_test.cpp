// The gamma correction operator: the typical request end to end through a
// memory image, the write path, refusals and out-of-memory installs.
#include "images.h"

namespace {

using namespace pxf::test;

// trunc(pow(v / top, exponent) x 255 + 0.5): the composed 8-bit table.
uint8_t corrected(double v, int top, float exponent) {
    return uint8_t(std::pow(v * (1.0 / top), double(exponent)) * 255 + 0.5);
}

PXF_RESPONSE_CURVE gamma_curve(float g) { return {PXF_CURVE_GAMMA, g, nullptr, 0, 0, 0, 0, nullptr}; }

TEST(GammaOperator, TypicalRequestThroughAMemoryImage) {
    auto pattern = [](int line, int x, int c) { return uint8_t(line * 29 + x * 7 + c * 85); };
    PXF_IMAGE_DESC desc = synthetic_desc(37, 5, 3, PXF_C_INTEGER, 8);
    desc.curve.gamma = 1.8f;  // how the file's values were made
    PXF_IMAGE *writer = open_mem("typical", &desc, pattern);
    PXF_IMAGE *reader = open_mem("typical");
    ASSERT_TRUE(writer && reader);
    PXF_RESPONSE_CURVE wanted = gamma_curve(2.2f);
    ASSERT_EQ(PXF__gamma(reader, &wanted), reader);
    // Both analytic curves got their table descriptions.
    EXPECT_EQ(wanted.entries, 1 << reader->info.images[0].curve.bits);
    EXPECT_EQ(reader->info.images[0].curve.entries, 256);
    expect_rows<uint8_t>(reader, 3, [&](int l, int x, int c) { return corrected(pattern(l, x, c), 255, 1.8f / 2.2f); });
    EXPECT_EQ(PXF_close(reader), 0);
    EXPECT_EQ(PXF_close(writer), 0);
    PXF_exit();
}

TEST(GammaOperator, WritingNarrowsTheCallersDeepValuesInPlace) {
    const int width = 12;  // active span 2..9
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
    PXF_IMAGE *image = synthetic_image(synthetic_desc(8, 2, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF_IMAGE_DESC &d = image->info.images[0];
    void *driver = image->private_data[0];
    auto install = [&] {
        PXF_RESPONSE_CURVE wanted = gamma_curve(2.2f);
        PXF__gamma(image, &wanted);
    };
    auto refused = [&](const std::string &why) {
        ReportCapture capture;
        install();
        EXPECT_EQ(image->private_data[0], driver);
        EXPECT_EQ(capture.last(), why.empty() ? why : "gamma correction operator cannot " + why);
        EXPECT_EQ(pxf__err, why.empty() ? 0 : PXF_E_CANNOT_DO);
    };
    image->info.num_images = 0;
    refused("store multiple images");
    d.chan.width = 16;  // without images the width is still checked, and said last
    refused("handle image channel width");
    image->info.num_images = 1;
    refused("handle image channel width");
    d.chan.type = PXF_C_FLOAT;
    refused("handle image channel type");
    d.chan = {nullptr, 3, PXF_C_INTEGER, 8, 0};
    d.curve.gamma = 2.2f;  // already what is asked: nothing to do, nothing said
    refused("");
    d.curve.gamma = 1.0f;
    // Installing describes the file's curve in place for good; the rest must stay.
    install();
    ASSERT_EQ(PXF__gamma_done(image), 1);
    expect_clean_failures(image, install, PXF__gamma_done, PXF_E_NO_MEMORY);
    PXF_close(image);
}

}  // namespace
