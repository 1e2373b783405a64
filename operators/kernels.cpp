#include "operators/kernels.h"

#include <immintrin.h>

#include <cstring>

// GCC 12 warns falsely inside its own AVX-512 intrinsics at -O2.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace pxf::ops {
namespace {

// Wide versions for processors with AVX-512, chosen once at run time; the
// portable loops below them give the same results everywhere.
bool has_avx512() {
    static const bool yes = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                            __builtin_cpu_supports("avx512dq");
    return yes;
}
bool has_avx512vbmi() {
    static const bool yes = has_avx512() && __builtin_cpu_supports("avx512vbmi");
    return yes;
}

// 64 indices at a time: each byte of the 32-bit results is looked up in its
// own 256-byte plane, then the four planes are interleaved back into words.
// The indices are first reordered so that the interleave, which works within
// 128-bit lanes, lands every result in its place.
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vbmi"))) std::size_t lookup_row_wide(
    float *__restrict out, const uint8_t *__restrict in, std::size_t n, const ByteToFloatTable &table) {
    alignas(64) uint8_t order[64];
    for (int lane = 0; lane < 4; ++lane)
        for (int group = 0; group < 4; ++group)
            for (int e = 0; e < 4; ++e) order[16 * lane + 4 * group + e] = static_cast<uint8_t>(16 * group + 4 * lane + e);
    const __m512i reorder = _mm512_load_si512(order);
    __m512i planes[4][4];
    for (int k = 0; k < 4; ++k)
        for (int q = 0; q < 4; ++q) planes[k][q] = _mm512_loadu_si512(table.planes[k] + 64 * q);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64) {
        __m512i index = _mm512_permutexvar_epi8(reorder, _mm512_loadu_si512(in + i));
        __mmask64 top = _mm512_movepi8_mask(index);
        __m512i b[4];
        for (int k = 0; k < 4; ++k) {
            __m512i low = _mm512_permutex2var_epi8(planes[k][0], index, planes[k][1]);
            __m512i high = _mm512_permutex2var_epi8(planes[k][2], index, planes[k][3]);
            b[k] = _mm512_mask_blend_epi8(top, low, high);
        }
        __m512i lo01 = _mm512_unpacklo_epi8(b[0], b[1]), hi01 = _mm512_unpackhi_epi8(b[0], b[1]);
        __m512i lo23 = _mm512_unpacklo_epi8(b[2], b[3]), hi23 = _mm512_unpackhi_epi8(b[2], b[3]);
        _mm512_storeu_si512(out + i, _mm512_unpacklo_epi16(lo01, lo23));
        _mm512_storeu_si512(out + i + 16, _mm512_unpackhi_epi16(lo01, lo23));
        _mm512_storeu_si512(out + i + 32, _mm512_unpacklo_epi16(hi01, hi23));
        _mm512_storeu_si512(out + i + 48, _mm512_unpackhi_epi16(hi01, hi23));
    }
    return i;
}

// 256-entry byte table held in four registers: two 128-entry permutes and a
// select on the top bit of each index.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) std::size_t lookup_bytes_wide(uint8_t *row, std::size_t n,
                                                                                    const uint8_t *__restrict table) {
    const __m512i t0 = _mm512_loadu_si512(table);
    const __m512i t1 = _mm512_loadu_si512(table + 64);
    const __m512i t2 = _mm512_loadu_si512(table + 128);
    const __m512i t3 = _mm512_loadu_si512(table + 192);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64) {
        __m512i index = _mm512_loadu_si512(row + i);
        __m512i low = _mm512_permutex2var_epi8(t0, index, t1);
        __m512i high = _mm512_permutex2var_epi8(t2, index, t3);
        __mmask64 top = _mm512_movepi8_mask(index);
        _mm512_storeu_si512(row + i, _mm512_mask_blend_epi8(top, low, high));
    }
    return i;
}

// Sixteen products truncated toward zero; out-of-range products and NaNs
// give INT32_MIN, as quantize_value does.
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vbmi"), always_inline)) inline __m512i truncate16(const float *in,
                                                                                           __m512 f) {
    return _mm512_cvttps_epi32(_mm512_mul_ps(_mm512_loadu_ps(in), f));
}

