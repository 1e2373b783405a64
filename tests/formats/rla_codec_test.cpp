// The run-length codec, checked against a plain per-byte encoder and decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <pxf/rla.h>

#include "formats/rla_codec.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------
// The oracle: the packet rules applied one byte at a time.

void ref_literals(Bytes &out, const Bytes &p, size_t from, size_t to) {
    while (to - from > 128) {
        out.push_back(0x80);
        out.insert(out.end(), p.begin() + from, p.begin() + from + 128);
        from += 128;
    }
    if (to > from) {
        out.push_back(static_cast<uint8_t>(-static_cast<int>(to - from)));
        out.insert(out.end(), p.begin() + from, p.begin() + to);
    }
}

void ref_run(Bytes &out, uint8_t v, size_t k) {
    for (; k > 128; k -= 128) out.insert(out.end(), {127, v});
    out.insert(out.end(), {static_cast<uint8_t>(k - 1), v});
}

void ref_plane(Bytes &out, const Bytes &p) {
    const size_t n = p.size();
    size_t lit = 0, run = 0;
    for (size_t i = 1; i < n; ++i) {
        if (p[i] == p[run]) continue;
        if (i - run >= 3) {
            ref_literals(out, p, lit, run);
            ref_run(out, p[run], i - run);
            lit = i;
        }
        run = i;
    }
    if (n == 0) return;
    if (n - run < 3) {
        ref_literals(out, p, lit, n);
    } else {
        ref_literals(out, p, lit, run);
        ref_run(out, p[run], n - run);
    }
}

template <typename T>
Bytes ref_encode(const std::vector<T> &row) {
    Bytes out;
    for (int plane = static_cast<int>(sizeof(T)) - 1; plane >= 0; --plane) {
        Bytes p;
        for (T e : row) p.push_back(static_cast<uint8_t>(static_cast<uint64_t>(e) >> (8 * plane)));
        ref_plane(out, p);
    }
    return out;
}

// False when the block is damaged or not consumed exactly.
template <typename T>
bool ref_decode(const Bytes &block, size_t n, std::vector<T> &row) {
    row.assign(n, 0);
    size_t in = 0;
    for (int plane = static_cast<int>(sizeof(T)) - 1; plane >= 0; --plane) {
        for (size_t i = 0; i < n;) {
            if (in >= block.size()) return false;
            const int c = static_cast<int8_t>(block[in++]);
            const size_t k = c >= 0 ? c + 1 : -c;
            if (i + k > n || in + (c >= 0 ? 1 : k) > block.size()) return false;
            for (size_t j = 0; j < k; ++j, ++i)
                row[i] |= static_cast<T>(static_cast<uint64_t>(block[c >= 0 ? in : in + j]) << (8 * plane));
            in += c >= 0 ? 1 : k;
        }
    }
    return in == block.size();
}

// ---------------------------------------------------------------------------
// The codec under test, with canaries around every buffer it writes.

template <typename T> int enc(const void *e, int s, unsigned n, unsigned char *o);
template <> int enc<uint8_t>(const void *e, int s, unsigned n, unsigned char *o) { return rla__enc_byte(e, s, n, o); }
template <> int enc<uint16_t>(const void *e, int s, unsigned n, unsigned char *o) { return rla__enc_short(e, s, n, o); }
template <> int enc<uint32_t>(const void *e, int s, unsigned n, unsigned char *o) { return rla__enc_word(e, s, n, o); }
template <> int enc<float>(const void *e, int s, unsigned n, unsigned char *o) { return rla__enc_float(e, s, n, o); }
template <> int enc<double>(const void *e, int s, unsigned n, unsigned char *o) { return rla__enc_double(e, s, n, o); }

template <typename T> RLA_DECODER dec();
template <> RLA_DECODER dec<uint8_t>() { return rla__dec_byte; }
template <> RLA_DECODER dec<uint16_t>() { return rla__dec_short; }
template <> RLA_DECODER dec<uint32_t>() { return rla__dec_word; }
template <> RLA_DECODER dec<float>() { return rla__dec_float; }
template <> RLA_DECODER dec<double>() { return rla__dec_double; }

constexpr uint8_t kCanary = 0xCD;

