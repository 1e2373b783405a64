// How the frame functions reach the frames of a handle whatever operators are
// stacked on it: multi-frame drivers give their handle a private-data table
// of two elements and put a Frames record in element 1, which operators
// never replace (they take over element 0 only).
#pragma once

#include <pxf/pxf.h>

namespace pxf {

struct FrameOps {
    int (*set)(void *self, int frame);    // 0, or a negative code after a report
    int (*count)(void *self);
    int (*frame_at)(void *self, int index);  // frame number of the index-th frame
    int (*current)(void *self);
};

struct Frames {
    const FrameOps *ops;
    void *self;
};

// Marks `image` as multi-frame: element 1 of its private data holds `frames`.
void frames_attach(PXF_IMAGE *image, Frames *frames) noexcept;
// The Frames record of a multi-frame image, or null.
Frames *frames_of(PXF_IMAGE *image) noexcept;

// Opens `path` for reading with the driver its extension names (else the
// default driver) without taking the open lock: for layers that open files
// while PXF_open holds it.  Null after the driver has reported.
PXF_IMAGE *open_for_reading(const char *path) noexcept;

// Frame-numbered sequences: a handle over the files, or null when `name`
// has no frame field (nothing reported) or on failure (reported, *claimed
// set).
PXF_IMAGE *sequence_open(const char *name, bool &claimed) noexcept;

}  // namespace pxf
