// The elimination and product loops run over contiguous rows; let the
// compiler vectorise them whatever the build's optimisation level.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("tree-vectorize")
#endif

#include <pxf/mx.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "foundation/alloc.h"

namespace {

// Working memory for the N x N routines: on the stack up to 8 x 8, else from
// the library heap (reported when exhausted).
template <class T>
class Work {
public:
    Work(int n) noexcept {
        std::size_t bytes = sizeof(T) * (std::size_t(n) * n + 3 * std::size_t(n)) + sizeof(int) * std::size_t(n);
        if (n <= 8) {
            base_ = local_;
        } else {
            heap_ = static_cast<unsigned char *>(pxf::alloc(bytes));
            base_ = heap_;
        }
    }
    ~Work() { pxf::heap_free(heap_); }
    Work(const Work &) = delete;
    Work &operator=(const Work &) = delete;
    bool ok() const noexcept { return base_ != nullptr; }
    T *matrix() noexcept { return reinterpret_cast<T *>(base_); }
    T *vector(int n) noexcept { return matrix() + std::size_t(n) * n; }
    int *pivot(int n) noexcept { return reinterpret_cast<int *>(vector(n) + 3 * n); }

private:
    alignas(16) unsigned char local_[sizeof(T) * 88 + sizeof(int) * 8];
    unsigned char *heap_ = nullptr;
    unsigned char *base_ = nullptr;
};

// LU decomposition with partial pivoting, in place.  With `guard`, pivots at
// or below n * epsilon of the largest element count as singular; without it
// only exact zeros do (the determinant wants the product, however small).
template <class T>
bool lu(T *a, int *pivot, int n, bool guard) noexcept {
    T largest = 0;
    for (std::size_t i = 0, e = std::size_t(n) * n; i < e; ++i) {
        T v = std::fabs(a[i]);
        if (!std::isfinite(v)) return false;
        if (v > largest) largest = v;
    }
    if (largest == 0) return false;
    T tiny = guard ? largest * T(n) * std::numeric_limits<T>::epsilon() : T(0);
    for (int k = 0; k < n; ++k) {
        int p = k;
        T best = std::fabs(a[std::size_t(k) * n + k]);
        for (int i = k + 1; i < n; ++i) {
            T v = std::fabs(a[std::size_t(i) * n + k]);
            if (v > best) {
                best = v;
                p = i;
            }
        }
        if (!(best > tiny)) return false;
        pivot[k] = p;
        T *__restrict rk = a + std::size_t(k) * n;
        if (p != k) {
            T *rp = a + std::size_t(p) * n;
            for (int j = 0; j < n; ++j) {
                T t = rk[j];
                rk[j] = rp[j];
                rp[j] = t;
            }
        }
        T inv = T(1) / rk[k];
        for (int i = k + 1; i < n; ++i) {
            T *__restrict ri = a + std::size_t(i) * n;
            T f = ri[k] * inv;
            ri[k] = f;
            if (f == 0) continue;
            for (int j = k + 1; j < n; ++j) ri[j] -= f * rk[j];
        }
    }
    return true;
}

template <class T>
void lu_solve(const T *lu, const int *pivot, T *b, int n) noexcept {
    for (int k = 0; k < n; ++k)
        if (pivot[k] != k) {
            T t = b[k];
            b[k] = b[pivot[k]];
            b[pivot[k]] = t;
        }
    for (int i = 1; i < n; ++i) {
        const T *ri = lu + std::size_t(i) * n;
        T s = b[i];
        for (int j = 0; j < i; ++j) s -= ri[j] * b[j];
        b[i] = s;
    }
    for (int i = n - 1; i >= 0; --i) {
        const T *ri = lu + std::size_t(i) * n;
        T s = b[i];
        for (int j = i + 1; j < n; ++j) s -= ri[j] * b[j];
        b[i] = s / ri[i];
    }
}

// Solves transpose(a) * z = b with the decomposition of a; b is replaced by z.
template <class T>
void lu_solve_transposed(const T *lu, const int *pivot, T *b, int n) noexcept {
    for (int i = 0; i < n; ++i) {
        T s = b[i];
        for (int j = 0; j < i; ++j) s -= lu[std::size_t(j) * n + i] * b[j];
        b[i] = s / lu[std::size_t(i) * n + i];
    }
    for (int i = n - 1; i >= 0; --i) {
        T s = b[i];
        for (int j = i + 1; j < n; ++j) s -= lu[std::size_t(j) * n + i] * b[j];
        b[i] = s;
    }
    for (int k = n - 1; k >= 0; --k)
        if (pivot[k] != k) {
            T t = b[k];
            b[k] = b[pivot[k]];
            b[pivot[k]] = t;
        }
}

// Whether the decomposed matrix is too ill-conditioned to solve at this
// precision: its 1-norm condition number, with the norm of the inverse
// estimated by Hager's method (a few solves), exceeds 1 / (n * epsilon).
// Small pivots alone do not reveal every nearly singular matrix.
template <class T>
bool ill_conditioned(const T *m, const T *lu, const int *pivot, int n, T *x, T *y) noexcept {
    T norm = 0;
    for (int c = 0; c < n; ++c) {
        T s = 0;
        for (int r = 0; r < n; ++r) s += std::fabs(m[std::size_t(r) * n + c]);
        if (s > norm) norm = s;
    }
    for (int i = 0; i < n; ++i) x[i] = T(1) / T(n);
    T estimate = 0;
    for (int round = 0; round < 5; ++round) {
        std::memcpy(y, x, sizeof(T) * n);
        lu_solve(lu, pivot, y, n);
        estimate = 0;
        for (int i = 0; i < n; ++i) estimate += std::fabs(y[i]);
        for (int i = 0; i < n; ++i) y[i] = y[i] < 0 ? T(-1) : T(1);
        lu_solve_transposed(lu, pivot, y, n);
        int j = 0;
        T zx = 0;
        for (int i = 0; i < n; ++i) {
            zx += y[i] * x[i];
            if (std::fabs(y[i]) > std::fabs(y[j])) j = i;
        }
        if (std::fabs(y[j]) <= zx) break;
        for (int i = 0; i < n; ++i) x[i] = i == j ? T(1) : T(0);
    }
    T condition = norm * estimate;
    return !(condition * T(n) * std::numeric_limits<T>::epsilon() < T(1));
}

template <class T>
int invert(const T *m, T *out, int n) noexcept {
    if (!m || !out || n < 1) return -1;
    Work<T> w(n);
    if (!w.ok()) return -1;
    T *a = w.matrix();
    std::memcpy(a, m, sizeof(T) * n * n);
    if (!lu(a, w.pivot(n), n, true)) return -1;
    T *column = w.vector(n);
    if (ill_conditioned(m, a, w.pivot(n), n, column, column + n)) return -1;
    for (int c = 0; c < n; ++c) {
        for (int r = 0; r < n; ++r) column[r] = r == c ? T(1) : T(0);
        lu_solve(a, w.pivot(n), column, n);
        for (int r = 0; r < n; ++r) out[std::size_t(r) * n + c] = column[r];
    }
    return 0;
}

template <class T>
int solve(const T *m, const T *b, T *x, int n) noexcept {
    if (!m || !b || !x || n < 1) return -1;
    Work<T> w(n);
    if (!w.ok()) return -1;
    T *a = w.matrix();
    std::memcpy(a, m, sizeof(T) * n * n);
    if (!lu(a, w.pivot(n), n, true)) return -1;
    T *v = w.vector(n);
    if (ill_conditioned(m, a, w.pivot(n), n, v, v + n)) return -1;
    std::memcpy(v, b, sizeof(T) * n);
    lu_solve(a, w.pivot(n), v, n);
    std::memcpy(x, v, sizeof(T) * n);
    return 0;
}

template <class T>
int determinant(const T *m, int n, T *det) noexcept {
    if (!m || !det || n < 1) return -1;
    Work<T> w(n);
    if (!w.ok()) return -1;
    T *a = w.matrix();
    int *pivot = w.pivot(n);
    std::memcpy(a, m, sizeof(T) * n * n);
    if (!lu(a, pivot, n, false)) {
        *det = 0;
        return 0;
    }
    T d = 1;
    for (int k = 0; k < n; ++k) d *= pivot[k] != k ? -a[std::size_t(k) * n + k] : a[std::size_t(k) * n + k];
    *det = d;
    return 0;
}

template <class T>
int identity(T *m, int n) noexcept {
    if (!m || n < 1) return -1;
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) m[std::size_t(r) * n + c] = r == c ? T(1) : T(0);
    return 0;
}

