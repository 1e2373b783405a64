// Matrices against a naive double-precision reference and by their properties.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <pxf/mx.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using Matrix = std::vector<double>;

Matrix random_matrix(std::mt19937 &rng, int n) {
    std::uniform_real_distribution<double> d(-1, 1);
    Matrix m(n * n);
    for (auto &v : m) v = d(rng);
    return m;
}

Matrix naive_product(const Matrix &a, const Matrix &b, int n) {
    Matrix out(n * n, 0.0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            for (int k = 0; k < n; ++k) out[i * n + j] += a[i * n + k] * b[k * n + j];
    return out;
}

double norm_inf(const Matrix &m, int n) {
    double best = 0;
    for (int i = 0; i < n; ++i) {
        double s = 0;
        for (int j = 0; j < n; ++j) s += std::fabs(m[i * n + j]);
        best = std::max(best, s);
    }
    return best;
}

double distance_from_identity(const Matrix &m, int n) {
    double worst = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) worst = std::max(worst, std::fabs(m[i * n + j] - (i == j)));
    return worst;
}

MX4D to4d(const Matrix &m) {
    MX4D out;
    for (int i = 0; i < 16; ++i) (&out.m[0][0])[i] = m[i];
    return out;
}
MX4F to4f(const Matrix &m) {
    MX4F out;
    for (int i = 0; i < 16; ++i) (&out.m[0][0])[i] = static_cast<float>(m[i]);
    return out;
}

TEST(Matrix, ProductsMatchTheNaiveReference) {
    std::mt19937 rng(3);
    for (int trial = 0; trial < 2000; ++trial) {
        int n = 1 + trial % 9;
        Matrix a = random_matrix(rng, n), b = random_matrix(rng, n), want = naive_product(a, b, n), got(n * n);
        ASSERT_EQ(MXND_multiply(a.data(), b.data(), got.data(), n), 0);
        std::vector<float> af(a.begin(), a.end()), bf(b.begin(), b.end()), gf(n * n);
        ASSERT_EQ(MXNF_multiply(af.data(), bf.data(), gf.data(), n), 0);
        for (int i = 0; i < n * n; ++i) {
            ASSERT_NEAR(got[i], want[i], 1e-12);
            ASSERT_NEAR(gf[i], want[i], 1e-5);
        }
        if (n != 4) continue;
        MX4D a4 = to4d(a), b4 = to4d(b);
        MX4F af4 = to4f(a), bf4 = to4f(b);
        MX4D_multiply(&a4, &b4, &a4);  // the output may be an operand
        MX4F_multiply(&af4, &bf4, &bf4);
        for (int i = 0; i < 16; ++i) {
            ASSERT_NEAR((&a4.m[0][0])[i], want[i], 1e-12);
            ASSERT_NEAR((&bf4.m[0][0])[i], want[i], 1e-5);
        }
    }
    Matrix a(4);
    EXPECT_EQ(MXND_multiply(a.data(), a.data(), a.data(), 2), -1);  // output over an operand
    EXPECT_EQ(MXND_multiply(a.data(), a.data(), nullptr, 2), -1);
}

