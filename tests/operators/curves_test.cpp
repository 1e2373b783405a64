// Quick gamma tables and response curves against the published formulas,
// computed here independently of the library.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include <pxf/fmt.h>
#include <pxf/pxf.h>

#include "support/test_support.h"

namespace {

// Runs `check` with the configured gamma-table resolution and with 1024.
template <class F>
void for_each_resolution(F check) {
    int configured = FMT_def_gamma_tab_res();
    for (int r : {configured, 1024}) {
        fmt__gamma_tab_res = r;
        check(r);
    }
    fmt__gamma_tab_res = configured;
}

TEST(GammaTables, EightBitInputTablesFollowThePowerWithASlopeFloor) {
    for_each_resolution([](int R) {
    for (float g : {1.0f, 2.2f, 0.45f}) {
        float *f = PXF_gamma_btof(g);
        uint16_t *s = PXF_gamma_btos(g);
        ASSERT_TRUE(f && s);
        for (int i = 0; i < 256; ++i) {
            float power = float(std::pow(i / 255.0, double(g)));
            float floor = float(i) / float(R - 1);
            EXPECT_EQ(f[i], power > floor ? power : floor) << g << " " << i;
            int v = int(std::pow(i / 255.0, double(g)) * (R - 1) + 0.5);
            EXPECT_EQ(s[i], v < i ? i : v) << g << " " << i;
            EXPECT_GE(s[i], i);
        }
        if (g == 1.0f) {
            for (int i = 0; i < 256; ++i) EXPECT_FLOAT_EQ(f[i], float(i / 255.0));
        }
        EXPECT_EQ(PXF_gamma_done(f), 1);
        EXPECT_EQ(PXF_gamma_done(s), 1);
    }
    });
}

TEST(GammaTables, ResolutionInputTablesStayBelowTheIdentity) {
    for_each_resolution([](int R) {
    for (float g : {2.2f, 1.0f}) {
        uint8_t *b = PXF_gamma_tob(g);
        float *f = PXF_gamma_tof(g);
        ASSERT_TRUE(b && f);
        float inverse = 1.0f / g;
        for (int i = 0; i < R; ++i) {
            double x = std::pow(double(float(i) / float(R - 1)), double(inverse));
            int v = int(x * 255.0 + 0.5) & 0xff;
            EXPECT_EQ(b[i], v > i ? i : v) << i;
            float scaled = float(x * 254.9);
            EXPECT_EQ(f[i], float(i) < scaled ? float(i) : scaled) << i;
        }
        // The top entry uses 254.9, not 255.
        EXPECT_FLOAT_EQ(f[R - 1], 254.9f);
        PXF_gamma_done(b);
        PXF_gamma_done(f);
    }
    });
}

TEST(GammaTables, OutOfMemoryGivesNull) {
    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure([] {
        void *t = PXF_gamma_tof(2.2f);
        PXF_gamma_done(t);
        return t != nullptr;
    });
}

PXF_RESPONSE_CURVE curve(int kind, float gamma, int channels, int entries, int type, int bits) {
    return PXF_RESPONSE_CURVE{kind, gamma, nullptr, channels, entries, type, bits, nullptr};
}

uint32_t at(const PXF_RESPONSE_CURVE &c, int channel, int i) {
    if (c.bits <= 8) return static_cast<uint8_t *>(c.tables[channel])[i];
    return static_cast<uint16_t *>(c.tables[channel])[i];
}

TEST(ResponseCurve, InitBuildsEveryChannelFromTheGamma) {
    PXF_RESPONSE_CURVE bytes = curve(PXF_CURVE_GAMMA, 2.2f, 3, 4096, PXF_C_INTEGER, 8);
    ASSERT_EQ(PXF_response_curve_init(&bytes), 0);
    EXPECT_EQ(bytes.kind, PXF_CURVE_TABLE);
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < 4096; i += 7)
            EXPECT_EQ(at(bytes, c, i), uint32_t(std::pow(i * (1.0 / 4095), 2.2) * 255 + 0.5)) << c << " " << i;
    EXPECT_EQ(static_cast<uint8_t *>(bytes.tables[1]) - static_cast<uint8_t *>(bytes.tables[0]), 4096);

