// Containers, matrices and wildcards beside the standard library and naive loops, on the same data.
#include <benchmark/benchmark.h>

#include <fnmatch.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <pxf/dst_symbol.h>
#include <pxf/dst_tree.h>
#include <pxf/mx.h>
#include <pxf/wcd.h>

namespace {

constexpr int kKeys = 1000000;

const std::vector<std::string> &string_keys() {
    static std::vector<std::string> keys = [] {
        std::vector<std::string> k;
        k.reserve(kKeys);
        for (int i = 0; i < kKeys; ++i) k.push_back("symbol_" + std::to_string(i * 7919u % 100000007u));
        return k;
    }();
    return keys;
}

std::vector<uint32_t> lookup_order() {
    std::vector<uint32_t> order(kKeys);
    for (int i = 0; i < kKeys; ++i) order[i] = static_cast<uint32_t>(i);
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

void BM_SymbolLookup(benchmark::State &state) {
    const auto &keys = string_keys();
    auto order = lookup_order();
    DST_SYMBOL *table = DST_symbol_new(DST_SYMBOL_STRING, 0);
    for (auto &k : keys) DST_symbol_insert(table, k.c_str(), const_cast<std::string *>(&k));
    for (auto _ : state)
        for (uint32_t i : order) benchmark::DoNotOptimize(DST_symbol_find(table, keys[i].c_str()));
    state.SetItemsProcessed(state.iterations() * kKeys);
    DST_symbol_free(table);
}
BENCHMARK(BM_SymbolLookup)->Unit(benchmark::kMillisecond);

void BM_UnorderedMapLookup(benchmark::State &state) {
    const auto &keys = string_keys();
    auto order = lookup_order();
    std::unordered_map<std::string, const void *> map;
    for (auto &k : keys) map.emplace(k, &k);
    for (auto _ : state)
        for (uint32_t i : order) benchmark::DoNotOptimize(map.find(keys[i]));
    state.SetItemsProcessed(state.iterations() * kKeys);
}
BENCHMARK(BM_UnorderedMapLookup)->Unit(benchmark::kMillisecond);

std::vector<uintptr_t> random_keys() {
    std::vector<uintptr_t> keys(kKeys);
    std::mt19937_64 rng(2);
    for (auto &k : keys) k = rng();
    return keys;
}

void BM_TreeInsertFind(benchmark::State &state) {
    auto keys = random_keys();
    for (auto _ : state) {
        DST_TREE *tree = DST_tree_new(nullptr);
        for (uintptr_t k : keys) DST_tree_insert(tree, reinterpret_cast<void *>(k), nullptr);
        for (uintptr_t k : keys) benchmark::DoNotOptimize(DST_tree_lookup(tree, reinterpret_cast<void *>(k)));
        DST_tree_free(tree);
    }
    state.SetItemsProcessed(state.iterations() * kKeys);
}
BENCHMARK(BM_TreeInsertFind)->Unit(benchmark::kMillisecond);

void BM_StdMapInsertFind(benchmark::State &state) {
    auto keys = random_keys();
    for (auto _ : state) {
        std::map<uintptr_t, void *> map;
        for (uintptr_t k : keys) map.emplace(k, nullptr);
        for (uintptr_t k : keys) benchmark::DoNotOptimize(map.find(k));
    }
    state.SetItemsProcessed(state.iterations() * kKeys);
}
BENCHMARK(BM_StdMapInsertFind)->Unit(benchmark::kMillisecond);

// 4 x 4 products: a chain of 1024 products over the same matrices.
std::vector<MX4F> matrices() {
    std::vector<MX4F> m(1024);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> d(-1, 1);
    for (auto &x : m)
        for (auto &row : x.m)
            for (float &v : row) v = d(rng);
    return m;
}

void BM_MX4F_multiply(benchmark::State &state) {
    auto m = matrices();
    MX4F out;
    for (auto _ : state)
        for (std::size_t i = 0; i + 1 < m.size(); ++i) {
            MX4F_multiply(&m[i], &m[i + 1], &out);
            benchmark::DoNotOptimize(out);
        }
    state.SetItemsProcessed(state.iterations() * (m.size() - 1));
}
BENCHMARK(BM_MX4F_multiply);

void naive_multiply(const float a[4][4], const float b[4][4], float out[4][4]) {
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            float s = 0;
            for (int k = 0; k < 4; ++k) s += a[i][k] * b[k][j];
            out[i][j] = s;
        }
}

void BM_Naive4x4_multiply(benchmark::State &state) {
    auto m = matrices();
    MX4F out;
    for (auto _ : state)
        for (std::size_t i = 0; i + 1 < m.size(); ++i) {
            naive_multiply(m[i].m, m[i + 1].m, out.m);
            benchmark::DoNotOptimize(out);
        }
    state.SetItemsProcessed(state.iterations() * (m.size() - 1));
}
BENCHMARK(BM_Naive4x4_multiply);

constexpr int kN = 64;

std::vector<double> system_matrix() {
    std::vector<double> a(kN * kN);
    std::mt19937 rng(4);
    std::uniform_real_distribution<double> d(-1, 1);
    for (auto &v : a) v = d(rng);
    return a;
}

void BM_MXND_solve64(benchmark::State &state) {
    auto a = system_matrix();
    std::vector<double> b(kN, 1.0), x(kN);
    for (auto _ : state) {
        MXND_solve(a.data(), b.data(), x.data(), kN);
        benchmark::DoNotOptimize(x.data());
    }
}
BENCHMARK(BM_MXND_solve64);

// Textbook Gaussian elimination with partial pivoting, row by row, as the
// triple loop is written from the formula.
void naive_solve(const double *m, const double *rhs, double *x, int n) {
    std::vector<double> a(m, m + n * n), b(rhs, rhs + n);
    for (int k = 0; k < n; ++k) {
        int p = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(a[i * n + k]) > std::fabs(a[p * n + k])) p = i;
        for (int j = 0; j < n; ++j) std::swap(a[k * n + j], a[p * n + j]);
        std::swap(b[k], b[p]);
        for (int i = k + 1; i < n; ++i) {
            double f = a[i * n + k] / a[k * n + k];
            for (int j = k; j < n; ++j) a[i * n + j] -= f * a[k * n + j];
            b[i] -= f * b[k];
        }
    }
    for (int i = n - 1; i >= 0; --i) {
        double s = b[i];
        for (int j = i + 1; j < n; ++j) s -= a[i * n + j] * x[j];
        x[i] = s / a[i * n + i];
    }
}

