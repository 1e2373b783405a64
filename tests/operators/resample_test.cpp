// The scale stage and the symmetric filter against a direct double-precision
// convolution, their properties, their descriptions and their refusals.
#include <algorithm>

#include "operators/chain.h"
#include "pictures.h"

namespace {

using namespace pxf::test;

const char *const kFilters[] = {"box", "triangle", "catmull-rom", "mitchell", "lanczos3", "gaussian"};

// Smooth shapes with some detail, different in every channel; the matte
// channel stays clear of 0 so that unpremultiplying is well conditioned.
double texture(int x, int y, int c) {
    double v = 0.5 + 0.3 * std::sin(0.9 * x + 1.7 * c) * std::cos(0.6 * y - c) +
               0.15 * (((x * 7 + y * 13 + c * 5) % 9) / 8.0 - 0.5);
    return std::clamp(v, 0.0, 1.0);
}

std::string fresh_name() {
    static int n = 0;
    return "resample_" + std::to_string(++n);
}

// Largest difference between two pictures over every channel and pixel.
double max_error(const Pixels &a, const Pixels &b) {
    EXPECT_EQ(a.v.size(), b.v.size());
    double e = 0;
    for (std::size_t i = 0; i < std::min(a.v.size(), b.v.size()); ++i) e = std::max(e, std::fabs(a.v[i] - b.v[i]));
    return e;
}

struct Case {
    int sw, sh, dw, dh;
};

// Up, down, odd and independent factors, one-pixel sources and targets.
constexpr Case kSizes[] = {{7, 5, 3, 2}, {9, 9, 20, 13}, {1, 1, 4, 3}, {6, 4, 1, 1},
                           {13, 1, 5, 1}, {16, 16, 16, 5}, {4, 11, 9, 4}};

struct Type {
    int type, bits;
    double tolerance;  // integers: the reference's rounding may fall the other way
};
constexpr Type kTypes[] = {{PXF_C_INTEGER, 8, 1.0 / 255 + 1e-9}, {PXF_C_INTEGER, 16, 1.0 / 65535 + 1e-6},
                           {PXF_C_FLOAT, 32, 2e-5}};

TEST(Scale, EveryFilterSizeAndTypeMatchesDirectConvolution) {
    for (const Type &t : kTypes)
        for (int mattes = 0; mattes <= 2; ++mattes)  // none, straight colour, premultiplied colour
            for (const Case &s : kSizes)
                for (const char *filter : kFilters) {
                    SCOPED_TRACE(std::string(filter) + " " + std::to_string(s.sw) + "x" + std::to_string(s.sh) +
                                 " -> " + std::to_string(s.dw) + "x" + std::to_string(s.dh) + " bits " +
                                 std::to_string(t.bits) + " mattes " + std::to_string(mattes));
                    PXF_IMAGE_DESC d = synthetic_desc(s.sw, s.sh, 3, t.type, t.bits, mattes ? 1 : 0, 1);
                    d.matte.extra = mattes == 1 ? PXF_MATTE_UNASSOCIATED : PXF_MATTE_ASSOCIATED;
                    Picture pic(fresh_name(), d, texture);
                    ASSERT_TRUE(pic.reader);
                    PXF__scale_init(pic.reader, s.dw, s.dh, filter);
                    ASSERT_EQ(top_of(pic.reader)->tag, PXF_OP_SCALE);
                    Pixels want = reference(sample(d, texture), s.dw, s.dh, filter, 3, mattes == 1 ? 3 : -1);
                    PXF_IMAGE_DESC out = pic.reader->info.images[0];
                    EXPECT_LE(max_error(read_pixels(pic.reader), as_elements(want, out)), t.tolerance);
                }
}

TEST(Ssfilter, BlurOfARadiusMatchesDirectConvolution) {
    for (const Type &t : kTypes)
        for (const char *filter : kFilters)
            for (float radius : {0.7f, 2.5f}) {
                SCOPED_TRACE(std::string(filter) + " radius " + std::to_string(radius) + " bits " +
                             std::to_string(t.bits));
                PXF_IMAGE_DESC d = synthetic_desc(11, 8, 2, t.type, t.bits, 1);
                d.matte.extra = PXF_MATTE_UNASSOCIATED;  // weighted by the matte
                Picture pic(fresh_name(), d, texture);
                PXF__ssfilter(pic.reader, filter, radius);
                ASSERT_EQ(top_of(pic.reader)->tag, PXF_OP_SSFILTER);
                double stretch = radius / ref_radius(filter);
                Pixels want = reference(sample(d, texture), 11, 8, filter, 2, 2, stretch);
                EXPECT_LE(max_error(read_pixels(pic.reader), as_elements(want, d)), t.tolerance);
            }
}

TEST(Scale, ConstantsStayConstantAndBoxKeepsTheMean) {
    for (const Type &t : kTypes)
        for (const char *filter : kFilters)
            for (const Case &s : kSizes) {
                PXF_IMAGE_DESC d = synthetic_desc(s.sw, s.sh, 1, t.type, t.bits, 1);
                // 0.6 is not exact in any element type: the constant is what the picture holds.
                Picture pic(fresh_name(), d, [](int, int, int c) { return c ? 0.8 : 0.6; });
                Pixels held = sample(d, [](int, int, int c) { return c ? 0.8 : 0.6; });
                PXF__scale_init(pic.reader, s.dw, s.dh, filter);
                Pixels got = read_pixels(pic.reader);
                for (int c = 0; c < 2; ++c)
                    for (int y = 0; y < s.dh; ++y)
                        for (int x = 0; x < s.dw; ++x)
                            ASSERT_NEAR(got.at(x, y, c), held.at(0, 0, c), 1e-6) << filter << " " << t.bits;
            }
    // Whole-number reductions with the box: every output is the mean of its block.
    for (Case s : {Case{8, 6, 4, 3}, Case{9, 9, 3, 3}, Case{12, 5, 1, 1}}) {
        PXF_IMAGE_DESC d = synthetic_desc(s.sw, s.sh, 1, PXF_C_FLOAT, 32);
        Picture pic(fresh_name(), d, texture);
        Pixels in = sample(d, texture);
        PXF__scale_init(pic.reader, s.dw, s.dh, "box");
        Pixels got = read_pixels(pic.reader);
        double mean_in = 0, mean_out = 0;
        for (double v : in.v) mean_in += v / double(in.v.size());
        for (double v : got.v) mean_out += v / double(got.v.size());
        EXPECT_NEAR(mean_in, mean_out, 1e-6) << s.sw << " " << s.dw;
    }
}

TEST(Scale, ColourUnderAZeroMatteNeverBleeds) {
    // Left half: matte 0 with loud colour; right half: matte 1 and mid grey.
    auto fn = [](int x, int, int c) {
        if (c == 3) return x < 6 ? 0.0 : 1.0;
        return x < 6 ? (c == 0 ? 1.0 : 0.0) : 0.5;
    };
    for (const Type &t : kTypes)
        for (const char *filter : kFilters)
            for (Case s : {Case{12, 4, 5, 3}, Case{12, 4, 31, 7}}) {
                PXF_IMAGE_DESC d = synthetic_desc(s.sw, s.sh, 3, t.type, t.bits, 1);
                d.matte.extra = PXF_MATTE_UNASSOCIATED;  // straight colour: loud under a zero matte
                Picture pic(fresh_name(), d, fn);
                PXF__scale_init(pic.reader, s.dw, s.dh, filter);
                Pixels got = read_pixels(pic.reader);
                for (int y = 0; y < s.dh; ++y)
                    for (int x = 0; x < s.dw; ++x)
                        for (int c = 0; c < 3; ++c) {
                            // Where the matte is (almost) 0 colour is meaningless; elsewhere it is the grey.
                            if (got.at(x, y, 3) < 0.02) continue;
                            ASSERT_NEAR(got.at(x, y, c), 0.5, t.tolerance + 1e-5) << filter << " " << x << " " << c;
                        }
            }
}

TEST(Scale, DescriptionFollowsTheSizeAndEveryOrderReadsTheSame) {
    PXF_IMAGE_DESC d = synthetic_desc(40, 20, 3, PXF_C_INTEGER, 8, 1);
    d.window = {10, 49, 100, 119};
    d.active_window = {20, 29, 105, 114};  // the middle quarter
    d.aspect_ratio = 2.0f;
    d.x_res = 40;
    d.y_res = 20;
    // Memory images number their scanlines from 0: the synthetic driver keeps the window.
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    const PXF_IMAGE_DESC before = image->info.images[0];
    PXF__scale_init(image, 20, 30, "lanczos3");
    const PXF_IMAGE_DESC &s = image->info.images[0];
    EXPECT_EQ(s.window.left, 10);
    EXPECT_EQ(s.window.right, 29);
    EXPECT_EQ(s.window.bottom, 100);
    EXPECT_EQ(s.window.top, 129);
    EXPECT_EQ(s.active_window.left, 15);
    EXPECT_EQ(s.active_window.right, 19);
    EXPECT_EQ(s.active_window.bottom, 107);
    EXPECT_EQ(s.active_window.top, 122);
    EXPECT_FLOAT_EQ(s.aspect_ratio, 2.0f * 0.5f / 1.5f);
    EXPECT_EQ(s.x_res, 20);
    EXPECT_EQ(s.y_res, 30);

    Pixels up = read_pixels(image), down = read_pixels(image, true);
    EXPECT_EQ(max_error(up, down), 0.0);
    // A scattered order as well.
    for (int y : {7, 0, 29, 12, 13, 3}) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, 100 + y, &rows), 0);
        for (int x = 0; x < 20; ++x) ASSERT_EQ(static_cast<uint8_t *>(rows[2])[x], uint8_t(up.at(x, y, 2) * 255 + 0.5));
    }
    void **rows = nullptr;
    EXPECT_EQ(PXF_scan_read(image, 130, &rows), PXF_E_BAD_SCANLINE);

    EXPECT_EQ(PXF__scale_done(image), 1);
    EXPECT_EQ(std::memcmp(&image->info.images[0], &before, sizeof before), 0);
    PXF_close(image);
}