    PXF_RESPONSE_CURVE words = curve(PXF_CURVE_GAMMA, 1.0f, 1, 256, PXF_C_INTEGER, 12);
    ASSERT_EQ(PXF_response_curve_init(&words), 0);
    for (int i = 0; i < 256; ++i) EXPECT_EQ(at(words, 0, i), uint32_t(i * (4095.0 / 255) + 0.5));

    PXF_RESPONSE_CURVE floats = curve(PXF_CURVE_GAMMA, 0.5f, 2, 11, PXF_C_FLOAT, 32);
    ASSERT_EQ(PXF_response_curve_init(&floats), 0);
    EXPECT_FLOAT_EQ(static_cast<float *>(floats.tables[1])[4], float(std::sqrt(0.4)));

    for (auto *c : {&bytes, &words, &floats}) {
        EXPECT_EQ(PXF_response_curve_done(c), 1);
        EXPECT_EQ(c->tables, nullptr);
    }
    PXF_RESPONSE_CURVE bad = curve(PXF_CURVE_GAMMA, 1.0f, 1, 16, PXF_C_INTEGER, 4);
    EXPECT_EQ(PXF_response_curve_init(&bad), -1);
    bad = curve(PXF_CURVE_GAMMA, 1.0f, 1, 16, PXF_C_DOUBLE, 64);
    EXPECT_EQ(PXF_response_curve_init(&bad), -1);
    EXPECT_EQ(bad.tables, nullptr);
}

TEST(ResponseCurve, CopyIsDeepAndRefusesBadShapes) {
    PXF_RESPONSE_CURVE src = curve(PXF_CURVE_GAMMA, 2.2f, 2, 300, PXF_C_INTEGER, 16);
    ASSERT_EQ(PXF_response_curve_init(&src), 0);
    PXF_RESPONSE_CURVE dst{};
    ASSERT_EQ(PXF_response_curve_copy(&dst, &src), 0);
    EXPECT_NE(dst.tables, src.tables);
    for (int i = 0; i < 300; ++i) EXPECT_EQ(at(dst, 1, i), at(src, 1, i));
    PXF_response_curve_done(&dst);

    pxf::test::ReportCapture capture;
    PXF_RESPONSE_CURVE four = src;
    four.bits = 4;
    EXPECT_EQ(PXF_response_curve_copy(&dst, &four), -1);
    EXPECT_EQ(capture.last(), "Invalid curve depth 1 found: must be in the range 8 to 16");
    PXF_RESPONSE_CURVE odd = src;
    odd.type = 7;
    EXPECT_EQ(PXF_response_curve_copy(&dst, &odd), -1);
    EXPECT_EQ(capture.last(), "Invalid curve type 7 found: must be of type PXF_C_INTEGER or PXF_C_FLOAT");

    pxf::test::for_each_allocation_failure([&] {
        PXF_RESPONSE_CURVE copy{};
        int r = PXF_response_curve_copy(&copy, &src);
        if (r != 0) {
            EXPECT_EQ(copy.tables, nullptr);
        }
        PXF_response_curve_done(&copy);
        return r == 0;
    });
    PXF_response_curve_done(&src);
}