// A * inverse(A) is I within a tolerance that grows with the condition number;
// solve leaves a residual at rounding level.
TEST(Matrix, InverseAndSolveWithinConditionAwareTolerance) {
    std::mt19937 rng(5);
    const double eps = std::numeric_limits<double>::epsilon();
    for (int trial = 0; trial < 1500; ++trial) {
        int n = 1 + trial % 20;
        Matrix a = random_matrix(rng, n), inv(n * n), x(n), b = random_matrix(rng, 1);
        b.resize(n, 0.5);
        ASSERT_EQ(MXND_invert(a.data(), inv.data(), n), 0) << n;
        double condition = norm_inf(a, n) * norm_inf(inv, n);
        EXPECT_LT(distance_from_identity(naive_product(a, inv, n), n), 100 * n * eps * condition);

        ASSERT_EQ(MXND_solve(a.data(), b.data(), x.data(), n), 0);
        double residual = 0, xnorm = 0;
        for (int i = 0; i < n; ++i) {
            double s = -b[i];
            for (int j = 0; j < n; ++j) s += a[i * n + j] * x[j];
            residual = std::max(residual, std::fabs(s));
            xnorm = std::max(xnorm, std::fabs(x[i]));
        }
        EXPECT_LT(residual, 100 * n * eps * norm_inf(a, n) * xnorm);

        if (n == 4) {
            MX4D m = to4d(a), mi;
            ASSERT_EQ(MX4D_invert(&m, &mi), 0);
            for (int i = 0; i < 16; ++i) ASSERT_NEAR((&mi.m[0][0])[i], inv[i], 1e3 * eps * condition * condition);
            MX4F f = to4f(a);
            float bf[4] = {float(b[0]), float(b[1]), float(b[2]), float(b[3])};
            ASSERT_EQ(MX4F_solve(&f, bf, bf), 0);
            for (int i = 0; i < 4; ++i) ASSERT_NEAR(bf[i], x[i], 1e-5 * condition * (1 + std::fabs(x[i])));
        }
        std::vector<float> af(a.begin(), a.end()), invf(n * n);
        if (condition < 1e3) {
            ASSERT_EQ(MXNF_invert(af.data(), invf.data(), n), 0);
            for (int i = 0; i < n * n; ++i) ASSERT_NEAR(invf[i], inv[i], 1e-4 * condition * (1 + std::fabs(inv[i])));
        }
        double det = 0;
        ASSERT_EQ(MXND_determinant(a.data(), n, &det), 0);
        EXPECT_NE(det, 0);
    }
}

TEST(Matrix, SingularAndNearSingularAreRefused) {
    std::mt19937 rng(9);
    for (int trial = 0; trial < 500; ++trial) {
        int n = 3 + trial % 12;
        Matrix a = random_matrix(rng, n), out(n * n, 7.0), x(n, 7.0), b(n, 1.0);
        // One row a combination of two others, the rest random; sometimes nudged by far less than rounding.
        int r = trial % n, s = (r + 1) % n, t = (r + 2) % n;
        for (int j = 0; j < n; ++j) a[r * n + j] = 0.5 * a[s * n + j] - 2 * a[t * n + j];
        if (trial % 3 == 0) a[r * n] += 1e-18;
        EXPECT_EQ(MXND_invert(a.data(), out.data(), n), -1) << "n " << n;
        EXPECT_EQ(MXND_solve(a.data(), b.data(), x.data(), n), -1);
        EXPECT_EQ(out[0], 7.0);  // untouched
        EXPECT_EQ(x[0], 7.0);
    }
    MX4F zero = {};
    MX4F keep;
    MX4F_identity(&keep);
    EXPECT_EQ(MX4F_invert(&zero, &keep), -1);
    EXPECT_EQ(keep.m[0][0], 1.0f);
    EXPECT_EQ(MX4F_determinant(&zero), 0.0f);
    double nan_matrix[4] = {1, 0, 0, NAN}, out[4];
    EXPECT_EQ(MXND_invert(nan_matrix, out, 2), -1);
    EXPECT_EQ(MXND_invert(nan_matrix, out, 0), -1);
}

TEST(Matrix, RotationsAreProperAndRightHanded) {
    const double quarter = M_PI / 2;
    MX4D r;
    auto turn = [&](const double in[4]) {
        double out[4];
        MX4D_transform(&r, in, out);
        return std::vector<double>(out, out + 3);
    };
    const double x[4] = {1, 0, 0, 1}, y[4] = {0, 1, 0, 1}, z[4] = {0, 0, 1, 1};
    auto near = [](std::vector<double> v, double a, double b, double c) {
        return std::fabs(v[0] - a) < 1e-12 && std::fabs(v[1] - b) < 1e-12 && std::fabs(v[2] - c) < 1e-12;
    };
    MX4D_rotate_z(&r, quarter);
    EXPECT_TRUE(near(turn(x), 0, 1, 0));
    MX4D_rotate_x(&r, quarter);
    EXPECT_TRUE(near(turn(y), 0, 0, 1));
    MX4D_rotate_y(&r, quarter);
    EXPECT_TRUE(near(turn(z), 1, 0, 0));
    ASSERT_EQ(MX4D_rotate(&r, 0, 0, 5, quarter), 0);  // any length of axis
    EXPECT_TRUE(near(turn(x), 0, 1, 0));
    EXPECT_EQ(MX4D_rotate(&r, 0, 0, 0, 1), -1);

    std::mt19937 rng(21);
    std::uniform_real_distribution<double> d(-3, 3);
    for (int trial = 0; trial < 2000; ++trial) {
        double ax = d(rng), ay = d(rng), az = d(rng), angle = d(rng);
        ASSERT_EQ(MX4D_rotate(&r, ax, ay, az, angle), 0);
        Matrix m(16), mt(16);
        for (int i = 0; i < 16; ++i) m[i] = (&r.m[0][0])[i];
        MXND_transpose(m.data(), mt.data(), 4);
        EXPECT_LT(distance_from_identity(naive_product(m, mt, 4), 4), 1e-13);
        EXPECT_NEAR(MX4D_determinant(&r), 1.0, 1e-13);
        const double axis[4] = {ax, ay, az, 1};
        EXPECT_TRUE(near(turn(axis), ax, ay, az));  // the axis stays put
        MX4F rf;
        ASSERT_EQ(MX4F_rotate(&rf, float(ax), float(ay), float(az), float(angle)), 0);
        for (int i = 0; i < 16; ++i) ASSERT_NEAR((&rf.m[0][0])[i], m[i], 1e-6);
    }
}

