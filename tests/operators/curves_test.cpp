// Quick gamma tables and response curves against the published formulas,
// computed here independently of the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include <pxf/fmt.h>
#include <pxf/pxf.h>

#include "support/test_support.h"

namespace {

int trunc_half(double v) { return int(v + 0.5); }

TEST(GammaTables, FollowTheFormulasAtEveryResolution) {
    int configured = FMT_def_gamma_tab_res();
    for (int R : {configured, 1024})
        for (float g : {1.0f, 2.2f, 0.45f}) {
            fmt__gamma_tab_res = R;
            float *btof = PXF_gamma_btof(g), *tof = PXF_gamma_tof(g);
            uint16_t *btos = PXF_gamma_btos(g);
            uint8_t *tob = PXF_gamma_tob(g);
            ASSERT_TRUE(btof && tof && btos && tob);
            for (int i = 0; i < 256; ++i) {
                float power = float(std::pow(i / 255.0, double(g))), floor = float(i) / float(R - 1);
                ASSERT_EQ(btof[i], power > floor ? power : floor) << R << " " << g << " " << i;
                int v = trunc_half(std::pow(i / 255.0, double(g)) * (R - 1));
                ASSERT_EQ(btos[i], v < i ? i : v);
            }
            for (int i = 0; i < R; ++i) {
                double x = std::pow(double(float(i) / float(R - 1)), double(1.0f / g));
                int v = trunc_half(x * 255.0) & 0xff;
                ASSERT_EQ(tob[i], v > i ? i : v) << R << " " << g << " " << i;
                ASSERT_EQ(tof[i], std::min(float(i), float(x * 254.9)));  // 254.9, not 255
            }
            for (void *t : {(void *)btof, (void *)tof, (void *)btos, (void *)tob}) EXPECT_EQ(PXF_gamma_done(t), 1);
        }
    fmt__gamma_tab_res = configured;
}

PXF_RESPONSE_CURVE curve(float gamma, int channels, int entries, int type, int bits) {
    return PXF_RESPONSE_CURVE{PXF_CURVE_GAMMA, gamma, nullptr, channels, entries, type, bits, nullptr};
}

uint32_t at(const PXF_RESPONSE_CURVE &c, int channel, int i) {
    if (c.bits <= 8) return static_cast<uint8_t *>(c.tables[channel])[i];
    return static_cast<uint16_t *>(c.tables[channel])[i];
}

// Tables are built for every channel; composing any pair of kinds equals the
// inner table looked up in the outer one.
TEST(ResponseCurve, InitCopyAndCompositionOfEveryKindPair) {
    const float ga = 2.0f, gb = 2.2f;
    auto inner = [&](int i) { return uint32_t(trunc_half(std::pow(i * (1.0 / 255), double(gb)) * 4095)); };
    auto outer = [&](uint32_t v) { return uint32_t(trunc_half(std::pow(v * (1.0 / 4095), double(1.0f / ga)) * 255)); };
    PXF_RESPONSE_CURVE a_gamma = curve(ga, 3, 4096, PXF_C_INTEGER, 8), b_gamma = curve(gb, 3, 256, PXF_C_INTEGER, 12);
    PXF_RESPONSE_CURVE a_table = a_gamma, b_table = b_gamma, floats = curve(0.5f, 2, 11, PXF_C_FLOAT, 32), copy{};
    a_table.gamma = 1.0f / ga;  // an outer gamma applies with its inverse
    for (auto *c : {&a_table, &b_table, &floats}) ASSERT_EQ(PXF_response_curve_init(c), 0);
    EXPECT_EQ(b_table.kind, PXF_CURVE_TABLE);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(at(b_table, 2, i), inner(i));
    EXPECT_FLOAT_EQ(static_cast<float *>(floats.tables[1])[4], float(std::sqrt(0.4)));
    ASSERT_EQ(PXF_response_curve_copy(&copy, &b_table), 0);
    EXPECT_NE(copy.tables[1], b_table.tables[1]);
    EXPECT_EQ(std::memcmp(copy.tables[1], b_table.tables[1], 512), 0);

    PXF_RESPONSE_CURVE *pairs[][2] = {{&a_table, &b_table}, {&a_gamma, &b_table}, {&a_table, &b_gamma}};
    for (auto &p : pairs) {
        PXF_RESPONSE_CURVE r{};
        ASSERT_EQ(PXF_response_curve_comp(p[0], p[1], &r), 0);
        ASSERT_EQ(r.entries, 256);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < 256; ++i) ASSERT_EQ(at(r, c, i), outer(inner(i))) << c << " " << i;
        PXF_response_curve_done(&r);
    }
    PXF_RESPONSE_CURVE r{};
    ASSERT_EQ(PXF_response_curve_comp(&a_gamma, &b_gamma, &r), 0);  // one exponent, B / A
    EXPECT_EQ(at(r, 2, 128), uint32_t(trunc_half(std::pow(128 * (1.0 / 255), double(gb / ga)) * 255)));
    for (auto *c : {&r, &a_table, &b_table, &floats, &copy}) {
        EXPECT_EQ(PXF_response_curve_done(c), 1);
        EXPECT_EQ(c->tables, nullptr);
    }
}

