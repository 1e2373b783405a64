// Resampling speed and quality: the scale operator beside libvips's reduce
// with the same kernel on the same pixels (one thread each), and mipmap
// generation of a texture beside maketx on the same picture.  Quality is the
// PSNR of each result against a double-precision convolution, reported as a
// counter.
#include <benchmark/benchmark.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <pxf/imp.h>
#include <pxf/pxf.h>

#ifdef PXF_BENCH_VIPS
#include <vips/vips.h>
#endif

namespace {

constexpr int kSide = 4096;

// Colour sweeps, a soft disc in the matte and some fine detail, the same in
// every run.
double pattern(int x, int y, int c) {
    double u = x / double(kSide), v = y / double(kSide);
    double d = std::hypot(u - 0.5, v - 0.5);
    if (c == 3) return std::clamp(1.5 - 3 * d, 0.0, 1.0);
    double detail = 0.15 * std::sin(0.21 * x + 1.3 * c) * std::cos(0.17 * y);
    return std::clamp(0.5 + 0.3 * std::sin(6 * u + 2 * c) * std::cos(5 * v - c) + detail, 0.0, 1.0);
}

// One picture, planar (for the library) and interleaved (for vips).
template <class T>
struct Picture {
    int channels = 4;
    std::vector<T> planes;       // [c][y][x]
    std::vector<T> interleaved;  // [y][x][c]
    Picture() {
        planes.resize(std::size_t(channels) * kSide * kSide);
        interleaved.resize(planes.size());
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x)
                for (int c = 0; c < channels; ++c) {
                    double v = pattern(x, y, c);
                    T t = sizeof(T) == 1 ? T(std::lround(v * 255)) : T(v);
                    planes[(std::size_t(c) * kSide + y) * kSide + x] = t;
                    interleaved[(std::size_t(y) * kSide + x) * channels + c] = t;
                }
    }
};

const Picture<uint8_t> &bytes() {
    static Picture<uint8_t> p;
    return p;
}
const Picture<float> &floats() {
    static Picture<float> p;
    return p;
}

// ---- A read handle over the planar picture ----

struct Source {
    const void *planes;
    std::size_t element;
    void *rows[4];
};

int source_scan(void *data, int line, void ***rows, void **) {
    auto *s = static_cast<Source *>(data);
    for (int c = 0; c < 4; ++c)
        s->rows[c] = const_cast<char *>(static_cast<const char *>(s->planes) +
                                        (std::size_t(c) * kSide + std::size_t(line)) * kSide * s->element);
    *rows = s->rows;
    return 0;
}

int source_close(PXF_IMAGE *image) {
    delete static_cast<Source *>(image->private_data[0]);
    free(image->info.images);
    free(image->private_data);
    image->private_data = nullptr;
    image->info.images = nullptr;
    return pxf__free_obj(image) ? 0 : -1;
}

PXF_IMAGE *open_source(const void *planes, bool is_float, bool matte = true) {
    auto *image = static_cast<PXF_IMAGE *>(malloc(sizeof(PXF_IMAGE)));
    pxf__init_obj(image, PXF_MODE_READ);
    auto *d = static_cast<PXF_IMAGE_DESC *>(calloc(1, sizeof(PXF_IMAGE_DESC)));
    d->curve.kind = PXF_CURVE_GAMMA;
    d->curve.gamma = 1.0f;
    d->aspect_ratio = 1.0f;
    d->window = {0, kSide - 1, 0, kSide - 1};
    d->active_window = d->window;
    int type = is_float ? PXF_C_FLOAT : PXF_C_INTEGER, bits = is_float ? 32 : 8;
    d->chan = {const_cast<char *>(matte ? "rgb" : "raw"), matte ? 3 : 4, type, bits, 0};
    d->matte = {nullptr, matte ? 1 : 0, type, bits, 0};
    d->aux = {nullptr, 0, type, bits, 0};
    d->index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    image->info.num_images = 1;
    image->info.images = d;
    image->private_data = static_cast<void **>(malloc(sizeof(void *)));
    image->private_data[0] = new Source{planes, is_float ? 4u : 1u, {}};
    image->scan = source_scan;
    image->close = source_close;
    return image;
}

// ---- The double-precision reference (separable, so that it stays quick) ----

double kernel(const std::string &name, double x) {
    const double pi = 3.14159265358979323846;
    auto sinc = [&](double t) { return t == 0 ? 1.0 : std::sin(pi * t) / (pi * t); };
    double a = std::fabs(x);
    if (name == "lanczos3") return a < 3 ? sinc(x) * sinc(x / 3) : 0;
    const double B = 1.0 / 3, C = 1.0 / 3;  // mitchell
    if (a < 1) return ((12 - 9 * B - 6 * C) * a * a * a + (-18 + 12 * B + 6 * C) * a * a + (6 - 2 * B)) / 6;
    if (a < 2)
        return ((-B - 6 * C) * a * a * a + (6 * B + 30 * C) * a * a + (-12 * B - 48 * C) * a + (8 * B + 24 * C)) / 6;
    return 0;
}