template <typename T>
Bytes encode(const std::vector<T> &row) {
    const size_t worst = RLA_ENCODED_MAX(row.size(), sizeof(T));
    Bytes out(worst + 64, kCanary);
    const int size = enc<T>(row.data(), 0, static_cast<unsigned>(row.size()), out.data());
    EXPECT_GE(size, 0);
    EXPECT_LE(static_cast<size_t>(size), worst);
    for (size_t i = size; i < out.size(); ++i)
        if (out[i] != kCanary) {
            ADD_FAILURE() << "encoder wrote byte " << i << " past its result " << size;
            break;
        }
    out.resize(size);
    return out;
}

struct Decoded {
    int result;
    std::vector<uint8_t> bytes;  // the whole destination, guard elements included
};

// Decodes into leading + count + trailing elements between two guard areas, from a
// heap block of exactly `length` bytes so that reading past it is caught by ASan.
template <typename T>
Decoded decode(const Bytes &block, int count, unsigned leading = 0, int trailing = 0) {
    constexpr size_t kGuard = 64;
    const size_t total = leading + count + trailing;
    Bytes dest(total * sizeof(T) + 2 * kGuard, kCanary);
    std::unique_ptr<uint8_t[]> exact(new uint8_t[block.size() + !block.size()]);
    if (!block.empty()) std::memcpy(exact.get(), block.data(), block.size());
    const int r = dec<T>()(exact.get(), static_cast<int>(block.size()), dest.data() + kGuard, count, leading,
                           trailing);
    for (size_t i = 0; i < kGuard; ++i) {
        EXPECT_EQ(dest[i], kCanary) << "decoder wrote before the row";
        EXPECT_EQ(dest[dest.size() - 1 - i], kCanary) << "decoder wrote past the row";
    }
    return {r, Bytes(dest.begin() + kGuard, dest.end() - kGuard)};
}

template <typename T>
Bytes as_bytes(const std::vector<T> &row) {
    Bytes b(row.size() * sizeof(T));
    if (!b.empty()) std::memcpy(b.data(), row.data(), b.size());
    return b;
}

// ---------------------------------------------------------------------------

TEST(RlaEncode, PacketBoundaries) {
    EXPECT_EQ(encode(Bytes(128, 7)), (Bytes{127, 7}));
    EXPECT_EQ(encode(Bytes(129, 7)), (Bytes{127, 7, 0, 7}));  // the tail stays a run
    EXPECT_EQ(encode(Bytes(258, 7)), (Bytes{127, 7, 127, 7, 1, 7}));
    EXPECT_EQ(encode(Bytes{1, 2, 2, 3}), (Bytes{0xFC, 1, 2, 2, 3}));  // two equal stay literal
    EXPECT_EQ(encode(Bytes{1, 2, 2, 2}), (Bytes{0xFF, 1, 2, 2}));
    EXPECT_EQ(encode(Bytes{5, 5, 5, 9, 9}), (Bytes{2, 5, 0xFE, 9, 9}));
    EXPECT_EQ(encode(Bytes{}), Bytes{});

    Bytes distinct(300);
    for (size_t i = 0; i < distinct.size(); ++i) distinct[i] = static_cast<uint8_t>(i * 7);
    const Bytes packed = encode(distinct);
    ASSERT_EQ(packed.size(), 303u);
    EXPECT_EQ(packed[0], 0x80);
    EXPECT_EQ(packed[129], 0x80);
    EXPECT_EQ(packed[258], static_cast<uint8_t>(-44));
    EXPECT_EQ(Bytes(packed.begin() + 259, packed.end()), Bytes(distinct.begin() + 256, distinct.end()));
}

TEST(RlaEncode, PlanesMostSignificantFirst) {
    EXPECT_EQ(encode(std::vector<uint16_t>(10, 0x1234)), (Bytes{9, 0x12, 9, 0x34}));
    EXPECT_EQ(encode(std::vector<uint32_t>{0xA1B2C3D4, 0xA1B2C3D5, 0xA1B2C3D6}),
              (Bytes{2, 0xA1, 2, 0xB2, 2, 0xC3, 0xFD, 0xD4, 0xD5, 0xD6}));

    // The start element is honoured and a count of 0 writes nothing.
    const std::vector<uint16_t> row{1, 2, 0x0505, 0x0505, 0x0505};
    unsigned char out[16];
    std::memset(out, kCanary, sizeof out);
    EXPECT_EQ(rla__enc_short(row.data(), 5, 0, out), 0);
    EXPECT_EQ(out[0], kCanary);
    ASSERT_EQ(rla__enc_short(row.data(), 2, 3, out), 4);
    EXPECT_EQ(Bytes(out, out + 4), (Bytes{2, 5, 2, 5}));
}

