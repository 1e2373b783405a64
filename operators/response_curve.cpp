// Response curves: building, copying, composing and releasing the
// per-channel tables that map stored values to light.
#include <cmath>
#include <cstdint>
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "foundation/report.h"

namespace {

// Conversion toward zero; out-of-range values and NaN give INT32_MIN, as the
// processor's own conversion does, instead of being undefined.
int32_t truncate(double v) {
    return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int32_t>(v) : INT32_MIN;
}

// Bytes per table value of a curve that init or copy accepts, 0 otherwise.
std::size_t value_size(const PXF_RESPONSE_CURVE &c) {
    if (c.type == PXF_C_FLOAT) return 4;
    if (c.type != PXF_C_INTEGER) return 0;
    if (c.bits == 8) return 1;
    return c.bits >= 9 && c.bits <= 16 ? 2 : 0;
}

// Pointer array and one block for every channel; tables null on failure.
bool allocate_tables(PXF_RESPONSE_CURVE &c, std::size_t value) {
    std::size_t per_channel = std::size_t(c.entries) * value;
    auto **tables = static_cast<void **>(pxf::alloc(std::size_t(c.channels) * sizeof(void *)));
    if (!tables) {
        pxf__err = pxf::kErrNoMemory;
        return false;
    }
    auto *block = static_cast<unsigned char *>(pxf::alloc(per_channel * std::size_t(c.channels)));
    if (!block) {
        pxf::heap_free(tables);
        pxf__err = pxf::kErrNoMemory;
        return false;
    }
    for (int ch = 0; ch < c.channels; ++ch) tables[ch] = block + ch * per_channel;
    c.tables = tables;
    return true;
}

void fill_channel(PXF_RESPONSE_CURVE &c) {
    double last = c.entries - 1;
    if (c.type == PXF_C_FLOAT) {
        auto *t = static_cast<float *>(c.tables[0]);
        for (int i = 0; i < c.entries; ++i)
            t[i] = c.gamma == 1.0f ? float(i) / float(last) : float(std::pow(i * (1.0 / last), double(c.gamma)));
        return;
    }
    double top = double((uint32_t{1} << c.bits) - 1);
    for (int i = 0; i < c.entries; ++i) {
        int32_t v = c.gamma == 1.0f ? truncate(i * (top / last) + 0.5)
                                    : truncate(std::pow(i * (1.0 / last), double(c.gamma)) * top + 0.5);
        if (c.bits == 8) static_cast<uint8_t *>(c.tables[0])[i] = static_cast<uint8_t>(v);
        else static_cast<uint16_t *>(c.tables[0])[i] = static_cast<uint16_t>(v);
    }
}

// 2^bits for the depths a table curve can have.
bool entries_for(int bits, int &entries) {
    if (bits < 1 || bits > 24) return false;
    entries = 1 << bits;
    return true;
}

uint32_t read_value(const void *table, std::size_t size, int i) {
    return size == 1 ? static_cast<const uint8_t *>(table)[i] : static_cast<const uint16_t *>(table)[i];
}

int compose_tables(PXF_RESPONSE_CURVE &a, PXF_RESPONSE_CURVE &b, PXF_RESPONSE_CURVE &r) {
    using pxf::kSetMessages;
    if (a.channels != b.channels) {
        pxf::report(kSetMessages, 45,
                    "Incompatible response curve channel counts (channel counts must be the same for composited "
                    "response curves)");
        return -1;
    }
    if (b.type == PXF_C_FLOAT) {
        pxf::report(kSetMessages, 46,
                    "Incompatible response curve channel type (channel must be of type PXF_C_INTEGER for "
                    "composited response curve)");
        return -1;
    }
    int domain = 0;
    if (!entries_for(b.bits, domain) || domain != a.entries) {
        pxf::report(kSetMessages, 47, "Incompatible response curve channel element counts");
        return -1;
    }
    if (!a.tables || !b.tables) return -1;
    r.gamma = 1.0f;
    r.channels = b.channels;
    r.entries = b.entries;
    r.type = a.type;
    r.bits = a.bits;
    if (PXF_response_curve_init(&r) != 0) return -1;
    std::size_t in = b.bits <= 8 ? 1 : 2, out = value_size(r);
    for (int c = 0; c < r.channels; ++c) {
        auto *to = static_cast<unsigned char *>(r.tables[c]);
        auto *from = static_cast<const unsigned char *>(a.tables[c]);
        for (int i = 0; i < b.entries; ++i) {
            uint32_t v = read_value(b.tables[c], in, i);
            // A value beyond the outer table (possible only in a malformed
            // curve) reads its last entry rather than past the end.
            if (v >= uint32_t(a.entries)) v = uint32_t(a.entries - 1);
            std::memcpy(to + std::size_t(i) * out, from + std::size_t(v) * out, out);
        }
    }
    return 0;
}

}  // namespace

