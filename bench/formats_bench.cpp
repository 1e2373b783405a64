// The exr and jpeg drivers against their libraries used directly, on the
// same 4096 x 4096 pixels in the same program: writing and reading an RGBA
// half EXR (ZIP and PIZ) and an RGB JPEG (quality 90).  Both sides start
// from (or end in) channel-planar rows in memory, as an application holds
// them: floats for EXR, bytes for JPEG.  Figures are pixels per second.
#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <unistd.h>

#include <Imath/half.h>
#include <ImfChannelList.h>
#include <ImfCompression.h>
#include <ImfHeader.h>
#include <ImfLineOrder.h>
#include <ImfFrameBuffer.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <exr_alias.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <jpeglib.h>

#include <pxf/pxf.h>

namespace {


constexpr int kSize = 4096;

std::string scratch(const char *name) {
    static std::string dir = [] {
        char t[] = "/tmp/pxf-bench-XXXXXX";
        if (!mkdtemp(t)) std::abort();
        return std::string(t);
    }();
    return dir + "/" + name;
}

void **modules_loaded() {
    static void *modules[2] = {dlopen(PLUGIN_DIR "/exr.so", RTLD_NOW | RTLD_LOCAL),
                               dlopen(PLUGIN_DIR "/jpeg.so", RTLD_NOW | RTLD_LOCAL)};
    static bool ready = [] {
        static int next = 0;
        if (!modules[0] || !modules[1]) return false;
        return PXF_init(nullptr, [](void **library, const char **name) {
                   if (next >= 2) return 0;
                   *name = next ? "jpeg" : "exr";
                   *library = modules[next++];
                   return 1;
               }) == 0;
    }();
    return ready ? modules : nullptr;
}

// A rendered-looking frame: gradients, a soft disc and a little noise.
float value(int c, int x, int y) {
    double dx = x - 2048.0, dy = y - 2048.0, r = std::sqrt(dx * dx + dy * dy);
    double v = c == 3 ? std::clamp(1500.0 - r, 0.0, 1.0) : 0.5 + 0.4 * std::sin(x * 0.003 * (c + 1) + y * 0.002);
    return float(v + ((x * 7 + y * 13 + c) % 17) * 0.0005);
}

const std::vector<float> &planes() {  // [y][c][x]
    static std::vector<float> p = [] {
        std::vector<float> v(std::size_t(kSize) * kSize * 4);
        for (int y = 0; y < kSize; ++y)
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < kSize; ++x) v[(std::size_t(y) * 4 + c) * kSize + x] = value(c, x, y);
        return v;
    }();
    return p;
}

const std::vector<uint8_t> &bytes() {  // [y][c][x], RGB
    static std::vector<uint8_t> b = [] {
        std::vector<uint8_t> v(std::size_t(kSize) * kSize * 3);
        for (int y = 0; y < kSize; ++y)
            for (int c = 0; c < 3; ++c)
                for (int x = 0; x < kSize; ++x)
                    v[(std::size_t(y) * 3 + c) * kSize + x] = uint8_t(std::clamp(value(c, x, y), 0.0f, 1.0f) * 255);
        return v;
    }();
    return b;
}

const char *kCompression[] = {"zip", "piz"};
const exrlib::Compression kCompressions[] = {exrlib::ZIP_COMPRESSION, exrlib::PIZ_COMPRESSION};

// ---- EXR ----

