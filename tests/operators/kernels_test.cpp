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

TEST(Kernels, DivisorTableAndReciprocals) {
    EXPECT_EQ(kDivisors[0], 0.0);
    EXPECT_EQ(kDivisors[8], 255.0);
    EXPECT_EQ(kDivisors[16], 65535.0);
    EXPECT_EQ(kDivisors[32], 4294967295.0);
    EXPECT_EQ(kDivisors[33], 1.0);
    EXPECT_EQ(reciprocal(12), static_cast<float>(1.0 / 4095.0));
}

TEST(Kernels, QuantizeKeepsTheDocumentedRounding) {
    float f8 = quantize_factor(8);
    EXPECT_EQ(quantize_value<uint8_t>(1.0f, f8), 255);
    EXPECT_EQ(quantize_value<uint8_t>(0.5f, f8), 127);
    EXPECT_EQ(quantize_value<uint8_t>(0.99f, f8), 253);
    EXPECT_EQ(quantize_value<uint8_t>(2.0f, f8), static_cast<uint8_t>(511));  // low bits kept, no clipping
    EXPECT_EQ(quantize_value<uint16_t>(1.0f, quantize_factor(16)), 65535);
    EXPECT_EQ(quantize_value<uint32_t>(1.0f, quantize_factor(32)), 4294967295u);
    EXPECT_EQ(quantize_value<uint32_t>(0.75f, quantize_factor(32)), 3221225472u);  // 2^31 and above kept
}

template <class Dst>
void check_quantize_rows(int bits) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(-0.2f, 1.2f);
    float factor = quantize_factor(bits);
    for (std::size_t n : {0u, 1u, 15u, 16u, 17u, 63u, 64u, 65u, 200u, 4096u}) {
        std::vector<float> in(n);
        for (auto &v : in) v = unit(rng);
        if (n > 3) {
            in[0] = std::numeric_limits<float>::quiet_NaN();
            in[1] = 1e30f;
            in[2] = -1e30f;
        }
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
    for (int i = 0; i < 256; ++i) table.values[i] = std::pow(i / 255.0f, 2.2f) + static_cast<float>(i) * 1e-3f;
    table.prepare();
    std::vector<uint8_t> bytes(4096 + 37);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    for (std::size_t n : {0u, 7u, 64u, 65u, 4096u + 37u}) {
        std::vector<float> out(n);
        lookup_row(out.data(), bytes.data(), n, table);
        for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(out[i], table.values[bytes[i]]) << n << " " << i;
    }

    uint8_t invert[256];
    for (int i = 0; i < 256; ++i) invert[i] = static_cast<uint8_t>(255 - i);
    std::vector<uint8_t> row = bytes;
    lookup_bytes(row.data(), row.size(), invert);
    for (std::size_t i = 0; i < row.size(); ++i) ASSERT_EQ(row[i], 255 - bytes[i]);
}

TEST(Kernels, ScaleRowsNormalise) {
    std::vector<uint16_t> in{0, 4095, 2048};
    std::vector<float> out(3);
    scale_row(out.data(), in.data(), in.size(), reciprocal(12));
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_FLOAT_EQ(out[1], 1.0f);
    EXPECT_FLOAT_EQ(out[2], 2048.0f / 4095.0f);
}

}  // namespace
