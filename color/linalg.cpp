#include "color/linalg.h"

#include <cmath>
#include <cstring>

namespace pxf::clr {

bool invert(const double *m, double *inverse, int k) noexcept {
    double a[3][6];
    for (int r = 0; r < k; ++r)
        for (int c = 0; c < 2 * k; ++c) a[r][c] = c < k ? m[r * k + c] : (c - k == r ? 1.0 : 0.0);
    for (int col = 0; col < k; ++col) {
        int pivot = col;
        for (int r = col + 1; r < k; ++r)
            if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
        if (a[pivot][col] == 0.0 || !std::isfinite(a[pivot][col])) return false;
        if (pivot != col)
            for (int c = 0; c < 2 * k; ++c) {
                double t = a[col][c];
                a[col][c] = a[pivot][c];
                a[pivot][c] = t;
            }
        double scale = 1.0 / a[col][col];
        for (int c = 0; c < 2 * k; ++c) a[col][c] *= scale;
        for (int r = 0; r < k; ++r) {
            if (r == col || a[r][col] == 0.0) continue;
            double f = a[r][col];
            for (int c = 0; c < 2 * k; ++c) a[r][c] -= f * a[col][c];
        }
    }
    for (int r = 0; r < k; ++r)
        for (int c = 0; c < k; ++c) inverse[r * k + c] = a[r][k + c];
    return true;
}

bool undo_table(const float *a, float *x, int n) noexcept {
    std::memset(x, 0, sizeof(float) * 3 * static_cast<size_t>(n));
    if (n >= 3) {
        // (a^T a)^-1 a^T; for n = 3 simply the inverse of a.
        double ata[9] = {}, inv[9];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int s = 0; s < n; ++s) ata[i * 3 + j] += double(a[s * 3 + i]) * a[s * 3 + j];
        if (n == 3) {
            double m[9];
            for (int i = 0; i < 9; ++i) m[i] = a[i];
            if (!invert(m, inv, 3)) return false;
            for (int i = 0; i < 9; ++i) x[i] = static_cast<float>(inv[i]);
            return true;
        }
        if (!invert(ata, inv, 3)) return false;
        for (int i = 0; i < 3; ++i)
            for (int s = 0; s < n; ++s) {
                double v = 0;
                for (int j = 0; j < 3; ++j) v += inv[i * 3 + j] * a[s * 3 + j];
                x[i * n + s] = static_cast<float>(v);
            }
        return true;
    }
    // a^T (a a^T)^-1
    double aat[4] = {}, inv[4];
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            for (int c = 0; c < 3; ++c) aat[i * n + j] += double(a[i * 3 + c]) * a[j * 3 + c];
    if (!invert(aat, inv, n)) return false;
    for (int c = 0; c < 3; ++c)
        for (int s = 0; s < n; ++s) {
            double v = 0;
            for (int j = 0; j < n; ++j) v += double(a[j * 3 + c]) * inv[j * n + s];
            x[c * n + s] = static_cast<float>(v);
        }
    return true;
}

}  // namespace pxf::clr
