// The run-length codec, checked against a plain per-byte encoder and decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <pxf/rla.h>

#include "formats/rla_codec.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Codec {
    RLA_ENCODER enc;
    RLA_DECODER dec;
    size_t size;
};
const Codec kPacked[] = {{rla__enc_byte, rla__dec_byte, 1}, {rla__enc_short, rla__dec_short, 2},
                         {rla__enc_word, rla__dec_word, 4}};
const Codec kFloat{rla__enc_float, rla__dec_float, 4}, kDouble{rla__enc_double, rla__dec_double, 8};
constexpr uint8_t kCanary = 0xCD;

using Values = std::vector<uint32_t>;

// A row of elements of s bytes, in host order, between `leading` and
// `trailing` zero elements.
Bytes bytes_of(Values v, size_t s, size_t leading = 0, size_t trailing = 0) {
    v.insert(v.begin(), leading, 0);
    v.resize(v.size() + trailing, 0);
    Bytes out(v.size() * s);
    for (size_t i = 0; i < v.size(); ++i) {
        const uint8_t b = static_cast<uint8_t>(v[i]);
        const uint16_t h = static_cast<uint16_t>(v[i]);
        std::memcpy(&out[i * s], s == 1 ? static_cast<const void *>(&b) : s == 2 ? static_cast<const void *>(&h) : &v[i], s);
    }
    return out;
}

// The oracle: the packet rules applied one byte at a time.
Bytes ref_encode(const Values &row, size_t s) {
    Bytes out;
    const size_t n = row.size();
    for (size_t plane = s; plane-- > 0;) {
        auto at = [&](size_t i) { return static_cast<uint8_t>(row[i] >> (8 * plane)); };
        auto literals = [&](size_t from, size_t to) {
            for (; from < to; from += 128) {
                const size_t k = std::min<size_t>(to - from, 128);
                out.push_back(static_cast<uint8_t>(-static_cast<int>(k)));
                for (size_t i = from; i < from + k; ++i) out.push_back(at(i));
            }
        };
        size_t lit = 0, cand = 0;
        for (size_t i = 1; i <= n; ++i) {
            if (i < n && at(i) == at(cand)) continue;
            if (i - cand >= 3) {
                literals(lit, cand);
                for (size_t k = i - cand;; k -= 128) {
                    out.insert(out.end(), {static_cast<uint8_t>(std::min<size_t>(k, 128) - 1), at(cand)});
                    if (k <= 128) break;
                }
                lit = i;
            }
            cand = i;
        }
        literals(lit, n);
    }
    return out;
}

// False when the block is damaged or not consumed exactly.
bool ref_decode(const Bytes &block, size_t n, size_t s, Values &row) {
    row.assign(n, 0);
    size_t in = 0;
    for (size_t plane = s; plane-- > 0;) {
        for (size_t i = 0; i < n;) {
            if (in >= block.size()) return false;
            const int c = static_cast<int8_t>(block[in++]);
            const size_t k = c >= 0 ? c + 1 : -c, bytes = c >= 0 ? 1 : k;
            if (i + k > n || in + bytes > block.size()) return false;
            for (size_t j = 0; j < k; ++j) row[i++] |= uint32_t{block[in + (c >= 0 ? 0 : j)]} << (8 * plane);
            in += bytes;
        }
    }
    return in == block.size();
}

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Encodes a whole row, checking nothing is written past the returned size.
Bytes encode(const Codec &c, const Bytes &row) {
    const size_t n = row.size() / c.size, worst = RLA_ENCODED_MAX(n, c.size);
    Bytes out(worst + 64, kCanary);
    const int size = c.enc(row.data(), 0, static_cast<unsigned>(n), out.data());
    EXPECT_TRUE(size >= 0 && static_cast<size_t>(size) <= worst);
    EXPECT_EQ(std::count(out.begin() + size, out.end(), kCanary), static_cast<long>(out.size() - size));
    out.resize(size);
    return out;
}

