// Frame-numbered file sequences ("shot.####.rla") as one multi-frame image:
// the frames are the numbers found in the directory, each file is opened by
// its own driver when its frame is chosen.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include <pxf/frames.h>

#include "core/core_util.h"
#include "core/multiframe.h"
#include "formats/mpc_format.h"

namespace {

using pxf::kSetMessages;
using namespace pxf::mpc;

struct FrameFile {
    int number;
    int digits;  // as the directory spells it
};

struct Sequence {
    pxf::Frames frames;  // element 1 of the private data
    char *name;          // as the caller gave it
    char *dir;           // with its trailing '/', or ""
    char *prefix, *suffix;
    FrameFile *files;
    int count;
    PXF_IMAGE *inner;  // the current frame's file
    int current;       // its index in files
    char path[PXF_PATHNAME_MAX];
};

// Splits a base name at its frame field: a run of '#' or a printf
// conversion "%d" / "%0Nd".  Returns the width (0 for "%d"), or -1.
int frame_field(const char *base, std::size_t &start, std::size_t &length) {
    if (PXF_name_syntax_has_frame(base)) {
        start = std::strchr(base, '#') - base;
        length = std::strspn(base + start, "#");
        return int(length);
    }
    for (const char *p = std::strchr(base, '%'); p; p = std::strchr(p + 1, '%')) {
        const char *q = p + 1;
        int width = 0;
        if (*q == '0')
            for (++q; std::isdigit(static_cast<unsigned char>(*q)); ++q) width = width * 10 + (*q - '0');
        if (*q == 'd') {
            start = std::size_t(p - base);
            length = std::size_t(q + 1 - p);
            return width;
        }
    }
    return -1;
}

bool add_file(Sequence &s, int &capacity, FrameFile f) {
    if (s.count == capacity) {
        int grown = capacity ? capacity * 2 : 64;
        auto *bigger = static_cast<FrameFile *>(pxf::heap_realloc(s.files, std::size_t(grown) * sizeof(FrameFile)));
        if (!bigger) return pxf::report_no_memory(), pxf__err = pxf::kErrNoMemory, false;
        s.files = bigger;
        capacity = grown;
    }
    s.files[s.count++] = f;
    return true;
}

// The frames of the directory that fit prefix, digits, suffix.
bool discover(Sequence &s, int width) {
    DIR *d = opendir(*s.dir ? s.dir : ".");
    if (!d) return true;  // reported as "no frame found"
    std::size_t lp = std::strlen(s.prefix), ls = std::strlen(s.suffix);
    int capacity = 0;
    bool ok = true;
    while (dirent *e = readdir(d)) {
        const char *n = e->d_name;
        std::size_t len = std::strlen(n);
        if (len <= lp + ls || std::strncmp(n, s.prefix, lp) != 0 || std::strcmp(n + len - ls, s.suffix) != 0) continue;
        std::size_t digits = len - lp - ls;
        if (digits > 9 || std::strspn(n + lp, "0123456789") != digits) continue;
        // A field of N '#' takes exactly N digits, or more without a leading zero.
        if (width > 0 && (digits < std::size_t(width) || (digits > std::size_t(width) && n[lp] == '0'))) continue;
        int number = 0;
        for (std::size_t i = 0; i < digits; ++i) number = number * 10 + (n[lp + i] - '0');
        if (!(ok = add_file(s, capacity, {number, int(digits)}))) break;
    }
    closedir(d);
    std::sort(s.files, s.files + s.count, [](const FrameFile &a, const FrameFile &b) { return a.number < b.number; });
    // The same number spelled twice ("7" and "0007") counts once.
    s.count = int(std::unique(s.files, s.files + s.count,
                              [](const FrameFile &a, const FrameFile &b) { return a.number == b.number; }) -
                  s.files);
    return ok;
}

const char *path_of(Sequence &s, int index) {
    std::snprintf(s.path, sizeof s.path, "%s%s%0*d%s", s.dir, s.prefix, s.files[index].digits, s.files[index].number,
                  s.suffix);
    return s.path;
}

// The gaps between the first and the last frame, as "3, 5-9, 12" (cut short
// when long).
void report_gaps(const Sequence &s) {
    char list[256] = "";
    std::size_t used = 0;
    bool any = false;
    for (int i = 1; i < s.count; ++i) {
        int from = s.files[i - 1].number + 1, to = s.files[i].number - 1;
        if (from > to) continue;
        any = true;
        if (used + 32 >= sizeof list) {
            std::snprintf(list + used, sizeof list - used, ", ...");
            break;
        }
        used += std::size_t(from == to ? std::snprintf(list + used, sizeof list - used, "%s%d", used ? ", " : "", from)
                                       : std::snprintf(list + used, sizeof list - used, "%s%d-%d", used ? ", " : "",
                                                       from, to));
    }
    if (any) pxf::warn(kSetMessages, kMsgMissingFrames, "%s: frames missing from the sequence: %s", s.name, list);
}

bool same_layout(const PXF_IMAGE_DESC &a, const PXF_IMAGE_DESC &b) {
    auto same_bounds = [](const PXF_BOUNDS &x, const PXF_BOUNDS &y) {
        return x.left == y.left && x.right == y.right && x.bottom == y.bottom && x.top == y.top;
    };
    auto same_group = [](const PXF_CHAN_GROUP &x, const PXF_CHAN_GROUP &y) {
        return x.count == y.count && (!x.count || (x.type == y.type && x.width == y.width));
    };
    return same_bounds(a.window, b.window) && same_bounds(a.active_window, b.active_window) &&
           same_group(a.chan, b.chan) && same_group(a.matte, b.matte) && same_group(a.aux, b.aux) &&
           same_group(a.index, b.index);
}

void close_inner(Sequence &s) {
    if (s.inner) s.inner->close(s.inner);
    s.inner = nullptr;
    s.current = -1;
}

int find(const Sequence &s, int frame) {
    const FrameFile *f = std::lower_bound(s.files, s.files + s.count, frame,
                                          [](const FrameFile &a, int n) { return a.number < n; });
    return f != s.files + s.count && f->number == frame ? int(f - s.files) : -1;
}

// Opens frame `index`; `desc` is the sequence's description it must match
// (null for the first, which sets it).
int choose(Sequence &s, int index, const PXF_IMAGE_DESC *desc) {
    PXF_IMAGE *next = pxf::open_for_reading(path_of(s, index));
    if (!next) return pxf__err ? pxf__err : pxf::kErrCannotDo;
    if (desc && (!next->info.images || next->info.num_images < 1 || !same_layout(*desc, next->info.images[0]))) {
        next->close(next);
        return pxf::fail(pxf::kErrCannotDo, pxf::kErrCannotDo, kSetMessages, kMsgSequenceMismatch,
                         "Frame %d (%s) differs in size or layout from the sequence", s.files[index].number, s.path);
    }
    close_inner(s);
    s.inner = next;
    s.current = index;
    return pxf__err = 0;
}

PXF_IMAGE_DESC *desc_of(void *self);

int set_frame(void *self, int frame) {
    auto &s = *static_cast<Sequence *>(self);
    int index = find(s, frame);
    if (index < 0)
        return pxf::fail(PXF_E_NO_FRAME, PXF_E_NO_FRAME, kSetMessages, kMsgNoFrame, "%s: there is no frame %d", s.name,
                         frame);
    if (index == s.current) return pxf__err = 0;
    return choose(s, index, desc_of(self));
}

int frame_count(void *self) { return static_cast<Sequence *>(self)->count; }

int frame_at(void *self, int i) {
    auto &s = *static_cast<Sequence *>(self);
    return i >= 0 && i < s.count ? s.files[i].number : -1;
}

int current(void *self) {
    auto &s = *static_cast<Sequence *>(self);
    return s.current >= 0 ? s.files[s.current].number : -1;
}

const pxf::FrameOps kOps = {set_frame, frame_count, frame_at, current};

// The outer handle, found again from the record for the layout check.
struct Outer {
    Sequence seq;
    PXF_IMAGE *image;
};

PXF_IMAGE_DESC *desc_of(void *self) {
    auto *o = reinterpret_cast<Outer *>(self);
    return o->image->info.images;
}

int read_scan(void *data, int line, void ***rows, void **) {
    auto &s = *static_cast<Sequence *>(data);
    if (!s.inner)
        return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, 53,
                         "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
    PXF_IMAGE *in = s.inner;
    if (!in->scan || !in->private_data || !in->private_data[0]) return pxf__err = pxf::kErrCannotDo;
    int result = in->scan(in->private_data[0], line, rows, in->private_data);
    if (result == 0) in->current_line = line;
    return result;
}

void release(Outer *o) {
    if (!o) return;
    Sequence &s = o->seq;
    close_inner(s);
    pxf::heap_free(s.name);
    pxf::heap_free(s.dir);
    pxf::heap_free(s.prefix);
    pxf::heap_free(s.suffix);
    pxf::heap_free(s.files);
    s.name = s.dir = s.prefix = s.suffix = nullptr;
    s.files = nullptr;
}

int sequence_close(PXF_IMAGE *image) {
    if (image->private_data) release(static_cast<Outer *>(image->private_data[0]));
    pxf__free_obj(image);
    return pxf__err = 0;
}

char *dup_part(const char *from, std::size_t n) {
    auto *s = static_cast<char *>(pxf::alloc(n + 1));
    if (s) std::memcpy(s, from, n), s[n] = '\0';
    return s;
}

// Copies the first frame's description into the sequence's handle.
bool adopt(PXF_IMAGE *image, PXF_IMAGE *first) {
    void **table = image->private_data;  // the copy starts without private data
    int copied = pxf__dupl_obj(image, first);
    image->private_data = table;
    if (!copied) return false;
    // The copy took the frame file's functions: the sequence has its own.
    image->scan = read_scan;
    image->close = sequence_close;
    image->lut_read = nullptr;
    int n = first->info.num_images > 0 ? 1 : 0;
    if (!n) return true;
    if (!(image->info.images = pxf::alloc_array<PXF_IMAGE_DESC>(1))) return false;
    image->info.num_images = 1;
    pxf__init_ifd(image);
    PXF_IMAGE_DESC &to = image->info.images[0];
    const PXF_IMAGE_DESC &from = first->info.images[0];
    PXF_RESPONSE_CURVE curve = to.curve;
    to = from;
    to.curve = curve;
    to.aspect = nullptr;
    to.chan.format = to.matte.format = to.aux.format = to.index.format = nullptr;
    if (PXF_response_curve_copy(&to.curve, &from.curve) != 0) return false;
    struct {
        char *&to;
        const char *from;
    } texts[] = {{to.aspect, from.aspect}, {to.chan.format, from.chan.format}, {to.matte.format, from.matte.format},
                 {to.aux.format, from.aux.format}, {to.index.format, from.index.format}};
    for (auto &t : texts)
        if (t.from && !(t.to = pxf::dup_string(t.from))) return false;
    return true;
}

}  // namespace

