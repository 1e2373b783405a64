#include "formats/rla_codec.h"

#include <pxf/rla.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace pxf::rla {
namespace {

// A plane is every S-th byte of the element buffer, starting at the byte that holds
// the plane's significance in a host-order element.
template <typename T>
size_t plane_offset(size_t plane) {
    return std::endian::native == std::endian::little ? sizeof(T) - 1 - plane : plane;
}

// ---------------------------------------------------------------------------
// Encoding

// Bit j of word k: elements 64k + j and 64k + j + 1 have equal bytes in the plane.
// Zero from element n - 1 on, so that the last element always ends a run.
template <size_t S>
uint64_t equal_bits(const uint8_t *p, size_t n, size_t k) {
    const size_t base = 64 * k;
    if constexpr (S == 1) {
#if defined(__SSE2__)
        if (base + 65 <= n) {
            uint64_t bits = 0;
            for (size_t m = 0; m < 4; ++m) {
                const uint8_t *q = p + base + 16 * m;
                const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q));
                const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 1));
                bits |= uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, b)))} << (16 * m);
            }
            return bits;
        }
#endif
    }
    uint64_t bits = 0;
    const size_t last = std::min(base + 64, n - 1);
    for (size_t i = base; i < last; ++i) bits |= uint64_t{p[i * S] == p[(i + 1) * S]} << (i - base);
    return bits;
}

template <size_t S>
void gather(uint8_t *out, const uint8_t *p, size_t k) {
    if constexpr (S == 1) {
        std::memcpy(out, p, k);
    } else {
        for (size_t j = 0; j < k; ++j) out[j] = p[j * S];
    }
}

template <size_t S>
uint8_t *put_literals(uint8_t *out, const uint8_t *p, size_t k) {
    while (k > kMaxPacket) {
        *out++ = 0x80;  // -128
        gather<S>(out, p, kMaxPacket);
        out += kMaxPacket;
        p += kMaxPacket * S;
        k -= kMaxPacket;
    }
    *out++ = static_cast<uint8_t>(256 - k);
    gather<S>(out, p, k);
    return out + k;
}

// The tail of a long run stays a run even when it is only 1 or 2 elements long:
// existing files were written that way.
inline uint8_t *put_run(uint8_t *out, uint8_t v, size_t k) {
    while (k > kMaxPacket) {
        *out++ = 127;
        *out++ = v;
        k -= kMaxPacket;
    }
    *out++ = static_cast<uint8_t>(k - 1);
    *out++ = v;
    return out;
}

// Runs are found 64 elements at a time from the equal-neighbour bits: a run of 3 or
// more starts where a byte equals the next two and differs from the one before, and
// ends where a byte equals the two before and differs from the next.  Starts and ends
// alternate, so each is taken as the lowest bit of its mask: the work from one run to
// the next is a bit clear, not a fresh scan from the previous run's end.
template <size_t S>
uint8_t *encode_plane(const uint8_t *p, size_t n, uint8_t *out) {
    if (n == 0) return out;
    size_t lit = 0;    // start of the pending literals
    size_t start = 0;  // start of the open run, if any
    bool in_run = false;
    uint64_t prev = 0, cur = equal_bits<S>(p, n, 0), next = equal_bits<S>(p, n, 1);
    for (size_t k = 0; 64 * k < n; ++k) {
        const uint64_t before1 = (cur << 1) | (prev >> 63);
        uint64_t starts = cur & ((cur >> 1) | (next << 63)) & ~before1;
        uint64_t ends = ~cur & before1 & ((cur << 2) | (prev >> 62));
        while (in_run ? ends != 0 : starts != 0) {
            if (!in_run) {
                start = 64 * k + static_cast<size_t>(std::countr_zero(starts));
                starts &= starts - 1;
                in_run = true;
                if (!ends) break;  // the run goes on into the next word
            }
            const size_t end = 64 * k + static_cast<size_t>(std::countr_zero(ends)) + 1;
            ends &= ends - 1;
            in_run = false;
            if (start > lit) out = put_literals<S>(out, p + lit * S, start - lit);
            out = put_run(out, p[start * S], end - start);
            lit = end;
        }
        prev = cur;
        cur = next;
        next = equal_bits<S>(p, n, k + 2);
    }
    if (lit < n) out = put_literals<S>(out, p + lit * S, n - lit);
    return out;
}

