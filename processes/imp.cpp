// Image processes: copies, swatches and mipmapped textures written from an
// open image through the operator chain.
#include <pxf/imp.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "operators/chain.h"
#include "operators/resampler.h"

namespace {

struct Process {
    int type;
    const char *name;
};
constexpr Process kProcesses[] = {{IMP_NONE, "none"}, {IMP_MIPMAP, "mipmap"}, {IMP_SWATCH, "swatch"}};

struct Progress {
    const IMP_OPTIONS &options;
    long done, total;
    void step() {
        ++done;
        if (options.progress) options.progress(options.progress_data, done, total);
    }
};

int lines_of(const PXF_IMAGE_DESC &d) { return d.window.top - d.window.bottom + 1; }

// The output file: opened with the process's images, removed again on
// failure when this run created it.
struct Output {
    PXF_INFO *info;
    PXF_IMAGE *image = nullptr;
    bool existed = true;
    bool bottom_up = true;

    bool open(PXF_IMAGE_DESC *descs, int count) {
        struct stat st;
        existed = !info->handle || stat(info->handle, &st) == 0;
        int saved_count = info->num_images;
        PXF_IMAGE_DESC *saved = info->images;
        info->num_images = count;
        info->images = descs;
        image = PXF_open(info, "w");
        info->num_images = saved_count;
        info->images = saved;
        if (!image) return false;
        if (image->info.num_images < count || !image->private_data) {
            pxf::fail(0, pxf::kErrCannotDo, pxf::kSetMessages, 235, "%s: cannot write %d images to %s", "mipmap",
                      count, info->handle ? info->handle : "the output");
            return abandon();
        }
        for (int i = 0; i < count; ++i)
            if (!image->private_data[i]) return abandon();
        bottom_up = !image->driver || (image->driver->orientation & 1);
        return true;
    }
    int write(int index, int line, void **rows) {
        void **given = rows;
        return image->scan(image->private_data[index], line, &given, image->private_data);
    }
    bool close() {
        PXF_IMAGE *done = image;
        image = nullptr;
        if (PXF_close(done) == 0) return true;
        remove_created();
        return false;
    }
    bool abandon() {
        if (image) {
            int saved = pxf__err;
            PXF_close(image);
            pxf__err = saved;
            image = nullptr;
            remove_created();
        }
        return false;
    }
    void remove_created() {
        struct stat st;
        if (!existed && info->handle && lstat(info->handle, &st) == 0 && S_ISREG(st.st_mode)) unlink(info->handle);
    }
};

// Scanline k of a pass in the writer's order.
int line_at(const PXF_IMAGE_DESC &d, int k, bool bottom_up) {
    return bottom_up ? d.window.bottom + k : d.window.top - k;
}

// Copies every scanline of `from` (whose window has the size of `to`'s) to
// image `index` of `out`, and to `keep` as well when given.
bool pump(PXF_IMAGE *from, Output *out, int index, const PXF_IMAGE_DESC &to, PXF_IMAGE *keep, Progress &progress) {
    const PXF_IMAGE_DESC &d = from->info.images[0];
    const int lines = lines_of(to);
    const bool bottom_up = out ? out->bottom_up : true;
    for (int k = 0; k < lines; ++k) {
        int line = line_at(to, k, bottom_up);
        void **rows = nullptr;
        if (PXF_scan_read(from, d.window.bottom + (line - to.window.bottom), &rows) < 0) return false;
        if (out && out->write(index, line, rows) < 0) return false;
        if (keep) {
            void **given = rows;
            if (PXF_scan_write(keep, line, &given) < 0) return false;
        }
        progress.step();
    }
    return true;
}

// ---- Memory images for the levels ----

struct Memory {
    char name[64];
    PXF_IMAGE *writer = nullptr, *reader = nullptr;

