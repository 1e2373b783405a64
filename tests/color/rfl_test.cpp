// Colour conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <pxf/clr.h>
#include <pxf/rfl.h>

#include "config_env.h"

namespace {

using pxf::test::ConfigHome;

void mul(const float *a, const float *b, float *out, int rows, int inner, int cols) {
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            double s = 0;
            for (int k = 0; k < inner; ++k) s += a[r * inner + k] * b[k * cols + c];
            out[r * cols + c] = static_cast<float>(s);
        }
}

void expect_identity(const float *m, double tolerance) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(m[i * 3 + j], i == j ? 1.0 : 0.0, tolerance) << i << "," << j;
}

class Conversions : public ::testing::Test {
protected:
    void TearDown() override { RFL_done(); }
    ConfigHome home;
};

TEST_F(Conversions, NothingWithoutASetup) {
    float m[9], v = -1;
    EXPECT_EQ(RFL_status(&v, &v, &v, &v, &v, &v, &v, &v), 0);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(RFL_rgb_rgb_mat(m, .64, .33, .3, .6, .15, .06, .3127, .329), nullptr);
    EXPECT_EQ(RFL_done(), 0);
    EXPECT_EQ(RFL_init(11, 0, 0, 0, 0, 0, 0, 0, 0, 0), 0);  // no bins for 11 samples
}

TEST_F(Conversions, RgbXyzFromDefaultPrimaries) {
    ASSERT_EQ(RFL_init(3, 0, 0, 0, 0, 0, 0, 0, 0, 0), 3);
    EXPECT_EQ(RFL_init(5, 1, .64, .33, .3, .6, .15, .06, .3127, .329), 3);  // unchanged
    float rx, ry, gx, gy, bx, by, wx, wy;
    EXPECT_EQ(RFL_status(&rx, &ry, &gx, &gy, &bx, &by, &wx, &wy), 3);
    EXPECT_FLOAT_EQ(gy, 0.71f);
    EXPECT_FLOAT_EQ(wx, 0.31f);

    float m[9], inv[9], product[9], white[3];
    ASSERT_EQ(RFL_rgb_xyz_mat(m), m);
    const float one[3] = {1, 1, 1};
    mul(one, m, white, 1, 3, 3);
    EXPECT_NEAR(white[0], 0.31 / 0.316, 1e-5);
    EXPECT_NEAR(white[1], 1.0, 1e-5);
    EXPECT_NEAR(white[2], 0.374 / 0.316, 1e-5);
    // Row 0 is full red: its chromaticity is the red primary.
    EXPECT_NEAR(m[0] / (m[0] + m[1] + m[2]), 0.67, 1e-5);
    ASSERT_EQ(RFL_xyz_rgb_mat(inv), inv);
    mul(m, inv, product, 3, 3, 3);
    expect_identity(product, 1e-5);
    // To a display with the same primaries: identity.
    ASSERT_EQ(RFL_rgb_rgb_mat(product, .67, .33, .21, .71, .14, .08, .31, .316), product);
    expect_identity(product, 1e-5);
    EXPECT_EQ(RFL_rgb_rgb_mat(product, .67, .33, .67, .33, .14, .08, .31, .316), nullptr);  // singular

    EXPECT_EQ(RFL_done(), 1);
    EXPECT_EQ(RFL_status(&rx, &ry, &gx, &gy, &bx, &by, &wx, &wy), 0);
}

TEST_F(Conversions, GivenPrimariesAndSampleRoundTrips) {
    ASSERT_EQ(RFL_init(5, 1, .64, .33, .3, .6, .15, .06, .3127, .329), 5);
    float wx;
    RFL_status(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &wx, nullptr);
    EXPECT_FLOAT_EQ(wx, 0.3127f);

    const float xyz[3] = {0.4f, 0.5f, 0.3f};
    float samples[5], back[3], table[15];
    ASSERT_EQ(RFL_xyz_samp(xyz, samples), 1);
    ASSERT_EQ(RFL_samp_xyz_mat(table), table);
    mul(samples, table, back, 1, 5, 3);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(back[c], xyz[c], 1e-4);

    const float rgb[3] = {0.2f, 0.7f, 0.4f};
    ASSERT_EQ(RFL_rgb_samp(rgb, samples), 1);
    ASSERT_EQ(RFL_samp_rgb_mat(table), table);
    mul(samples, table, back, 1, 5, 3);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(back[c], rgb[c], 1e-4);
    EXPECT_EQ(RFL_rgb_samp_mat(table), table);
    EXPECT_FLOAT_EQ(rfl__samp_wl[0], 417.0f);
    EXPECT_FLOAT_EQ(rfl__samp_mg[0], 1.0f / 61);
}

