// The quick gamma tables: 256 entries for 8-bit input, R entries (the
// configured gamma-table resolution) for input of that depth.  The 8-bit-in
// tables never drop below one step of R per index and the R-in tables never
// rise above the identity, so both directions stay invertible in the shadows.
#include <cmath>
#include <cstdint>

#include <pxf/pxf.h>

#include <pxf/fmt.h>
#include "foundation/alloc.h"

namespace {

int resolution() {
    int r = FMT_def_gamma_tab_res();
    return r >= 2 ? r : 2;  // one entry would make every step a division by zero
}

// Conversion toward zero; out-of-range values and NaN give INT32_MIN, as the
// processor's own conversion does, instead of being undefined.
int32_t truncate(double v) {
    return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int32_t>(v) : INT32_MIN;
}

template <class T>
T *new_table(int entries) {
    return static_cast<T *>(pxf::alloc(std::size_t(entries) * sizeof(T)));
}

}  // namespace

float *PXF_gamma_btof(float gamma) {
    float *t = new_table<float>(256);
    if (!t) return nullptr;
    float top = float(resolution() - 1);
    for (int i = 0; i < 256; ++i) {
        float floor = float(i) / top;
        float v = float(std::pow(i / 255.0, double(gamma)));
        t[i] = v > floor ? v : floor;
    }
    return t;
}

uint16_t *PXF_gamma_btos(float gamma) {
    auto *t = new_table<uint16_t>(256);
    if (!t) return nullptr;
    double top = resolution() - 1;
    for (int i = 0; i < 256; ++i) {
        int32_t v = truncate(std::pow(i / 255.0, double(gamma)) * top + 0.5);
        t[i] = static_cast<int16_t>(v) < i ? uint16_t(i) : uint16_t(v);
    }
    return t;
}

uint8_t *PXF_gamma_tob(float gamma) {
    int r = resolution();
    auto *t = new_table<uint8_t>(r);
    if (!t) return nullptr;
    float inverse = 1.0f / gamma;
    float top = float(r - 1);
    for (int i = 0; i < r; ++i) {
        int32_t v = truncate(std::pow(double(float(i) / top), double(inverse)) * 255.0 + 0.5);
        auto low = static_cast<uint8_t>(v);
        t[i] = low > i ? uint8_t(i) : low;
    }
    return t;
}

float *PXF_gamma_tof(float gamma) {
    int r = resolution();
    float *t = new_table<float>(r);
    if (!t) return nullptr;
    float inverse = 1.0f / gamma;
    float top = float(r - 1);
    for (int i = 0; i < r; ++i) {
        // 254.9 against the unscaled index: kept as the tables have always been.
        auto v = static_cast<float>(std::pow(double(float(i) / top), double(inverse)) * 254.9);
        t[i] = float(i) < v ? float(i) : v;
    }
    return t;
}

int PXF_gamma_done(void *table) {
    pxf::heap_free(table);
    return 1;
}