    bool create(PXF_IMAGE_DESC &desc) {
        static std::atomic<unsigned> counter{0};
        std::snprintf(name, sizeof name, "imp-level-%d-%u", int(getpid()), counter++);
        writer = open(&desc);
        return writer != nullptr;
    }
    bool open_reader() { return (reader = open(nullptr)) != nullptr; }
    PXF_IMAGE *open(PXF_IMAGE_DESC *desc) {
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = const_cast<char *>("mem");
        info.handle = name;
        info.num_images = desc ? 1 : 0;
        info.images = desc;
        PXF_IMAGE *image = PXF_open(&info, desc ? "w" : "r");
        PXF_info_cleanup(&info, 0);
        return image;
    }
    void close() {
        if (reader) PXF_close(reader);
        if (writer) PXF_close(writer);
        reader = writer = nullptr;
    }
};

// Heights of bump textures stay as they are: only the other kinds take the
// requested output types.
PXF_MIPMAP_REQUEST request_of(int level, int kind, const IMP_OPTIONS &o, bool random_access) {
    PXF_MIPMAP_REQUEST q;
    std::memset(&q, 0, sizeof q);
    q.level = level;
    q.kind = kind;
    q.filter = o.filter;
    if (o.kind != PXF_TEXTURE_BUMP) std::memcpy(q.output, o.output, sizeof q.output);
    q.random_access = random_access;
    return q;
}

// Stacks a mipmap stage and checks that it is there.
bool mipmap_on(PXF_IMAGE *image, const PXF_MIPMAP_REQUEST &q) {
    void *before = pxf::ops::top_record(image);
    PXF__mipmap(image, &q);
    if (pxf::ops::top_record(image) != before) return true;
    if (pxf__err == 0) pxf__err = pxf::kErrNoMemory;
    return false;
}

// Levels start at the origin: texture lookups have no use for offsets.
PXF_IMAGE_DESC at_origin(PXF_IMAGE_DESC d, int width, int height) {
    PXF_IMAGE_DESC t = d;
    pxf::ops::resize_desc(t, d, width, height);
    t.window = {0, width - 1, 0, height - 1};
    t.active_window = t.window;
    t.image_kind = 1;
    return t;
}

int run_mipmap(PXF_IMAGE *source, Output &out, const IMP_OPTIONS &o) {
    const bool bump = o.kind == PXF_TEXTURE_BUMP;
    // The base of each level: what the next level is filtered from (for
    // bump textures the heights, for the others the level itself).
    const int base_kind = bump ? PXF_TEXTURE_SCALAR : o.kind;
    if (!mipmap_on(source, request_of(0, base_kind, o, false))) return -1;
    const PXF_IMAGE_DESC base0 = source->info.images[0];
    const int width = pxf::ops::row_width(base0), height = lines_of(base0);
    const int levels = PXF_mipmap_levels(width, height);

    // The description of every level, for the file's headers.
    auto *descs = pxf::alloc_array<PXF_IMAGE_DESC>(std::size_t(levels) * 2);
    if (!descs) {
        PXF__mipmap_done(source);
        return -1;
    }
    PXF_IMAGE_DESC *bases = descs + levels;
    for (int k = 0; k < levels; ++k) {
        int w = width >> k, h = height >> k;
        bases[k] = at_origin(base0, w > 0 ? w : 1, h > 0 ? h : 1);
        descs[k] = bases[k];
        if (k > 0) descs[k].image_kind = 2;
        if (bump) {
            descs[k].chan = {const_cast<char *>("bump"), 3, PXF_C_FLOAT, 32, 0};
            descs[k].matte.count = descs[k].aux.count = 0;
            descs[k].curve.gamma = 1.0f;
        }
    }
    Progress progress{o, 0, 0};
    for (int k = 0; k < levels; ++k) progress.total += long(lines_of(descs[k])) * (bump ? 2 : 1);

    bool ok = out.open(descs, levels);
    Memory previous, current;
    for (int k = 0; ok && k < levels; ++k) {
        // Level k's base, from the source or from the level before.
        ok = current.create(bases[k]);
        if (ok && k > 0)
            ok = previous.open_reader() && mipmap_on(previous.reader, request_of(1, base_kind, o, true));
        PXF_IMAGE *from = k == 0 ? source : previous.reader;
        ok = ok && pump(from, bump ? nullptr : &out, k, bases[k], current.writer, progress);
        previous.close();
        if (ok && bump) {
            ok = current.open_reader() && mipmap_on(current.reader, request_of(0, PXF_TEXTURE_BUMP, o, true)) &&
                 pump(current.reader, &out, k, descs[k], nullptr, progress);
            if (current.reader) PXF_close(current.reader);
            current.reader = nullptr;
        }
        previous = current;
        current = Memory{};
    }
    previous.close();
    current.close();
    PXF__mipmap_done(source);
    pxf::heap_free(descs);
    if (!ok) return out.abandon(), -1;
    return out.close() ? 0 : -1;
}

}  // namespace