template <class T>
int multiply(const T *a, const T *b, T *out, int n) noexcept {
    if (!a || !b || !out || n < 1 || out == a || out == b) return -1;
    // Row by row: each row of out is a combination of the rows of b, so
    // every inner loop runs over contiguous memory.
    for (int r = 0; r < n; ++r) {
        T *__restrict o = out + std::size_t(r) * n;
        const T *ar = a + std::size_t(r) * n;
        for (int c = 0; c < n; ++c) o[c] = 0;
        for (int k = 0; k < n; ++k) {
            T f = ar[k];
            const T *__restrict bk = b + std::size_t(k) * n;
            for (int c = 0; c < n; ++c) o[c] += f * bk[c];
        }
    }
    return 0;
}

template <class T>
int transpose(const T *m, T *out, int n) noexcept {
    if (!m || !out || n < 1) return -1;
    for (int r = 0; r < n; ++r) {
        out[std::size_t(r) * n + r] = m[std::size_t(r) * n + r];
        for (int c = r + 1; c < n; ++c) {
            T upper = m[std::size_t(r) * n + c], lower = m[std::size_t(c) * n + r];
            out[std::size_t(r) * n + c] = lower;
            out[std::size_t(c) * n + r] = upper;
        }
    }
    return 0;
}

template <class T>
int print(FILE *stream, const T *m, int n) noexcept {
    if (!stream || !m || n < 1) return -1;
    for (int r = 0; r < n; ++r) {
        for (int c = 0; c < n; ++c)
            if (std::fprintf(stream, c ? " %12.6g" : "%12.6g", double(m[std::size_t(r) * n + c])) < 0) return -1;
        if (std::fputc('\n', stream) == EOF) return -1;
    }
    return 0;
}

