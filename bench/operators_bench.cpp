// Throughput of the operators' row conversions on rows of 4096 pixels x 4
// channels, in bytes of output per second, beside memcpy of as many bytes.
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <pxf/pxf.h>

#include "operators/kernels.h"

namespace {

constexpr std::size_t kElements = 4096 * 4;

template <class T>
std::vector<T> random_row(unsigned max) {
    std::mt19937 rng(7);
    std::vector<T> row(kElements);
    for (auto &v : row) v = static_cast<T>(rng() % (max + 1));
    return row;
}

void finish(benchmark::State &state, std::size_t out_bytes) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out_bytes));
}

void BM_memcpy_float_row(benchmark::State &state) {
    std::vector<float> in(kElements, 0.5f), out(kElements);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), kElements * sizeof(float));
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements * sizeof(float));
}

void BM_memcpy_byte_row(benchmark::State &state) {
    std::vector<uint8_t> in(kElements, 1), out(kElements);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), kElements);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements);
}

// Only loading a float row, four 64-byte loads in flight: the ceiling for any
// conversion that must read that row.  Quantize to 8 bits reads four bytes
// per byte it writes, so against memcpy of its output it can reach no more
// than this figure divided by four.
__attribute__((target("avx512f"))) uint32_t or_words(const uint32_t *p, std::size_t n) {
    __m512i a = _mm512_setzero_si512(), b = a, c = a, d = a;
    for (std::size_t i = 0; i + 64 <= n; i += 64) {
        a = _mm512_or_si512(a, _mm512_loadu_si512(p + i));
        b = _mm512_or_si512(b, _mm512_loadu_si512(p + i + 16));
        c = _mm512_or_si512(c, _mm512_loadu_si512(p + i + 32));
        d = _mm512_or_si512(d, _mm512_loadu_si512(p + i + 48));
    }
    alignas(64) uint32_t lanes[16];
    _mm512_store_si512(lanes, _mm512_or_si512(_mm512_or_si512(a, b), _mm512_or_si512(c, d)));
    uint32_t all = 0;
    for (uint32_t v : lanes) all |= v;
    return all;
}

void BM_load_float_row(benchmark::State &state) {
    if (!__builtin_cpu_supports("avx512f")) {
        state.SkipWithError("needs AVX-512");
        return;
    }
    std::vector<uint32_t> in(kElements, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(or_words(in.data(), kElements));
        benchmark::ClobberMemory();
    }
    finish(state, kElements * sizeof(float));
}

void BM_cast_8bit_gamma_1(benchmark::State &state) {
    auto in = random_row<uint8_t>(255);
    std::vector<float> out(kElements);
    float scale = pxf::ops::reciprocal(8);
    for (auto _ : state) {
        pxf::ops::scale_row(out.data(), in.data(), kElements, scale);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements * sizeof(float));
}

void BM_cast_8bit_gamma_2_2(benchmark::State &state) {
    auto in = random_row<uint8_t>(255);
    std::vector<float> out(kElements);
    pxf::ops::ByteToFloatTable table;
    for (int i = 0; i < 256; ++i) table.values[i] = static_cast<float>(std::pow(i / 255.0, 2.2));
    table.prepare();
    for (auto _ : state) {
        pxf::ops::lookup_row(out.data(), in.data(), kElements, table);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements * sizeof(float));
}

void BM_cast_16bit(benchmark::State &state) {
    auto in = random_row<uint16_t>(65535);
    std::vector<float> out(kElements);
    float scale = pxf::ops::reciprocal(16);
    for (auto _ : state) {
        pxf::ops::scale_row(out.data(), in.data(), kElements, scale);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements * sizeof(float));
}

