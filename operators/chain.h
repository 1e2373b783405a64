// The protocol every stacked operator follows: the record header, the
// install and remove steps, the close hook and the pieces of the image
// description the operators share.
#pragma once

#include <cstddef>
#include <cstdint>

#include <pxf/pxf.h>

namespace pxf::ops {

// The operator's name from the catalogue (set 901), for buffers and messages.
const char *operator_name(int tag) noexcept;

// The record on top of the image's chain (or the driver's data), or null.
inline void *top_record(const PXF_IMAGE *image) noexcept {
    return image && image->private_data ? image->private_data[0] : nullptr;
}

// Where a remove function stands.
enum class Top {
    empty,  // no private data: nothing to remove
    mine,   // the top record is the operator's
    other,  // another operator's record, or the driver's, is on top: leave the chain alone
};
// The record on top is only read once the handle's close slot shows that
// the operator put it there (`hook`): a driver's record, or any record not
// allocated as an operator's, may be shorter than an operator header.
Top check_top(const PXF_IMAGE *image, int tag, PXF_CLOSE_FN hook) noexcept;

// Pushes `record` on the chain: saves the image's scan, close and private
// data in its header and puts the operator's in their place.  A null `scan`
// keeps the image's scan function.  False (nothing changed) when the image
// has no private-data table to hold the record.
bool push(PXF_IMAGE *image, PXF_OPERATOR *record, int tag, PXF_SCAN_FN scan, PXF_CLOSE_FN close) noexcept;

// Pops the top record: puts back the three pointers saved in its header.
void pop(PXF_IMAGE *image, const PXF_OPERATOR *record) noexcept;

// A scan through a stage whose record has gone: 902/84, status -1.
int missing_record() noexcept;

// Close hook of an operator: removes the operator, then closes what is
// below it (the next stage's hook or, at the bottom, the driver).
template <int (*Remove)(PXF_IMAGE *)>
int close_hook(PXF_IMAGE *image);

// check_top for the operator whose remove function is Remove.
template <int (*Remove)(PXF_IMAGE *)>
Top check_top(const PXF_IMAGE *image, int tag) noexcept {
    return check_top(image, tag, &close_hook<Remove>);
}

template <int (*Remove)(PXF_IMAGE *)>
int close_hook(PXF_IMAGE *image) {
    PXF_CLOSE_FN self = &close_hook<Remove>;
    Remove(image);
    // A remove that refused (another record on top) would leave this hook in
    // place and close would call itself for ever.
    if (image->close == self) {
        pxf__err = PXF_E_CANNOT_DO;
        return PXF_E_CANNOT_DO;
    }
    return PXF_close_do_it(image);
}

// The description the operators work on: the image's first one.
inline PXF_IMAGE_DESC *first_desc(PXF_IMAGE *image) noexcept {
    return image && image->info.images && image->info.num_images > 0 ? image->info.images : nullptr;
}

// Pixels per scanline: the window's width.
inline int row_width(const PXF_IMAGE_DESC &d) noexcept {
    int w = d.window.right - d.window.left + 1;
    return w > 0 ? w : 0;
}

// The part of the image that holds data: the active window clipped to the
// window (the whole window when that leaves nothing), as scanline range and
// pixel span within a row.
struct Area {
    int first_line, last_line;
    int first_pixel, pixels, after;  // pixels before the span, in it, after it
};
Area active_area(const PXF_IMAGE_DESC &d) noexcept;

// The info's flag that says its float data is in the usual 0..1 model; the
// quantize, colour-clip and normalize stages only work when it is 1.
inline bool float_model_flag(const PXF_INFO &info) noexcept { return info.open_flag == 1; }

// Bytes per element of a group.
inline std::size_t element_size(int type, int bits) noexcept {
    if (type == PXF_C_FLOAT) return 4;
    if (type == PXF_C_DOUBLE) return 8;
    return bits <= 8 ? 1 : bits <= 16 ? 2 : 4;
}

}  // namespace pxf::ops
