// The colour transform operators: expected codes from the colorimetric
// formulas worked out here in double precision, refusals, the colour setup
// they make and end, and out-of-memory installs.
#include <pxf/rfl.h>

#include "images.h"

namespace {

using namespace pxf::test;

using Mat = std::array<double, 9>;  // row by row, row vector on the left

constexpr double kNtsc[8] = {0.67, 0.33, 0.21, 0.71, 0.14, 0.08, 0.31, 0.316};
constexpr double kRec709[8] = {0.64, 0.33, 0.30, 0.60, 0.15, 0.06, 0.3127, 0.3290};

double det(const Mat &m) {
    return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) + m[2] * (m[3] * m[7] - m[4] * m[6]);
}

Mat inverse(const Mat &m) {
    double d = det(m);
    return {(m[4] * m[8] - m[5] * m[7]) / d, (m[2] * m[7] - m[1] * m[8]) / d, (m[1] * m[5] - m[2] * m[4]) / d,
            (m[5] * m[6] - m[3] * m[8]) / d, (m[0] * m[8] - m[2] * m[6]) / d, (m[2] * m[3] - m[0] * m[5]) / d,
            (m[3] * m[7] - m[4] * m[6]) / d, (m[1] * m[6] - m[0] * m[7]) / d, (m[0] * m[4] - m[1] * m[3]) / d};
}

Mat product(const Mat &a, const Mat &b) {
    Mat r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[i * 3 + j] += a[i * 3 + k] * b[k * 3 + j];
    return r;
}

// RGB -> XYZ: row i is primary i's (x, y, z) scaled so that the rows add up
// to the white with Y = 1.
Mat rgb_to_xyz(const double *xy) {
    Mat p;
    for (int i = 0; i < 3; ++i) p[i * 3] = xy[2 * i], p[i * 3 + 1] = xy[2 * i + 1], p[i * 3 + 2] = 1 - xy[2 * i] - xy[2 * i + 1];
    const double w[3] = {xy[6] / xy[7], 1.0, (1 - xy[6] - xy[7]) / xy[7]};
    Mat inv = inverse(p);  // w = s x p, so s = w x p^-1
    Mat r;
    for (int i = 0; i < 3; ++i) {
        double s = w[0] * inv[0 * 3 + i] + w[1] * inv[1 * 3 + i] + w[2] * inv[2 * 3 + i];
        for (int j = 0; j < 3; ++j) r[i * 3 + j] = s * p[i * 3 + j];
    }
    return r;
}

// The 8-bit code for a linear value (gamma 1 output): clipped at both ends.
int code(double linear) { return linear <= 0 ? 0 : linear >= 1 ? 255 : int(linear * 255 + 0.5); }

void set_primaries(PXF_INFO &info, const double *xy) {
    float *p[4] = {info.red_pri, info.green_pri, info.blue_pri, info.white_pt};
    for (int k = 0; k < 4; ++k) p[k][0] = float(xy[2 * k]), p[k][1] = float(xy[2 * k + 1]), p[k][2] = float(1 - xy[2 * k] - xy[2 * k + 1]);
}

int init_with(const double *xy, int samples = 3) {
    return RFL_init(samples, 1, xy[0], xy[1], xy[2], xy[3], xy[4], xy[5], xy[6], xy[7]);
}

PXF_RESPONSE_CURVE gamma_curve(float g) { return {PXF_CURVE_GAMMA, g, nullptr, 0, 0, 0, 0, nullptr}; }

// Colours chosen to include every corner of the cube and values that leave
// the target gamut on both sides.
constexpr uint8_t kColours[][3] = {{255, 0, 0},   {0, 255, 0},    {0, 0, 255},   {255, 255, 255}, {128, 64, 32},
                                   {10, 200, 90}, {0, 0, 0},      {255, 255, 0}, {0, 255, 255},   {77, 77, 77},
                                   {250, 5, 120}, {30, 240, 250}};
constexpr int kCount = int(sizeof kColours / sizeof kColours[0]);