// ---------------------------------------------------------------------------
// Decoding

// Byte planes are decoded in whole 32-byte moves wherever the row (and for literals the
// block) has room for them: the bytes written past a packet's end are rewritten by the
// packets that follow.  Where the processor has AVX2, a move is one vector store.
constexpr size_t kChunk = 32;
constexpr size_t round_up_chunk(size_t n) { return (n + kChunk - 1) & ~(kChunk - 1); }
static_assert(kMaxPacket == 4 * kChunk);

struct PlainMoves {
    static void copy(uint8_t *o, const uint8_t *in) { std::memcpy(o, in, kChunk); }
    static void fill(uint8_t *o, uint8_t v) { std::memset(o, v, kChunk); }
};

// Decodes one byte plane of n elements into o.  Returns the input position after the
// plane, or null when a packet is cut short by the end of the block or would run past
// the end of the plane.
template <class Moves>
[[gnu::always_inline]] inline const uint8_t *decode_bytes(const uint8_t *in, const uint8_t *end, uint8_t *o,
                                                          size_t n) {
    size_t rem = n;
    while (rem) {
        if (in == end) return nullptr;
        const size_t avail = static_cast<size_t>(end - in) - 1;
        const int c = static_cast<int8_t>(*in++);
        // Full packets take a path of fixed sizes: on noise and flat areas the place of
        // the next count byte is then known before this one has been read.
        if (c >= 0) {
            const size_t k = static_cast<size_t>(c) + 1;
            if (k > rem || avail == 0) return nullptr;
            const uint8_t v = *in++;
            if (k == kMaxPacket) {
                Moves::fill(o, v);
                Moves::fill(o + kChunk, v);
                Moves::fill(o + 2 * kChunk, v);
                Moves::fill(o + 3 * kChunk, v);
                o += kMaxPacket;
                rem -= kMaxPacket;
                continue;
            }
            if (round_up_chunk(k) <= rem) {
                for (size_t j = 0; j < k; j += kChunk) Moves::fill(o + j, v);
            } else {
                std::memset(o, v, k);
            }
            o += k;
            rem -= k;
        } else {
            const size_t k = static_cast<size_t>(-c);
            if (k > rem || k > avail) return nullptr;
            if (k == kMaxPacket) {
                Moves::copy(o, in);
                Moves::copy(o + kChunk, in + kChunk);
                Moves::copy(o + 2 * kChunk, in + 2 * kChunk);
                Moves::copy(o + 3 * kChunk, in + 3 * kChunk);
                in += kMaxPacket;
                o += kMaxPacket;
                rem -= kMaxPacket;
                continue;
            }
            if (round_up_chunk(k) <= rem && round_up_chunk(k) <= avail) {
                for (size_t j = 0; j < k; j += kChunk) Moves::copy(o + j, in + j);
            } else {
                std::memcpy(o, in, k);
            }
            in += k;
            o += k;
            rem -= k;
        }
    }
    return in;
}

using BytePlaneDecoder = const uint8_t *(*)(const uint8_t *, const uint8_t *, uint8_t *, size_t);

}  // namespace

const uint8_t *decode_byte_plane_portable(const uint8_t *in, const uint8_t *end, uint8_t *o, size_t n) {
    return decode_bytes<PlainMoves>(in, end, o, n);
}

namespace {

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
struct Avx2Moves {
    [[gnu::target("avx2")]] static void copy(uint8_t *o, const uint8_t *in) {
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(o), _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in)));
    }
    [[gnu::target("avx2")]] static void fill(uint8_t *o, uint8_t v) {
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(o), _mm256_set1_epi8(static_cast<char>(v)));
    }
};

