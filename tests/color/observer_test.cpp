// The built-in standard observer against the published CIE 1931 2-degree
// colour-matching functions.
#include <gtest/gtest.h>

#include <pxf/clr.h>

#include "color/clr_tables.h"

namespace {

struct Published {
    int nm;
    double x, y, z;
};

// CIE 1931 2-degree standard observer, published 5 nm table.
constexpr Published kPublished[] = {
    {380, 0.0014, 0.0000, 0.0065}, {450, 0.3362, 0.0380, 1.7721}, {500, 0.0049, 0.3230, 0.2720},
    {555, 0.5121, 1.0000, 0.0057}, {600, 1.0622, 0.6310, 0.0008}, {650, 0.2835, 0.1070, 0.0000},
    {700, 0.0114, 0.0041, 0.0000},
};

TEST(Observer, FiveNanometreRowsMatchThePublishedTable) {
    for (const auto &p : kPublished) {
        const float *row = pxf::clr::kObserver[(p.nm - 380) / 5];
        EXPECT_EQ(row[0], p.nm);
        EXPECT_NEAR(row[1], p.x, 1e-6) << p.nm;
        EXPECT_NEAR(row[2], p.y, 1e-6) << p.nm;
        EXPECT_NEAR(row[3], p.z, 1e-6) << p.nm;
    }
}

TEST(Observer, OneNanometreTableKeepsThePublishedShape) {
    // Each column is scaled by its own constant, so ratios within a column
    // are those of the published values.
    const float *x600 = rfl__def_xyz_func[600 - 380];
    const float *y555 = rfl__def_xyz_func[555 - 380];
    const float *z450 = rfl__def_xyz_func[450 - 380];
    for (const auto &p : kPublished) {
        const float *row = rfl__def_xyz_func[p.nm - 380];
        EXPECT_NEAR(row[0] / x600[0], p.x / 1.0622, 1e-5) << p.nm;
        EXPECT_NEAR(row[1] / y555[1], p.y / 1.0000, 1e-5) << p.nm;
        EXPECT_NEAR(row[2] / z450[2], p.z / 1.7721, 1e-5) << p.nm;
    }
    // 452 nm lies two fifths of the way from 450 to 455 (y 0.0380 to 0.0480).
    EXPECT_NEAR(rfl__def_xyz_func[452 - 380][1] / y555[1], 0.0420, 1e-5);
    for (int c = 0; c < 3; ++c) {
        double sum = 0;
        for (int i = 0; i < CLR_XYZ_TAB_RES; ++i) sum += rfl__def_xyz_func[i][c];
        EXPECT_NEAR(sum, 1.0, 1e-5);
    }
}

}  // namespace