// 4 x 4 matrices: the same algorithms over fixed sizes.  Float matrices are
// inverted and solved in double precision.
template <class M, class T>
void mx4_multiply(const M *a, const M *b, M *out) noexcept {
    typedef T Row __attribute__((vector_size(4 * sizeof(T))));
    Row rb[4], ro[4];
    std::memcpy(rb, b->m, sizeof rb);
    for (int r = 0; r < 4; ++r)
        ro[r] = a->m[r][0] * rb[0] + a->m[r][1] * rb[1] + a->m[r][2] * rb[2] + a->m[r][3] * rb[3];
    std::memcpy(out->m, ro, sizeof ro);
}

template <class M>
void mx4_identity(M *out) noexcept {
    identity(&out->m[0][0], 4);
}

template <class M>
int mx4_invert(const M *m, M *out) noexcept {
    if (!m || !out) return -1;
    double a[16], inv[16];
    for (int i = 0; i < 16; ++i) a[i] = (&m->m[0][0])[i];
    if (invert(a, inv, 4) != 0) return -1;
    for (int i = 0; i < 16; ++i) (&out->m[0][0])[i] = static_cast<std::remove_reference_t<decltype(m->m[0][0])>>(inv[i]);
    return 0;
}

template <class M, class T>
int mx4_solve(const M *m, const T *b, T *x) noexcept {
    if (!m || !b || !x) return -1;
    double a[16], v[4];
    for (int i = 0; i < 16; ++i) a[i] = (&m->m[0][0])[i];
    for (int i = 0; i < 4; ++i) v[i] = b[i];
    if (solve(a, v, v, 4) != 0) return -1;
    for (int i = 0; i < 4; ++i) x[i] = static_cast<T>(v[i]);
    return 0;
}

template <class M>
double mx4_determinant(const M *m) noexcept {
    double a[16], d = 0;
    for (int i = 0; i < 16; ++i) a[i] = (&m->m[0][0])[i];
    determinant(a, 4, &d);
    return d;
}

// Rotation about axis `axis` (0 x, 1 y, 2 z) for row vectors: the
// counterclockwise turn seen from the axis' positive end.
template <class M, class T>
void mx4_rotate_axis(M *out, int axis, T radians) noexcept {
    mx4_identity(out);
    T c = std::cos(radians), s = std::sin(radians);
    int i = (axis + 1) % 3, j = (axis + 2) % 3;
    out->m[i][i] = c;
    out->m[i][j] = s;
    out->m[j][i] = -s;
    out->m[j][j] = c;
}

template <class M, class T>
int mx4_rotate(M *out, T x, T y, T z, T radians) noexcept {
    double length = std::sqrt(double(x) * x + double(y) * y + double(z) * z);
    if (!out || !(length > 0) || !std::isfinite(length)) return -1;
    double u[3] = {x / length, y / length, z / length};
    double c = std::cos(double(radians)), s = std::sin(double(radians)), t = 1 - c;
    // Rodrigues' formula, transposed for row vectors.
    double cross[3][3] = {{0, -u[2], u[1]}, {u[2], 0, -u[0]}, {-u[1], u[0], 0}};
    mx4_identity(out);
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k) out->m[r][k] = static_cast<T>((r == k ? c : 0) + t * u[r] * u[k] + s * cross[k][r]);
    return 0;
}