void ExrWriteDriver(benchmark::State &state) {
    if (!modules_loaded()) return state.SkipWithError("driver modules not found");
    const auto &p = planes();
    std::string path = scratch("driver.exr");
    for (auto _ : state) {
        PXF_IMAGE_DESC d{};
        d.image_kind = d.step = 1;
        d.curve.kind = PXF_CURVE_GAMMA;
        d.curve.gamma = 1.0f;
        d.window = d.active_window = {0, kSize - 1, 0, kSize - 1};
        d.chan = {nullptr, 3, PXF_C_FLOAT, 16, 0};
        d.matte = {nullptr, 1, PXF_C_FLOAT, 16, 0};
        d.aux = {nullptr, 0, PXF_C_FLOAT, 16, 0};
        d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = const_cast<char *>("exr");
        info.handle = path.data();
        info.compression = const_cast<char *>(kCompression[state.range(0)]);
        info.num_images = 1;
        info.images = &d;
        PXF_IMAGE *image = PXF_open(&info, "w");
        PXF_info_cleanup(&info, 0);
        if (!image) return state.SkipWithError("open failed");
        for (int line = kSize - 1; line >= 0; --line) {
            void *rows[4];
            for (int c = 0; c < 4; ++c) rows[c] = const_cast<float *>(&p[(std::size_t(kSize - 1 - line) * 4 + c) * kSize]);
            void **r = rows;
            PXF_scan_write(image, line, &r);
        }
        if (PXF_close(image) != 0) return state.SkipWithError("close failed");
    }
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

void ExrWriteDirect(benchmark::State &state) {
    const auto &p = planes();
    std::string path = scratch("direct.exr");
    const char *names[4] = {"R", "G", "B", "A"};
    const int lines = state.range(0) == 0 ? 16 : 32;
    std::vector<Imath::half> block(std::size_t(lines) * kSize * 4);
    for (auto _ : state) {
        exrlib::Header h(kSize, kSize, 1.0f, Imath::V2f(0, 0), 1.0f, exrlib::INCREASING_Y, kCompressions[state.range(0)]);
        for (const char *n : names) h.channels().insert(n, exrlib::Channel(exrlib::HALF));
        exrlib::OutputFile out(path.c_str(), h);
        for (int y0 = 0; y0 < kSize; y0 += lines) {
            for (int y = y0; y < y0 + lines; ++y)
                for (int c = 0; c < 4; ++c)
                    for (int x = 0; x < kSize; ++x)
                        block[(std::size_t(c) * lines + (y - y0)) * kSize + x] = Imath::half(p[(std::size_t(y) * 4 + c) * kSize + x]);
            exrlib::FrameBuffer fb;
            for (int c = 0; c < 4; ++c)
                fb.insert(names[c], exrlib::Slice(exrlib::HALF,
                                               reinterpret_cast<char *>(&block[std::size_t(c) * lines * kSize]) -
                                                   std::ptrdiff_t(y0) * kSize * 2,
                                               2, std::size_t(kSize) * 2));
            out.setFrameBuffer(fb);
            out.writePixels(lines);
        }
    }
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

// Reads the file through the driver of `key` once per iteration, summing
// one sample of channel `probe` per row so that nothing is optimised away.
template <class Sample, int Channels>
void read_through_driver(benchmark::State &state, const char *key, std::string path, int probe) {
    double sum = 0;
    for (auto _ : state) {
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = const_cast<char *>(key);
        info.handle = path.data();
        PXF_IMAGE *image = PXF_open(&info, "r");
        PXF_info_cleanup(&info, 0);
        if (!image) return state.SkipWithError("open failed");
        for (int line = kSize - 1; line >= 0; --line) {
            void *none[Channels] = {};
            void **r = none;
            PXF_scan_read(image, line, &r);
            sum += static_cast<Sample *>(r[probe])[line];
        }
        PXF_close(image);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

void ExrReadDriver(benchmark::State &state) {
    if (!modules_loaded()) return state.SkipWithError("driver modules not found");
    read_through_driver<float, 4>(state, "exr", scratch(state.range(0) ? "read_piz.exr" : "read_zip.exr"), 3);
}

void ExrReadDirect(benchmark::State &state) {
    std::string path = scratch(state.range(0) ? "read_piz.exr" : "read_zip.exr");
    const char *names[4] = {"R", "G", "B", "A"};
    const int lines = state.range(0) == 0 ? 16 : 32;
    std::vector<float> block(std::size_t(lines) * kSize * 4);
    double sum = 0;
    for (auto _ : state) {
        exrlib::InputFile in(path.c_str());
        for (int y0 = 0; y0 < kSize; y0 += lines) {
            exrlib::FrameBuffer fb;
            for (int c = 0; c < 4; ++c)
                fb.insert(names[c], exrlib::Slice(exrlib::FLOAT,
                                               reinterpret_cast<char *>(&block[std::size_t(c) * lines * kSize]) -
                                                   std::ptrdiff_t(y0) * kSize * 4,
                                               4, std::size_t(kSize) * 4));
            in.setFrameBuffer(fb);
            in.readPixels(y0, y0 + lines - 1);
            sum += block[std::size_t(3) * lines * kSize + y0 % kSize];
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

// The files both readers read, written once by the library directly.
void prepare_exr_files() {
    static bool done = [] {
        for (int k = 0; k < 2; ++k) {
            const auto &p = planes();
            const char *names[4] = {"R", "G", "B", "A"};
            exrlib::Header h(kSize, kSize, 1.0f, Imath::V2f(0, 0), 1.0f, exrlib::INCREASING_Y, kCompressions[k]);
            for (const char *n : names) h.channels().insert(n, exrlib::Channel(exrlib::HALF));
            std::vector<Imath::half> all(std::size_t(kSize) * kSize * 4);
            for (std::size_t i = 0; i < all.size(); ++i) all[i] = Imath::half(p[i]);
            exrlib::OutputFile out(scratch(k ? "read_piz.exr" : "read_zip.exr").c_str(), h);
            exrlib::FrameBuffer fb;
            for (int c = 0; c < 4; ++c)
                fb.insert(names[c], exrlib::Slice(exrlib::HALF, reinterpret_cast<char *>(&all[std::size_t(c) * kSize]), 2,
                                               std::size_t(kSize) * 2 * 4));
            out.setFrameBuffer(fb);
            out.writePixels(kSize);
        }
        return true;
    }();
    (void)done;
}

// ---- JPEG ----

void JpegWriteDriver(benchmark::State &state) {
    if (!modules_loaded()) return state.SkipWithError("driver modules not found");
    const auto &b = bytes();
    std::string path = scratch("driver.jpg");
    for (auto _ : state) {
        PXF_IMAGE_DESC d{};
        d.image_kind = d.step = 1;
        d.curve.kind = PXF_CURVE_GAMMA;
        d.curve.gamma = 2.2f;
        d.window = d.active_window = {0, kSize - 1, 0, kSize - 1};
        d.chan = {nullptr, 3, PXF_C_INTEGER, 8, 0};
        d.matte = d.aux = {nullptr, 0, PXF_C_INTEGER, 8, 0};
        d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = const_cast<char *>("jpeg");
        info.handle = path.data();
        info.num_images = 1;
        info.images = &d;
        PXF_IMAGE *image = PXF_open(&info, "w");
        PXF_info_cleanup(&info, 0);
        if (!image) return state.SkipWithError("open failed");
        for (int line = kSize - 1; line >= 0; --line) {
            void *rows[3];
            for (int c = 0; c < 3; ++c) rows[c] = const_cast<uint8_t *>(&b[(std::size_t(kSize - 1 - line) * 3 + c) * kSize]);
            void **r = rows;
            PXF_scan_write(image, line, &r);
        }
        if (PXF_close(image) != 0) return state.SkipWithError("close failed");
    }
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

void JpegWriteDirect(benchmark::State &state) {
    const auto &b = bytes();
    std::string path = scratch("direct.jpg");
    std::vector<JSAMPLE> row(std::size_t(kSize) * 3);
    for (auto _ : state) {
        FILE *f = std::fopen(path.c_str(), "wb");
        jpeg_compress_struct out;
        jpeg_error_mgr err;
        out.err = jpeg_std_error(&err);
        jpeg_create_compress(&out);
        jpeg_stdio_dest(&out, f);
        out.image_width = out.image_height = kSize;
        out.input_components = 3;
        out.in_color_space = JCS_RGB;
        jpeg_set_defaults(&out);
        jpeg_set_quality(&out, 90, TRUE);
        jpeg_start_compress(&out, TRUE);
        for (int y = 0; y < kSize; ++y) {
            for (int c = 0; c < 3; ++c)
                for (int x = 0; x < kSize; ++x) row[std::size_t(x) * 3 + c] = b[(std::size_t(y) * 3 + c) * kSize + x];
            JSAMPROW r = row.data();
            jpeg_write_scanlines(&out, &r, 1);
        }
        jpeg_finish_compress(&out);
        jpeg_destroy_compress(&out);
        std::fclose(f);
    }
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

void JpegReadDriver(benchmark::State &state) {
    if (!modules_loaded()) return state.SkipWithError("driver modules not found");
    read_through_driver<uint8_t, 3>(state, "jpeg", scratch("direct.jpg"), 1);
}

void JpegReadDirect(benchmark::State &state) {
    std::string path = scratch("direct.jpg");
    std::vector<JSAMPLE> row(std::size_t(kSize) * 3), planes(std::size_t(kSize) * 3);
    long sum = 0;
    for (auto _ : state) {
        FILE *f = std::fopen(path.c_str(), "rb");
        jpeg_decompress_struct in;
        jpeg_error_mgr err;
        in.err = jpeg_std_error(&err);
        jpeg_create_decompress(&in);
        jpeg_stdio_src(&in, f);
        jpeg_read_header(&in, TRUE);
        jpeg_start_decompress(&in);
        while (in.output_scanline < in.output_height) {
            JSAMPROW r = row.data();
            jpeg_read_scanlines(&in, &r, 1);
            // Into channel rows, as the application's layout has them.
            for (int c = 0; c < 3; ++c)
                for (int x = 0; x < kSize; ++x) planes[std::size_t(c) * kSize + x] = row[std::size_t(x) * 3 + c];
            sum += planes[kSize + in.output_scanline % kSize];
        }
        jpeg_finish_decompress(&in);
        jpeg_destroy_decompress(&in);
        std::fclose(f);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * kSize * kSize);
}

void Setup(const benchmark::State &) {
    prepare_exr_files();
    bytes();
}

}  // namespace

BENCHMARK(ExrWriteDriver)->Arg(0)->Arg(1)->ArgName("piz")->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(ExrWriteDirect)->Arg(0)->Arg(1)->ArgName("piz")->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(ExrReadDriver)->Arg(0)->Arg(1)->ArgName("piz")->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(ExrReadDirect)->Arg(0)->Arg(1)->ArgName("piz")->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(JpegWriteDirect)->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(JpegWriteDriver)->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(JpegReadDriver)->Unit(benchmark::kMillisecond)->Setup(Setup);
BENCHMARK(JpegReadDirect)->Unit(benchmark::kMillisecond)->Setup(Setup);