TEST(Scale, SequentialReadingPullsEachSourceRowOnce) {
    PXF_IMAGE_DESC d = synthetic_desc(64, 64, 3, PXF_C_INTEGER, 8);
    for (int target : {16, 100}) {
        PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
        PXF__scale_init(image, target, target, "lanczos3");
        scan_count = 0;
        read_pixels(image);
        EXPECT_EQ(scan_count, 64);
        scan_count = 0;
        read_pixels(image, true);
        EXPECT_LE(scan_count, 64);
        PXF_close(image);
    }
}

TEST(Scale, BadRequestsAreRefusedWithAReason) {
    PXF_IMAGE_DESC d = synthetic_desc(8, 8, 3, PXF_C_INTEGER, 8);
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    void *driver = image->private_data[0];
    ReportCapture capture;
    struct Bad {
        int w, h;
        const char *filter;
        const char *says;
    };
    for (Bad b : {Bad{0, 4, "box", "scale operator: bad size 0 x 4 (each side 1 to 1000000 pixels)"},
                  Bad{4, -3, "box", "bad size 4 x -3"}, Bad{1000001, 4, "box", "bad size 1000001 x 4"},
                  Bad{4, 4, "bicubic", "scale operator: unknown filter bicubic (known: box, triangle,"}}) {
        pxf__err = 0;
        capture.clear();
        EXPECT_EQ(PXF__scale_init(image, b.w, b.h, b.filter), image);
        EXPECT_EQ(image->private_data[0], driver);
        EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
        EXPECT_NE(capture.last().find(b.says), std::string::npos) << capture.last();
    }
    for (float radius : {0.0f, -1.0f, 1001.0f, NAN}) {
        capture.clear();
        EXPECT_EQ(PXF__ssfilter(image, "box", radius), image);
        EXPECT_EQ(image->private_data[0], driver);
        EXPECT_NE(capture.last().find("symmetric separable resampling filter: bad radius"), std::string::npos);
    }
    // The same size has nothing to do.
    EXPECT_EQ(PXF__scale_init(image, 8, 8, nullptr), image);
    EXPECT_EQ(image->private_data[0], driver);
    PXF_close(image);
}

TEST(Scale, EveryFailedAllocationLeavesTheChainAsItWas) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(30, 20, 3, PXF_C_INTEGER, 16, 1, 1), PXF_MODE_READ);
    expect_clean_failures(image, [&] { PXF__scale_init(image, 7, 45, "mitchell"); }, PXF__scale_done);
    expect_clean_failures(image, [&] { PXF__ssfilter(image, "gaussian", 3.0f); }, PXF__ssfilter_done);
    PXF_close(image);
}

TEST(Scale, StacksWithOtherStagesAndClosesOutsideIn) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(30, 20, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF__cast(image);
    PXF__scale_init(image, 12, 9, "triangle");
    PXF__ssfilter(image, "box", 1.0f);
    EXPECT_EQ(PXF__scale_done(image), 0);  // not on top
    EXPECT_EQ(image->info.images[0].chan.type, PXF_C_FLOAT);
    Pixels p = read_pixels(image);
    EXPECT_EQ(p.width, 12);
    EXPECT_EQ(p.height, 9);
    event_log.clear();
    EXPECT_EQ(PXF_close(image), 0);
    EXPECT_EQ(event_log, std::vector<std::string>{"close"});
}

}  // namespace