// A memory image of the colours above, one per pixel, on two scanlines.
PXF_IMAGE *colour_image(const std::string &name, PXF_IMAGE *&writer, int channels = 3, float gamma = 1.0f,
                        const char *format = "rgb") {
    PXF_IMAGE_DESC desc = synthetic_desc(kCount, 2, channels, PXF_C_INTEGER, 8);
    desc.curve.gamma = gamma;
    desc.chan.format = const_cast<char *>(format);
    writer = open_mem(name, &desc, [](int, int x, int c) { return kColours[x][c % 3]; });
    return open_mem(name);
}

template <class F>
void expect_codes(PXF_IMAGE *image, int channels, F expected, int tolerance = 1) {
    void **rows = nullptr;
    ASSERT_EQ(PXF_scan_read(image, 1, &rows), 0);
    for (int x = 0; x < kCount; ++x)
        for (int j = 0; j < channels; ++j) {
            int want = expected(x, j), got = static_cast<uint8_t *>(rows[j])[x];
            // Clipped codes are exact; others may differ by the truncations.
            if (want == 0 || want == 255) EXPECT_EQ(got, want) << x << " " << j;
            else EXPECT_NEAR(got, want, tolerance) << x << " " << j;
        }
}

TEST(ColourTransform, RgbToRgbBetweenTwoSetsOfPrimaries) {
    PXF_IMAGE *writer, *image = colour_image("rgb_rgb", writer);
    ASSERT_TRUE(image);
    set_primaries(image->info, kNtsc);
    ASSERT_EQ(init_with(kRec709), 3);  // the target
    PXF_RESPONSE_CURVE linear = gamma_curve(1.0f);
    ASSERT_EQ(PXF__rgb_rgb_init(image, &linear), image);
    ASSERT_EQ(top_of(image)->tag, PXF_OP_RGB_RGB);
    EXPECT_FLOAT_EQ(image->info.green_pri[0], 0.30f);  // the output's primaries
    const Mat m = product(rgb_to_xyz(kNtsc), inverse(rgb_to_xyz(kRec709)));
    int clipped_low = 0, clipped_high = 0;
    expect_codes(image, 3, [&](int x, int j) {
        double v = 0;
        for (int i = 0; i < 3; ++i) v += kColours[x][i] / 255.0 * m[i * 3 + j];
        clipped_low += v < 0, clipped_high += v > 1;
        return code(v);
    });
    EXPECT_GT(clipped_low, 0);
    EXPECT_GT(clipped_high, 0);
    EXPECT_EQ(PXF__rgb_rgb_done(image), 1);
    EXPECT_FLOAT_EQ(image->info.green_pri[0], 0.21f);
    EXPECT_EQ(rfl_samples, 3);  // the caller's setup is the caller's to end
    RFL_done();
    PXF_close(image);
    PXF_close(writer);
}

TEST(ColourTransform, LuminanceOfKnownColoursAndThePrecisionLimit) {
    PXF_IMAGE *writer, *image = colour_image("rgb_y", writer, 3, 2.2f);
    ASSERT_TRUE(image);
    const Mat a = rgb_to_xyz(kNtsc);
    auto luminance = [&](int x, int) {
        double y = 0;
        for (int i = 0; i < 3; ++i) y += std::pow(kColours[x][i] / 255.0, 2.2) * a[i * 3 + 1];
        return y >= 1 ? 255 : int(std::pow(y, 1 / 2.2) * 255 + 0.5);
    };
    PXF_RESPONSE_CURVE display = gamma_curve(2.2f);
    for (int resolution : {4096, 65536}) {
        FMT_def_gamma_tab_res();
        fmt__gamma_tab_res = resolution;
        ReportCapture capture;
        ASSERT_EQ(PXF__rgb_Y_init(image, &display), image);
        ASSERT_EQ(top_of(image)->tag, PXF_OP_RGB_Y);
        EXPECT_EQ(image->info.images[0].chan.count, 1);
        EXPECT_EQ(rfl_samples, 3);
        // 16 bits of table: two are dropped, said once as a warning.
        ASSERT_EQ(capture.reports().size(), resolution == 4096 ? 0u : 1u);
        if (resolution != 4096) {
            EXPECT_EQ(capture.reports()[0].severity, 2);
            EXPECT_EQ(capture.last(), "Color response curve reduced to 14 bits of precision (limit is 14 bits)");
        }
        expect_codes(image, 1, luminance);
        EXPECT_EQ(PXF__rgb_Y_done(image), 1);
        EXPECT_EQ(image->info.images[0].chan.count, 3);
        EXPECT_EQ(rfl_samples, 0);
    }
    fmt__gamma_tab_res = 4096;
    PXF_close(image);
    PXF_close(writer);
}