TEST(RlaEncode, RefusesCountsWhoseOutputOverflowsAnInt) {
    unsigned char out[1] = {0};
    EXPECT_EQ(rla__enc_byte(out, 0, UINT_MAX, out), -1);
    EXPECT_EQ(rla__enc_word(out, 0, 1u << 29, out), -1);
    EXPECT_EQ(rla__enc_double(out, 0, 1u << 28, out), -1);
}

// Rows of every shape the encoder distinguishes: noise, short runs from a small
// alphabet, long runs, gradients, and lengths around the packet limits.
template <typename T>
std::vector<std::vector<T>> sample_rows(std::mt19937 &rng) {
    std::vector<std::vector<T>> rows;
    const size_t lengths[] = {1, 2, 3, 4, 15, 16, 17, 18, 19, 31, 33, 127, 128, 129, 130, 255, 256, 257, 300, 1000, 4096};
    auto any = [&]() { return static_cast<T>(rng()); };
    for (size_t n : lengths) {
        for (int kind = 0; kind < 6; ++kind) {
            std::vector<T> row(n);
            T v = any();
            for (size_t i = 0; i < n; ++i) {
                switch (kind) {
                case 0: row[i] = any(); break;
                case 1: row[i] = static_cast<T>(rng() % 3 * 0x01010101u); break;
                case 2: if (rng() % 40 == 0) v = any(); row[i] = v; break;
                case 3: row[i] = static_cast<T>(i / 5 * 0x00010203u); break;
                case 4: row[i] = static_cast<T>(rng() % 4 == 0 ? any() : v); break;
                default: row[i] = static_cast<T>(i % 3 == 0 ? v : any() & 0x0F0F0F0Fu); break;
                }
            }
            rows.push_back(row);
        }
    }
    for (size_t n = 0; n < 600; ++n) {  // runs ending at every distance from the row's end
        std::vector<T> row(n, 9);
        for (size_t i = 0; i < n; i += 1 + rng() % 260) row[i] = any();
        rows.push_back(row);
    }
    return rows;
}

template <typename T>
void check_against_reference() {
    std::mt19937 rng(1234 + sizeof(T));
    for (const auto &row : sample_rows<T>(rng)) {
        SCOPED_TRACE(testing::Message() << "row of " << row.size());
        const Bytes packed = encode(row);
        ASSERT_EQ(packed, ref_encode(row));
        const unsigned leading = rng() % 4;
        const int trailing = rng() % 4;
        const Decoded d = decode<T>(packed, static_cast<int>(row.size()), leading, trailing);
        ASSERT_EQ(d.result, static_cast<int>(leading + row.size() + trailing));
        Bytes expect(leading * sizeof(T), 0);
        const Bytes body = as_bytes(row);
        expect.insert(expect.end(), body.begin(), body.end());
        expect.resize(expect.size() + trailing * sizeof(T), 0);
        ASSERT_EQ(d.bytes, expect);
    }
}

TEST(RlaCodec, ByteRowsMatchTheReferenceAndRoundTrip) { check_against_reference<uint8_t>(); }
TEST(RlaCodec, ShortRowsMatchTheReferenceAndRoundTrip) { check_against_reference<uint16_t>(); }
TEST(RlaCodec, WordRowsMatchTheReferenceAndRoundTrip) { check_against_reference<uint32_t>(); }

TEST(RlaDecode, LeadingAndTrailingAreCleared) {
    const Decoded d = decode<uint8_t>(Bytes{4, 9}, 5, 2, 3);
    EXPECT_EQ(d.result, 10);
    EXPECT_EQ(d.bytes, (Bytes{0, 0, 9, 9, 9, 9, 9, 0, 0, 0}));
    EXPECT_EQ(decode<uint16_t>(Bytes{}, 0, 1, 1).result, 2);
}