template <class M, class T>
void mx4_transform(const M *m, const T *in, T *out) noexcept {
    T v[4];
    for (int c = 0; c < 4; ++c) v[c] = in[0] * m->m[0][c] + in[1] * m->m[1][c] + in[2] * m->m[2][c] + in[3] * m->m[3][c];
    std::memcpy(out, v, sizeof v);
}

}  // namespace

#define PXF_MX4(P, M, T)                                                                                          \
    void P##identity(M *out) { mx4_identity(out); }                                                               \
    void P##multiply(const M *a, const M *b, M *out) { mx4_multiply<M, T>(a, b, out); }                           \
    void P##transpose(const M *m, M *out) {                                                                       \
        M t = *m;                                                                                                 \
        transpose(&t.m[0][0], &out->m[0][0], 4);                                                                  \
    }                                                                                                             \
    int P##invert(const M *m, M *out) { return mx4_invert(m, out); }                                              \
    T P##determinant(const M *m) { return static_cast<T>(mx4_determinant(m)); }                                   \
    int P##solve(const M *a, const T b[4], T x[4]) { return mx4_solve(a, b, x); }                                 \
    void P##rotate_x(M *out, T radians) { mx4_rotate_axis(out, 0, radians); }                                     \
    void P##rotate_y(M *out, T radians) { mx4_rotate_axis(out, 1, radians); }                                     \
    void P##rotate_z(M *out, T radians) { mx4_rotate_axis(out, 2, radians); }                                     \
    int P##rotate(M *out, T x, T y, T z, T radians) { return mx4_rotate(out, x, y, z, radians); }                 \
    void P##scale(M *out, T sx, T sy, T sz) {                                                                     \
        mx4_identity(out);                                                                                        \
        out->m[0][0] = sx;                                                                                        \
        out->m[1][1] = sy;                                                                                        \
        out->m[2][2] = sz;                                                                                        \
    }                                                                                                             \
    void P##translate(M *out, T tx, T ty, T tz) {                                                                 \
        mx4_identity(out);                                                                                        \
        out->m[3][0] = tx;                                                                                        \
        out->m[3][1] = ty;                                                                                        \
        out->m[3][2] = tz;                                                                                        \
    }                                                                                                             \
    void P##transform(const M *m, const T in[4], T out[4]) { mx4_transform(m, in, out); }                         \
    int P##print(FILE *stream, const M *m) { return m ? print(stream, &m->m[0][0], 4) : -1; }

#define PXF_MXN(P, T)                                                                                             \
    int P##identity(T *m, int n) { return identity(m, n); }                                                       \
    int P##multiply(const T *a, const T *b, T *out, int n) { return multiply(a, b, out, n); }                     \
    int P##transpose(const T *m, T *out, int n) { return transpose(m, out, n); }                                  \
    int P##lu(T *a, int *pivot, int n) { return a && pivot && n > 0 && lu(a, pivot, n, true) ? 0 : -1; }          \
    int P##lu_solve(const T *a, const int *pivot, T *b, int n) {                                                  \
        if (!a || !pivot || !b || n < 1) return -1;                                                               \
        lu_solve(a, pivot, b, n);                                                                                 \
        return 0;                                                                                                 \
    }                                                                                                             \
    int P##invert(const T *m, T *out, int n) { return invert(m, out, n); }                                        \
    int P##solve(const T *a, const T *b, T *x, int n) { return solve(a, b, x, n); }                               \
    int P##determinant(const T *m, int n, T *det) { return determinant(m, n, det); }                              \
    int P##print(FILE *stream, const T *m, int n) { return print(stream, m, n); }

extern "C" {

PXF_MX4(MX4F_, MX4F, float)
PXF_MX4(MX4D_, MX4D, double)
PXF_MXN(MXNF_, float)
PXF_MXN(MXND_, double)

int POINT_2D_is_colinear(const double a[2], const double b[2], const double c[2], double tolerance) {
    if (!a || !b || !c) return 0;
    double ux = b[0] - a[0], uy = b[1] - a[1], vx = c[0] - a[0], vy = c[1] - a[1];
    double cross = std::fabs(ux * vy - uy * vx);
    double scale = std::hypot(ux, uy) * std::hypot(vx, vy);
    if (scale == 0) return 1;  // a coincides with b or c
    return cross <= tolerance * scale ? 1 : 0;
}

}  // extern "C"
