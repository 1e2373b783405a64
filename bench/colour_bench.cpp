// The colour stages through a real chain: 8-bit rgb to rgb on rows of 4096
// pixels in pixels per second, beside Little CMS 2 doing a matrix-shaper
// transform between the same primaries on the same data; and the display
// chain from float RGBA to 8-bit, beside memcpy of the output bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <pxf/pxf.h>
#include <pxf/rfl.h>

#if PXF_BENCH_LCMS2
#include <lcms2.h>
#endif

namespace {

constexpr int kWidth = 4096;

// Both sides white D65, so that no chromatic adaptation enters the peer.
constexpr double kSource[8] = {0.67, 0.33, 0.21, 0.71, 0.14, 0.08, 0.3127, 0.3290};
constexpr double kTarget[8] = {0.64, 0.33, 0.30, 0.60, 0.15, 0.06, 0.3127, 0.3290};
constexpr float kGamma = 2.2f;

// A stage at the bottom that hands over the same rows every time.
struct Source {
    void **rows;
};

int source_scan(void *data, int, void ***rows, void **) {
    *rows = static_cast<Source *>(data)->rows;
    return 0;
}

int source_close(PXF_IMAGE *image) {
    image->private_data[0] = nullptr;  // the source is the benchmark's
    pxf__free_obj(image);
    return 0;
}

PXF_IMAGE *open_source(Source &source, int channels, int mattes, int type, int bits) {
    auto *image = static_cast<PXF_IMAGE *>(std::calloc(1, sizeof(PXF_IMAGE)));
    pxf__init_obj(image, PXF_MODE_READ);
    auto *d = static_cast<PXF_IMAGE_DESC *>(std::calloc(1, sizeof(PXF_IMAGE_DESC)));
    d->image_kind = 1;
    d->curve = {PXF_CURVE_GAMMA, type == PXF_C_FLOAT ? 1.0f : kGamma, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d->window = d->active_window = {0, kWidth - 1, 0, 0};
    d->chan = {strdup("rgb"), channels, type, bits, 0};
    d->matte = {nullptr, mattes, type, bits, 0};
    d->aux = {nullptr, 0, type, bits, 0};
    d->index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    image->info.num_images = 1;
    image->info.images = d;
    float *p[4] = {image->info.red_pri, image->info.green_pri, image->info.blue_pri, image->info.white_pt};
    for (int k = 0; k < 4; ++k)
        p[k][0] = float(kSource[2 * k]), p[k][1] = float(kSource[2 * k + 1]), p[k][2] = 1 - p[k][0] - p[k][1];
    image->private_data = static_cast<void **>(std::calloc(1, sizeof(void *)));
    image->private_data[0] = &source;
    source.rows = pxf__chan_alloc(d, kWidth, "bench");
    image->scan = source_scan;
    image->close = source_close;
    return image;
}

std::vector<uint8_t> random_bytes(std::size_t n) {
    std::mt19937 rng(11);
    std::vector<uint8_t> v(n);
    for (auto &b : v) b = uint8_t(rng());
    return v;
}

void BM_rgb_rgb_8bit(benchmark::State &state) {
    Source source;
    PXF_IMAGE *image = open_source(source, 3, 0, PXF_C_INTEGER, 8);
    std::vector<uint8_t> data = random_bytes(3 * kWidth);
    for (int c = 0; c < 3; ++c) std::memcpy(source.rows[c], data.data() + c * kWidth, kWidth);
    RFL_init(3, 1, kTarget[0], kTarget[1], kTarget[2], kTarget[3], kTarget[4], kTarget[5], kTarget[6], kTarget[7]);
    PXF_RESPONSE_CURVE display = {PXF_CURVE_GAMMA, kGamma, nullptr, 0, 0, 0, 0, nullptr};
    PXF__rgb_rgb_init(image, &display);
    if (static_cast<PXF_OPERATOR *>(image->private_data[0])->tag != PXF_OP_RGB_RGB) state.SkipWithError("not installed");
    void **rows = nullptr;
    for (auto _ : state) {
        PXF_scan_read(image, 0, &rows);
        benchmark::DoNotOptimize(rows);
        benchmark::ClobberMemory();
    }
    state.counters["Mpixel/s"] = benchmark::Counter(double(state.iterations()) * kWidth / 1e6, benchmark::Counter::kIsRate);
    PXF_close(image);
    pxf__chan_free(source.rows);
    RFL_done();
}
BENCHMARK(BM_rgb_rgb_8bit);

#if PXF_BENCH_LCMS2
cmsHPROFILE profile(const double *xy) {
    cmsCIExyY white = {xy[6], xy[7], 1.0};
    cmsCIExyYTRIPLE primaries = {{xy[0], xy[1], 1.0}, {xy[2], xy[3], 1.0}, {xy[4], xy[5], 1.0}};
    cmsToneCurve *curve = cmsBuildGamma(nullptr, kGamma);
    cmsToneCurve *curves[3] = {curve, curve, curve};
    cmsHPROFILE p = cmsCreateRGBProfile(&white, &primaries, curves);
    cmsFreeToneCurve(curve);
    return p;
}

// The same primaries and curves through Little CMS, planar rows like ours
// (arg 1) or interleaved pixels (arg 0), its default optimisation.
void BM_lcms2_rgb_rgb_8bit(benchmark::State &state) {
    const bool planar = state.range(0) != 0;
    cmsHPROFILE from = profile(kSource), to = profile(kTarget);
    cmsUInt32Number format = planar ? TYPE_RGB_8_PLANAR : TYPE_RGB_8;
    cmsHTRANSFORM t = cmsCreateTransform(from, format, to, format, INTENT_RELATIVE_COLORIMETRIC, 0);
    std::vector<uint8_t> in = random_bytes(3 * kWidth), out(3 * kWidth);
    for (auto _ : state) {
        cmsDoTransform(t, in.data(), out.data(), kWidth);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.counters["Mpixel/s"] = benchmark::Counter(double(state.iterations()) * kWidth / 1e6, benchmark::Counter::kIsRate);
    cmsDeleteTransform(t);
    cmsCloseProfile(from);
    cmsCloseProfile(to);
}
BENCHMARK(BM_lcms2_rgb_rgb_8bit)->Arg(0)->Arg(1);
#endif

// Float RGBA, linear, to 8-bit RGBA for a gamma 2.2 display.
void BM_display_float_rgba_to_8bit(benchmark::State &state) {
    Source source;
    PXF_IMAGE *image = open_source(source, 3, 1, PXF_C_FLOAT, 32);
    std::mt19937 rng(5);
    for (int c = 0; c < 4; ++c)
        for (int x = 0; x < kWidth; ++x)
            static_cast<float *>(source.rows[c])[x] = c == 3 ? 1.0f : float(rng() % 1000) / 1000.0f;
    PXF_RESPONSE_CURVE display = {PXF_CURVE_GAMMA, kGamma, nullptr, 0, 0, 0, 0, nullptr};
    PXF__display(image, PXF_DISPLAY_RED | PXF_DISPLAY_GREEN | PXF_DISPLAY_BLUE | PXF_DISPLAY_MATTE, nullptr, &display);
    if (static_cast<PXF_OPERATOR *>(image->private_data[0])->tag != PXF_OP_DISPLAY) state.SkipWithError("not installed");
    void **rows = nullptr;
    for (auto _ : state) {
        PXF_scan_read(image, 0, &rows);
        benchmark::DoNotOptimize(rows);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 4 * kWidth);
    state.counters["Mpixel/s"] = benchmark::Counter(double(state.iterations()) * kWidth / 1e6, benchmark::Counter::kIsRate);
    PXF_close(image);
    pxf__chan_free(source.rows);
}
BENCHMARK(BM_display_float_rgba_to_8bit);

// What the display chain delivers, copied: 4096 pixels x 4 bytes.
void BM_memcpy_display_output(benchmark::State &state) {
    std::vector<uint8_t> in(4 * kWidth, 7), out(4 * kWidth);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), in.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 4 * kWidth);
}
BENCHMARK(BM_memcpy_display_output);

}  // namespace
