// Throughput of the operators' row conversions on rows of 4096 pixels x 4
// channels, in bytes of output per second, beside memcpy of as many bytes.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

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

BENCHMARK(BM_memcpy_float_row);
BENCHMARK(BM_memcpy_byte_row);
BENCHMARK(BM_cast_8bit_gamma_1);
BENCHMARK(BM_cast_8bit_gamma_2_2);
BENCHMARK(BM_cast_16bit);
BENCHMARK(BM_gamma_table_bytes);
BENCHMARK(BM_quantize_float_to_8bit);

}  // namespace
