// Field operator: two field files of interlaced video, name.NNNN with an odd
// and the following even number, read as one frame of twice the height.
// Even frame scanlines come from the odd-numbered field, odd ones from the
// even-numbered field.  It builds a new image over the two instead of
// stacking on the one it is given.
#include <cstdio>
#include <cstring>

#include <pxf/pxf.h>

#include "core/core_util.h"
#include "core/registry.h"
#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"

namespace {

struct Field {
    int32_t tag;
    PXF_IMAGE *first;   // odd-numbered file: even frame scanlines
    PXF_IMAGE *second;  // even-numbered file: odd frame scanlines
    void *first_private;
    void *second_private;
    int32_t frame;      // number in the name of the file given
    int32_t reserved;
};

int field_scan(void *data, int line, void ***rows, void **) {
    auto *f = static_cast<Field *>(data);
    if (!f) return pxf::ops::missing_record();
    bool even = line % 2 == 0;
    PXF_IMAGE *field = even ? f->first : f->second;
    if (!field->scan) {
        pxf__err = pxf::kErrCannotDo;
        return pxf::kErrCannotDo;
    }
    // The field gets its own private-data table: the frame's holds field
    // records its driver knows nothing of.
    return field->scan(even ? f->first_private : f->second_private, line / 2, rows, field->private_data);
}

int field_close(PXF_IMAGE *frame) { return PXF__field_done(frame); }

// The frame number after the last dot of `name` (a driver's extension cut
// off first); the name is cut at that dot.  False when there is none.
bool split_frame_number(char *name, int &number) {
    std::size_t n = std::strlen(name);
    const PXF_TYPE *type = pxf::plugin_by_path(name);
    if (!type) type = pxf::builtin_by_path(name);
    if (type) name[n - std::strlen(type->extension)] = '\0';
    char *dot = std::strrchr(name, '.');
    if (!dot || !dot[1] || std::strlen(dot + 1) > 9) return false;
    for (const char *p = dot + 1; *p; ++p)
        if (*p < '0' || *p > '9') return false;
    number = 0;
    for (const char *p = dot + 1; *p; ++p) number = number * 10 + (*p - '0');
    *dot = '\0';
    return true;
}

PXF_IMAGE *open_partner(const PXF_IMAGE *image, const char *stem, int number) {
    std::size_t size = std::strlen(stem) + 16;
    auto *path = static_cast<char *>(pxf::alloc(size));
    if (!path) {
        pxf__err = pxf::kErrNoMemory;
        return nullptr;
    }
    std::snprintf(path, size, "%s.%04d", stem, number);
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = image->info.key;  // the same driver, though the name lost its extension
    info.handle = path;
    PXF_IMAGE *partner = PXF_open(&info, "r");
    pxf::heap_free(path);
    return partner;
}

bool same_text(const char *a, const char *b) { return a == b || (a && b && std::strcmp(a, b) == 0); }

bool same_primaries(const PXF_INFO &a, const PXF_INFO &b) {
    for (int k = 0; k < 2; ++k)
        if (a.red_pri[k] != b.red_pri[k] || a.green_pri[k] != b.green_pri[k] || a.blue_pri[k] != b.blue_pri[k] ||
            a.white_pt[k] != b.white_pt[k])
            return false;
    return true;
}

// The first difference between the two fields, reported; false when they disagree.
bool fields_agree(const PXF_INFO &a, const PXF_INFO &b, int count) {
    auto mismatch = [](int number, const char *text) {
        return pxf::fail(false, pxf::kErrFieldMismatch, pxf::kSetMessages, number, text);
    };
    if (!same_primaries(a, b)) return mismatch(65, "Field frames have different color primaries");
    for (int i = 0; i < count; ++i) {
        const PXF_IMAGE_DESC &x = a.images[i], &y = b.images[i];
        if (x.curve.kind != y.curve.kind || x.curve.gamma != y.curve.gamma)
            return mismatch(62, "Field frames have different gammas");
        if (!same_text(x.chan.format, y.chan.format) || x.chan.count != y.chan.count || x.chan.width != y.chan.width)
            return mismatch(63, "Field frames have different image channel properties");
        if (x.matte.count != y.matte.count || x.matte.width != y.matte.width)
            return mismatch(64, "Field frames have different matte channel properties");
        if (x.aspect_ratio != y.aspect_ratio) return mismatch(66, "Field frames have different aspect types");
        if (std::memcmp(&x.window, &y.window, sizeof x.window) != 0)
            return mismatch(67, "Field frames have different image window sizes");
    }
    return true;
}

// A copy of `from` that owns its strings and tables.
bool copy_desc(PXF_IMAGE_DESC &to, const PXF_IMAGE_DESC &from) {
    to = from;
    to.curve.tables = nullptr;
    to.aspect = to.chan.format = to.matte.format = to.aux.format = to.index.format = nullptr;
    if (from.curve.kind == PXF_CURVE_TABLE && PXF_response_curve_copy(&to.curve, &from.curve) != 0) return false;
    const char *texts[] = {from.aspect, from.chan.format, from.matte.format, from.aux.format, from.index.format};
    char **copies[] = {&to.aspect, &to.chan.format, &to.matte.format, &to.aux.format, &to.index.format};
    for (int k = 0; k < 5; ++k)
        if (texts[k] && !(*copies[k] = pxf::dup_string(texts[k]))) return false;
    return true;
}

int lower(int a, int b) { return a < b ? a : b; }
int higher(int a, int b) { return a > b ? a : b; }

// The frame over both fields; null (and pxf__err -10) when memory runs out.
PXF_IMAGE *build_frame(PXF_IMAGE *first, PXF_IMAGE *second, int count, int number) {
    auto *frame = static_cast<PXF_IMAGE *>(pxf::alloc(sizeof(PXF_IMAGE)));
    if (!frame) {
        pxf__err = pxf::kErrNoMemory;
        return nullptr;
    }
    pxf__init_obj(frame, PXF_MODE_WRITE);
    auto failed = [frame] {
        pxf__free_obj(frame);
        pxf__err = pxf::kErrNoMemory;
        return nullptr;
    };
    if (!pxf__dupl_obj(frame, first)) return failed();
    frame->lut_read = nullptr;  // the fields' palette readers expect their own data
    frame->get_region = nullptr;
    frame->driver = first->driver;
    if (!(frame->info.images = pxf::alloc_array<PXF_IMAGE_DESC>(std::size_t(count)))) return failed();
    frame->info.num_images = count;
    for (int i = 0; i < count; ++i) {
        PXF_IMAGE_DESC &d = frame->info.images[i];
        if (!copy_desc(d, first->info.images[i])) return failed();
        const PXF_BOUNDS &a = first->info.images[i].active_window, &b = second->info.images[i].active_window;
        d.active_window = {lower(a.left, b.left), higher(a.right, b.right), lower(a.bottom, b.bottom),
                           higher(a.top, b.top)};
        d.window.bottom *= 2;
        d.window.top = d.window.top * 2 + 1;
        d.active_window.bottom *= 2;
        d.active_window.top = d.active_window.top * 2 + 1;
    }
    if (!(frame->private_data = pxf::alloc_array<void *>(std::size_t(count)))) return failed();
    auto *records = pxf::alloc_array<Field>(std::size_t(count));
    if (!records) return failed();
    for (int i = 0; i < count; ++i) {
        records[i] = {PXF_OP_FIELD,
                      first,
                      second,
                      first->private_data ? first->private_data[i] : nullptr,
                      second->private_data ? second->private_data[i] : nullptr,
                      number,
                      0};
        frame->private_data[i] = &records[i];  // element 0 owns the block
    }
    frame->scan = field_scan;
    frame->close = field_close;
    const PXF_IMAGE_DESC &d = frame->info.images[0];
    frame->current_line = (d.orientation & 1) ? -1 : d.window.top + 1;
    return frame;
}

}  // namespace