template <typename T>
void check_damaged_blocks() {
    std::mt19937 rng(99);
    for (const auto &row : sample_rows<T>(rng)) {
        if (row.size() > 300) continue;
        const Bytes good = encode(row);
        const int n = static_cast<int>(row.size());
        SCOPED_TRACE(testing::Message() << "row of " << n);
        const Bytes zero((n + 3) * sizeof(T), 0);
        // Every cut, and one byte too many, fails and leaves a clean row.
        for (size_t cut = 0; cut < good.size(); ++cut) {
            const Decoded d = decode<T>(Bytes(good.begin(), good.begin() + cut), n, 1, 2);
            ASSERT_EQ(d.result, 0) << "cut at " << cut;
            ASSERT_EQ(d.bytes, zero);
        }
        Bytes longer = good;
        longer.push_back(0);
        EXPECT_EQ(decode<T>(longer, n, 1, 2).result, 0);
        // The same packets are too many for a shorter row.
        if (n > 0) {
            EXPECT_EQ(decode<T>(good, n - 1).result, 0);
        }
    }
    // A run or a literal reaching past the row.
    EXPECT_EQ(decode<T>(Bytes{5, 1}, 5).result, 0);
    EXPECT_EQ(decode<uint8_t>(Bytes{0xFD, 1, 2, 3}, 2).result, 0);
    EXPECT_EQ(decode<uint8_t>(Bytes{127, 1}, 127).result, 0);
}

TEST(RlaDecode, DamagedByteBlocksFail) { check_damaged_blocks<uint8_t>(); }
TEST(RlaDecode, DamagedShortBlocksFail) { check_damaged_blocks<uint16_t>(); }
TEST(RlaDecode, DamagedWordBlocksFail) { check_damaged_blocks<uint32_t>(); }

// Packets of random kinds and sizes filling `planes` planes of n elements.
Bytes random_packets(std::mt19937 &rng, int n, size_t planes) {
    Bytes block;
    for (size_t plane = 0; plane < planes; ++plane) {
        for (int left = n; left > 0;) {
            const int k = rng() % 3 == 0 ? std::min(left, 128) : 1 + static_cast<int>(rng() % std::min(left, 128));
            if (rng() % 2) {
                block.insert(block.end(), {static_cast<uint8_t>(k - 1), static_cast<uint8_t>(rng())});
            } else {
                block.push_back(static_cast<uint8_t>(-k));
                for (int j = 0; j < k; ++j) block.push_back(static_cast<uint8_t>(rng()));
            }
            left -= k;
        }
    }
    return block;
}

// Arbitrary blocks, mostly damaged, decode exactly as the per-byte decoder says.
template <typename T>
void check_random_blocks() {
    std::mt19937 rng(7 + sizeof(T));
    for (int round = 0; round < 4000; ++round) {
        Bytes block(rng() % 64);
        for (auto &b : block) b = static_cast<uint8_t>(rng() % 8 == 0 ? rng() % 4 : rng());
        if (!block.empty() && rng() % 2) block[0] = static_cast<uint8_t>(rng() % 128);
        const int n = static_cast<int>(rng() % 300);
        std::vector<T> expect;
        const bool ok = ref_decode(block, n, expect);
        const Decoded d = decode<T>(block, n, 3, 1);
        ASSERT_EQ(d.result, ok ? n + 4 : 0);
        Bytes want((n + 4) * sizeof(T), 0);
        if (ok && n) std::memcpy(want.data() + 3 * sizeof(T), expect.data(), n * sizeof(T));
        ASSERT_EQ(d.bytes, want);
    }
    // Packets that fill the row exactly, in every combination of sizes.
    for (int round = 0; round < 2000; ++round) {
        const int n = static_cast<int>(rng() % 400);
        const Bytes block = random_packets(rng, n, sizeof(T));
        std::vector<T> expect;
        ASSERT_TRUE(ref_decode(block, n, expect));
        const Decoded d = decode<T>(block, n);
        ASSERT_EQ(d.result, n);
        ASSERT_EQ(d.bytes, as_bytes(expect));
    }
}

TEST(RlaDecode, ArbitraryByteBlocksMatchTheReference) { check_random_blocks<uint8_t>(); }

