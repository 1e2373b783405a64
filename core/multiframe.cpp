// The multi-frame layer: its places in the open and close paths, and frame
// selection on any handle whose driver has frames.
#include <cstring>

#include <pxf/fmt.h>
#include <pxf/frames.h>

#include "core/core_util.h"
#include "core/multiframe.h"
#include "core/registry.h"
#include "formats/mpc_format.h"

namespace {

// Stands in the handle's set_frame slot of multi-frame handles; never called.
void frames_mark() {}

int not_multi_frame(PXF_IMAGE *image) {
    const char *name = image && image->info.handle ? image->info.handle : "image";
    return pxf::fail(pxf::kErrCannotDo, pxf::kErrCannotDo, pxf::kSetMessages, pxf::mpc::kMsgNotMultiFrame,
                     "%s is not a multi-frame image", name);
}

}  // namespace

namespace pxf {

void frames_attach(PXF_IMAGE *image, Frames *frames) noexcept {
    image->private_data[1] = frames;
    image->set_frame = frames_mark;
}

Frames *frames_of(PXF_IMAGE *image) noexcept {
    if (!image || image->set_frame != frames_mark || !image->private_data) return nullptr;
    return static_cast<Frames *>(image->private_data[1]);
}

PXF_IMAGE *open_for_reading(const char *path) noexcept {
    const PXF_TYPE *entry = plugin_by_path(path);
    if (!entry) entry = builtin_by_path(path);
    if (!entry && !(entry = plugin_by_key(pxf__default)) && !(entry = builtin_by_key(pxf__default)))
        return fail<PXF_IMAGE *>(nullptr, kErrUnknownType, kSetMessages, 51,
                                 "Invalid type %s (either the output file format type or the channel type stored in "
                                 "the file is incorrect)",
                                 pxf__default);
    auto *image = static_cast<PXF_IMAGE *>(heap_alloc(sizeof(PXF_IMAGE)));
    if (!image) {
        report_no_memory();
        pxf__err = kErrNoMemory;
        return nullptr;
    }
    pxf__init_obj(image, PXF_MODE_READ);
    PXF_INFO &info = image->info;
    if (!(info.handle = dup_string(path)) || !(info.key = dup_string(entry->key)) ||
        !(info.ext = dup_string(entry->extension))) {
        pxf__free_obj(image);
        report_no_memory();
        pxf__err = kErrNoMemory;
        return nullptr;
    }
    info.open_flag = 1;
    if (!entry->read_open) {
        pxf__free_obj(image);
        return fail<PXF_IMAGE *>(nullptr, kErrCannotDo, kSetMessages, 87, "%s cannot handle the requested action",
                                 entry->key);
    }
    if (!entry->read_open(image)) {
        int code = pxf__err;
        pxf__free_obj(image);
        pxf__err = code;
        return nullptr;
    }
    if (info.images && info.num_images > 0)
        image->current_line = (info.images[0].orientation & 1) ? -1 : info.images[0].window.top + 1;
    image->driver = PXF_find(info.key);
    pxf__err = 0;
    return image;
}

}  // namespace pxf

// Frame-numbered names open as one handle over their files; everything else
// goes on to the drivers.  A claimed name that fails leaves pxf__err set.
PXF_IMAGE *PXF_multiframe_open(PXF_INFO *info, const char *mode) {
    if (!info || !info->handle || !mode || std::strcmp(mode, "r") != 0) return nullptr;
    bool claimed = false;
    PXF_IMAGE *image = pxf::sequence_open(info->handle, claimed);
    if (!image && !claimed) pxf__err = 0;
    return image;
}

// Containers and sequences close through their own close functions: the
// layer keeps no list of handles.
int PXF_multiframe_add(PXF_IMAGE *) { return 0; }

int PXF_multiframe_used(PXF_IMAGE *) { return 0; }

int PXF_multiframe_set_closed(PXF_IMAGE *) { return 0; }

int PXF_multiframe_is(PXF_IMAGE *image) { return pxf::frames_of(image) ? 1 : 0; }

int PXF_multiframe_count(PXF_IMAGE *image) {
    pxf::Frames *f = pxf::frames_of(image);
    if (!f) return pxf__err = pxf::kErrCannotDo, -1;
    pthread_mutex_lock(&image->lock);
    int n = f->ops->count(f->self);
    pthread_mutex_unlock(&image->lock);
    return n;
}

int PXF_multiframe_frame(PXF_IMAGE *image, int index, int *frame) {
    pxf::Frames *f = pxf::frames_of(image);
    if (!f || !frame) return pxf__err = pxf::kErrCannotDo, -1;
    pthread_mutex_lock(&image->lock);
    int n = f->ops->count(f->self);
    int number = index >= 0 && index < n ? f->ops->frame_at(f->self, index) : 0;
    pthread_mutex_unlock(&image->lock);
    if (index < 0 || index >= n) return pxf__err = PXF_E_NO_FRAME, -1;
    *frame = number;
    return 0;
}

int PXF_get_frame(PXF_IMAGE *image) {
    pxf::Frames *f = pxf::frames_of(image);
    if (!f) return pxf__err = pxf::kErrCannotDo, -1;
    pthread_mutex_lock(&image->lock);
    int frame = f->ops->current(f->self);
    pthread_mutex_unlock(&image->lock);
    return frame;
}

int PXF_set_frame(PXF_IMAGE *image, int frame) {
    pxf__err = 0;
    pxf::Frames *f = pxf::frames_of(image);
    if (!f) return not_multi_frame(image);
    pthread_mutex_lock(&image->lock);
    int result = f->ops->set(f->self, frame);
    if (result == 0) image->info.frame = frame;
    pthread_mutex_unlock(&image->lock);
    return result;
}