TEST(ColourTransform, XyzAndSamplesToRgbAndLuminance) {
    // XYZ to the RGB of the image's own primaries.
    PXF_IMAGE *writer, *image = colour_image("xyz", writer, 3, 1.0f, "xyz");
    ASSERT_TRUE(image);
    PXF_RESPONSE_CURVE linear = gamma_curve(1.0f);
    const Mat to_rgb = inverse(rgb_to_xyz(kNtsc));
    ASSERT_EQ(PXF__xyz_rgb_init(image, &linear), image);
    expect_codes(image, 3, [&](int x, int j) {
        double v = 0;
        for (int i = 0; i < 3; ++i) v += kColours[x][i] / 255.0 * to_rgb[i * 3 + j];
        return code(v);
    });
    EXPECT_EQ(PXF__xyz_rgb_done(image), 1);
    EXPECT_EQ(rfl_samples, 0);
    PXF_close(image);
    PXF_close(writer);

    // N samples: the sample tables are the colour setup's; fewer than three
    // samples give rows of the stage's own.
    for (int n : {2, 5}) {
        image = colour_image("samples", writer, n, 1.0f, "sampled");
        ASSERT_TRUE(image);
        std::vector<float> to_rgb_n(3 * std::size_t(n)), to_xyz_n(3 * std::size_t(n));
        ASSERT_EQ(init_with(kNtsc, n), n);
        RFL_samp_rgb_mat(to_rgb_n.data());
        RFL_samp_xyz_mat(to_xyz_n.data());
        RFL_done();
        auto through = [&](const std::vector<float> &m, int column) {
            return [&m, n, column](int x, int j) {
                double v = 0;
                for (int i = 0; i < n; ++i) v += kColours[x][i % 3] / 255.0 * m[std::size_t(i * 3 + (column < 0 ? j : column))];
                return code(v);
            };
        };
        ASSERT_EQ(PXF__samp_rgb_init(image, &linear), image);
        EXPECT_EQ(image->info.images[0].chan.count, 3);
        expect_codes(image, 3, through(to_rgb_n, -1));
        EXPECT_EQ(PXF__samp_rgb_done(image), 1);
        ASSERT_EQ(PXF__samp_Y_init(image, &linear), image);
        EXPECT_EQ(image->info.images[0].chan.count, 1);
        expect_codes(image, 1, through(to_xyz_n, 1));
        EXPECT_EQ(PXF__samp_Y_done(image), 1);
        EXPECT_EQ(image->info.images[0].chan.count, n);
        EXPECT_EQ(rfl_samples, 0);
        PXF_close(image);
        PXF_close(writer);
    }
    PXF_exit();
}

TEST(ColourTransform, XyzLuminanceRidesOnTheGammaStage) {
    PXF_IMAGE_DESC desc = synthetic_desc(9, 3, 3, PXF_C_INTEGER, 8, 1);
    desc.curve.gamma = 1.0f;
    PXF_IMAGE *image = synthetic_image(desc, PXF_MODE_READ);
    PXF_RESPONSE_CURVE display = gamma_curve(2.0f);
    ASSERT_EQ(PXF__xyz_Y_init(image, &display), image);
    EXPECT_EQ(top_of(image)->tag, PXF_OP_XYZ_Y);
    EXPECT_EQ(static_cast<PXF_OPERATOR *>(top_of(image)->saved_private)->tag, PXF_OP_GAMMA);
    EXPECT_EQ(image->info.images[0].chan.count, 1);
    // Y corrected by the gamma stage, then the matte behind it as it was.
    expect_rows<uint8_t>(image, 2, [](int l, int x, int c) {
        return c == 0 ? uint8_t(std::pow(integer_pixel(l, x, 1, 8) / 255.0, 0.5) * 255 + 0.5)
                      : uint8_t(integer_pixel(l, x, 3, 8));
    });
    EXPECT_EQ(PXF__xyz_Y_done(image), 1);
    EXPECT_EQ(image->private_data[0] != nullptr && top_of(image)->tag == PXF_OP_GAMMA, false);
    EXPECT_EQ(image->info.images[0].chan.count, 3);
    EXPECT_EQ(rfl_samples, 0);
    PXF_close(image);
}

