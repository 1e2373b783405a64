#include "operators/resampler.h"

#include <immintrin.h>

#include <cmath>
#include <cstring>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/kernels.h"

namespace pxf::ops {
namespace {

constexpr double kPi = 3.14159265358979323846;

double sinc(double x) {
    if (x == 0.0) return 1.0;
    x *= kPi;
    return std::sin(x) / x;
}

// Half open, so that a sample exactly between two pixels takes one of them.
double box(double x) { return x >= -0.5 && x < 0.5 ? 1.0 : 0.0; }
double triangle(double x) {
    x = std::fabs(x);
    return x < 1.0 ? 1.0 - x : 0.0;
}
// The two-parameter cubic family: (0, 1/2) interpolates, (1/3, 1/3) is the
// usual compromise between blur and ringing.
template <int B3, int C6>  // B x 3, C x 6, to keep them integers
double cubic(double x) {
    constexpr double B = B3 / 3.0, C = C6 / 6.0;
    x = std::fabs(x);
    if (x < 1.0) return ((12 - 9 * B - 6 * C) * x * x * x + (-18 + 12 * B + 6 * C) * x * x + (6 - 2 * B)) / 6.0;
    if (x < 2.0)
        return ((-B - 6 * C) * x * x * x + (6 * B + 30 * C) * x * x + (-12 * B - 48 * C) * x + (8 * B + 24 * C)) / 6.0;
    return 0.0;
}
double lanczos3(double x) { return std::fabs(x) < 3.0 ? sinc(x) * sinc(x / 3.0) : 0.0; }
// Standard deviation 1/2 pixel, cut at 2 (where it has fallen to e^-8).
double gaussian(double x) { return std::fabs(x) < 2.0 ? std::exp(-2.0 * x * x) : 0.0; }

constexpr Kernel kKernels[] = {
    {"box", 0.5, box},
    {"triangle", 1.0, triangle},
    {"catmull-rom", 2.0, cubic<0, 3>},
    {"mitchell", 2.0, cubic<1, 2>},
    {"lanczos3", 3.0, lanczos3},
    {"gaussian", 2.0, gaussian},
};

// ---- Row kernels ----

bool has_avx2() {
    static const bool yes = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return yes;
}

// Horizontal pass of one channel: out[i] = sum of taps weights x source.
void filter_row_plain(float *__restrict out, const float *__restrict src, const Axis &a) {
    const float *w = a.weights;
    for (int i = 0; i < a.target; ++i, w += a.taps) {
        const float *s = src + a.first[i];
        float lanes[8] = {};
        for (int k = 0; k < a.taps; k += 8)
            for (int j = 0; j < 8; ++j) lanes[j] += w[k + j] * s[k + j];
        out[i] = ((lanes[0] + lanes[4]) + (lanes[1] + lanes[5])) + ((lanes[2] + lanes[6]) + (lanes[3] + lanes[7]));
    }
}

__attribute__((target("avx2,fma"))) inline float sum8(__m256 v) {
    __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    s = _mm_add_ps(s, _mm_movehl_ps(s, s));
    s = _mm_add_ss(s, _mm_movehdup_ps(s));
    return _mm_cvtss_f32(s);
}

__attribute__((target("avx2,fma"))) void filter_row_avx2(float *__restrict out, const float *__restrict src,
                                                         const Axis &a) {
    const float *w = a.weights;
    int i = 0;
    if (a.taps == 8) {
        // Four pixels at a time: their sums are reduced together.
        for (; i + 4 <= a.target; i += 4, w += 32) {
            __m256 p0 = _mm256_mul_ps(_mm256_loadu_ps(w), _mm256_loadu_ps(src + a.first[i]));
            __m256 p1 = _mm256_mul_ps(_mm256_loadu_ps(w + 8), _mm256_loadu_ps(src + a.first[i + 1]));
            __m256 p2 = _mm256_mul_ps(_mm256_loadu_ps(w + 16), _mm256_loadu_ps(src + a.first[i + 2]));
            __m256 p3 = _mm256_mul_ps(_mm256_loadu_ps(w + 24), _mm256_loadu_ps(src + a.first[i + 3]));
            __m256 h01 = _mm256_hadd_ps(p0, p1), h23 = _mm256_hadd_ps(p2, p3);
            __m256 h = _mm256_hadd_ps(h01, h23);  // lanes: 0 1 2 3 | 0 1 2 3
            __m128 r = _mm_add_ps(_mm256_castps256_ps128(h), _mm256_extractf128_ps(h, 1));
            _mm_storeu_ps(out + i, r);
        }
    }
    for (; i < a.target; ++i, w += a.taps) {
        const float *s = src + a.first[i];
        __m256 acc0 = _mm256_mul_ps(_mm256_loadu_ps(w), _mm256_loadu_ps(s));
        __m256 acc1 = _mm256_setzero_ps();
        int k = 8;
        for (; k + 16 <= a.taps; k += 16) {
            acc1 = _mm256_fmadd_ps(_mm256_loadu_ps(w + k), _mm256_loadu_ps(s + k), acc1);
            acc0 = _mm256_fmadd_ps(_mm256_loadu_ps(w + k + 8), _mm256_loadu_ps(s + k + 8), acc0);
        }
        if (k < a.taps) acc1 = _mm256_fmadd_ps(_mm256_loadu_ps(w + k), _mm256_loadu_ps(s + k), acc1);
        out[i] = sum8(_mm256_add_ps(acc0, acc1));
    }
}

// Vertical pass: out[x] = sum over k of w[k] x rows[k][x], for n values
// (a multiple of 8).
void sum_rows_plain(float *__restrict out, const float *const *rows, const float *w, int count, int n) {
    for (int x = 0; x < n; ++x) out[x] = w[0] * rows[0][x];
    for (int k = 1; k < count; ++k) {
        const float *row = rows[k];
        float wk = w[k];
        for (int x = 0; x < n; ++x) out[x] += wk * row[x];
    }
}

__attribute__((target("avx2,fma"))) void sum_rows_avx2(float *__restrict out, const float *const *rows,
                                                       const float *w, int count, int n) {
    int x = 0;
    for (; x + 16 <= n; x += 16) {
        __m256 wk = _mm256_set1_ps(w[0]);
        __m256 a0 = _mm256_mul_ps(wk, _mm256_loadu_ps(rows[0] + x));
        __m256 a1 = _mm256_mul_ps(wk, _mm256_loadu_ps(rows[0] + x + 8));
        for (int k = 1; k < count; ++k) {
            wk = _mm256_set1_ps(w[k]);
            a0 = _mm256_fmadd_ps(wk, _mm256_loadu_ps(rows[k] + x), a0);
            a1 = _mm256_fmadd_ps(wk, _mm256_loadu_ps(rows[k] + x + 8), a1);
        }
        _mm256_storeu_ps(out + x, a0);
        _mm256_storeu_ps(out + x + 8, a1);
    }
    for (; x < n; x += 8) {
        __m256 a0 = _mm256_mul_ps(_mm256_set1_ps(w[0]), _mm256_loadu_ps(rows[0] + x));
        for (int k = 1; k < count; ++k)
            a0 = _mm256_fmadd_ps(_mm256_set1_ps(w[k]), _mm256_loadu_ps(rows[k] + x), a0);
        _mm256_storeu_ps(out + x, a0);
    }
}

void filter_row(float *out, const float *src, const Axis &a) {
    if (has_avx2()) filter_row_avx2(out, src, a);
    else filter_row_plain(out, src, a);
}

void sum_rows(float *out, const float *const *rows, const float *w, int count, int n) {
    if (has_avx2()) sum_rows_avx2(out, rows, w, count, n);
    else sum_rows_plain(out, rows, w, count, n);
}

// ---- Elements ----

enum class Kind : uint8_t { u8, u16, u32, f32, f64 };

Kind element_of(int type, int bits) {
    if (type == PXF_C_FLOAT) return Kind::f32;
    if (type == PXF_C_DOUBLE) return Kind::f64;
    return bits <= 8 ? Kind::u8 : bits <= 16 ? Kind::u16 : Kind::u32;
}

template <class T>
void load_as(float *out, const void *row, int n) {
    auto *in = static_cast<const T *>(row);
    for (int i = 0; i < n; ++i) out[i] = static_cast<float>(in[i]);
}

void load(float *out, const void *row, int n, Kind e) {
    switch (e) {
        case Kind::u8: load_as<uint8_t>(out, row, n); break;
        case Kind::u16: load_as<uint16_t>(out, row, n); break;
        case Kind::u32: load_as<uint32_t>(out, row, n); break;
        case Kind::f32: std::memcpy(out, row, std::size_t(n) * sizeof(float)); break;
        case Kind::f64: load_as<double>(out, row, n); break;
    }
}

// Integers are rounded to the nearest value and clamped to their range.
template <class T>
void store_integers(void *row, const float *in, int n, float top) {
    auto *out = static_cast<T *>(row);
    for (int i = 0; i < n; ++i) {
        float v = in[i] + 0.5f;
        v = v > 0.0f ? v : 0.0f;  // NaN goes to 0 as well
        v = v < top ? v : top;
        out[i] = static_cast<T>(v);
    }
}

void store(void *row, const float *in, int n, Kind e, float top) {
    switch (e) {
        case Kind::u8: store_integers<uint8_t>(row, in, n, top); break;
        case Kind::u16: store_integers<uint16_t>(row, in, n, top); break;
        case Kind::u32: {
            // Floats cannot hold every 32-bit value: the top is kept exact.
            auto *out = static_cast<uint32_t *>(row);
            for (int i = 0; i < n; ++i) {
                double v = double(in[i]) + 0.5;
                out[i] = v > 0.0 ? (v < 4294967295.0 ? uint32_t(v) : UINT32_MAX) : 0;
            }
            break;
        }
        case Kind::f32: std::memcpy(row, in, std::size_t(n) * sizeof(float)); break;
        case Kind::f64: {
            auto *out = static_cast<double *>(row);
            for (int i = 0; i < n; ++i) out[i] = in[i];
            break;
        }
    }
}

int round_up8(int n) { return (n + 7) & ~7; }

}  // namespace

// ---- Kernels and axes ----

const Kernel *find_kernel(const char *name) noexcept {
    if (!name) name = kDefaultFilter;
    for (const Kernel &k : kKernels)
        if (std::strcmp(k.name, name) == 0) return &k;
    return nullptr;
}

const char *kernel_names() noexcept { return "box, triangle, catmull-rom, mitchell, lanczos3, gaussian"; }

void axis_free(Axis &a) noexcept {
    heap_free(a.first);
    heap_free(a.weights);
    a.first = nullptr;
    a.weights = nullptr;
}

bool axis_init(Axis &a, int source, int target, const Kernel &kernel, double stretch) noexcept {
    a = Axis{source, target, 0, 0, nullptr, nullptr};
    const double ratio = double(source) / double(target);
    const double widen = stretch * (ratio > 1.0 ? ratio : 1.0);
    const double support = kernel.radius * widen;
    auto centre = [&](int i) { return (i + 0.5) * ratio - 0.5; };
    auto clamp = [&](double k) { return k < 0.0 ? 0 : k > source - 1 ? source - 1 : int(k); };
    int span = 1;
    for (int i = 0; i < target; ++i) {
        double c = centre(i);
        int s = clamp(std::floor(c + support)) - clamp(std::ceil(c - support)) + 1;
        if (s > span) span = s;
    }
    a.span = span;
    a.taps = round_up8(span);
    a.first = alloc_array<int32_t>(std::size_t(target));
    a.weights = alloc_array<float>(std::size_t(target) * std::size_t(a.taps));
    auto *sums = alloc_array<double>(std::size_t(a.taps));
    if (!a.first || !a.weights || !sums) {
        heap_free(sums);
        axis_free(a);
        return false;
    }
    for (int i = 0; i < target; ++i) {
        double c = centre(i);
        double lo = std::ceil(c - support), hi = std::floor(c + support);
        int first = clamp(lo);
        std::memset(sums, 0, sizeof(double) * std::size_t(a.taps));
        double total = 0.0;
        for (double k = lo; k <= hi; k += 1.0) {
            double w = kernel.value((k - c) / widen);
            sums[clamp(k) - first] += w;  // outside the source: onto the edge pixel
            total += w;
        }
        float *w = a.weights + std::size_t(i) * std::size_t(a.taps);
        a.first[i] = first;
        if (total == 0.0) {
            // Nothing reached (a box narrower than a pixel): the nearest pixel.
            int nearest = clamp(std::floor(c + 0.5));
            a.first[i] = nearest;
            w[0] = 1.0f;
            continue;
        }
        for (int k = 0; k < a.taps; ++k) w[k] = static_cast<float>(sums[k] / total);
    }
    heap_free(sums);
    return true;
}

// ---- The engine ----

struct Resampler {
    Axis x, y;
    int32_t channels, colour;  // all channels; image channels first
    int32_t matte;             // index of the first matte channel, or -1
    float matte_scale;         // matte values to 0..1
    int32_t source_width, source_bottom, target_bottom, target_lines;
    int32_t ring_width;        // target width rounded up to 8
    Kind *elements;         // per channel
    float *tops;               // per channel: largest integer value
    float *source;             // channels x (source width + taps): one converted source row
    std::size_t source_stride;
    float *ring;               // span slots x channels x ring_width
    int32_t *ring_rows;        // the source row each slot holds, or -1
    int32_t last_line;         // the output row read last, or -1
    float *sums;               // channels x ring_width
    const float **rows;        // span: the ring rows of one output row
    void **below_rows;         // handed to the stage below
    void **out;                // the rows handed to the caller
};

void resampler_free(Resampler *r) noexcept {
    if (!r) return;
    axis_free(r->x);
    axis_free(r->y);
    heap_free(r->elements);
    heap_free(r->tops);
    heap_free(r->source);
    heap_free(r->ring);
    heap_free(r->ring_rows);
    heap_free(r->sums);
    heap_free(r->rows);
    pxf__chan_free(r->below_rows);
    pxf__chan_free(r->out);
    heap_free(r);
}

Resampler *resampler_new(const PXF_IMAGE_DESC &source, const PXF_IMAGE_DESC &target, const Kernel &kernel,
                         double stretch, const char *label) noexcept {
    auto *r = alloc_array<Resampler>(1);
    if (!r) return nullptr;
    const int sw = row_width(source), dw = row_width(target);
    const int sh = source.window.top - source.window.bottom + 1, dh = target.window.top - target.window.bottom + 1;
    int counts[3] = {source.chan.count > 0 ? source.chan.count : 0, source.matte.count > 0 ? source.matte.count : 0,
                     source.aux.count > 0 ? source.aux.count : 0};
    const PXF_CHAN_GROUP *groups[3] = {&source.chan, &source.matte, &source.aux};
    r->channels = counts[0] + counts[1] + counts[2];
    r->colour = counts[0];
    // Premultiplied colour (the convention of rendered images) filters as
    // it is; straight colour is premultiplied for filtering and divided
    // back afterwards, so that no colour bleeds out of transparent pixels.
    r->matte = counts[0] > 0 && counts[1] > 0 && source.matte.extra == PXF_MATTE_UNASSOCIATED ? counts[0] : -1;
    r->last_line = -1;
    r->source_width = sw;
    r->source_bottom = source.window.bottom;
    r->target_bottom = target.window.bottom;
    r->target_lines = dh;
    r->ring_width = round_up8(dw);
    const int n = r->channels > 0 ? r->channels : 1;
    if (!axis_init(r->x, sw, dw, kernel, stretch) || !axis_init(r->y, sh, dh, kernel, stretch)) {
        resampler_free(r);
        return nullptr;
    }
    const std::size_t span = std::size_t(r->y.span);
    r->source_stride = std::size_t(sw) + std::size_t(r->x.taps);
    r->elements = alloc_array<Kind>(std::size_t(n));
    r->tops = alloc_array<float>(std::size_t(n));
    r->source = alloc_array<float>(std::size_t(n) * r->source_stride);
    r->ring = alloc_array<float>(span * std::size_t(n) * std::size_t(r->ring_width));
    r->ring_rows = alloc_array<int32_t>(span);
    r->sums = alloc_array<float>(std::size_t(n) * std::size_t(r->ring_width));
    r->rows = alloc_array<const float *>(span);
    PXF_IMAGE_DESC s = source, t = target;
    if (!r->elements || !r->tops || !r->source || !r->ring || !r->ring_rows || !r->sums || !r->rows ||
        !(r->below_rows = pxf__chan_alloc(&s, sw, label)) || !(r->out = pxf__chan_alloc(&t, dw, label))) {
        resampler_free(r);
        return nullptr;
    }
    for (std::size_t k = 0; k < span; ++k) r->ring_rows[k] = -1;
    int c = 0;
    for (int g = 0; g < 3; ++g)
        for (int i = 0; i < counts[g]; ++i, ++c) {
            r->elements[c] = element_of(groups[g]->type, groups[g]->width);
            r->tops[c] = groups[g]->type == PXF_C_INTEGER ? float(kDivisors[std::size_t(groups[g]->width)]) : 1.0f;
        }
    r->matte_scale = r->matte >= 0 && source.matte.type == PXF_C_INTEGER ? 1.0f / r->tops[r->matte] : 1.0f;
    return r;
}

namespace {

// Reads source row `index` from below, converts it to floats (colour
// premultiplied by the matte) and filters it horizontally into its slot.
int load_row(Resampler &r, int index, PXF_SCAN_FN below, void *below_data, void **table) {
    void **in = r.below_rows;
    int status = below(below_data, r.source_bottom + index, &in, table);
    if (status < 0) return status;
    const int sw = r.source_width;
    for (int c = 0; c < r.channels; ++c) load(r.source + std::size_t(c) * r.source_stride, in[c], sw, r.elements[c]);
    if (r.matte >= 0) {
        const float *a = r.source + std::size_t(r.matte) * r.source_stride;
        for (int c = 0; c < r.colour; ++c) {
            float *v = r.source + std::size_t(c) * r.source_stride;
            for (int i = 0; i < sw; ++i) v[i] *= a[i] * r.matte_scale;
        }
    }
    const int slot = index % r.y.span;
    float *to = r.ring + std::size_t(slot) * std::size_t(r.channels) * std::size_t(r.ring_width);
    for (int c = 0; c < r.channels; ++c)
        filter_row(to + std::size_t(c) * std::size_t(r.ring_width), r.source + std::size_t(c) * r.source_stride, r.x);
    r.ring_rows[slot] = index;
    return 0;
}

}  // namespace

int resampler_read(Resampler &r, int line, PXF_SCAN_FN below, void *below_data, void ***rows,
                   void **table) noexcept {
    const int j = line - r.target_bottom;
    if (j < 0 || j >= r.target_lines)
        return fail(kErrBadScanline, kErrBadScanline, kSetMessages, 53,
                    "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
    const int first = r.y.first[j];
    const float *w = r.y.weights + std::size_t(j) * std::size_t(r.y.taps);
    int count = r.y.span;
    while (count > 1 && w[count - 1] == 0.0f) --count;
    if (first + count > r.y.source) count = r.y.source - first;
    // Missing rows are pulled in the direction the output travels, so a
    // source that reads only in order (top row first, say) sees each row
    // once and in sequence.  The first row read decides by where it lies.
    const bool downward = r.last_line >= 0 ? j < r.last_line : j > 0 && j >= r.target_lines / 2;
    r.last_line = j;
    for (int step = 0; step < count; ++step) {
        int k = downward ? count - 1 - step : step;
        int index = first + k, slot = index % r.y.span;
        if (r.ring_rows[slot] != index) {
            int status = load_row(r, index, below, below_data, table);
            if (status < 0) {
                r.ring_rows[slot] = -1;
                return status;
            }
        }
    }
    const int dw = r.x.target;
    for (int c = 0; c < r.channels; ++c) {
        for (int k = 0; k < count; ++k) {
            int slot = (first + k) % r.y.span;
            std::size_t row = std::size_t(slot) * std::size_t(r.channels) + std::size_t(c);
            r.rows[k] = r.ring + row * std::size_t(r.ring_width);
        }
        sum_rows(r.sums + std::size_t(c) * std::size_t(r.ring_width), r.rows, w, count, r.ring_width);
    }
    if (r.matte >= 0) {
        const float *a = r.sums + std::size_t(r.matte) * std::size_t(r.ring_width);
        for (int c = 0; c < r.colour; ++c) {
            float *v = r.sums + std::size_t(c) * std::size_t(r.ring_width);
            for (int i = 0; i < dw; ++i) {
                float m = a[i] * r.matte_scale;
                v[i] = m > 0.0f ? v[i] / m : 0.0f;
            }
        }
    }
    for (int c = 0; c < r.channels; ++c)
        store(r.out[c], r.sums + std::size_t(c) * std::size_t(r.ring_width), dw, r.elements[c], r.tops[c]);
    *rows = r.out;
    return 0;
}

// ---- Checks and descriptions ----

bool size_ok(int width, int height, const char *name) noexcept {
    if (width >= 1 && height >= 1 && width <= kMaxSide && height <= kMaxSide) return true;
    return fail(false, kErrCannotDo, kSetMessages, 231, "%s: bad size %d x %d (each side 1 to %d pixels)", name,
                width, height, kMaxSide);
}

const Kernel *kernel_or_report(const char *filter, const char *name) noexcept {
    if (const Kernel *k = find_kernel(filter)) return k;
    return fail<const Kernel *>(nullptr, kErrCannotDo, kSetMessages, 230, "%s: unknown filter %s (known: %s)", name,
                                filter, kernel_names());
}

bool groups_ok(const PXF_IMAGE_DESC &d) noexcept {
    for (const PXF_CHAN_GROUP *g : {&d.chan, &d.matte, &d.aux}) {
        if (g->count <= 0) continue;
        if (g->type == PXF_C_FLOAT || g->type == PXF_C_DOUBLE) continue;
        if (g->type != PXF_C_INTEGER || g->width < 1 || g->width > 32) return false;
    }
    return d.chan.count > 0 || d.matte.count > 0 || d.aux.count > 0;
}

void resize_desc(PXF_IMAGE_DESC &t, const PXF_IMAGE_DESC &s, int width, int height) noexcept {
    const int sw = row_width(s), sh = s.window.top - s.window.bottom + 1;
    const double fx = double(width) / sw, fy = double(height) / sh;
    t.window = {s.window.left, s.window.left + width - 1, s.window.bottom, s.window.bottom + height - 1};
    // The active window keeps its place in the picture: its edges are
    // mapped and rounded outward, and it stays inside the window.
    auto map = [](int v, int origin, double f, bool low, int lo, int hi) {
        double p = (v - origin + (low ? 0 : 1)) * f;
        int q = low ? int(std::floor(p + 1e-9)) : int(std::ceil(p - 1e-9)) - 1;
        q += origin;
        return q < lo ? lo : q > hi ? hi : q;
    };
    const PXF_BOUNDS &a = s.active_window;
    t.active_window.left = map(a.left, s.window.left, fx, true, t.window.left, t.window.right);
    t.active_window.right = map(a.right, s.window.left, fx, false, t.window.left, t.window.right);
    t.active_window.bottom = map(a.bottom, s.window.bottom, fy, true, t.window.bottom, t.window.top);
    t.active_window.top = map(a.top, s.window.bottom, fy, false, t.window.bottom, t.window.top);
    if (t.active_window.left > t.active_window.right || t.active_window.bottom > t.active_window.top)
        t.active_window = t.window;
    // Display aspect: the pixels keep their shape, the picture takes the new proportions.
    if (s.aspect_ratio > 0.0f) t.aspect_ratio = static_cast<float>(s.aspect_ratio * fx / fy);
    t.x_res = s.x_res > 0 ? int(std::lround(s.x_res * fx)) : s.x_res;
    t.y_res = s.y_res > 0 ? int(std::lround(s.y_res * fy)) : s.y_res;
    if (t.x_res == 0 && s.x_res > 0) t.x_res = 1;
    if (t.y_res == 0 && s.y_res > 0) t.y_res = 1;
}

}  // namespace pxf::ops
