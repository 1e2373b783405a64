#include "operators/colour.h"

#include <cmath>
#include <cstring>

#include <pxf/fmt.h>
#include <pxf/rfl.h>

#include "foundation/alloc.h"
#include "foundation/report.h"

namespace pxf::ops::colour {
namespace {

// The fixed-point precision never goes beyond this many bits.
constexpr int kMaxShift = 14;

// log2 of the gamma-table resolution, truncated: the depth of linear values.
int table_depth() {
    int r = FMT_def_gamma_tab_res();
    return r >= 2 ? int(std::log(double(r)) / std::log(2.0)) : 1;
}

// Linear value of code v in channel c, at the input depth.
uint32_t linear(const PXF_RESPONSE_CURVE &curve, int c, int v) {
    int t = c < curve.channels ? c : curve.channels - 1;
    if (curve.bits <= 8) return static_cast<const uint8_t *>(curve.tables[t])[v];
    return static_cast<const uint16_t *>(curve.tables[t])[v];
}

const uint8_t *out_table(const Matrix &m, int j) {
    int t = m.per_channel && j < m.output.channels ? j : m.per_channel ? m.output.channels - 1 : 0;
    return static_cast<const uint8_t *>(m.output.tables[t]);
}

// Converts the span of one scanline.  In and Out are the channel counts
// when known at compile time (0: take them from the record).  All inputs of
// a pixel are read before its outputs are stored, so src and dst may be the
// same rows.  The sums are kept in 64 bits: for the matrices of real
// primaries they equal the 32-bit sums, and a wild matrix cannot overflow.
template <int In, int Out>
void convert(const Matrix &m, uint8_t *const *src, uint8_t *const *dst) {
    const int in = In ? In : m.in_channels, out = Out ? Out : m.out_channels;
    const std::size_t first = std::size_t(m.area.first_pixel), n = std::size_t(m.area.pixels);
    const int s = m.shift, d = m.drop;
    const int64_t top = (int64_t{1} << s) - 1;
    const uint8_t *table[3];
    for (int j = 0; j < out && j < 3; ++j) table[j] = out_table(m, j);
    const int64_t *p = m.products;
    for (std::size_t x = first; x < first + n; ++x) {
        int64_t acc[3] = {0, 0, 0};
        for (int i = 0; i < in; ++i) {
            const int64_t *row = p + std::size_t(i * out) * 256 + src[i][x];
            for (int j = 0; j < out; ++j) acc[j] += row[std::size_t(j) * 256];
        }
        for (int j = 0; j < out; ++j) {
            int64_t v = acc[j] >> s;
            // Clipped before the lookup: the top code is 255 whatever the table says.
            dst[j][x] = v < 0 ? 0 : v >= top ? 255 : table[j][v << d];
        }
    }
}

int matrix_scan(void *data, int line, void ***rows, void **private_table) {
    auto *m = static_cast<Matrix *>(data);
    if (!m || !m->head.saved_scan) return missing_record();
    // The rows handed down are in the layout below: the caller's are not.
    void **in = m->below;
    int status = m->head.saved_scan(m->head.saved_private, line, &in, private_table);
    if (status < 0) return status;
    auto *const *src = reinterpret_cast<uint8_t *const *>(in);
    uint8_t *const *dst = m->own ? reinterpret_cast<uint8_t *const *>(m->own) : src;
    if (m->in_channels == 3 && m->out_channels == 3) convert<3, 3>(*m, src, dst);
    else if (m->in_channels == 3 && m->out_channels == 1) convert<3, 1>(*m, src, dst);
    else convert<0, 0>(*m, src, dst);
    for (int j = 0; j < m->out_channels; ++j) m->rows[j] = dst[j];
    for (int k = 0; k < m->passed; ++k) m->rows[m->out_channels + k] = in[m->in_channels + k];
    *rows = m->rows;
    return 0;
}

template <int Tag>
int remove_tag(PXF_IMAGE *image) {
    return remove(image, Tag);
}

PXF_CLOSE_FN close_for(int tag) {
    switch (tag) {
        case PXF_OP_RGB_RGB: return close_hook<remove_tag<PXF_OP_RGB_RGB>>;
        case PXF_OP_XYZ_RGB: return close_hook<remove_tag<PXF_OP_XYZ_RGB>>;
        case PXF_OP_SAMP_RGB: return close_hook<remove_tag<PXF_OP_SAMP_RGB>>;
        case PXF_OP_RGB_Y: return close_hook<remove_tag<PXF_OP_RGB_Y>>;
        default: return close_hook<remove_tag<PXF_OP_SAMP_Y>>;
    }
}

void free_record(Matrix *m) {
    PXF_response_curve_done(&m->input);
    PXF_response_curve_done(&m->output);
    heap_free(m->coefficients);
    heap_free(m->products);
    heap_free(m->rows);
    heap_free(m->own);
    pxf__chan_free(m->below);
    if (m->owns_setup) RFL_done();
    heap_free(m);
}

// A table curve that can linearise 8-bit codes: integer values of 8 to 16 bits.
bool usable_input(const PXF_RESPONSE_CURVE &c) {
    return c.kind == PXF_CURVE_TABLE && c.tables && c.type == PXF_C_INTEGER && c.bits >= 8 && c.bits <= 16 &&
           c.entries >= 256 && c.channels >= 1;
}

// A table curve that encodes linear values of `bits` bits to bytes.
bool usable_output(const PXF_RESPONSE_CURVE &c, int bits) {
    return c.kind == PXF_CURVE_TABLE && c.tables && c.type == PXF_C_INTEGER && c.bits <= 8 &&
           c.entries >= (1 << bits) && c.channels >= 1;
}

bool build_curves(Matrix &m, const PXF_IMAGE_DESC &d, const PXF_RESPONSE_CURVE *requested) {
    const PXF_RESPONSE_CURVE &have = d.curve;
    if (have.kind == PXF_CURVE_TABLE) {
        if (PXF_response_curve_copy(&m.input, &have) != 0 || !usable_input(m.input)) return false;
    } else {
        m.input = {PXF_CURVE_GAMMA, have.gamma, nullptr, m.in_channels, 256, PXF_C_INTEGER, table_depth(), nullptr};
        if (PXF_response_curve_init(&m.input) != 0) return false;
    }
    m.bits = m.input.bits;
    if (requested && requested->kind == PXF_CURVE_TABLE) {
        if (PXF_response_curve_copy(&m.output, requested) != 0 || !usable_output(m.output, m.bits)) return false;
        m.per_channel = true;
    } else {
        // Without a request the output is encoded as the input was.
        float g = requested ? requested->gamma : have.gamma;
        if (!(g > 0.0f)) return false;
        m.output = {PXF_CURVE_GAMMA, 1.0f / g, nullptr, 1, 1 << m.bits, PXF_C_INTEGER, 8, nullptr};
        if (PXF_response_curve_init(&m.output) != 0) return false;
    }
    return true;
}

bool build_products(Matrix &m, const float *matrix) {
    const int in = m.in_channels, out = m.out_channels;
    m.coefficients = alloc_array<int32_t>(std::size_t(in * out));
    m.products = alloc_array<int64_t>(std::size_t(in * out) * 256);
    if (!m.coefficients || !m.products) return false;
    const double scale = double(int64_t{1} << m.shift);
    for (int k = 0; k < in * out; ++k) {
        double c = double(matrix[k]) * scale;
        if (!(std::fabs(c) < 2147483647.0)) return false;  // no such colour arithmetic
        m.coefficients[k] = int32_t(c);                       // toward zero
    }
    for (int i = 0; i < in; ++i)
        for (int j = 0; j < out; ++j) {
            int64_t *row = m.products + std::size_t(i * out + j) * 256;
            for (int v = 0; v < 256; ++v)
                row[v] = int64_t(m.coefficients[i * out + j]) * int64_t(linear(m.input, i, v) >> m.drop);
        }
    return true;
}

float *primaries_of(PXF_INFO &info, int k) {
    float *p[4] = {info.red_pri, info.green_pri, info.blue_pri, info.white_pt};
    return p[k];
}

}  // namespace

bool accepts(PXF_IMAGE *image, int tag, int channels) {
    PXF_IMAGE_DESC *d = first_desc(image);
    if (!d || !image->private_data || image->mode != PXF_MODE_READ) return false;
    if (d->chan.count != channels || channels < 1) return false;
    return pxf__image_verify(operator_name(tag), image, 0) == 0;
}

bool setup(const PXF_IMAGE &image, int samples, bool &made) {
    made = false;
    if (rfl_samples == 0) {
        const PXF_INFO &i = image.info;
        if (!RFL_init(samples, 1, i.red_pri[0], i.red_pri[1], i.green_pri[0], i.green_pri[1], i.blue_pri[0],
                      i.blue_pri[1], i.white_pt[0], i.white_pt[1]))
            return false;
        made = true;
    }
    if (rfl_samples == samples) return true;
    if (made) RFL_done();
    made = false;
    return false;
}

void column_of(const float *matrix, int rows, int column, float *out) {
    for (int i = 0; i < rows; ++i) out[i] = matrix[i * 3 + column];
}

PXF_IMAGE *install(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested, const Request &request) {
    PXF_IMAGE_DESC *d = first_desc(image);
    auto *m = static_cast<Matrix *>(alloc_zeroed(sizeof(Matrix)));
    if (!m) {
        if (request.owns_setup) RFL_done();
        pxf__err = kErrNoMemory;
        return image;
    }
    m->owns_setup = request.owns_setup;
    m->area = active_area(*d);
    m->in_channels = request.in_channels;
    m->out_channels = request.out_channels;
    m->passed = (d->matte.count > 0 ? d->matte.count : 0) + (d->aux.count > 0 ? d->aux.count : 0);
    m->saved_count = d->chan.count;
    if (!build_curves(*m, *d, requested)) {
        free_record(m);
        return image;
    }
    m->shift = m->bits < kMaxShift ? m->bits : kMaxShift;
    m->drop = m->bits - m->shift;
    if (m->drop > 0)
        warn(kSetMessages, 83, "Color response curve reduced to %d bits of precision (limit is 14 bits)", kMaxShift);
    int width = row_width(*d);
    bool ok = build_products(*m, request.matrix) &&
              (m->rows = alloc_array<void *>(std::size_t(m->out_channels + m->passed) + 1)) != nullptr &&
              (m->below = pxf__chan_alloc(d, width, operator_name(request.tag))) != nullptr;
    if (ok && m->out_channels > m->in_channels) {
        // Outputs that do not fit in the rows read: rows of its own, one block.
        std::size_t row = (std::size_t(width) + 7) & ~std::size_t(7);
        std::size_t ptrs = sizeof(void *) * std::size_t(m->out_channels);
        m->own = static_cast<void **>(alloc_zeroed(ptrs + row * std::size_t(m->out_channels)));
        if ((ok = m->own != nullptr))
            for (int j = 0; j < m->out_channels; ++j)
                m->own[j] = reinterpret_cast<unsigned char *>(m->own) + ptrs + row * std::size_t(j);
    }
    if (!ok) {
        free_record(m);
        return image;
    }
    if (request.primaries_from_setup) {
        float xy[8];
        if (RFL_status(&xy[0], &xy[1], &xy[2], &xy[3], &xy[4], &xy[5], &xy[6], &xy[7])) {
            for (int k = 0; k < 4; ++k) {
                float *p = primaries_of(image->info, k);
                std::memcpy(m->saved_primaries + 3 * k, p, 3 * sizeof(float));
                p[0] = xy[2 * k];
                p[1] = xy[2 * k + 1];
                p[2] = 1.0f - xy[2 * k] - xy[2 * k + 1];
            }
            m->primaries_set = true;
        }
    }
    d->chan.count = m->out_channels;
    push(image, &m->head, request.tag, matrix_scan, close_for(request.tag));
    return image;
}

int remove(PXF_IMAGE *image, int tag) {
    switch (check_top(image, tag, close_for(tag))) {
        case Top::empty: return 1;
        case Top::other: return 0;
        case Top::mine: break;
    }
    auto *m = static_cast<Matrix *>(top_record(image));
    if (PXF_IMAGE_DESC *d = first_desc(image)) d->chan.count = m->saved_count;
    if (m->primaries_set)
        for (int k = 0; k < 4; ++k) std::memcpy(primaries_of(image->info, k), m->saved_primaries + 3 * k, 3 * sizeof(float));
    pop(image, &m->head);
    free_record(m);
    return 1;
}

}  // namespace pxf::ops::colour
