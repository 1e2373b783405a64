#include "color/linalg.h"

#include <cmath>
#include <cstring>

#include <pxf/mx.h>

namespace pxf::clr {

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
            if (MXND_invert(m, inv, 3) != 0) return false;
            for (int i = 0; i < 9; ++i) x[i] = static_cast<float>(inv[i]);
            return true;
        }
        if (MXND_invert(ata, inv, 3) != 0) return false;
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
    if (MXND_invert(aat, inv, n) != 0) return false;
    for (int c = 0; c < 3; ++c)
        for (int s = 0; s < n; ++s) {
            double v = 0;
            for (int j = 0; j < n; ++j) v += double(a[j * 3 + c]) * inv[j * n + s];
            x[c * n + s] = static_cast<float>(v);
        }
    return true;
}

}  // namespace pxf::clr
