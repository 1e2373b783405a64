// Row conversions: the wide paths agree with the one-value rules on every
// length (so tails are covered) and on values outside the usual range.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "operators/kernels.h"

namespace {

using namespace pxf::ops;

TEST(Kernels, QuantizeValuesRoundUpOnlyNearTheNextCodeAndNeverClip) {
    const struct {
        float v;
        int bits;
        uint32_t expected;
    } cases[] = {{1.0f, 8, 255}, {0.5f, 8, 127}, {0.99f, 8, 253}, {254.2f / 255, 8, 255}, {2.0f, 8, 511 & 0xff},
                 {1.0f, 12, 4095}, {0.5f, 12, 2047}, {1.0f, 32, 4294967295u}, {0.75f, 32, 3221225472u}};
    for (const auto &c : cases) {
        float f = quantize_factor(c.bits);
        uint32_t got = c.bits <= 8 ? quantize_value<uint8_t>(c.v, f)
                       : c.bits <= 16 ? quantize_value<uint16_t>(c.v, f) : quantize_value<uint32_t>(c.v, f);
        EXPECT_EQ(got, c.expected) << c.v << " at " << c.bits << " bits";
    }
}

template <class Dst>
void check_quantize_rows(int bits) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(-0.2f, 1.2f);
    float factor = quantize_factor(bits);
    for (std::size_t n : {0u, 1u, 15u, 16u, 17u, 63u, 64u, 65u, 200u, 4096u}) {
        std::vector<float> in(n);
        for (auto &v : in) v = unit(rng);
        if (n > 3) in[0] = std::numeric_limits<float>::quiet_NaN(), in[1] = 1e30f, in[2] = -1e30f;
        std::vector<Dst> out(n, 0xAB);
        quantize_row(out.data(), in.data(), n, factor);
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_EQ(out[i], quantize_value<Dst>(in[i], factor)) << "bits " << bits << " n " << n << " i " << i;
    }
}

TEST(Kernels, QuantizeRowsMatchTheValueRule) {
    check_quantize_rows<uint8_t>(8);
    check_quantize_rows<uint8_t>(5);
    check_quantize_rows<uint16_t>(12);
    check_quantize_rows<uint32_t>(32);
}

TEST(Kernels, TableLookupsMatchDirectIndexing) {
    ByteToFloatTable table;
    uint8_t invert[256];
    for (int i = 0; i < 256; ++i) {
        table.values[i] = std::pow(i / 255.0f, 2.2f) + float(i) * 1e-3f;
        invert[i] = uint8_t(255 - i);
    }
    table.prepare();
    std::vector<uint8_t> bytes(4096 + 37);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7 + (i >> 8));
    for (std::size_t n : {0u, 7u, 64u, 65u, 4096u + 37u}) {
        std::vector<float> out(n);
        std::vector<uint8_t> row(bytes.begin(), bytes.begin() + std::ptrdiff_t(n));
        lookup_row(out.data(), bytes.data(), n, table);
        lookup_bytes(row.data(), n, invert);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], table.values[bytes[i]]) << n << " " << i;
            ASSERT_EQ(row[i], 255 - bytes[i]) << n << " " << i;
        }
    }
}

}  // namespace
