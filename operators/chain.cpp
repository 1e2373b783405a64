#include "operators/chain.h"

#include "core/core_util.h"

namespace pxf::ops {
namespace {

struct Name {
    int tag;
    int number;  // in set 901
    const char *text;
};

// Operators without a name (select, shift, field, colour clip, normalize)
// are not listed.
constexpr Name kNames[] = {
    {PXF_OP_GAMMA, 16, "gamma correction operator"},
    {PXF_OP_RGB_RGB, 19, "rgb color transform operator"},
    {PXF_OP_XYZ_RGB, 25, "xyz color transform operator"},
    {PXF_OP_SAMP_RGB, 20, "color sample transform operator"},
    {PXF_OP_RGB_Y, 19, "rgb color transform operator"},
    {PXF_OP_XYZ_Y, 25, "xyz color transform operator"},
    {PXF_OP_SAMP_Y, 20, "color sample transform operator"},
    {PXF_OP_SCALE, 23, "scale operator"},
    {PXF_OP_MINMAX, 17, "min-max transform operator"},
    {PXF_OP_CAST, 14, "cast operator"},
    {PXF_OP_DISPLAY, 15, "display operator"},
    {PXF_OP_QUANTIZE, 18, "quantize operator"},
    {PXF_OP_SAMP_TO_RGB, 21, "color sample to rgb transform operator"},
    {PXF_OP_SAMP_TO_XYZ, 22, "color sample to xyz transform operator"},
    {PXF_OP_SSFILTER, 24, "symmetric separable resampling filter"},
};

}  // namespace

const char *operator_name(int tag) noexcept {
    for (const Name &n : kNames)
        if (n.tag == tag) return text(kSetNames, n.number, n.text);
    return nullptr;
}

Top check_top(const PXF_IMAGE *image, int tag, PXF_CLOSE_FN hook) noexcept {
    auto *top = static_cast<const PXF_OPERATOR *>(top_record(image));
    if (!top) return Top::empty;
    if (image->close != hook) return Top::other;
    return top->tag == tag ? Top::mine : Top::other;
}

bool push(PXF_IMAGE *image, PXF_OPERATOR *record, int tag, PXF_SCAN_FN scan, PXF_CLOSE_FN close) noexcept {
    if (!image->private_data) return false;
    record->tag = tag;
    record->saved_scan = image->scan;
    record->saved_close = image->close;
    record->saved_private = image->private_data[0];
    image->close = close;
    image->private_data[0] = record;
    if (scan) image->scan = scan;
    return true;
}

void pop(PXF_IMAGE *image, const PXF_OPERATOR *record) noexcept {
    image->scan = record->saved_scan;
    image->close = record->saved_close;
    image->private_data[0] = record->saved_private;
}

int missing_record() noexcept {
    warn(kSetMessages, 84, "Cannot access sub image (attempted to access a locked sub image)");
    return -1;
}

Area active_area(const PXF_IMAGE_DESC &d) noexcept {
    const PXF_BOUNDS &w = d.window, &a = d.active_window;
    int left = a.left > w.left ? a.left : w.left;
    int right = a.right < w.right ? a.right : w.right;
    int bottom = a.bottom > w.bottom ? a.bottom : w.bottom;
    int top = a.top < w.top ? a.top : w.top;
    if (left > right || bottom > top) left = w.left, right = w.right, bottom = w.bottom, top = w.top;
    Area area;
    area.first_line = bottom;
    area.last_line = top;
    area.first_pixel = left - w.left;
    area.pixels = right >= left ? right - left + 1 : 0;
    area.after = w.right - right > 0 ? w.right - right : 0;
    return area;
}

}  // namespace pxf::ops