TEST(ColourTransform, RefusalsLeaveTheImageAlone) {
    PXF_RESPONSE_CURVE linear = gamma_curve(1.0f);
    using Install = PXF_IMAGE *(*)(PXF_IMAGE *, PXF_RESPONSE_CURVE *);
    const Install installs[] = {PXF__rgb_rgb_init, PXF__rgb_Y_init, PXF__xyz_rgb_init, PXF__xyz_Y_init};
    struct Case {
        int channels, type, bits, mode;
        const char *said;
    } cases[] = {
        {4, PXF_C_INTEGER, 8, PXF_MODE_READ, ""},  // not three channels: silent
        {3, PXF_C_INTEGER, 16, PXF_MODE_READ, "cannot handle image channel width"},
        {3, PXF_C_FLOAT, 32, PXF_MODE_READ, "cannot handle image channel type"},
        {3, PXF_C_INTEGER, 8, PXF_MODE_WRITE, ""},
    };
    ASSERT_EQ(init_with(kRec709), 3);
    for (const Case &k : cases)
        for (Install install : installs) {
            PXF_IMAGE *image = synthetic_image(synthetic_desc(4, 2, k.channels, k.type, k.bits), k.mode);
            void *driver = image->private_data[0];
            ReportCapture capture;
            EXPECT_EQ(install(image, &linear), image);
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(image->info.images[0].chan.count, k.channels);
            EXPECT_NE(capture.last().find(k.said), std::string::npos) << capture.last();
            EXPECT_EQ(capture.last().empty(), !*k.said);
            PXF_close(image);
        }
    RFL_done();
    // Converting to other primaries needs a target.
    PXF_IMAGE *image = synthetic_image(synthetic_desc(4, 2, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    void *driver = image->private_data[0];
    EXPECT_EQ(PXF__rgb_rgb_init(image, &linear), image);
    EXPECT_EQ(image->private_data[0], driver);
    // Removing one operator while another is on top changes nothing.
    PXF__rgb_Y_init(image, &linear);
    EXPECT_EQ(PXF__xyz_rgb_done(image), 0);
    EXPECT_EQ(top_of(image)->tag, PXF_OP_RGB_Y);
    PXF_close(image);
    EXPECT_EQ(rfl_samples, 0);
}

TEST(ColourTransform, OutOfMemoryInstallsLeaveNoTrace) {
    ASSERT_EQ(init_with(kNtsc), 3);  // the colour defaults are read before the loops
    RFL_done();
    PXF_RESPONSE_CURVE display = gamma_curve(2.2f);
    struct Case {
        int channels;
        PXF_IMAGE *(*install)(PXF_IMAGE *, PXF_RESPONSE_CURVE *);
        int (*remove)(PXF_IMAGE *);
        bool needs_target;
    } cases[] = {{3, PXF__rgb_rgb_init, PXF__rgb_rgb_done, true}, {3, PXF__rgb_Y_init, PXF__rgb_Y_done, false},
                 {3, PXF__xyz_rgb_init, PXF__xyz_rgb_done, false}, {3, PXF__xyz_Y_init, PXF__xyz_Y_done, false},
                 {4, PXF__samp_rgb_init, PXF__samp_rgb_done, false}, {2, PXF__samp_Y_init, PXF__samp_Y_done, false}};
    for (const Case &k : cases) {
        PXF_IMAGE *image = synthetic_image(synthetic_desc(6, 2, k.channels, PXF_C_INTEGER, 8, 1), PXF_MODE_READ);
        if (k.needs_target) init_with(kRec709);
        // The gamma stage describes the file's curve in place for good.
        k.install(image, &display);
        ASSERT_EQ(k.remove(image), 1);
        expect_clean_failures(image, [&] { k.install(image, &display); }, k.remove);
        if (k.needs_target) RFL_done();
        EXPECT_EQ(rfl_samples, 0);
        PXF_close(image);
    }
}

// Spectral samples written as XYZ or RGB: what reaches the file is the
// samples times the setup's matrix.
TEST(ColourTransform, SamplesWrittenAsThreeChannels) {
    const int width = 5, height = 2;
    for (int tag : {PXF_OP_SAMP_TO_XYZ, PXF_OP_SAMP_TO_RGB})
        for (int n : {2, 4}) {
            PXF_IMAGE_DESC desc = synthetic_desc(width, height, 3, PXF_C_FLOAT, 32);
            desc.chan.format = const_cast<char *>(tag == PXF_OP_SAMP_TO_XYZ ? "xyz" : "rgb");
            const std::string name = "samples" + std::to_string(tag) + "_" + std::to_string(n);
            PXF_INFO info;
            PXF_info_init(&info);
            info.key = const_cast<char *>("mem");
            info.handle = const_cast<char *>(name.c_str());
            info.num_images = 1;
            info.images = &desc;
            PXF_IMAGE *writer = PXF_open(&info, "w");
            ASSERT_TRUE(writer);
            writer->info.open_flag = 0;  // float values outside 0..1 are allowed
            std::vector<float> m(3 * std::size_t(n));
            ASSERT_EQ(RFL_init(n, 0, 0, 0, 0, 0, 0, 0, 0, 0), n);
            tag == PXF_OP_SAMP_TO_XYZ ? RFL_samp_xyz_mat(m.data()) : RFL_samp_rgb_mat(m.data());
            RFL_done();
            (tag == PXF_OP_SAMP_TO_XYZ ? PXF__samp_to_xyz : PXF__samp_to_rgb)(writer, n);
            ASSERT_EQ(top_of(writer)->tag, tag);
            ASSERT_EQ(writer->info.images[0].chan.count, n);
            auto sample = [](int l, int x, int i) { return float(l + 1) * 0.1f + float(x) * 0.05f + float(i) * 0.2f; };
            PXF_IMAGE_DESC caller = writer->info.images[0];
            void **rows = pxf__chan_alloc(&caller, width, "test");
            for (int l = 0; l < height; ++l) {
                for (int i = 0; i < n; ++i)
                    for (int x = 0; x < width; ++x) static_cast<float *>(rows[i])[x] = sample(l, x, i);
                void **given = rows;
                ASSERT_EQ(PXF_scan_write(writer, l, &given), 0);
                // Enough samples: the results took the caller's first rows.
                EXPECT_EQ(static_cast<float *>(rows[0])[1] != sample(l, 1, 0), n >= 3);
            }
            pxf__chan_free(rows);
            // A reader describes itself from the writer's handle: take the stage off first.
            EXPECT_EQ((tag == PXF_OP_SAMP_TO_XYZ ? PXF__samp_to_xyz_done : PXF__samp_to_rgb_done)(writer), 1);
            EXPECT_EQ(writer->info.images[0].chan.count, 3);
            EXPECT_EQ(rfl_samples, 0);
            PXF_IMAGE *reader = open_mem(name);
            ASSERT_TRUE(reader);
            for (int l = 0; l < height; ++l) {
                void **got = nullptr;
                ASSERT_EQ(PXF_scan_read(reader, l, &got), 0);
                for (int j = 0; j < 3; ++j)
                    for (int x = 0; x < width; ++x) {
                        double v = 0;
                        for (int i = 0; i < n; ++i) v += double(sample(l, x, i)) * m[std::size_t(i * 3 + j)];
                        EXPECT_NEAR(static_cast<float *>(got[j])[x], v, 1e-4) << tag << " " << n << " " << j;
                    }
            }
            PXF_close(reader);
            EXPECT_EQ(PXF_close(writer), 0);
        }
    PXF_exit();
}

}  // namespace