TEST(ResponseCurve, BadShapesAreRefusedWithTheirMessages) {
    PXF_RESPONSE_CURVE three = curve(1.0f, 3, 256, PXF_C_INTEGER, 8), four = curve(1.0f, 4, 256, PXF_C_INTEGER, 8);
    PXF_RESPONSE_CURVE floats = curve(1.0f, 3, 256, PXF_C_FLOAT, 32), deep = curve(1.0f, 3, 256, PXF_C_INTEGER, 12);
    for (auto *c : {&three, &four, &floats, &deep}) ASSERT_EQ(PXF_response_curve_init(c), 0);
    PXF_RESPONSE_CURVE nibble = curve(1.0f, 1, 16, PXF_C_INTEGER, 4), odd = three;
    odd.type = 7;
    EXPECT_EQ(PXF_response_curve_init(&nibble), -1);
    nibble.kind = PXF_CURVE_TABLE;
    pxf::test::ReportCapture capture;
    PXF_RESPONSE_CURVE r{};
    const std::pair<int, const char *> refused[] = {
        {PXF_response_curve_comp(&three, &four, &r), "Incompatible response curve channel counts (channel counts "
                                                     "must be the same for composited response curves)"},
        {PXF_response_curve_comp(&three, &floats, &r), "Incompatible response curve channel type (channel must be "
                                                       "of type PXF_C_INTEGER for composited response curve)"},
        {PXF_response_curve_comp(&three, &deep, &r), "Incompatible response curve channel element counts"},
        {PXF_response_curve_copy(&r, &nibble), "Invalid curve depth 1 found: must be in the range 8 to 16"},
        {PXF_response_curve_copy(&r, &odd), "Invalid curve type 7 found: must be of type PXF_C_INTEGER or PXF_C_FLOAT"},
    };
    ASSERT_EQ(capture.reports().size(), 5u);
    for (std::size_t k = 0; k < 5; ++k) {
        EXPECT_EQ(refused[k].first, -1);
        EXPECT_EQ(capture.reports()[k].text, refused[k].second);
    }
    EXPECT_EQ(r.tables, nullptr);
    for (auto *c : {&three, &four, &floats, &deep}) PXF_response_curve_done(c);
}

TEST(ResponseCurve, OutOfMemoryLeavesNoTables) {
    PXF_RESPONSE_CURVE a = curve(2.2f, 3, 4096, PXF_C_INTEGER, 8), b = curve(1.8f, 3, 256, PXF_C_INTEGER, 12);
    ASSERT_EQ(PXF_response_curve_init(&b), 0);
    FMT_def_gamma_tab_res();  // the defaults are read before, not during, the loop
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure([&] {
        PXF_RESPONSE_CURVE r{}, copy{};
        pxf__err = 0;
        bool ok = PXF_response_curve_comp(&a, &b, &r) == 0 && PXF_response_curve_copy(&copy, &b) == 0;
        EXPECT_EQ(pxf__err, ok ? 0 : PXF_E_NO_MEMORY);
        float *table = ok ? PXF_gamma_tof(2.2f) : nullptr;
        ok = ok && table;
        PXF_gamma_done(table);
        PXF_response_curve_done(&r);
        PXF_response_curve_done(&copy);
        return ok;
    });
    PXF_response_curve_done(&b);
}

}  // namespace
