// Per-row conversion loops shared by the cast, quantize and gamma operators.
// One template per conversion, instantiated for 8, 16 and 32-bit elements;
// plain loops over contiguous rows so that the compiler vectorises them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace pxf::ops {

// Largest value of each bit depth: entry b is 2^b - 1 for b = 0..32, then a
// closing 1.0.  Integer data is normalised by the reciprocal of these.
inline constexpr std::array<double, 34> kDivisors = [] {
    std::array<double, 34> t{};
    for (int b = 0; b <= 32; ++b) t[b] = static_cast<double>((uint64_t{1} << b) - 1);
    t[33] = 1.0;
    return t;
}();

// The multiplier that maps b-bit integers onto 0..1, rounded to single precision.
inline float reciprocal(int bits) {
    return static_cast<float>(1.0 / kDivisors[static_cast<std::size_t>(bits)]);
}

// The element type that holds integers of `bits` bits.
template <int Bits>
using Element = std::conditional_t<(Bits <= 8), uint8_t, std::conditional_t<(Bits <= 16), uint16_t, uint32_t>>;

// out[i] = in[i] * scale
template <class Src>
void scale_row(float *__restrict out, const Src *__restrict in, std::size_t n, float scale) {
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<float>(in[i]) * scale;
}

// A 256-entry float table for 8-bit input, with the byte planes of its
// values that the wide lookup uses; call prepare() after filling values.
struct ByteToFloatTable {
    float values[256];
    uint8_t planes[4][256];
    void prepare();
};

// out[i] = table.values[in[i]]
void lookup_row(float *__restrict out, const uint8_t *__restrict in, std::size_t n, const ByteToFloatTable &table);

// In-place 8-bit table lookup.
void lookup_bytes(uint8_t *row, std::size_t n, const uint8_t *__restrict table);

// In-place narrowing lookup: row16[i] (16-bit values) becomes the byte
// table[min(row16[i], last)] at byte i of the same row.  Each byte lands at or
// before the value it replaces, so the row can be converted front to back.
void lookup_words_to_bytes(void *row, std::size_t n, const uint8_t *table, uint32_t last);

// One value: trunc(v * factor) (no clipping).  Up to 16 bits the integer
// keeps its low bits, so values outside 0..1 wrap; a product outside the int32
// range (or a NaN) converts to INT32_MIN, as the processor's own conversion
// does, instead of being undefined.  32-bit output converts as unsigned:
// products from 2^31 up are kept, those of 2^32 and more (single precision
// makes 1.0 exactly 2^32 here) give the top code, negatives and NaN give 0.
template <class Dst>
inline Dst quantize_value(float v, float factor) {
    float q = v * factor;
    if constexpr (sizeof(Dst) < 4) {
        int32_t i = q >= -2147483648.0f && q < 2147483648.0f ? static_cast<int32_t>(q) : INT32_MIN;
        return static_cast<Dst>(i);
    } else {
        if (!(q > 0.0f)) return 0;
        return q >= 4294967296.0f ? UINT32_MAX : static_cast<uint32_t>(q);
    }
}

// out[i] = quantize_value(in[i], factor); for uint8_t, uint16_t and uint32_t.
template <class Dst>
void quantize_row(Dst *__restrict out, const float *__restrict in, std::size_t n, float factor);

// The multiplier of the quantize operator for b-bit output: 2^b - 1 + 0.95,
// so that only values within 0.05 of a step below the next code go up.
inline float quantize_factor(int bits) {
    return static_cast<float>(kDivisors[static_cast<std::size_t>(bits)] + 0.95);
}

}  // namespace pxf::ops
