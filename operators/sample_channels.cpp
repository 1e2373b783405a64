#include "operators/sample_channels.h"

#include <cstring>

#include <pxf/rfl.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/colour.h"

namespace pxf::ops::samples {
namespace {

struct SampTo {
    PXF_OPERATOR head;
    int32_t samples;      // channels the caller supplies
    int32_t saved_count;  // image channels of the file
    int32_t passed;       // matte and auxiliary rows behind the colour rows
    Area area;
    int32_t width;
    // 0: the three results go back into the caller's first rows (through a
    // work area, since every result needs every sample); 1: fewer than three
    // samples, so the results need rows of their own and the caller's rows
    // stay as they were.
    int32_t mode;
    bool owns_setup;
    float *matrix;  // samples rows of 3: what one unit of sample i adds
    float *work;
    void **buffer;
    std::size_t passed_bytes[2];  // row bytes of a matte, an auxiliary row
    int32_t mattes;
    void **rows;
};

void convert(const SampTo &m, void *const *in, float *const out[3]) {
    const std::size_t first = std::size_t(m.area.first_pixel), n = std::size_t(m.area.pixels);
    for (int j = 0; j < 3; ++j) std::memset(out[j], 0, n * sizeof(float));
    for (int i = 0; i < m.samples; ++i) {
        const float *s = static_cast<const float *>(in[i]) + first;
        const float *row = m.matrix + 3 * i;
        for (int j = 0; j < 3; ++j) {
            float c = row[j], *o = out[j];
            for (std::size_t x = 0; x < n; ++x) o[x] += s[x] * c;
        }
    }
}

int write_scan(void *data, int line, void ***rows, void **private_table) {
    auto *m = static_cast<SampTo *>(data);
    if (!m || !m->head.saved_scan) return missing_record();
    void **in = *rows;
    const std::size_t first = std::size_t(m->area.first_pixel), n = std::size_t(m->area.pixels);
    if (m->mode == 0) {
        float *out[3] = {m->work, m->work + n, m->work + 2 * n};
        convert(*m, in, out);
        for (int j = 0; j < 3; ++j) {
            std::memcpy(static_cast<float *>(in[j]) + first, out[j], n * sizeof(float));
            m->rows[j] = in[j];
        }
    } else {
        float *out[3];
        for (int j = 0; j < 3; ++j) out[j] = static_cast<float *>(m->buffer[j]) + first;
        convert(*m, in, out);
        for (int j = 0; j < 3; ++j) m->rows[j] = m->buffer[j];
    }
    for (int k = 0; k < m->passed; ++k) {
        void *from = in[m->samples + k];
        if (m->mode == 1) {
            std::memcpy(m->buffer[3 + k], from, m->passed_bytes[k < m->mattes ? 0 : 1]);
            from = m->buffer[3 + k];
        }
        m->rows[3 + k] = from;
    }
    void **down = m->rows;
    return m->head.saved_scan(m->head.saved_private, line, &down, private_table);
}

template <int Tag>
int remove_tag(PXF_IMAGE *image) {
    return remove(image, Tag);
}

void free_record(SampTo *m) {
    heap_free(m->matrix);
    heap_free(m->work);
    pxf__chan_free(m->buffer);
    heap_free(m->rows);
    if (m->owns_setup) RFL_done();
    heap_free(m);
}

// The matrix from N samples to the file's three channels.
bool make_matrix(SampTo &m, const PXF_INFO &info, int tag) {
    const int n = m.samples;
    if (!(m.matrix = alloc_array<float>(std::size_t(3 * n)))) return false;
    if (tag == PXF_OP_SAMP_TO_XYZ) return RFL_samp_xyz_mat(m.matrix) != nullptr;
    HeapPtr<float> to_setup(alloc_array<float>(std::size_t(3 * n)));
    float to_file[9];
    if (!to_setup || !RFL_samp_rgb_mat(to_setup.get()) ||
        !RFL_rgb_rgb_mat(to_file, info.red_pri[0], info.red_pri[1], info.green_pri[0], info.green_pri[1],
                         info.blue_pri[0], info.blue_pri[1], info.white_pt[0], info.white_pt[1]))
        return false;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < 3; ++j) {
            float sum = 0.0f;
            for (int k = 0; k < 3; ++k) sum += to_setup.get()[3 * i + k] * to_file[3 * k + j];
            m.matrix[3 * i + j] = sum;
        }
    return true;
}

}  // namespace

PXF_IMAGE *install(PXF_IMAGE *image, int samples, int tag) {
    pxf__err = 0;
    PXF_IMAGE_DESC *d = first_desc(image);
    if (!d || !image->private_data || image->mode != PXF_MODE_WRITE || samples < 1) return image;
    if (d->chan.type != PXF_C_FLOAT || d->chan.count != 3 || float_model_flag(image->info)) return image;
    // A file that keeps the samples themselves needs no conversion.
    if (d->chan.format && std::strcmp(d->chan.format, PXF_LITERAL_HARD_FORMAT_TYPE_SAMPLED) == 0) return image;

    auto *m = static_cast<SampTo *>(alloc_zeroed(sizeof(SampTo)));
    if (!m) {
        pxf__err = kErrNoMemory;
        return image;
    }
    m->samples = samples;
    m->saved_count = d->chan.count;
    m->mattes = d->matte.count > 0 ? d->matte.count : 0;
    m->passed = m->mattes + (d->aux.count > 0 ? d->aux.count : 0);
    m->area = active_area(*d);
    m->width = row_width(*d);
    m->mode = samples >= 3 ? 0 : 1;
    bool made = false;
    bool ok = colour::setup(*image, samples, made);
    m->owns_setup = made;
    ok = ok && make_matrix(*m, image->info, tag) && RFL_status(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                                nullptr, nullptr) == samples;
    ok = ok && (m->rows = alloc_array<void *>(std::size_t(3 + m->passed + 1))) != nullptr;
    if (ok && m->mode == 0) {
        ok = (m->work = alloc_array<float>(std::size_t(samples + m->passed) * std::size_t(m->area.pixels) + 1)) !=
             nullptr;
    } else if (ok) {
        m->passed_bytes[0] = std::size_t(m->width) * element_size(d->matte.type, d->matte.width);
        m->passed_bytes[1] = std::size_t(m->width) * element_size(d->aux.type, d->aux.width);
        ok = (m->buffer = pxf__chan_alloc(d, m->width, operator_name(tag))) != nullptr;
    }
    if (!ok) {
        free_record(m);
        return image;
    }
    d->chan.count = samples;
    push(image, &m->head, tag, write_scan,
         tag == PXF_OP_SAMP_TO_XYZ ? close_hook<remove_tag<PXF_OP_SAMP_TO_XYZ>>
                                   : close_hook<remove_tag<PXF_OP_SAMP_TO_RGB>>);
    return image;
}

int remove(PXF_IMAGE *image, int tag) {
    switch (check_top(image, tag, tag == PXF_OP_SAMP_TO_XYZ ? close_hook<remove_tag<PXF_OP_SAMP_TO_XYZ>> : close_hook<remove_tag<PXF_OP_SAMP_TO_RGB>>)) {
        case Top::empty: return 1;
        case Top::other: return 0;
        case Top::mine: break;
    }
    auto *m = static_cast<SampTo *>(top_record(image));
    if (PXF_IMAGE_DESC *d = first_desc(image)) d->chan.count = m->saved_count;
    pop(image, &m->head);
    free_record(m);
    return 1;
}

}  // namespace pxf::ops::samples