int PXF_response_curve_init(PXF_RESPONSE_CURVE *curve) {
    if (!curve) return -1;
    curve->kind = PXF_CURVE_TABLE;
    curve->reserved = nullptr;
    curve->tables = nullptr;
    if (curve->channels < 1 || curve->entries < 2) return -1;
    std::size_t size = value_size(*curve);
    if (!size) return -1;
    if (!allocate_tables(*curve, size)) return -1;
    fill_channel(*curve);
    std::size_t bytes = std::size_t(curve->entries) * size;
    for (int c = 1; c < curve->channels; ++c) std::memcpy(curve->tables[c], curve->tables[0], bytes);
    return 0;
}

int PXF_response_curve_copy(PXF_RESPONSE_CURVE *dst, const PXF_RESPONSE_CURVE *src) {
    if (!dst || !src) return -1;
    *dst = *src;
    dst->tables = nullptr;
    std::size_t size = value_size(*src);
    if (src->type == PXF_C_INTEGER && !size) {
        // The depth argument is the constant 1, whatever the depth was.
        pxf::report(pxf::kSetMessages, 211, "Invalid curve depth %d found: must be in the range %d to %d", 1, 8, 16);
        return -1;
    }
    if (!size) {
        pxf::report(pxf::kSetMessages, 210, "Invalid curve type %d found: must be of type PXF_C_INTEGER or PXF_C_FLOAT",
                    int(src->type));
        return -1;
    }
    if (src->kind != PXF_CURVE_TABLE || !src->tables || src->channels < 1 || src->entries < 1) return 0;
    if (!allocate_tables(*dst, size)) return -1;
    for (int c = 0; c < src->channels; ++c)
        std::memcpy(dst->tables[c], src->tables[c], std::size_t(src->entries) * size);
    return 0;
}

int PXF_response_curve_comp(PXF_RESPONSE_CURVE *outer, PXF_RESPONSE_CURVE *inner, PXF_RESPONSE_CURVE *result) {
    if (!outer || !inner || !result) return -1;
    PXF_RESPONSE_CURVE &a = *outer, &b = *inner;
    bool a_gamma = a.kind == PXF_CURVE_GAMMA, b_gamma = b.kind == PXF_CURVE_GAMMA;
    bool a_table = a.kind == PXF_CURVE_TABLE, b_table = b.kind == PXF_CURVE_TABLE;
    if (a_gamma && b_gamma) {
        result->gamma = b.gamma / a.gamma;
        result->channels = b.channels;
        result->entries = b.entries;
        result->type = a.type;
        result->bits = a.bits;
        return PXF_response_curve_init(result);
    }
    if (a_gamma && b_table) {
        // The outer gamma as a table over the inner curve's output values.
        PXF_RESPONSE_CURVE t = a;
        t.gamma = 1.0f / a.gamma;
        t.channels = b.channels;
        if (!entries_for(b.bits, t.entries)) return -1;
        if (PXF_response_curve_init(&t) != 0) return -1;
        int r = PXF_response_curve_comp(&t, &b, result);
        PXF_response_curve_done(&t);
        return r;
    }
    if (a_table && b_gamma) {
        PXF_RESPONSE_CURVE t = b;
        if (PXF_response_curve_init(&t) != 0) return -1;
        int r = PXF_response_curve_comp(&a, &t, result);
        PXF_response_curve_done(&t);
        return r;
    }
    if (a_table && b_table) return compose_tables(a, b, *result);
    return 0;
}

int PXF_response_curve_done(PXF_RESPONSE_CURVE *curve) {
    if (curve && curve->kind == PXF_CURVE_TABLE && curve->tables) {
        pxf::heap_free(curve->tables[0]);  // one block holds every channel's table
        pxf::heap_free(curve->tables);
        curve->tables = nullptr;
    }
    return 1;
}