// The decoder for processors without wide vectors is not the one run here when the
// processor has them: compare it with the per-byte decoder directly.
TEST(RlaDecode, PortableBytePlaneDecoderMatchesTheReference) {
    std::mt19937 rng(5);
    for (int round = 0; round < 20000; ++round) {
        const size_t n = rng() % 600;
        Bytes block = random_packets(rng, static_cast<int>(n), 1);
        if (rng() % 2 && !block.empty()) {  // damage it
            const size_t at = rng() % block.size();
            if (rng() % 2) block.resize(at);
            else block[at] = static_cast<uint8_t>(rng());
        }
        std::vector<uint8_t> expect;
        const bool ok = ref_decode(block, n, expect);
        std::unique_ptr<uint8_t[]> exact(new uint8_t[block.size() + 1]);
        std::copy(block.begin(), block.end(), exact.get());
        Bytes row(n + 1, kCanary);
        const uint8_t *end = exact.get() + block.size();
        const uint8_t *after = pxf::rla::decode_byte_plane_portable(exact.get(), end, row.data(), n);
        ASSERT_EQ(ok, after == end);
        ASSERT_EQ(row[n], kCanary);
        if (ok) {
            ASSERT_EQ(Bytes(row.begin(), row.begin() + n), expect);
        }
    }
}
TEST(RlaDecode, ArbitraryShortBlocksMatchTheReference) { check_random_blocks<uint16_t>(); }
TEST(RlaDecode, ArbitraryWordBlocksMatchTheReference) { check_random_blocks<uint32_t>(); }

template <typename T>
void check_stored() {
    const std::vector<T> row{T(1.5), T(-0.25), T(1e30), T(0)};
    const Bytes packed = encode(row);
    EXPECT_EQ(packed, as_bytes(row));
    const Decoded d = decode<T>(packed, 4, 1, 1);
    EXPECT_EQ(d.result, 6);
    Bytes expect(sizeof(T), 0);
    for (uint8_t b : as_bytes(row)) expect.push_back(b);
    expect.resize(expect.size() + sizeof(T), 0);
    EXPECT_EQ(d.bytes, expect);
    // The block must hold exactly the elements asked for.
    EXPECT_EQ(decode<T>(Bytes(packed.begin(), packed.end() - 1), 4).result, 0);
    EXPECT_EQ(decode<T>(packed, 3).result, 0);
    EXPECT_EQ(decode<T>(Bytes{}, 0, 2, 0).result, 2);
}

TEST(RlaCodec, FloatAndDoubleAreStoredAsTheyStand) {
    check_stored<float>();
    check_stored<double>();
}

TEST(RlaDecode, BadArgumentsWriteNothing) {
    const Bytes block{0, 1};
    Bytes row(8, kCanary);
    EXPECT_EQ(rla__dec_byte(block.data(), -1, row.data(), 1, 0, 0), 0);
    EXPECT_EQ(rla__dec_byte(block.data(), 2, row.data(), -1, 0, 0), 0);
    EXPECT_EQ(rla__dec_short(block.data(), 2, row.data(), 1, 0, -1), 0);
    EXPECT_EQ(rla__dec_word(block.data(), 2, row.data(), 1, UINT_MAX, 0), 0);
    EXPECT_EQ(rla__dec_double(block.data(), 2, row.data(), INT_MAX, 0, 1), 0);
    EXPECT_EQ(row, Bytes(8, kCanary));
}

TEST(RlaInactive, ClearExactlyTheElementsAsked) {
    const struct {
        RLA_INACT_DECODER fn;
        size_t size;
    } cases[] = {{rla__inact_dec_byte, 1},
                 {rla__inact_dec_short, 2},
                 {rla__inact_dec_word, 4},
                 {rla__inact_dec_float, 4},
                 {rla__inact_dec_double, 8}};
    for (const auto &c : cases) {
        Bytes row(8 * 5, kCanary);
        EXPECT_EQ(c.fn(row.data(), 3), 0);
        EXPECT_EQ(Bytes(row.begin(), row.begin() + 3 * c.size), Bytes(3 * c.size, 0));
        EXPECT_EQ(row[3 * c.size], kCanary);
        EXPECT_EQ(c.fn(row.data() + 39, -1), 0);
        EXPECT_EQ(row[39], kCanary);
    }
}

}  // namespace
