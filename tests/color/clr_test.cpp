// The colour defaults database and its configuration keys.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <pxf/clr.h>

#include "config_env.h"

namespace {

using pxf::test::ConfigHome;
using pxf::test::ReportCapture;

std::vector<float> bounds(int n) {
    CLR_BINS *bins = CLR_find(n);
    if (!bins) return {};
    return std::vector<float>(bins->bounds, bins->bounds + n + 1);
}

// samples -> XYZ times XYZ -> samples.
std::vector<double> product(const CLR_BINS *b, bool xyz_side) {
    int k = xyz_side ? 3 : b->n;
    std::vector<double> out(k * k);
    for (int i = 0; i < k; ++i)
        for (int j = 0; j < k; ++j) {
            double s = 0;
            if (xyz_side)
                for (int m = 0; m < b->n; ++m) s += b->xyz_to_samp[i * b->n + m] * b->samp_to_xyz[m * 3 + j];
            else
                for (int m = 0; m < 3; ++m) s += b->samp_to_xyz[i * 3 + m] * b->xyz_to_samp[m * b->n + j];
            out[i * k + j] = s;
        }
    return out;
}

void expect_identity(const std::vector<double> &m, int k, const char *what) {
    for (int i = 0; i < k; ++i)
        for (int j = 0; j < k; ++j) EXPECT_NEAR(m[i * k + j], i == j ? 1.0 : 0.0, 1e-4) << what;
}

TEST(ColourDefaults, BuiltInBinsAndTheirTables) {
    ConfigHome home;
    EXPECT_EQ(bounds(3), (std::vector<float>{414, 492, 568, 657}));
    EXPECT_FLOAT_EQ(CLR_find(3)->inv_width[0], 1.0f / 78);
    EXPECT_EQ(CLR_find(11), nullptr);
    EXPECT_EQ(CLR_def_xyz_tab_res(), 401);
    EXPECT_EQ(rfl__xyz_func, rfl__def_xyz_func);
    for (int n = 1; n <= 10; ++n) {
        CLR_BINS *b = CLR_find(n);
        ASSERT_NE(b, nullptr);
        if (n >= 3) expect_identity(product(b, true), 3, "XYZ -> samples -> XYZ");
        else expect_identity(product(b, false), n, "samples -> XYZ -> samples");
    }
}

TEST(SampleBins, UniformAndExplicitWithContinuation) {
    ConfigHome home(
        "clr__default_white_point 0.3127 0.329 0.3583\n"
        "clr__sample_bins 4 uniform\n"
        "clr__sample_bins 3 400 \\\n"
        "  500 \\\n"
        "\\\n"
        "600 700\n"
        "clr__sample_bins 12 380 400 420 440 460 480 500 520 540 560 580 \\\n"
        "600 780\n");
    ASSERT_EQ(CLR_init(nullptr), 0);
    EXPECT_FLOAT_EQ(CLR_def_white_point()[0], 0.3127f);
    EXPECT_EQ(bounds(4), (std::vector<float>{380, 480, 580, 680, 780}));
    EXPECT_TRUE(CLR_find(4)->uniform);
    EXPECT_EQ(bounds(3), (std::vector<float>{400, 500, 600, 700}));
    EXPECT_EQ(bounds(12).size(), 13u);
    // A changed setup makes its own table from the built-in points.
    EXPECT_NE(rfl__xyz_func, rfl__def_xyz_func);
    EXPECT_EQ(CLR_def_xyz_tab_res(), 401);
    for (int i = 0; i < 401; i += 50) EXPECT_NEAR(rfl__xyz_func[i][1], rfl__def_xyz_func[i][1], 1e-6);
    expect_identity(product(CLR_find(12), true), 3, "12 bins");
    // The whole range in uniform bins integrates the normalised functions to 1.
    double y = 0;
    for (int k = 0; k < 4; ++k) y += CLR_find(4)->samp_to_xyz[k * 3 + 1];
    EXPECT_NEAR(y, 1.0, 1e-5);
}

TEST(SampleBins, LineWithoutBoundariesIsSkipped) {
    ConfigHome home("clr__sample_bins 3\nclr__sample_bins 0 uniform\n");
    ReportCapture reports;
    ASSERT_EQ(CLR_init(nullptr), 0);
    EXPECT_EQ(ConfigHome::texts(reports), (std::vector<std::string>{home.syntax(1), home.syntax(2)}));
    EXPECT_EQ(bounds(3), (std::vector<float>{414, 492, 568, 657}));
}

TEST(SampleBins, UnfinishedListsFailTheReading) {
    ConfigHome home;
    struct Case {
        const char *file;
        int line;
    } cases[] = {
        {"clr__sample_bins 3 400 500\n", 1},
        {"\nclr__sample_bins 3 400 500 \\\n", 2},       // the file ends during a continuation
        {"clr__sample_bins 3 400 500 \\\n\n600 700\n", 2},  // an empty continuation line
    };
    for (const auto &c : cases) {
        home.write(c.file);
        ReportCapture reports;
        EXPECT_EQ(CLR_init(nullptr), -1) << c.file;
        EXPECT_EQ(reports.last(), home.syntax(c.line)) << c.file;
        EXPECT_EQ(rfl__xyz_func, rfl__def_xyz_func);
        CLR_exit();
    }
}

TEST(ColourDefaults, ValidationFailures) {
    ConfigHome home;
    struct Case {
        const char *file;
        const char *message;
    } cases[] = {
        {"clr__min_wavelength 800\n",
         "Invalid wavelength sampling range, (800.000000, 780.000000); (check the configuration file)"},
        {"clr__max_wavelength -1\n",
         "Invalid wavelength sampling range, (380.000000, -1.000000); (check the configuration file)"},
        {"clr__tristimulus_tab_res 1\n", "Invalid table resolution (1); (check the configuration file)"},
        {"#\nclr__default_red_primary 0.6 abc 0.1\n",
         "Invalid configuration file syntax, line 2; expecting a number"},
        {"clr__sample_bins 2 400 x 600\n", "Invalid configuration file syntax, line 1; expecting a number"},
        {"clr__tristimulus\n400 1 0 1\n500 1 0 1\nend__tristimulus\n",
         "Invalid matching function (check the configuration file color matching function)"},
        {"clr__min_wavelength 400\nclr__tristimulus\nend__tristimulus\n",
         "Invalid matching function (check the configuration file color matching function)"},
    };
    for (const auto &c : cases) {
        home.write(c.file);
        ReportCapture reports;
        EXPECT_EQ(CLR_init(nullptr), -1) << c.file;
        EXPECT_EQ(reports.last(), c.message) << c.file;
        EXPECT_EQ(reports.reports().back().severity, ERR_ERROR);
        EXPECT_EQ(rfl__xyz_func, rfl__def_xyz_func);
        EXPECT_FLOAT_EQ(rfl__def_red_pri[1], 0.33f);  // torn down to the built-in values
        CLR_exit();
    }
}

TEST(Tristimulus, FilePointsAreSortedInterpolatedAndNormalised) {
    ConfigHome home(
        "clr__min_wavelength 400\n"
        "clr__max_wavelength 500\n"
        "clr__tristimulus_tab_res 11\n"
        "clr__tristimulus\n"
        "# wavelength x y z\n"
        "500 1 2 4\n"
        "400 1 0 4\n"
        "450 1\n"
        "end__tristimulus\n"
        "clr__sample_bins 2 uniform\n");
    ReportCapture reports;
    ASSERT_EQ(CLR_init(nullptr), 0);
    EXPECT_EQ(reports.last(), home.syntax(8));
    EXPECT_EQ(CLR_def_xyz_tab_res(), 11);
    // y rises linearly from 0 to 2 over 11 rows 10 nm apart: integral 20 * 11 / 2 = 110.
    EXPECT_NEAR(rfl__xyz_func[10][1], 2.0 / 110.0, 1e-6);
    EXPECT_NEAR(rfl__xyz_func[5][0], 1.0 / 110.0, 1e-6);
    EXPECT_EQ(bounds(2), (std::vector<float>{400, 450, 500}));
    CLR_exit();
    EXPECT_EQ(rfl__xyz_func, rfl__def_xyz_func);
}

TEST(ColourDefaults, OutOfMemoryTearsDown) {
    ConfigHome home(
        "clr__sample_bins 4 uniform\n"
        "clr__sample_bins 3 400 \\\n500 600 700\n"
        "clr__tristimulus\n380 1 1 1\n780 1 1 1\nend__tristimulus\n");
    ReportCapture reports;
    pxf::test::for_each_allocation_failure(
        [] {
            bool ok = CLR_init(nullptr) == 0 && rfl__xyz_func != rfl__def_xyz_func && CLR_find(4);
            CLR_exit();
            return ok;
        },
        [&](int) {
            EXPECT_EQ(rfl__xyz_func, rfl__def_xyz_func);
            EXPECT_FALSE(reports.reports().empty());
            reports.clear();
        });
}

}  // namespace