// A heap copy of exactly the block's length (ASan catches reads past it).
std::unique_ptr<uint8_t[]> exact_copy(const Bytes &block) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[block.size() + 1]);
    std::copy(block.begin(), block.end(), exact.get());
    return exact;
}

// Decodes from an exact copy into a row between guard areas; `row` gets the
// leading + count + trailing elements.
int decode(const Codec &c, const Bytes &block, int count, unsigned leading, int trailing, Bytes &row) {
    const size_t guard = 64, total = (leading + count + trailing) * c.size;
    Bytes dest(total + 2 * guard, kCanary);
    const auto exact = exact_copy(block);
    const int r = c.dec(exact.get(), static_cast<int>(block.size()), &dest[guard], count, leading, trailing);
    EXPECT_EQ(std::count(dest.begin(), dest.begin() + guard, kCanary), 64) << "wrote before the row";
    EXPECT_EQ(std::count(dest.end() - guard, dest.end(), kCanary), 64) << "wrote past the row";
    row.assign(dest.begin() + guard, dest.end() - guard);
    return r;
}

// Packets of random kinds and sizes filling `planes` planes of n elements.
Bytes random_packets(std::mt19937 &rng, size_t n, size_t planes) {
    Bytes block;
    for (size_t plane = 0; plane < planes; ++plane) {
        for (size_t left = n; left > 0;) {
            const size_t k = rng() % 3 ? 1 + rng() % std::min<size_t>(left, 128) : std::min<size_t>(left, 128);
            block.push_back(static_cast<uint8_t>(rng() % 2 ? k - 1 : -static_cast<int>(k)));
            for (size_t j = 0; j < (block.back() < 128 ? 1 : k); ++j) block.push_back(static_cast<uint8_t>(rng()));
            left -= k;
        }
    }
    return block;
}

// The packet boundaries and the element entry points the random rows do not reach.
TEST(RlaEncode, KnownPackets) {
    EXPECT_EQ(encode(kPacked[0], Bytes(129, 7)), (Bytes{127, 7, 0, 7}));  // the tail stays a run
    const std::vector<uint16_t> shorts{1, 2, 0x1234, 0x1234, 0x1234};
    unsigned char out[16] = {kCanary};
    EXPECT_EQ(rla__enc_short(shorts.data(), 5, 0, out), 0);
    EXPECT_EQ(out[0], kCanary);
    ASSERT_EQ(rla__enc_short(shorts.data(), 2, 3, out), 4);  // from the start element on
    EXPECT_EQ(Bytes(out, out + 4), (Bytes{2, 0x12, 2, 0x34}));
    const uint32_t words[] = {0xA1B2C3D4, 0xA1B2C3D5, 0xA1B2C3D6};
    EXPECT_EQ(rla__enc_word(words, 0, 1u << 29, out), -1);  // the size would not fit an int
}

TEST(RlaCodec, RowsMatchTheReferenceAndRoundTrip) {
    std::mt19937 rng(1234);
    for (const Codec &c : kPacked) {
        for (int round = 0; round < 1500; ++round) {
            const size_t n = round < 600 ? round : rng() % 4200;
            const uint32_t mask = static_cast<uint32_t>((uint64_t{1} << (8 * c.size)) - 1);
            Values row(n);
            const int kind = round % 4;  // noise, a small alphabet, long runs, long runs with noise
            for (size_t i = 0, v = rng(); i < n; ++i) {
                if (kind >= 2 && rng() % (kind == 2 ? 90 : 5) == 0) v = rng();
                row[i] = static_cast<uint32_t>(kind == 0 ? rng() : kind == 1 ? rng() % 3 * 0x01010101u : v) & mask;
            }
            SCOPED_TRACE(testing::Message() << c.size << "-byte row of " << n);
            const Bytes packed = encode(c, bytes_of(row, c.size));
            ASSERT_EQ(packed, ref_encode(row, c.size));
            const unsigned leading = rng() % 3;
            const int trailing = rng() % 3;
            Bytes back;
            ASSERT_EQ(decode(c, packed, static_cast<int>(n), leading, trailing, back),
                      static_cast<int>(leading + n + trailing));
            ASSERT_EQ(back, bytes_of(row, c.size, leading, trailing));
        }
    }
}