void IMP_options_init(IMP_OPTIONS *o) {
    if (!o) return;
    std::memset(o, 0, sizeof *o);
    o->kind = PXF_TEXTURE_COLOUR;
}

int IMP_process_type(const char *name) {
    for (const Process &p : kProcesses)
        if (name && std::strcmp(p.name, name) == 0) return p.type;
    return pxf::fail(-1, pxf::kErrCannotDo, pxf::kSetMessages, 234, "Unknown image process %s", name ? name : "(none)");
}

const char *IMP_process_name(int type) {
    for (const Process &p : kProcesses)
        if (p.type == type) return p.name;
    return nullptr;
}

int IMP_run(int type, PXF_IMAGE *source, PXF_INFO *output, const IMP_OPTIONS *options) {
    IMP_OPTIONS defaults;
    IMP_options_init(&defaults);
    const IMP_OPTIONS &o = options ? *options : defaults;
    if (!IMP_process_name(type))
        return pxf::fail(-1, pxf::kErrCannotDo, pxf::kSetMessages, 234, "Unknown image process %s", "(number)");
    PXF_IMAGE_DESC *d = pxf::ops::first_desc(source);
    if (!d || !output || !source->scan || source->mode != PXF_MODE_READ) {
        pxf__err = pxf::kErrMissingField;
        return -1;
    }
    Output out{output};
    if (type == IMP_MIPMAP) return run_mipmap(source, out, o);

    // Copies and swatches read the image once, in the writer's order; a
    // raster copy lets them read it in any order.
    void *bottom = pxf::ops::top_record(source);
    bool raster = false;
    if (type == IMP_SWATCH) {
        const char *name = pxf::ops::operator_name(PXF_OP_SCALE);
        if (!pxf::ops::kernel_or_report(o.filter, name) || !pxf::ops::size_ok(o.size, o.size, name)) return -1;
        PXF__raster(source);
        if (pxf::ops::top_record(source) == bottom) return -1;
        raster = true;
        const int w = pxf::ops::row_width(*d), h = lines_of(*d), side = w > h ? w : h;
        long sw = (long(w) * o.size + side / 2) / side, sh = (long(h) * o.size + side / 2) / side;
        void *before = pxf::ops::top_record(source);
        PXF__scale_init(source, sw > 0 ? int(sw) : 1, sh > 0 ? int(sh) : 1, o.filter);
        if (pxf::ops::top_record(source) == before && (sw != w || sh != h)) {
            PXF__raster_done(source);
            return -1;
        }
    }
    PXF_IMAGE_DESC desc = source->info.images[0];
    desc.image_kind = 1;
    Progress progress{o, 0, lines_of(desc)};
    bool ok = out.open(&desc, 1);
    if (ok && !raster && out.bottom_up != bool(desc.orientation & 1)) {
        PXF__raster(source);
        raster = pxf::ops::top_record(source) != bottom;
        ok = raster;
    }
    ok = ok && pump(source, &out, 0, desc, nullptr, progress);
    if (type == IMP_SWATCH) PXF__scale_done(source);
    if (raster) PXF__raster_done(source);
    if (!ok) return out.abandon(), -1;
    return out.close() ? 0 : -1;
}