struct Weights {
    std::vector<int> first, count;
    std::vector<double> w;
    int taps = 0;
};

Weights weights(const std::string &name, int source, int target) {
    double ratio = double(source) / target, widen = std::max(1.0, ratio);
    double support = (name == "lanczos3" ? 3.0 : 2.0) * widen;
    Weights r;
    r.taps = int(2 * support) + 3;
    r.first.resize(target);
    r.count.resize(target);
    r.w.assign(std::size_t(target) * r.taps, 0.0);
    for (int i = 0; i < target; ++i) {
        double c = (i + 0.5) * ratio - 0.5;
        int lo = int(std::ceil(c - support)), hi = int(std::floor(c + support));
        int first = std::clamp(lo, 0, source - 1), last = std::clamp(hi, 0, source - 1);
        double total = 0;
        for (int k = lo; k <= hi; ++k) {
            double v = kernel(name, (k - c) / widen);
            r.w[std::size_t(i) * r.taps + (std::clamp(k, 0, source - 1) - first)] += v;
            total += v;
        }
        for (int k = 0; k < r.taps; ++k) r.w[std::size_t(i) * r.taps + k] /= total;
        r.first[i] = first;
        r.count[i] = last - first + 1;
    }
    return r;
}

// Reference at `target`² of a planar picture, colour premultiplied by the
// matte (channel 3), normalised to 0..1: [c][y][x].
template <class T>
std::vector<double> reference(const Picture<T> &p, int target, const std::string &name, bool matte) {
    const double scale = sizeof(T) == 1 ? 1.0 / 255 : 1.0;
    Weights wx = weights(name, kSide, target), wy = weights(name, kSide, target);
    std::vector<double> rows(std::size_t(4) * kSide * target), out(std::size_t(4) * target * target);
    auto in = [&](int c, int y, int x) { return p.planes[(std::size_t(c) * kSide + y) * kSide + x] * scale; };
    for (int y = 0; y < kSide; ++y)
        for (int i = 0; i < target; ++i) {
            double acc[4] = {};
            for (int k = 0; k < wx.count[i]; ++k) {
                int x = wx.first[i] + k;
                double w = wx.w[std::size_t(i) * wx.taps + k], a = matte ? in(3, y, x) : 1.0;
                for (int c = 0; c < 3; ++c) acc[c] += w * in(c, y, x) * a;
                acc[3] += w * in(3, y, x);
            }
            for (int c = 0; c < 4; ++c) rows[(std::size_t(c) * kSide + y) * target + i] = acc[c];
        }
    for (int j = 0; j < target; ++j)
        for (int i = 0; i < target; ++i) {
            double acc[4] = {};
            for (int k = 0; k < wy.count[j]; ++k) {
                double w = wy.w[std::size_t(j) * wy.taps + k];
                for (int c = 0; c < 4; ++c) acc[c] += w * rows[(std::size_t(c) * kSide + wy.first[j] + k) * target + i];
            }
            for (int c = 0; c < 3; ++c)
                out[(std::size_t(c) * target + j) * target + i] = !matte ? acc[c] : acc[3] > 0 ? acc[c] / acc[3] : 0;
            out[(std::size_t(3) * target + j) * target + i] = acc[3];
        }
    return out;
}

// PSNR in dB over colour and matte, values in 0..1 (the reference clamped
// as integer results are).
double psnr(const std::vector<double> &ref, const std::function<double(int c, int y, int x)> &got, int target,
            bool clamp) {
    double sum = 0;
    for (int c = 0; c < 4; ++c)
        for (int y = 0; y < target; ++y)
            for (int x = 0; x < target; ++x) {
                double r = ref[(std::size_t(c) * target + y) * target + x];
                if (clamp) r = std::clamp(r, 0.0, 1.0);
                double e = got(c, y, x) - r;
                sum += e * e;
            }
    double mse = sum / (4.0 * target * target);
    return mse > 0 ? 10 * std::log10(1.0 / mse) : 999;
}

// ---- The library ----

