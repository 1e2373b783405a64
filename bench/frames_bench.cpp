// Reading 100 frames of 2048 x 1080 RGBA 8-bit from one container, from 100
// RLA files, and with fread of the same pixels uncompressed from one file
// (all from the page cache after the first run).  Items are frames, bytes
// are raw pixels.  Then opening a container and reading a line of its last
// frame, at 10 and 10,000 frames.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <pxf/frames.h>

namespace {

constexpr int kWidth = 2048, kHeight = 1080, kChannels = 4, kFrames = 100;
constexpr std::size_t kFrameBytes = std::size_t(kWidth) * kHeight * kChannels;

std::string dir() {
    static std::string d = [] {
        char tmpl[] = "/tmp/pxf-frames-bench-XXXXXX";
        return std::string(mkdtemp(tmpl));
    }();
    return d;
}

PXF_IMAGE_DESC describe(int width, int height) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = d.step = d.orientation = 1;
    d.curve.kind = PXF_CURVE_GAMMA;
    d.curve.gamma = 2.2f;
    d.window = d.active_window = {0, width - 1, 0, height - 1};
    d.chan = {nullptr, 3, PXF_C_INTEGER, 8, 0};
    d.matte = {nullptr, 1, PXF_C_INTEGER, 8, 0};
    d.aux = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    d.aspect_ratio = float(width) / float(height);
    return d;
}

// A rendered-looking frame: gradients moving with the frame, a noisy band
// and a soft matte.
void fill_line(void **rows, int frame, int y, int width) {
    uint32_t seed = uint32_t(frame * 7919 + y * 104729);
    for (int x = 0; x < width; ++x) {
        bool band = (y + frame * 3) % 360 < 90;
        seed = seed * 1664525u + 1013904223u;
        uint8_t noise = band ? uint8_t(seed >> 27) : 0;
        for (int c = 0; c < 3; ++c)
            static_cast<uint8_t *>(rows[c])[x] = uint8_t(((x + frame * 5) / 16 + y / 24 + c * 40) + noise);
        static_cast<uint8_t *>(rows[3])[x] = x < width / 2 ? 255 : uint8_t(x * 7 < width * 4 ? 128 : 0);
    }
}

PXF_IMAGE *open_write(const std::string &path, PXF_IMAGE_DESC &d) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.handle = strdup(path.c_str());
    info.images = &d;
    info.num_images = 1;
    PXF_IMAGE *image = PXF_open(&info, "w");
    info.images = nullptr;
    info.num_images = 0;
    PXF_info_cleanup(&info, 1);
    return image;
}

PXF_IMAGE *open_read(const std::string &path) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.handle = strdup(path.c_str());
    PXF_IMAGE *image = PXF_open(&info, "r");
    PXF_info_cleanup(&info, 1);
    return image;
}

std::string rla_name(int f) {
    char name[64];
    std::snprintf(name, sizeof name, "/shot.%04d.rla", f);
    return dir() + name;
}

// Writes the container, the RLA files and the raw file once.
void prepare() {
    static bool done = [] {
        PXF_IMAGE_DESC d = describe(kWidth, kHeight);
        void **rows = PXF_chan_alloc(&d, kWidth, "bench", nullptr);
        PXF_IMAGE *mpc = open_write(dir() + "/shot.mpc", d);
        std::FILE *raw = std::fopen((dir() + "/shot.raw").c_str(), "wb");
        for (int f = 1; f <= kFrames; ++f) {
            PXF_IMAGE *rla = open_write(rla_name(f), d);
            PXF_set_frame(mpc, f);
            for (int y = 0; y < kHeight; ++y) {
                fill_line(rows, f, y, kWidth);
                PXF_scan_write(mpc, y, &rows);
                PXF_scan_write(rla, y, &rows);
                for (int c = 0; c < kChannels; ++c) std::fwrite(rows[c], 1, kWidth, raw);
            }
            PXF_close(rla);
        }
        PXF_close(mpc);
        std::fclose(raw);
        PXF_chan_free(rows);
        return true;
    }();
    (void)done;
}

void read_lines(benchmark::State &state, PXF_IMAGE *image, void **rows) {
    for (int y = 0; y < kHeight; ++y) {
        void **got = rows;
        if (PXF_scan_read(image, y, &got) != 0) state.SkipWithError("scanline");
        benchmark::DoNotOptimize(got[0]);
    }
}

void counters(benchmark::State &state) {
    state.SetItemsProcessed(int64_t(state.iterations()) * kFrames);
    state.SetBytesProcessed(int64_t(state.iterations()) * kFrames * int64_t(kFrameBytes));
    state.counters["fps"] = benchmark::Counter(double(state.iterations()) * kFrames, benchmark::Counter::kIsRate);
}

void BM_Container100Frames(benchmark::State &state) {
    prepare();
    PXF_IMAGE_DESC d = describe(kWidth, kHeight);
    void **rows = PXF_chan_alloc(&d, kWidth, "bench", nullptr);
    for (auto _ : state) {
        PXF_IMAGE *image = open_read(dir() + "/shot.mpc");
        for (int f = 1; f <= kFrames; ++f) {
            PXF_set_frame(image, f);
            read_lines(state, image, rows);
        }
        PXF_close(image);
    }
    PXF_chan_free(rows);
    counters(state);
}

void BM_RlaFiles100Frames(benchmark::State &state) {
    prepare();
    PXF_IMAGE_DESC d = describe(kWidth, kHeight);
    void **rows = PXF_chan_alloc(&d, kWidth, "bench", nullptr);
    for (auto _ : state)
        for (int f = 1; f <= kFrames; ++f) {
            PXF_IMAGE *image = open_read(rla_name(f));
            read_lines(state, image, rows);
            PXF_close(image);
        }
    PXF_chan_free(rows);
    counters(state);
}

void BM_FreadRaw100Frames(benchmark::State &state) {
    prepare();
    std::vector<uint8_t> frame(kFrameBytes);
    for (auto _ : state) {
        std::FILE *raw = std::fopen((dir() + "/shot.raw").c_str(), "rb");
        for (int f = 0; f < kFrames; ++f)
            if (std::fread(frame.data(), 1, kFrameBytes, raw) != kFrameBytes) state.SkipWithError("fread");
        benchmark::DoNotOptimize(frame.data());
        std::fclose(raw);
    }
    counters(state);
}

// Open, choose the last frame, read one scanline of it, close.
void BM_OpenSeekLast(benchmark::State &state) {
    const int frames = int(state.range(0));
    const std::string path = dir() + "/many" + std::to_string(frames) + ".mpc";
    PXF_IMAGE_DESC d = describe(64, 32);
    void **rows = PXF_chan_alloc(&d, 64, "bench", nullptr);
    if (access(path.c_str(), F_OK) != 0) {
        PXF_IMAGE *image = open_write(path, d);
        for (int f = 1; f <= frames; ++f) {
            PXF_set_frame(image, f);
            for (int y = 0; y < 32; ++y) {
                fill_line(rows, f, y, 64);
                PXF_scan_write(image, y, &rows);
            }
        }
        PXF_close(image);
    }
    for (auto _ : state) {
        PXF_IMAGE *image = open_read(path);
        if (PXF_set_frame(image, frames) != 0) state.SkipWithError("last frame");
        void **got = rows;
        PXF_scan_read(image, 31, &got);
        PXF_close(image);
    }
    PXF_chan_free(rows);
}

BENCHMARK(BM_Container100Frames)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_RlaFiles100Frames)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_FreadRaw100Frames)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_OpenSeekLast)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