[[gnu::target("avx2")]] const uint8_t *decode_bytes_avx2(const uint8_t *in, const uint8_t *end, uint8_t *o,
                                                          size_t n) {
    return decode_bytes<Avx2Moves>(in, end, o, n);
}

BytePlaneDecoder pick_byte_plane_decoder() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") ? decode_bytes_avx2 : decode_byte_plane_portable;
}
#else
BytePlaneDecoder pick_byte_plane_decoder() { return decode_byte_plane_portable; }
#endif

const uint8_t *decode_byte_plane(const uint8_t *in, const uint8_t *end, uint8_t *o, size_t n) {
    static const BytePlaneDecoder decoder = pick_byte_plane_decoder();
    return decoder(in, end, o, n);
}

template <size_t S>
const uint8_t *decode_plane(const uint8_t *in, const uint8_t *end, uint8_t *o, size_t n) {
    if constexpr (S == 1) return decode_byte_plane(in, end, o, n);
    size_t rem = n;
    while (rem) {
        if (in == end) return nullptr;
        const int c = static_cast<int8_t>(*in++);
        const size_t avail = static_cast<size_t>(end - in);
        const size_t k = c >= 0 ? static_cast<size_t>(c) + 1 : static_cast<size_t>(-c);
        if (k > rem || (c >= 0 ? avail == 0 : k > avail)) return nullptr;
        if (c >= 0) {
            const uint8_t v = *in++;
            for (size_t j = 0; j < k; ++j) o[j * S] = v;
        } else {
            for (size_t j = 0; j < k; ++j) o[j * S] = in[j];
            in += k;
        }
        o += k * S;
        rem -= k;
    }
    return in;
}

}  // namespace

template <typename T>
size_t encode(const T *elements, size_t n, uint8_t *out) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(elements);
    uint8_t *o = out;
    for (size_t plane = 0; plane < sizeof(T); ++plane)
        o = encode_plane<sizeof(T)>(bytes + plane_offset<T>(plane), n, o);
    return static_cast<size_t>(o - out);
}

template <typename T>
bool decode(const uint8_t *block, size_t length, T *dest, size_t n) {
    if (length == 0) return n == 0;
    const uint8_t *in = block;
    const uint8_t *const end = block + length;
    auto *bytes = reinterpret_cast<uint8_t *>(dest);
    for (size_t plane = 0; plane < sizeof(T); ++plane) {
        in = decode_plane<sizeof(T)>(in, end, bytes + plane_offset<T>(plane), n);
        if (!in) return false;
    }
    return in == end;
}

template <typename T>
size_t store(const T *elements, size_t n, uint8_t *out) {
    if (n) std::memcpy(out, elements, n * sizeof(T));
    return n * sizeof(T);
}

template <typename T>
bool load(const uint8_t *block, size_t length, T *dest, size_t n) {
    if (length != n * sizeof(T)) return false;
    if (n) std::memcpy(dest, block, length);
    return true;
}

template size_t encode<uint8_t>(const uint8_t *, size_t, uint8_t *);
template size_t encode<uint16_t>(const uint16_t *, size_t, uint8_t *);
template size_t encode<uint32_t>(const uint32_t *, size_t, uint8_t *);
template bool decode<uint8_t>(const uint8_t *, size_t, uint8_t *, size_t);
template bool decode<uint16_t>(const uint8_t *, size_t, uint16_t *, size_t);
template bool decode<uint32_t>(const uint8_t *, size_t, uint32_t *, size_t);
template size_t store<float>(const float *, size_t, uint8_t *);
template size_t store<double>(const double *, size_t, uint8_t *);
template bool load<float>(const uint8_t *, size_t, float *, size_t);
template bool load<double>(const uint8_t *, size_t, double *, size_t);

}  // namespace pxf::rla

// ---------------------------------------------------------------------------
// The exported entry points