template <class T>
void BM_pxf_scale(benchmark::State &state, const Picture<T> &p, int target, const char *filter, bool matte) {
    std::vector<T> result(std::size_t(4) * target * target);
    for (auto _ : state) {
        PXF_IMAGE *image = open_source(p.planes.data(), sizeof(T) == 4, matte);
        PXF__scale_init(image, target, target, filter);
        for (int y = 0; y < target; ++y) {
            void **rows = nullptr;
            if (PXF_scan_read(image, y, &rows) < 0) state.SkipWithError("scan failed");
            for (int c = 0; c < 4; ++c)
                std::memcpy(&result[(std::size_t(c) * target + y) * target], rows[c], std::size_t(target) * sizeof(T));
        }
        PXF_close(image);
    }
    std::vector<double> ref = reference(p, target, filter, matte);
    const double scale = sizeof(T) == 1 ? 1.0 / 255 : 1.0;
    state.counters["psnr_dB"] = psnr(
        ref, [&](int c, int y, int x) { return result[(std::size_t(c) * target + y) * target + x] * scale; }, target,
        sizeof(T) == 1);
    state.counters["Mpix_out/s"] =
        benchmark::Counter(double(target) * target * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}

// ---- libvips, one thread, the same kernel ----

#ifdef PXF_BENCH_VIPS
template <class T>
void BM_vips_reduce(benchmark::State &state, const Picture<T> &p, int target, VipsKernel kernel, const char *name,
                    bool matte) {
    static bool started = [] {
        if (VIPS_INIT("resample_bench")) return false;
        vips_concurrency_set(1);
        vips_cache_set_max(0);
        return true;
    }();
    if (!started) return state.SkipWithError("vips did not start");
    const double shrink = double(kSide) / target;
    std::vector<T> result;
    for (auto _ : state) {
        VipsImage *in = vips_image_new_from_memory(p.interleaved.data(), p.interleaved.size() * sizeof(T), kSide, kSide,
                                                   4, sizeof(T) == 1 ? VIPS_FORMAT_UCHAR : VIPS_FORMAT_FLOAT);
        // Colour premultiplied by the matte around the filter, as the library does.
        VipsImage *pre = nullptr, *reduced = nullptr, *un = nullptr, *cast = nullptr;
        int failed;
        if (matte) {
            // vips_premultiply expects the matte's range as its maximum.
            failed = vips_premultiply(in, &pre, "max_alpha", sizeof(T) == 1 ? 255.0 : 1.0, NULL) ||
                     vips_reduce(pre, &reduced, shrink, shrink, "kernel", kernel, NULL) ||
                     vips_unpremultiply(reduced, &un, "max_alpha", sizeof(T) == 1 ? 255.0 : 1.0, NULL) ||
                     vips_cast(un, &cast, sizeof(T) == 1 ? VIPS_FORMAT_UCHAR : VIPS_FORMAT_FLOAT, NULL);
        } else if (shrink < 1.0) {
            // Its reduce refuses to enlarge; resize enlarges by interpolation
            // (bicubic for this kernel), the nearest it offers.
            failed = vips_resize(in, &reduced, 1.0 / shrink, "kernel", kernel, NULL) || vips_copy(reduced, &cast, NULL);
        } else {
            failed = vips_reduce(in, &reduced, shrink, shrink, "kernel", kernel, NULL) ||
                     vips_copy(reduced, &cast, NULL);
        }
        if (failed) {
            state.SkipWithError(vips_error_buffer());
            vips_error_clear();
            break;
        }
        size_t size = 0;
        void *memory = vips_image_write_to_memory(cast, &size);
        if (!memory || size != std::size_t(target) * target * 4 * sizeof(T)) {
            state.SkipWithError("vips gave another size");
            g_free(memory);
            break;
        }
        result.assign(static_cast<T *>(memory), static_cast<T *>(memory) + size / sizeof(T));
        g_free(memory);
        for (VipsImage *i : {in, pre, reduced, un, cast})
            if (i) g_object_unref(i);
    }
    if (result.empty()) return;
    std::vector<double> ref = reference(p, target, name, matte);
    const double scale = sizeof(T) == 1 ? 1.0 / 255 : 1.0;
    state.counters["psnr_dB"] = psnr(
        ref, [&](int c, int y, int x) { return result[(std::size_t(y) * target + x) * 4 + c] * scale; }, target,
        sizeof(T) == 1);
    state.counters["Mpix_out/s"] =
        benchmark::Counter(double(target) * target * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}
#endif

// ---- Mipmaps beside maketx ----

const std::string &scratch() {
    static std::string dir = [] {
        char name[] = "/tmp/pxf_resample_bench_XXXXXX";
        if (!mkdtemp(name)) return std::string();
        // The pictures and textures go when the program ends.
        std::atexit([] {
            for (const char *file : {"picture.rla", "picture.tif", "texture.rla", "texture.tx"})
                unlink((scratch() + "/" + file).c_str());
            rmdir(scratch().c_str());
        });
        return std::string(name);
    }();
    return dir;
}

// The RGBA8 picture as an RLA file (the library's input) and an
// uncompressed TIFF (maketx's), written once.
std::string picture_file(const char *extension) {
    std::string rla = scratch() + "/picture.rla", tif = scratch() + "/picture.tif";
    static bool written = [&] {
        if (scratch().empty()) return false;
        PXF_IMAGE *source = open_source(bytes().planes.data(), false);
        PXF_INFO out;
        PXF_info_init(&out);
        out.key = const_cast<char *>("rla");
        out.handle = const_cast<char *>(rla.c_str());
        bool ok = IMP_run(IMP_NONE, source, &out, nullptr) == 0;
        PXF_close(source);
        std::string command = "convert -size 4096x4096 -depth 8 rgba:- -compress none " + tif;
        FILE *pipe = popen(command.c_str(), "w");
        ok = ok && pipe && fwrite(bytes().interleaved.data(), 1, bytes().interleaved.size(), pipe) ==
                               bytes().interleaved.size();
        if (pipe) ok = pclose(pipe) == 0 && ok;
        return ok;
    }();
    if (!written) return "";
    return std::string(extension) == "rla" ? rla : tif;
}

void BM_pxf_mipmap(benchmark::State &state, const char *filter) {
    std::string in = picture_file("rla"), out = scratch() + "/texture.rla";
    if (in.empty()) return state.SkipWithError("cannot write the picture");
    IMP_OPTIONS options;
    IMP_options_init(&options);
    options.filter = filter;
    for (auto _ : state) {
        PXF_INFO info;
        PXF_info_init(&info);
        info.handle = const_cast<char *>(in.c_str());
        PXF_IMAGE *source = PXF_open(&info, "r");
        PXF_INFO texture;
        PXF_info_init(&texture);
        texture.key = const_cast<char *>("rla");
        texture.handle = const_cast<char *>(out.c_str());
        if (!source || IMP_run(IMP_MIPMAP, source, &texture, &options) != 0) state.SkipWithError("mipmap failed");
        if (source) PXF_close(source);
    }
}

void BM_maketx(benchmark::State &state, const char *filter, int threads) {
    std::string in = picture_file("tif"), out = scratch() + "/texture.tx";
    if (in.empty()) return state.SkipWithError("cannot write the picture");
    std::string command = "maketx --threads " + std::to_string(threads) + " --filter " + filter +
                          " --compression none " + in + " -o " + out + " >/dev/null 2>&1";
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) state.SkipWithError("maketx failed (is openimageio-tools installed?)");
}

void register_all() {
    // Process CPU time counts vips's worker thread as well; real time is
    // shown beside it (the machine may be shared).
    auto ms = [](benchmark::internal::Benchmark *b) {
        b->Unit(benchmark::kMillisecond)->MinTime(1.0)->MeasureProcessCPUTime();
    };
    struct Job {
        const char *name;
        bool is_float;
        int target;
        const char *filter;
    };
    static const Job jobs[] = {{"rgba8_4096_to_1024", false, 1024, "lanczos3"},
                               {"rgba8_4096_to_5000", false, 5000, "lanczos3"},
                               {"rgbaf_4096_to_2048", true, 2048, "mitchell"}};
    for (const Job &j : jobs)
        for (bool matte : {false, true}) {
            if (matte && j.target > kSide) continue;  // vips enlarges by interpolation only
            std::string base = std::string("scale/") + j.name + "/" + j.filter + (matte ? "/premultiplied" : "/plain");
            ms(benchmark::RegisterBenchmark((base + "/pxf").c_str(), [&j, matte](benchmark::State &s) {
                if (j.is_float) BM_pxf_scale(s, floats(), j.target, j.filter, matte);
                else BM_pxf_scale(s, bytes(), j.target, j.filter, matte);
            }));
#ifdef PXF_BENCH_VIPS
            ms(benchmark::RegisterBenchmark((base + "/vips").c_str(), [&j, matte](benchmark::State &s) {
                VipsKernel k = std::string(j.filter) == "lanczos3" ? VIPS_KERNEL_LANCZOS3 : VIPS_KERNEL_MITCHELL;
                if (j.is_float) BM_vips_reduce(s, floats(), j.target, k, j.filter, matte);
                else BM_vips_reduce(s, bytes(), j.target, k, j.filter, matte);
            }));
#endif
        }
    for (const char *filter : {"box", "lanczos3"}) {
        ms(benchmark::RegisterBenchmark((std::string("mipmap/rgba8_4096/") + filter + "/pxf").c_str(),
                                        [filter](benchmark::State &s) { BM_pxf_mipmap(s, filter); }));
        for (int threads : {1, 0})
            ms(benchmark::RegisterBenchmark(
                (std::string("mipmap/rgba8_4096/") + filter + "/maketx_threads_" + (threads ? "1" : "all")).c_str(),
                [filter, threads](benchmark::State &s) { BM_maketx(s, filter, threads); }));
    }
}

const int registered = (register_all(), 0);

}  // namespace