void BM_NaiveSolve64(benchmark::State &state) {
    auto a = system_matrix();
    std::vector<double> b(kN, 1.0), x(kN);
    for (auto _ : state) {
        naive_solve(a.data(), b.data(), x.data(), kN);
        benchmark::DoNotOptimize(x.data());
    }
}
BENCHMARK(BM_NaiveSolve64);

std::vector<std::string> names() {
    std::vector<std::string> n;
    std::mt19937 rng(5);
    const char *ext[] = {".rla", ".tif", ".png", ".exr"};
    for (int i = 0; i < 100000; ++i) {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "shot_%03u_layer%u.%04u%s", unsigned(rng() % 200), unsigned(rng() % 5),
                      unsigned(rng() % 10000), ext[rng() % 4]);
        n.push_back(buffer);
    }
    return n;
}

const char *const kPattern = "shot_1[0-4]?_*.0[0-4]??.rla";

void BM_WCD_match(benchmark::State &state) {
    auto n = names();
    for (auto _ : state) {
        int hits = 0;
        for (auto &s : n) hits += WCD_match(kPattern, s.c_str());
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * n.size());
}
BENCHMARK(BM_WCD_match)->Unit(benchmark::kMillisecond);

void BM_fnmatch(benchmark::State &state) {
    auto n = names();
    for (auto _ : state) {
        int hits = 0;
        for (auto &s : n) hits += fnmatch(kPattern, s.c_str(), 0) == 0;
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * n.size());
}
BENCHMARK(BM_fnmatch)->Unit(benchmark::kMillisecond);

}  // namespace
