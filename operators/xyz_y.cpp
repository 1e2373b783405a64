// XYZ to luminance: the gamma correction operator re-encodes the three
// channels, and this stage on top of it hands on the Y row alone.
#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "foundation/alloc.h"
#include "operators/colour.h"

namespace {

struct XyzY {
    PXF_OPERATOR head;
    int32_t saved_count;
    int32_t passed;      // matte and auxiliary rows behind the colour rows
    bool owns_setup;
    bool owns_gamma;     // the gamma stage below was installed here
    void **rows;         // Y, then the matte and auxiliary rows
    void **below;        // three colour rows and the others, for the stages below
};

int xyz_y_scan(void *data, int line, void ***rows, void **private_table) {
    auto *r = static_cast<XyzY *>(data);
    if (!r || !r->head.saved_scan) return pxf::ops::missing_record();
    void **in = r->below;
    int status = r->head.saved_scan(r->head.saved_private, line, &in, private_table);
    if (status < 0) return status;
    r->rows[0] = in[1];
    for (int k = 0; k < r->passed; ++k) r->rows[1 + k] = in[3 + k];
    *rows = r->rows;
    return 0;
}

}  // namespace

PXF_IMAGE *PXF__xyz_Y_init(PXF_IMAGE *image, PXF_RESPONSE_CURVE *requested) {
    using namespace pxf::ops;
    pxf__err = 0;
    if (!colour::accepts(image, PXF_OP_XYZ_Y, 3)) return image;
    bool made;
    if (!colour::setup(*image, 3, made)) return image;
    PXF_IMAGE_DESC *d = first_desc(image);
    int passed = (d->matte.count > 0 ? d->matte.count : 0) + (d->aux.count > 0 ? d->aux.count : 0);
    auto *r = static_cast<XyzY *>(pxf::alloc_zeroed(sizeof(XyzY)));
    if (r && (r->rows = pxf::alloc_array<void *>(std::size_t(3 + passed + 1))))
        r->below = pxf__chan_alloc(d, row_width(*d), operator_name(PXF_OP_XYZ_Y));
    if (!r || !r->below) {
        if (r) pxf::heap_free(r->rows), pxf::heap_free(r);
        if (made) RFL_done();
        pxf__err = PXF_E_NO_MEMORY;
        return image;
    }
    void *before = top_record(image);
    if (requested) PXF__gamma(image, requested);
    r->owns_gamma = top_record(image) != before;
    bool same = !requested || (requested->kind == PXF_CURVE_GAMMA && d->curve.kind == PXF_CURVE_GAMMA &&
                               requested->gamma == d->curve.gamma);
    if (!r->owns_gamma && !same) {  // the correction was wanted and could not be had
        pxf__chan_free(r->below);
        pxf::heap_free(r->rows);
        pxf::heap_free(r);
        if (made) RFL_done();
        return image;
    }
    r->owns_setup = made;
    r->passed = passed;
    r->saved_count = d->chan.count;
    d->chan.count = 1;
    push(image, &r->head, PXF_OP_XYZ_Y, xyz_y_scan, close_hook<PXF__xyz_Y_done>);
    return image;
}

int PXF__xyz_Y_done(PXF_IMAGE *image) {
    using namespace pxf::ops;
    switch (check_top<PXF__xyz_Y_done>(image, PXF_OP_XYZ_Y)) {
        case Top::empty: return 1;
        case Top::other: return 0;
        case Top::mine: break;
    }
    auto *r = static_cast<XyzY *>(top_record(image));
    if (PXF_IMAGE_DESC *d = first_desc(image)) d->chan.count = r->saved_count;
    pop(image, &r->head);
    if (r->owns_gamma) PXF__gamma_done(image);
    if (r->owns_setup) RFL_done();
    pxf__chan_free(r->below);
    pxf::heap_free(r->rows);
    pxf::heap_free(r);
    return 1;
}