// The composition of every pair of kinds equals B's table looked up in A's.
TEST(ResponseCurve, CompositionOfEveryKindPair) {
    const float ga = 2.0f, gb = 2.2f;
    // Reference: B as a 256-entry table of 12-bit values, A over 4096 entries to 8 bits.
    auto b_value = [&](int i) { return uint32_t(std::pow(i * (1.0 / 255), double(gb)) * 4095 + 0.5); };
    auto a_of = [&](uint32_t v) { return uint32_t(std::pow(v * (1.0 / 4095), double(1.0f / ga)) * 255 + 0.5); };

    PXF_RESPONSE_CURVE a_gamma = curve(PXF_CURVE_GAMMA, ga, 3, 4096, PXF_C_INTEGER, 8);
    PXF_RESPONSE_CURVE b_gamma = curve(PXF_CURVE_GAMMA, gb, 3, 256, PXF_C_INTEGER, 12);
    PXF_RESPONSE_CURVE a_table = a_gamma, b_table = b_gamma;
    a_table.gamma = 1.0f / ga;  // as a table A is applied with the inverse exponent
    ASSERT_EQ(PXF_response_curve_init(&a_table), 0);
    ASSERT_EQ(PXF_response_curve_init(&b_table), 0);

    struct Case {
        PXF_RESPONSE_CURVE *a, *b;
    } cases[] = {{&a_table, &b_table}, {&a_gamma, &b_table}, {&a_table, &b_gamma}};
    for (auto &c : cases) {
        PXF_RESPONSE_CURVE r = curve(PXF_CURVE_GAMMA, 1.0f, 1, 256, PXF_C_INTEGER, 8);
        ASSERT_EQ(PXF_response_curve_comp(c.a, c.b, &r), 0);
        EXPECT_EQ(r.kind, PXF_CURVE_TABLE);
        EXPECT_EQ(r.channels, 3);
        EXPECT_EQ(r.entries, 256);
        for (int ch = 0; ch < 3; ++ch)
            for (int i = 0; i < 256; ++i) EXPECT_EQ(at(r, ch, i), a_of(b_value(i))) << ch << " " << i;
        PXF_response_curve_done(&r);
    }
    // Two gammas make one: exponent B / A over B's entries.
    PXF_RESPONSE_CURVE r{};
    ASSERT_EQ(PXF_response_curve_comp(&a_gamma, &b_gamma, &r), 0);
    EXPECT_FLOAT_EQ(r.gamma, gb / ga);
    EXPECT_EQ(at(r, 2, 128), uint32_t(std::pow(128 * (1.0 / 255), double(gb / ga)) * 255 + 0.5));
    PXF_response_curve_done(&r);

    // Other kinds: nothing happens.
    PXF_RESPONSE_CURVE none = a_gamma;
    none.kind = 0;
    r = PXF_RESPONSE_CURVE{};
    EXPECT_EQ(PXF_response_curve_comp(&none, &b_table, &r), 0);
    EXPECT_EQ(r.tables, nullptr);

    PXF_response_curve_done(&a_table);
    PXF_response_curve_done(&b_table);
}

TEST(ResponseCurve, IncompatibleTablesAreRefused) {
    PXF_RESPONSE_CURVE three = curve(PXF_CURVE_GAMMA, 1.0f, 3, 256, PXF_C_INTEGER, 8);
    PXF_RESPONSE_CURVE four = curve(PXF_CURVE_GAMMA, 1.0f, 4, 256, PXF_C_INTEGER, 8);
    PXF_RESPONSE_CURVE floats = curve(PXF_CURVE_GAMMA, 1.0f, 3, 256, PXF_C_FLOAT, 32);
    PXF_RESPONSE_CURVE deep = curve(PXF_CURVE_GAMMA, 1.0f, 3, 256, PXF_C_INTEGER, 12);
    for (auto *c : {&three, &four, &floats, &deep}) ASSERT_EQ(PXF_response_curve_init(c), 0);
    pxf::test::ReportCapture capture;
    PXF_RESPONSE_CURVE r{};
    EXPECT_EQ(PXF_response_curve_comp(&three, &four, &r), -1);
    EXPECT_EQ(r.tables, nullptr);
    EXPECT_EQ(capture.last(),
              "Incompatible response curve channel counts (channel counts must be the same for composited "
              "response curves)");
    EXPECT_EQ(PXF_response_curve_comp(&three, &floats, &r), -1);
    EXPECT_EQ(capture.last(),
              "Incompatible response curve channel type (channel must be of type PXF_C_INTEGER for "
              "composited response curve)");
    EXPECT_EQ(PXF_response_curve_comp(&three, &deep, &r), -1);  // 2^12 values into 256 entries
    EXPECT_EQ(capture.last(), "Incompatible response curve channel element counts");
    EXPECT_EQ(r.tables, nullptr);
    for (auto *c : {&three, &four, &floats, &deep}) PXF_response_curve_done(c);
}

TEST(ResponseCurve, CompositionOutOfMemoryLeavesNoTables) {
    PXF_RESPONSE_CURVE a = curve(PXF_CURVE_GAMMA, 2.2f, 3, 4096, PXF_C_INTEGER, 8);
    PXF_RESPONSE_CURVE b = curve(PXF_CURVE_GAMMA, 1.8f, 3, 256, PXF_C_INTEGER, 12);
    ASSERT_EQ(PXF_response_curve_init(&b), 0);
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure([&] {
        PXF_RESPONSE_CURVE r{};
        pxf__err = 0;
        int status = PXF_response_curve_comp(&a, &b, &r);
        if (status != 0) {
            EXPECT_EQ(r.tables, nullptr);
            EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY);
        }
        PXF_response_curve_done(&r);
        return status == 0;
    });
    PXF_response_curve_done(&b);
}

}  // namespace