namespace {

using namespace pxf::rla;

template <typename T, bool Raw>
int encode_entry(const void *elements, int start, unsigned count, unsigned char *out) {
    if (encoded_max<T>(count) > INT_MAX) return -1;
    if (count == 0) return 0;
    const T *first = static_cast<const T *>(elements) + start;
    if constexpr (Raw)
        return static_cast<int>(store<T>(first, count, out));
    else
        return static_cast<int>(encode<T>(first, count, out));
}

template <typename T>
void clear(T *dest, size_t n) {
    if (n) std::memset(dest, 0, n * sizeof(T));
}

template <typename T, bool Raw>
int decode_entry(const unsigned char *block, int length, void *dest, int count, unsigned leading,
                 int trailing) {
    if (length < 0 || count < 0 || trailing < 0) return 0;
    const uint64_t total = uint64_t{leading} + uint64_t(count) + uint64_t(trailing);
    if (total > INT_MAX) return 0;
    T *row = static_cast<T *>(dest);
    const size_t n = static_cast<size_t>(count);
    const size_t len = static_cast<size_t>(length);
    clear(row, leading);
    bool ok;
    if constexpr (Raw)
        ok = load<T>(block, len, row + leading, n);
    else
        ok = decode<T>(block, len, row + leading, n);
    if (!ok) {
        // A damaged block leaves a clean row rather than half of one.
        clear(row + leading, n);
        clear(row + leading + n, static_cast<size_t>(trailing));
        return 0;
    }
    clear(row + leading + n, static_cast<size_t>(trailing));
    return static_cast<int>(total);
}

template <typename T>
int clear_entry(void *dest, int count) {
    if (count > 0) clear(static_cast<T *>(dest), static_cast<size_t>(count));
    return 0;
}

}  // namespace

extern "C" {

int rla__enc_byte(const void *elements, int start, unsigned count, unsigned char *out) {
    return encode_entry<uint8_t, false>(elements, start, count, out);
}
int rla__enc_short(const void *elements, int start, unsigned count, unsigned char *out) {
    return encode_entry<uint16_t, false>(elements, start, count, out);
}
int rla__enc_word(const void *elements, int start, unsigned count, unsigned char *out) {
    return encode_entry<uint32_t, false>(elements, start, count, out);
}
int rla__enc_float(const void *elements, int start, unsigned count, unsigned char *out) {
    return encode_entry<float, true>(elements, start, count, out);
}
int rla__enc_double(const void *elements, int start, unsigned count, unsigned char *out) {
    return encode_entry<double, true>(elements, start, count, out);
}

int rla__dec_byte(const unsigned char *block, int length, void *dest, int count, unsigned leading,
                  int trailing) {
    return decode_entry<uint8_t, false>(block, length, dest, count, leading, trailing);
}
int rla__dec_short(const unsigned char *block, int length, void *dest, int count, unsigned leading,
                   int trailing) {
    return decode_entry<uint16_t, false>(block, length, dest, count, leading, trailing);
}
int rla__dec_word(const unsigned char *block, int length, void *dest, int count, unsigned leading,
                  int trailing) {
    return decode_entry<uint32_t, false>(block, length, dest, count, leading, trailing);
}
int rla__dec_float(const unsigned char *block, int length, void *dest, int count, unsigned leading,
                   int trailing) {
    return decode_entry<float, true>(block, length, dest, count, leading, trailing);
}
int rla__dec_double(const unsigned char *block, int length, void *dest, int count, unsigned leading,
                    int trailing) {
    return decode_entry<double, true>(block, length, dest, count, leading, trailing);
}

int rla__inact_dec_byte(void *dest, int count) { return clear_entry<uint8_t>(dest, count); }
int rla__inact_dec_short(void *dest, int count) { return clear_entry<uint16_t>(dest, count); }
int rla__inact_dec_word(void *dest, int count) { return clear_entry<uint32_t>(dest, count); }
int rla__inact_dec_float(void *dest, int count) { return rla__inact_dec_word(dest, count); }
int rla__inact_dec_double(void *dest, int count) { return clear_entry<double>(dest, count); }

}  // extern "C"