PXF_IMAGE *PXF__field_init(PXF_IMAGE *image) {
    if (!image || !image->info.handle) return image;
    char *stem = pxf::dup_string(image->info.handle);
    if (!stem) {
        pxf__err = pxf::kErrNoMemory;
        return image;
    }
    int number = 0;
    if (!split_frame_number(stem, number)) {
        pxf::heap_free(stem);
        return image;
    }
    PXF_IMAGE *partner = open_partner(image, stem, number % 2 ? number + 1 : number - 1);
    pxf::heap_free(stem);
    if (!partner) return image;
    PXF_IMAGE *first = number % 2 ? image : partner;
    PXF_IMAGE *second = number % 2 ? partner : image;
    int count = lower(image->info.num_images, partner->info.num_images);
    PXF_IMAGE *frame = nullptr;
    if (count < 1 || !image->info.images || !partner->info.images) {
        pxf__err = pxf::kErrCannotDo;
    } else if (fields_agree(first->info, second->info, count)) {
        frame = build_frame(first, second, count, number);
    }
    if (!frame) {
        int err = pxf__err;
        PXF_close_do_it(partner);
        pxf__err = err;
        return image;
    }
    return frame;
}

int PXF__field_done(PXF_IMAGE *frame) {
    // Only a frame this operator built has field records: anything else's
    // private data is not read at all.
    auto *record = frame && frame->close == field_close ? static_cast<Field *>(pxf::ops::top_record(frame)) : nullptr;
    if (!record || record->tag != PXF_OP_FIELD) {
        pxf__err = pxf::kErrCannotDo;
        return pxf__err;
    }
    PXF_IMAGE *first = record->first, *second = record->second;
    bool given_odd = record->frame % 2 != 0;
    pxf__free_obj(frame);  // the records, the descriptions and the handle
    pxf__err = 0;
    // The partner first, then the image the frame was made from.
    PXF_IMAGE *partner = given_odd ? second : first, *given = given_odd ? first : second;
    PXF_close_do_it(partner);
    PXF_close_do_it(given);
    return pxf__err;
}
