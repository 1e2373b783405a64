// Byte-order I/O: fixed layouts, random round trips through memory and files.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include <pxf/wmi.h>

namespace {

constexpr int kBig = WMI_BIG_ENDIAN, kLittle = WMI_LITTLE_ENDIAN;

TEST(ByteOrder, FixedLayouts) {
    unsigned char b[8];
    WMI_put_u16(b, 0x1234, kBig);
    EXPECT_EQ(0, std::memcmp(b, "\x12\x34", 2));
    WMI_put_u16(b, 0x1234, kLittle);
    EXPECT_EQ(0, std::memcmp(b, "\x34\x12", 2));
    WMI_put_u32(b, 0x01020304u, kBig);
    EXPECT_EQ(0, std::memcmp(b, "\x01\x02\x03\x04", 4));
    WMI_put_u64(b, 0x0102030405060708ull, kLittle);
    EXPECT_EQ(0, std::memcmp(b, "\x08\x07\x06\x05\x04\x03\x02\x01", 8));
    WMI_put_f32(b, 1.0f, kBig);
    EXPECT_EQ(0, std::memcmp(b, "\x3f\x80\x00\x00", 4));
    WMI_put_f64(b, -2.0, kLittle);
    EXPECT_EQ(0, std::memcmp(b, "\x00\x00\x00\x00\x00\x00\x00\xc0", 8));
    WMI_put_f32(b, -0.0f, kBig);
    EXPECT_EQ(0, std::memcmp(b, "\x80\x00\x00\x00", 4));

    const unsigned char minus[8] = {0xff, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(WMI_get_i16(minus, kBig), -2);
    EXPECT_EQ(WMI_get_i16(minus, kLittle), -257);
    EXPECT_EQ(WMI_get_i32(minus, kLittle), -257);
    EXPECT_EQ(WMI_get_i64(minus, kBig), static_cast<int64_t>(0xfffeffffffffffffull));
    EXPECT_EQ(WMI_get_u16(minus, kBig), 0xfffeu);
    EXPECT_EQ(WMI_host_order(), std::endian::native == std::endian::little ? kLittle : kBig);
}

// Round trips of random bit patterns keep every bit, NaN payloads and -0 included;
// the two orders are each other's reversal.
TEST(ByteOrder, RandomRoundTripsInMemory) {
    std::mt19937_64 rng(7);
    unsigned char big[8], little[8];
    for (int i = 0; i < 20000; ++i) {
        uint64_t bits = rng();
        if (i % 4 == 0) bits |= 0x7ff0000000000000ull;  // NaN or infinity
        if (i % 4 == 1) bits &= 0x8000000000000000ull;  // +0 or -0
        auto b32 = static_cast<uint32_t>(bits >> 32);
        if (i % 4 == 0) b32 |= 0x7f800001u;  // a float NaN with a payload
        auto f = std::bit_cast<float>(b32);
        auto d = std::bit_cast<double>(bits);

        WMI_put_f64(big, d, kBig);
        WMI_put_f64(little, d, kLittle);
        for (int k = 0; k < 8; ++k) ASSERT_EQ(big[k], little[7 - k]);
        ASSERT_EQ(std::bit_cast<uint64_t>(WMI_get_f64(big, kBig)), bits);
        ASSERT_EQ(std::bit_cast<uint64_t>(WMI_get_f64(little, kLittle)), bits);
        ASSERT_EQ(WMI_get_u64(big, kBig), bits);

        WMI_put_f32(big, f, kBig);
        ASSERT_EQ(std::bit_cast<uint32_t>(WMI_get_f32(big, kBig)), b32);
        ASSERT_EQ(WMI_get_u32(big, kBig), b32);
        WMI_put_u32(little, b32, kLittle);
        ASSERT_EQ(WMI_get_u32(little, kLittle), b32);
        WMI_put_u16(big, static_cast<uint16_t>(bits), kBig);
        WMI_put_u16(little, static_cast<uint16_t>(bits), kLittle);
        ASSERT_EQ(big[0], little[1]);
        ASSERT_EQ(WMI_get_u16(little, kLittle), static_cast<uint16_t>(bits));
    }
}

TEST(ByteOrder, FilesRoundTripAndShortReads) {
    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    std::mt19937_64 rng(11);
    std::vector<uint64_t> values(3000);
    for (auto &v : values) v = rng();
    for (std::size_t i = 0; i < values.size(); ++i) {
        int order = static_cast<int>(i % 2);
        uint64_t v = values[i];
        switch (i % 6) {
        case 0: ASSERT_EQ(WMI_write_u8(f, static_cast<uint8_t>(v)), 0); break;
        case 1: ASSERT_EQ(WMI_write_u16(f, static_cast<uint16_t>(v), order), 0); break;
        case 2: ASSERT_EQ(WMI_write_u32(f, static_cast<uint32_t>(v), order), 0); break;
        case 3: ASSERT_EQ(WMI_write_u64(f, v, order), 0); break;
        case 4: ASSERT_EQ(WMI_write_f32(f, std::bit_cast<float>(static_cast<uint32_t>(v)), order), 0); break;
        default: ASSERT_EQ(WMI_write_f64(f, std::bit_cast<double>(v), order), 0); break;
        }
    }
    std::rewind(f);
    for (std::size_t i = 0; i < values.size(); ++i) {
        int order = static_cast<int>(i % 2);
        uint64_t v = values[i], got = 0;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        float f32;
        double f64;
        switch (i % 6) {
        case 0: ASSERT_EQ(WMI_read_u8(f, &u8), 0); got = u8; v &= 0xff; break;
        case 1: ASSERT_EQ(WMI_read_u16(f, &u16, order), 0); got = u16; v &= 0xffff; break;
        case 2: ASSERT_EQ(WMI_read_u32(f, &u32, order), 0); got = u32; v &= 0xffffffff; break;
        case 3: ASSERT_EQ(WMI_read_u64(f, &got, order), 0); break;
        case 4:
            ASSERT_EQ(WMI_read_f32(f, &f32, order), 0);
            got = std::bit_cast<uint32_t>(f32);
            v &= 0xffffffff;
            break;
        default: ASSERT_EQ(WMI_read_f64(f, &f64, order), 0); got = std::bit_cast<uint64_t>(f64); break;
        }
        ASSERT_EQ(got, v) << "field " << i;
    }
    uint8_t u8 = 7;
    EXPECT_EQ(WMI_read_u8(f, &u8), -1);
    EXPECT_EQ(u8, 7);
    std::fclose(f);

    // Three bytes are not a 32-bit field; the value is left alone.
    char three[] = "\x01\x02\x03";
    FILE *shortf = fmemopen(three, 3, "rb");
    uint32_t u32 = 42;
    double f64 = 1.5;
    EXPECT_EQ(WMI_read_u32(shortf, &u32, kBig), -1);
    EXPECT_EQ(u32, 42u);
    std::rewind(shortf);
    EXPECT_EQ(WMI_read_f64(shortf, &f64, kBig), -1);
    EXPECT_EQ(f64, 1.5);
    std::fclose(shortf);
    EXPECT_EQ(WMI_read_u32(nullptr, &u32, kBig), -1);
    EXPECT_EQ(WMI_write_u32(nullptr, 1, kBig), -1);

    FILE *readonly = fmemopen(three, 3, "rb");
    EXPECT_EQ(WMI_write_u64(readonly, 1, kBig), -1);  // a stream that cannot take it
    std::fclose(readonly);
}

}  // namespace