// Truncation toward zero of the clamped products, narrowed by keeping the low bits.
template <class Dst>
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vbmi"))) std::size_t quantize_row_wide(Dst *__restrict out,
                                                                          const float *__restrict in, std::size_t n,
                                                                          float factor) {
    const __m512 f = _mm512_set1_ps(factor);
    std::size_t i = 0;
    if constexpr (sizeof(Dst) < 4) {
        if constexpr (sizeof(Dst) == 1) {
            // The low bytes of two vectors of 32-bit results into one half.
            alignas(64) uint8_t pick[64];
            for (int k = 0; k < 64; ++k) pick[k] = static_cast<uint8_t>(k < 16 ? 4 * k : k < 32 ? 64 + 4 * (k - 16) : 0);
            const __m512i low_bytes = _mm512_load_si512(pick);
            for (; i + 64 <= n; i += 64) {
                __m512i a = _mm512_permutex2var_epi8(truncate16(in + i, f), low_bytes, truncate16(in + i + 16, f));
                __m512i b = _mm512_permutex2var_epi8(truncate16(in + i + 32, f), low_bytes, truncate16(in + i + 48, f));
                _mm512_storeu_si512(out + i, _mm512_inserti64x4(a, _mm512_castsi512_si256(b), 1));
            }
        }
        for (; i + 16 <= n; i += 16) {
            __m512i v = truncate16(in + i, f);
            if constexpr (sizeof(Dst) == 1) _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm512_cvtepi32_epi8(v));
            else _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i), _mm512_cvtepi32_epi16(v));
        }
    } else {
        const __m512 zero = _mm512_setzero_ps();
        for (; i + 16 <= n; i += 16) {
            __m512 q = _mm512_max_ps(_mm512_mul_ps(_mm512_loadu_ps(in + i), f), zero);  // NaN becomes 0
            _mm512_storeu_si512(out + i, _mm512_cvttps_epu32(q));
        }
    }
    return i;
}

}  // namespace

void ByteToFloatTable::prepare() {
    for (int i = 0; i < 256; ++i) {
        uint32_t bits;
        std::memcpy(&bits, &values[i], sizeof bits);
        for (int k = 0; k < 4; ++k) planes[k][i] = static_cast<uint8_t>(bits >> (8 * k));
    }
}

void lookup_row(float *__restrict out, const uint8_t *__restrict in, std::size_t n, const ByteToFloatTable &prepared) {
    std::size_t i = has_avx512vbmi() ? lookup_row_wide(out, in, n, prepared) : 0;
    const float *table = prepared.values;
    for (; i + 8 <= n; i += 8) {
        uint64_t v;
        std::memcpy(&v, in + i, sizeof v);
        for (int k = 0; k < 8; ++k) out[i + k] = table[(v >> (8 * k)) & 0xff];
    }
    for (; i < n; ++i) out[i] = table[in[i]];
}

void lookup_bytes(uint8_t *row, std::size_t n, const uint8_t *__restrict table) {
    std::size_t i = has_avx512vbmi() ? lookup_bytes_wide(row, n, table) : 0;
    for (; i < n; ++i) row[i] = table[row[i]];
}

void lookup_words_to_bytes(void *row, std::size_t n, const uint8_t *table, uint32_t last) {
    auto *bytes = static_cast<uint8_t *>(row);
    for (std::size_t i = 0; i < n; ++i) {
        uint16_t v;
        std::memcpy(&v, bytes + 2 * i, sizeof v);
        bytes[i] = table[v < last ? v : last];
    }
}

template <class Dst>
void quantize_row(Dst *__restrict out, const float *__restrict in, std::size_t n, float factor) {
    std::size_t i = has_avx512vbmi() ? quantize_row_wide(out, in, n, factor) : 0;
    for (; i < n; ++i) out[i] = quantize_value<Dst>(in[i], factor);
}

template void quantize_row(uint8_t *__restrict, const float *__restrict, std::size_t, float);
template void quantize_row(uint16_t *__restrict, const float *__restrict, std::size_t, float);
template void quantize_row(uint32_t *__restrict, const float *__restrict, std::size_t, float);

}  // namespace pxf::ops