void BM_gamma_table_bytes(benchmark::State &state) {
    auto row = random_row<uint8_t>(255);
    std::vector<uint8_t> table(256);
    for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(255 - i);
    for (auto _ : state) {
        pxf::ops::lookup_bytes(row.data(), kElements, table.data());
        benchmark::DoNotOptimize(row.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements);
}

void BM_quantize_float_to_8bit(benchmark::State &state) {
    std::vector<float> in(kElements);
    std::mt19937 rng(3);
    for (auto &v : in) v = static_cast<float>(rng() % 1000) / 999.0f;
    std::vector<uint8_t> out(kElements);
    float factor = pxf::ops::quantize_factor(8);
    for (auto _ : state) {
        pxf::ops::quantize_row(out.data(), in.data(), kElements, factor);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    finish(state, kElements);
}

// Whole-operator scans: a hand-made read image whose scan hands back the
// same prepared rows (no copying), with one operator on top; bytes are those
// the operator delivers per scanline, 4096 pixels x 4 channels.
struct StillImage {
    PXF_IMAGE *image;
    void **rows;
};

int still_scan(void *data, int, void ***rows, void **) {
    *rows = static_cast<StillImage *>(data)->rows;
    return 0;
}

int still_close(PXF_IMAGE *image) {
    auto *still = static_cast<StillImage *>(image->private_data[0]);
    pxf__chan_free(still->rows);
    delete still;
    image->private_data[0] = nullptr;
    return pxf__free_obj(image);
}

PXF_IMAGE *still_image(int type, int bits, float gamma) {
    auto *image = static_cast<PXF_IMAGE *>(std::malloc(sizeof(PXF_IMAGE)));
    pxf__init_obj(image, PXF_MODE_READ);
    image->info.num_images = 1;
    auto *d = static_cast<PXF_IMAGE_DESC *>(std::calloc(1, sizeof(PXF_IMAGE_DESC)));
    d->curve = {PXF_CURVE_GAMMA, gamma, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d->window = {0, 4095, 0, 0};
    d->active_window = d->window;
    d->chan = {nullptr, 4, type, bits, 0};
    d->matte = {nullptr, 0, type, bits, 0};
    d->aux = {nullptr, 0, type, bits, 0};
    d->index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    image->info.images = d;
    auto *still = new StillImage{image, pxf__chan_alloc(d, 4096, "bench")};
    std::mt19937 rng(5);
    for (int c = 0; c < 4; ++c)
        for (int x = 0; x < 4096; ++x) {
            void *row = still->rows[c];
            if (type == PXF_C_FLOAT) static_cast<float *>(row)[x] = float(rng() % 1000) / 999.0f;
            else if (bits <= 8) static_cast<uint8_t *>(row)[x] = uint8_t(rng());
            else static_cast<uint16_t *>(row)[x] = uint16_t(rng() % (1u << bits));
        }
    image->private_data = static_cast<void **>(std::malloc(sizeof(void *)));
    image->private_data[0] = still;
    image->scan = still_scan;
    image->close = still_close;
    return image;
}

void scan_through(benchmark::State &state, PXF_IMAGE *image, std::size_t out_bytes) {
    for (auto _ : state) {
        void **rows = nullptr;
        PXF_scan_read(image, 0, &rows);
        benchmark::DoNotOptimize(rows);
        benchmark::ClobberMemory();
    }
    finish(state, out_bytes);
    PXF_close(image);
}

void BM_scan_cast_8bit_gamma_1(benchmark::State &state) {
    scan_through(state, PXF__cast(still_image(PXF_C_INTEGER, 8, 1.0f)), kElements * sizeof(float));
}

void BM_scan_cast_8bit_gamma_2_2(benchmark::State &state) {
    scan_through(state, PXF__cast(still_image(PXF_C_INTEGER, 8, 2.2f)), kElements * sizeof(float));
}

void BM_scan_cast_16bit(benchmark::State &state) {
    scan_through(state, PXF__cast(still_image(PXF_C_INTEGER, 16, 1.0f)), kElements * sizeof(float));
}

// In place on the stage below's rows, as the operator works.
void BM_scan_gamma(benchmark::State &state) {
    PXF_RESPONSE_CURVE wanted{PXF_CURVE_GAMMA, 2.2f, nullptr, 0, 0, 0, 0, nullptr};
    scan_through(state, PXF__gamma(still_image(PXF_C_INTEGER, 8, 1.0f), &wanted), kElements);
}

void BM_scan_quantize_to_8bit(benchmark::State &state) {
    const PXF_CHAN_TYPE bytes[3] = {{PXF_C_INTEGER, 8}, {0, 0}, {0, 0}};
    scan_through(state, PXF__quantize(still_image(PXF_C_FLOAT, 32, 1.0f), bytes), kElements);
}

BENCHMARK(BM_scan_cast_8bit_gamma_1);
BENCHMARK(BM_scan_cast_8bit_gamma_2_2);
BENCHMARK(BM_scan_cast_16bit);
BENCHMARK(BM_scan_gamma);
BENCHMARK(BM_scan_quantize_to_8bit);

BENCHMARK(BM_memcpy_float_row);
BENCHMARK(BM_memcpy_byte_row);
BENCHMARK(BM_load_float_row);
BENCHMARK(BM_cast_8bit_gamma_1);
BENCHMARK(BM_cast_8bit_gamma_2_2);
BENCHMARK(BM_cast_16bit);
BENCHMARK(BM_gamma_table_bytes);
BENCHMARK(BM_quantize_float_to_8bit);

}  // namespace
