// Display: builds the chain that turns any image into 8-bit data for
// viewing (colour clip, normalize, quantize, shift, then a luminance or
// colour stage), with its own record on top so that it comes off as one.
#include <cstring>

#include <pxf/pxf.h>
#include <pxf/rfl.h>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"

namespace {

// Members, in the order the remove takes them off.
enum Member { kSampRgb, kSampY, kXyzRgb, kXyzY, kRgbRgb, kRgbY, kGamma, kShift, kQuantize, kNormalize, kClip, kMembers };

constexpr int (*kRemove[kMembers])(PXF_IMAGE *) = {
    PXF__samp_rgb_done, PXF__samp_Y_done, PXF__xyz_rgb_done, PXF__xyz_Y_done,   PXF__rgb_rgb_done,   PXF__rgb_Y_done,
    PXF__gamma_done,    PXF__shift_done,  PXF__quantize_done, PXF__normalize_done, PXF__color_clip_done};

struct Display {
    PXF_OPERATOR head;
    bool installed[kMembers];
    bool owns_setup;  // RFL_init was called here and made the setup
};

int display_scan(void *data, int line, void ***rows, void **table) {
    auto *d = static_cast<Display *>(data);
    if (!d || !d->head.saved_scan) return pxf::ops::missing_record();
    return d->head.saved_scan(d->head.saved_private, line, rows, table);
}

bool named(const char *format, const char *name) { return format && std::strcmp(format, name) == 0; }

// The auxiliary channel of a display is a distance: 1 to 10000 units.
constexpr float kAuxRange[2] = {1.0f, 10000.0f};

}  // namespace

PXF_IMAGE *PXF__display(PXF_IMAGE *image, int request, const float *target, PXF_RESPONSE_CURVE *curve) {
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(image);
    if (!d || !image->private_data) return image;
    const char *name = pxf::ops::operator_name(PXF_OP_DISPLAY);
    const bool colour = (request & (PXF_DISPLAY_RED | PXF_DISPLAY_GREEN | PXF_DISPLAY_BLUE)) != 0;
    const bool luminance = (request & PXF_DISPLAY_LUMINANCE) != 0;
    PXF_CHAN_TYPE want[3] = {{0, 0}, {0, 0}, {0, 0}};
    const float *aux_range = nullptr;
    if (request & PXF_DISPLAY_MATTE) {
        if (d->matte.count < 1)
            return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 82, "The image has no matte channel information");
        if (d->matte.count > 1)
            return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 78, "%s cannot handle multiple matte channels",
                             name);
        want[1] = {PXF_C_INTEGER, 8};
    }
    if (request & PXF_DISPLAY_AUX) {
        if (d->aux.count < 1)
            return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 81,
                             "The image has no auxiliary channel information");
        if (d->aux.count > 1)
            return pxf::fail(image, pxf::kErrCannotDo, pxf::kSetMessages, 69,
                             "%s cannot handle multiple auxiliary channels", name);
        aux_range = kAuxRange;
        want[2] = {PXF_C_INTEGER, 8};
    }
    if (colour || luminance) want[0] = {PXF_C_INTEGER, 8};

    auto *rec = static_cast<Display *>(pxf::alloc_zeroed(sizeof(Display)));
    if (!rec) {
        pxf__err = pxf::kErrNoMemory;
        return image;
    }
    // Installs one member on what the ones before left; none from a member is none.
    auto member = [&](Member which, auto install) -> bool {
        void *before = pxf::ops::top_record(image);
        PXF_IMAGE *result = install();
        if (!result) return false;
        rec->installed[which] = pxf::ops::top_record(image) != before;
        return true;
    };
    auto none = [&] {
        pxf::heap_free(rec);
        return static_cast<PXF_IMAGE *>(nullptr);
    };
    if (!member(kClip, [&] { return PXF__color_clip(image); }) ||
        !member(kNormalize, [&] { return PXF__normalize(image, nullptr, nullptr, aux_range); }) ||
        !member(kQuantize, [&] { return PXF__quantize(image, want); }) ||
        !member(kShift, [&] { return PXF__shift(image, want); }))
        return none();

    d = pxf::ops::first_desc(image);
    const char *format = d->chan.format;
    auto invalid = [&] {
        pxf::heap_free(rec);
        return pxf::fail(image, pxf::kErrUnknownType, pxf::kSetMessages, 49, "Invalid channel format %s",
                         format ? format : "");
    };
    if (luminance) {
        bool ok;
        if (named(format, PXF_LITERAL_HARD_FORMAT_TYPE_RGB))
            ok = member(kRgbY, [&] { return PXF__rgb_Y_init(image, curve); });
        else if (named(format, PXF_LITERAL_HARD_FORMAT_TYPE_XYZ))
            ok = member(kXyzY, [&] { return PXF__xyz_Y_init(image, curve); });
        else if (named(format, PXF_LITERAL_HARD_FORMAT_TYPE_SAMPLED) || named(format, PXF_LITERAL_HARD_FORMAT_TYPE_RAW))
            ok = member(kSampY, [&] { return PXF__samp_Y_init(image, curve); });
        else
            return invalid();
        if (!ok) return none();
    } else if (colour) {
        const PXF_INFO &i = image->info;
        const float own[8] = {i.red_pri[0],   i.red_pri[1],  i.green_pri[0], i.green_pri[1],
                              i.blue_pri[0], i.blue_pri[1], i.white_pt[0],  i.white_pt[1]};
        bool differs = false;
        for (int k = 0; target && k < 8; ++k) differs = differs || target[k] != own[k];
        const bool fresh = rfl_samples == 0;
        const float *t = target ? target : own;
        if (!RFL_init(d->chan.count, target ? 1 : 0, t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7])) {
            pxf::heap_free(rec);
            return image;
        }
        rec->owns_setup = fresh;
        const int depth = d->image_kind;  // 8 or 16: data already laid out for such a display
        const bool display_depth = depth == 8 || depth == 16;
        bool ok = true;
        if (named(format, PXF_LITERAL_HARD_FORMAT_TYPE_RGB) && !display_depth) {
            ok = differs ? member(kRgbRgb, [&] { return PXF__rgb_rgb_init(image, curve); })
                         : member(kGamma, [&] { return curve ? PXF__gamma(image, curve) : image; });
        } else if (named(format, PXF_LITERAL_HARD_FORMAT_TYPE_XYZ) && !display_depth) {
            ok = member(kXyzRgb, [&] { return PXF__xyz_rgb_init(image, curve); });
        } else if ((named(format, PXF_LITERAL_HARD_FORMAT_TYPE_SAMPLED) && depth != 16) ||
                   named(format, PXF_LITERAL_HARD_FORMAT_TYPE_RAW)) {
            ok = member(kSampRgb, [&] { return PXF__samp_rgb_init(image, curve); });
        } else if (!display_depth) {
            if (rec->owns_setup) RFL_done();
            return invalid();
        }
        if (!ok) {
            if (rec->owns_setup) RFL_done();
            return none();
        }
    }
    pxf::ops::push(image, &rec->head, PXF_OP_DISPLAY, display_scan, pxf::ops::close_hook<PXF__display_done>);
    return image;
}

int PXF__display_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__display_done>(image, PXF_OP_DISPLAY)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *rec = static_cast<Display *>(pxf::ops::top_record(image));
    pxf::ops::pop(image, &rec->head);
    if (rec->owns_setup) RFL_done();
    for (int m = 0; m < kMembers; ++m)
        if (rec->installed[m]) kRemove[m](image);
    pxf::heap_free(rec);
    return 1;
}
