// Writing and reading a 4096 x 4096 RGBA 8-bit image as an RLA file through
// PXF_open / PXF_scan_write / PXF_scan_read, next to fwrite and fread of the
// same pixels uncompressed.  Figures are MB/s of raw pixels (64 MiB per image).
//
// The picture is what a renderer hands over: a flat background, smooth
// gradients, a noisy textured band and a matte that is mostly 0 or 255.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <pxf/pxf.h>

namespace {

constexpr int kSize = 4096;
constexpr int kChannels = 4;
constexpr std::size_t kRowBytes = std::size_t(kSize) * kChannels;
constexpr std::size_t kImageBytes = kRowBytes * kSize;

// Channel-planar rows: line y, channel c starts at (y * kChannels + c) * kSize.
const std::vector<uint8_t> &picture() {
    static const std::vector<uint8_t> pixels = [] {
        std::vector<uint8_t> p(kImageBytes);
        std::mt19937 rng(4096);
        for (int y = 0; y < kSize; ++y) {
            uint8_t *row = p.data() + std::size_t(y) * kRowBytes;
            for (int x = 0; x < kSize; ++x) {
                double dx = x - 2048.0, dy = y - 2048.0;
                bool inside = dx * dx + dy * dy < 1500.0 * 1500.0;
                bool textured = inside && y % 512 < 160;
                uint8_t noise = textured ? uint8_t(rng() % 48) : 0;
                for (int c = 0; c < 3; ++c) {
                    uint8_t v = inside ? uint8_t((x / 16 + y / 24 + c * 40) & 0xff) : uint8_t(20 + c);
                    row[std::size_t(c) * kSize + x] = uint8_t(v + noise);
                }
                double edge = 1500.0 - std::sqrt(dx * dx + dy * dy);
                row[3 * std::size_t(kSize) + x] = edge >= 1 ? 255 : edge <= 0 ? 0 : uint8_t(edge * 255);
            }
        }
        return p;
    }();
    return pixels;
}

std::string temp_path(const char *name) {
    const char *dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/pxf-bench-" + std::to_string(getpid()) + "-" + name;
}

PXF_IMAGE_DESC rgba() {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = 1;
    d.curve.kind = PXF_CURVE_GAMMA;
    d.curve.gamma = 2.2f;
    d.window = {0, kSize - 1, 0, kSize - 1};
    d.active_window = d.window;
    d.step = d.orientation = 1;
    d.chan = {const_cast<char *>("rgb"), 3, PXF_C_INTEGER, 8, 0};
    d.matte = {nullptr, 1, PXF_C_INTEGER, 8, 0};
    d.aux = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    d.aspect = const_cast<char *>("square");
    d.aspect_ratio = 1.0f;
    return d;
}

PXF_IMAGE *open_rla(const std::string &path, const char *mode, PXF_IMAGE_DESC *desc) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = strdup("rla");
    info.handle = strdup(path.c_str());
    info.name = strdup("bench");
    info.images = desc;
    info.num_images = desc ? 1 : 0;
    PXF_IMAGE *image = PXF_open(&info, mode);
    info.images = nullptr;
    info.num_images = 0;
    PXF_info_cleanup(&info, 1);
    return image;
}

void write_rla(const std::string &path) {
    const uint8_t *pixels = picture().data();
    PXF_IMAGE_DESC desc = rgba();
    PXF_IMAGE *image = open_rla(path, "w", &desc);
    if (!image) std::abort();
    void *rows[kChannels];
    for (int y = 0; y < kSize; ++y) {
        for (int c = 0; c < kChannels; ++c)
            rows[c] = const_cast<uint8_t *>(pixels) + std::size_t(y) * kRowBytes + std::size_t(c) * kSize;
        void **r = rows;
        if (PXF_scan_write(image, y, &r) != 0) std::abort();
    }
    if (PXF_close(image) != 0) std::abort();
}

void write_raw(const std::string &path) {
    const uint8_t *pixels = picture().data();
    std::FILE *out = std::fopen(path.c_str(), "wb");
    if (!out) std::abort();
    for (int y = 0; y < kSize; ++y)
        if (std::fwrite(pixels + std::size_t(y) * kRowBytes, 1, kRowBytes, out) != kRowBytes) std::abort();
    if (std::fclose(out) != 0) std::abort();
}

void BM_RawFwrite(benchmark::State &state) {
    std::string path = temp_path("raw");
    picture();
    for (auto _ : state) write_raw(path);
    unlink(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kImageBytes));
}

void BM_RlaWrite(benchmark::State &state) {
    std::string path = temp_path("w.rla");
    picture();
    for (auto _ : state) write_rla(path);
    std::FILE *f = std::fopen(path.c_str(), "rb");
    std::fseek(f, 0, SEEK_END);
    state.counters["file_MB"] = double(std::ftell(f)) / 1e6;
    std::fclose(f);
    unlink(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kImageBytes));
}

void BM_RawFread(benchmark::State &state) {
    std::string path = temp_path("raw-r");
    write_raw(path);
    std::vector<uint8_t> row(kRowBytes);
    for (auto _ : state) {
        std::FILE *in = std::fopen(path.c_str(), "rb");
        for (int y = 0; y < kSize; ++y)
            if (std::fread(row.data(), 1, kRowBytes, in) != kRowBytes) std::abort();
        std::fclose(in);
        benchmark::DoNotOptimize(row.data());
    }
    unlink(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kImageBytes));
}

void BM_RlaRead(benchmark::State &state) {
    std::string path = temp_path("r.rla");
    write_rla(path);
    PXF_IMAGE_DESC desc = rgba();
    void **buffer = pxf__chan_alloc(&desc, kSize, "bench");
    for (auto _ : state) {
        PXF_IMAGE *image = open_rla(path, "r", nullptr);
        if (!image) std::abort();
        for (int y = 0; y < kSize; ++y) {
            void **rows = buffer;
            if (PXF_scan_read(image, y, &rows) != 0) std::abort();
        }
        PXF_close(image);
        benchmark::DoNotOptimize(buffer[0]);
    }
    if (std::memcmp(buffer[3], picture().data() + (kImageBytes - kSize), kSize) != 0) std::abort();
    pxf__chan_free(buffer);
    unlink(path.c_str());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kImageBytes));
}

BENCHMARK(BM_RawFwrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RlaWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawFread)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RlaRead)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