namespace pxf {

PXF_IMAGE *sequence_open(const char *name, bool &claimed) noexcept {
    claimed = false;
    const char *slash = std::strrchr(name, '/');
    const char *base = slash ? slash + 1 : name;
    std::size_t start = 0, length = 0;
    int width = frame_field(base, start, length);
    if (width < 0 || access(name, F_OK) == 0) return nullptr;
    claimed = true;
    auto *image = static_cast<PXF_IMAGE *>(heap_alloc(sizeof(PXF_IMAGE)));
    auto **table = static_cast<void **>(alloc_zeroed(2 * sizeof(void *)));
    auto *o = static_cast<Outer *>(alloc_zeroed(sizeof(Outer)));
    if (!image || !table || !o) {
        heap_free(image);
        heap_free(table);
        heap_free(o);
        report_no_memory();
        pxf__err = kErrNoMemory;
        return nullptr;
    }
    pxf__init_obj(image, PXF_MODE_READ);
    table[0] = o;
    image->private_data = table;
    image->close = sequence_close;
    o->image = image;
    Sequence &s = o->seq;
    s.current = -1;
    auto fail_open = [&](int code) -> PXF_IMAGE * {
        sequence_close(image);
        pxf__err = code;
        return nullptr;
    };
    if (!(s.name = dup_string(name)) || !(s.dir = dup_part(name, std::size_t(base - name))) ||
        !(s.prefix = dup_part(base, start)) || !(s.suffix = dup_string(base + start + length)))
        return fail_open(kErrNoMemory);
    if (!discover(s, width)) return fail_open(kErrNoMemory);
    if (!s.count) {
        report(kSetMessages, kMsgNoSequence, "%s: no frame of the sequence was found", name);
        return fail_open(kErrMissingField);
    }
    report_gaps(s);
    if (choose(s, 0, nullptr) != 0) return fail_open(pxf__err);
    if (!adopt(image, s.inner)) return fail_open(pxf__err ? pxf__err : kErrNoMemory);
    free_string(image->info.handle);
    if (!(image->info.handle = dup_string(name))) return fail_open(kErrNoMemory);
    image->info.frame = s.files[0].number;
    s.frames = {&kOps, o};
    frames_attach(image, &s.frames);
    pxf__err = 0;
    return image;
}

}  // namespace pxf
