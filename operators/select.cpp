// Select: one image of a multi-image handle (a file with chained images)
// made to look like a single-image handle.
#include <cstring>

#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "operators/chain.h"

namespace {

struct Select {
    PXF_OPERATOR head;
    int32_t saved_count;         // images of the handle
    PXF_IMAGE_DESC *saved_images;
    void **saved_private;        // every image's private pointer, as they were
    void *chosen;                // the chosen image's private pointer
    PXF_IMAGE_DESC desc;         // copy of the chosen image's description
};

int select_scan(void *data, int line, void ***rows, void **table) {
    auto *s = static_cast<Select *>(data);
    if (!s || !s->head.saved_scan) return pxf::ops::missing_record();
    return s->head.saved_scan(s->chosen, line, rows, table);
}

}  // namespace

PXF_IMAGE *PXF__select(PXF_IMAGE *image, int index) {
    if (!image || !image->private_data || !image->info.images || image->info.num_images < 2) return image;
    const int count = image->info.num_images;
    if (index < 0 || index >= count) {
        pxf__err = PXF_E_CANNOT_DO;
        return image;
    }
    auto *s = static_cast<Select *>(pxf::alloc_zeroed(sizeof(Select)));
    if (!s) return image;
    if (!(s->saved_private = pxf::alloc_array<void *>(std::size_t(count)))) {
        pxf::heap_free(s);
        return image;
    }
    s->saved_count = count;
    s->saved_images = image->info.images;
    std::memcpy(s->saved_private, image->private_data, sizeof(void *) * std::size_t(count));
    s->chosen = image->private_data[index];
    s->desc = image->info.images[index];
    for (int i = 1; i < count; ++i) image->private_data[i] = nullptr;
    image->info.images = &s->desc;
    image->info.num_images = 1;
    pxf::ops::push(image, &s->head, PXF_OP_SELECT, select_scan, pxf::ops::close_hook<PXF__select_done>);
    return image;
}

int PXF__select_done(PXF_IMAGE *image) {
    switch (pxf::ops::check_top<PXF__select_done>(image, PXF_OP_SELECT)) {
        case pxf::ops::Top::empty: return 1;
        case pxf::ops::Top::other: return 0;
        case pxf::ops::Top::mine: break;
    }
    auto *s = static_cast<Select *>(pxf::ops::top_record(image));
    pxf::ops::pop(image, &s->head);
    image->info.num_images = s->saved_count;
    image->info.images = s->saved_images;
    std::memcpy(image->private_data, s->saved_private, sizeof(void *) * std::size_t(s->saved_count));
    pxf::heap_free(s->saved_private);
    pxf::heap_free(s);
    return 1;
}