TEST(Matrix, ScaleTranslateTransposeAndPrint) {
    MX4D s, t, st;
    MX4D_scale(&s, 2, 3, 4);
    MX4D_translate(&t, 10, 20, 30);
    MX4D_multiply(&s, &t, &st);  // scale first, then translate
    const double p[4] = {1, 1, 1, 1};
    double q[4];
    MX4D_transform(&st, p, q);
    EXPECT_EQ(q[0], 12);
    EXPECT_EQ(q[1], 23);
    EXPECT_EQ(q[2], 34);
    EXPECT_EQ(q[3], 1);
    MX4D_transpose(&st, &st);
    EXPECT_EQ(st.m[0][3], 10);
    EXPECT_EQ(st.m[3][0], 0);
    double m[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(MXND_transpose(m, m, 2), 0);  // in place
    EXPECT_EQ(m[1], 3);

    pxf::test::TempDir dir;
    FILE *f = std::fopen(dir.file("m").c_str(), "w");
    MX4F id;
    MX4F_identity(&id);
    ASSERT_EQ(MX4F_print(f, &id), 0);
    float two[4] = {1.5f, -2, 0, 1e-7f};
    ASSERT_EQ(MXNF_print(f, two, 2), 0);
    std::fclose(f);
    EXPECT_EQ(pxf::test::read_file(dir.file("m")),
              "           1            0            0            0\n"
              "           0            1            0            0\n"
              "           0            0            1            0\n"
              "           0            0            0            1\n"
              "         1.5           -2\n"
              "           0        1e-07\n");
    EXPECT_EQ(MX4F_print(nullptr, &id), -1);
}

TEST(Matrix, LargeMatricesSurviveExhaustedMemory) {
    std::mt19937 rng(1);
    Matrix a = random_matrix(rng, 12), out(144), b(12, 1), x(12);
    pxf::test::ReportCapture capture;
    int runs = pxf::test::for_each_allocation_failure([&] {
        return MXND_invert(a.data(), out.data(), 12) == 0 && MXND_solve(a.data(), b.data(), x.data(), 12) == 0;
    }, [&](int) { EXPECT_TRUE(capture.saw("No more internal memory")); });
    EXPECT_EQ(runs, 2);
    double det;
    pxf::fault::arm(1);
    EXPECT_EQ(MXND_determinant(a.data(), 12, &det), -1);
    pxf::fault::disarm();
    EXPECT_EQ(MXND_determinant(a.data(), 4, &det), 0);  // small ones need no heap
}

TEST(Point, Collinearity) {
    const double a[2] = {0, 0}, b[2] = {1, 1}, c[2] = {3, 3}, d[2] = {3, 3.001};
    EXPECT_EQ(POINT_2D_is_colinear(a, b, c, 0), 1);
    EXPECT_EQ(POINT_2D_is_colinear(a, b, d, 0), 0);
    EXPECT_EQ(POINT_2D_is_colinear(a, b, d, 1e-3), 1);
    EXPECT_EQ(POINT_2D_is_colinear(a, a, d, 0), 1);
    EXPECT_EQ(POINT_2D_is_colinear(a, b, nullptr, 0), 0);
}

}  // namespace