TEST_F(Conversions, SamplesExpandToAStepSpectrum) {
    ASSERT_EQ(RFL_init(3, 0, 0, 0, 0, 0, 0, 0, 0, 0), 3);
    const float samples[3] = {1, 2, 3};
    std::vector<float> spectrum(401, -1);
    ASSERT_EQ(RFL_samp_spectral(samples, spectrum.data()), 1);
    // Bins 414-492, 492-568, 568-657; the first reaches down to 380 nm.
    std::vector<float> at;
    for (int nm : {380, 492, 493, 568, 569, 657, 658, 780}) at.push_back(spectrum[nm - 380]);
    EXPECT_EQ(at, (std::vector<float>{1, 1, 2, 2, 3, 3, 0, 0}));
}

TEST_F(Conversions, SetupSurvivesNoMemory) {
    pxf::test::for_each_allocation_failure([] {
        int n = RFL_init(4, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        RFL_done();
        CLR_exit();
        return n == 4;
    });
}

TEST(LabLuv, ReferenceWhiteAndRange) {
    const float white[3] = {0.981f, 1.0f, 1.2065f};
    float lab[3] = {-1, -1, -1}, luv[3];
    ASSERT_EQ(RFL_xyz_lab(white, lab), 1);
    EXPECT_NEAR(lab[0], 25 * std::cbrt(100.0) - 16, 1e-4);
    EXPECT_NEAR(lab[1], 0, 1e-3);
    EXPECT_NEAR(lab[2], 0, 1e-3);
    ASSERT_EQ(RFL_xyz_luv(white, luv), 1);
    EXPECT_NEAR(luv[0], lab[0], 1e-4);
    EXPECT_NEAR(luv[1], 0, 0.05);
    EXPECT_NEAR(luv[2], 0, 0.05);

    const float dark[3] = {0.005f, 0.005f, 0.005f}, bright[3] = {1, 1.01f, 1};
    float untouched[3] = {7, 7, 7};
    EXPECT_EQ(RFL_xyz_lab(dark, untouched), 0);
    EXPECT_EQ(RFL_xyz_luv(bright, untouched), 0);
    EXPECT_EQ(untouched[0], 7);
}

TEST(FixedMatrices, PairsAreInverses) {
    float a[9], b[9], product[9];
    mul(RFL_encode_mat(a), RFL_decode_mat(b), product, 3, 3, 3);
    expect_identity(product, 2e-3);
    mul(RFL_xyz_yiq_mat(a), RFL_yiq_xyz_mat(b), product, 3, 3, 3);
    expect_identity(product, 2e-3);
}

TEST(Clip, MovesTowardGrey) {
    float out[3];
    const float hot[3] = {1.2f, 0.5f, 0.1f};
    EXPECT_EQ(RFL_clip_rgb(hot, out, 1.0), 1);
    EXPECT_NEAR(out[0], 0.9999, 1e-5);
    EXPECT_NEAR((out[0] + out[1] + out[2]) / 3, 0.6, 1e-5);
    EXPECT_NEAR((out[0] - 0.6) / (out[2] - 0.6), (1.2 - 0.6) / (0.1 - 0.6), 1e-4);

    const float cold[3] = {-0.1f, -0.1f, 0.2f};
    RFL_clip_rgb(cold, out, 1.0);
    EXPECT_EQ(std::vector<float>(out, out + 3), (std::vector<float>{0, 0, 0}));
}

TEST(Inverse, PivotsAndRefusesSingular) {
    // A zero in the first pivot position needs a row exchange.
    const float m[9] = {0, 2, 1, 1, 0, 0, 3, 1, 4};
    float inv[9], product[9];
    ASSERT_EQ(RFL_trans_inv(m, inv), 1);
    mul(m, inv, product, 3, 3, 3);
    expect_identity(product, 1e-6);
    const float singular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};
    EXPECT_EQ(RFL_trans_inv(singular, inv), 0);
}

}  // namespace