// Valid and damaged blocks (cut, one byte changed or added) decode as the per-byte
// decoder says; a failure gives 0 and a cleared row.
TEST(RlaDecode, BlocksMatchTheReferenceDecoder) {
    std::mt19937 rng(7);
    for (const Codec &c : kPacked) {
        for (int round = 0; round < 6000; ++round) {
            const size_t n = rng() % 400;
            Bytes block = random_packets(rng, n, c.size), row;
            const size_t at = block.empty() ? 0 : rng() % block.size();
            if (round % 4 == 1) block.resize(at);
            if (round % 4 == 2 && !block.empty()) block[at] = static_cast<uint8_t>(rng());
            if (round % 4 == 3) block.push_back(0);
            Values expect;
            const bool ok = ref_decode(block, n, c.size, expect);
            ASSERT_EQ(decode(c, block, static_cast<int>(n), 2, 1, row), ok ? static_cast<int>(n) + 3 : 0);
            ASSERT_EQ(row, bytes_of(ok ? expect : Values(n), c.size, 2, 1));
            // Where the processor has wide vectors, the portable byte path is not the
            // one above: run it on its own.
            if (c.size != 1) continue;
            Bytes plane(n + 64, kCanary);
            const auto exact = exact_copy(block);
            const uint8_t *end = exact.get() + block.size();
            ASSERT_EQ(pxf::rla::decode_byte_plane_portable(exact.get(), end, plane.data(), n) == end, ok);
            ASSERT_EQ(std::count(plane.begin() + n, plane.end(), kCanary), 64);
            ASSERT_TRUE(!ok || Bytes(plane.begin(), plane.begin() + n) == bytes_of(expect, 1));
        }
    }
}

// Float and double rows are stored as they stand; inactive elements are
// cleared exactly; bad arguments write nothing.
TEST(RlaCodec, UnpackedElementsAndBadArguments) {
    const double d[] = {1.5, -0.25, 1e300};
    const Bytes raw(reinterpret_cast<const uint8_t *>(d), reinterpret_cast<const uint8_t *>(d + 3)), zero(8, 0);
    Bytes row;
    EXPECT_EQ(encode(kDouble, raw), raw);
    EXPECT_EQ(decode(kDouble, raw, 3, 1, 1, row), 5);
    EXPECT_EQ(row, zero + raw + zero);
    EXPECT_EQ(decode(kFloat, raw, 5, 0, 0, row), 0);  // the block must hold exactly the elements asked for
    EXPECT_EQ(decode(kFloat, raw, 6, 0, 0, row), 6);
    const std::pair<RLA_INACT_DECODER, size_t> inactive[] = {{rla__inact_dec_byte, 1}, {rla__inact_dec_short, 2},
        {rla__inact_dec_word, 4}, {rla__inact_dec_float, 4}, {rla__inact_dec_double, 8}};
    for (const auto &[fn, size] : inactive) {
        row.assign(40, kCanary);
        EXPECT_EQ(fn(row.data(), 3), 0);
        EXPECT_EQ(row, Bytes(3 * size, 0) + Bytes(40 - 3 * size, kCanary));
    }
    row.assign(8, kCanary);
    EXPECT_EQ(rla__dec_byte(raw.data(), -1, row.data(), 1, 0, 0), 0);
    EXPECT_EQ(rla__dec_byte(raw.data(), 2, row.data(), -1, 0, 0), 0);
    EXPECT_EQ(rla__dec_short(raw.data(), 2, row.data(), 1, 0, -1), 0);
    EXPECT_EQ(rla__dec_word(raw.data(), 2, row.data(), 1, UINT_MAX, 0), 0);
    EXPECT_EQ(row, Bytes(8, kCanary));
}

}  // namespace
