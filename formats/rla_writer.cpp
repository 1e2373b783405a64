// Writing RLA files: the header and offset table of the first image at open,
// scanline blocks as they come, the further images' headers and every patch
// at close.  A named file is written as a temporary file beside it and
// renamed over it only when complete; until then the first header's storage
// type holds kUnfinished, which the probe refuses, so a file whose writer
// was killed is never taken for an image.
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pxf/utl.h>

#include "core/core_util.h"
#include "formats/rla_header.h"

namespace {

using namespace pxf::rla;
using pxf::kSetMessages;

// The output stream, shared by every image of the handle.
struct OutFile {
    std::FILE *stream;
    UTL_OUTPUT *output;  // the named file's output; null for standard output
    bool to_stdout;
    bool failed;  // a write failed: the file can only be abandoned
    char *path;
    uint64_t pos;  // bytes written so far: ftell cannot follow a pipe
    clock_t start;
};

// One per image; the handle's private data points at them.
struct ImageWriter {
    OutFile *file;
    unsigned char header[kHeaderSize];
    uint64_t header_pos;
    uint64_t table_pos;
    int channels;
    int width, height;
    PXF_BOUNDS window, active;
    int x_start;  // active left within a row
    int active_width;
    int active_height;
    int next_line;
    unsigned char *table;  // big-endian offsets, one per active scanline
    RLA_ENCODER *encoders;  // one per channel
    unsigned char *out;
    // Unassociated colour is premultiplied into these rows, one per colour
    // channel (null when the colour goes as it comes).
    unsigned char *premultiplied;
    std::size_t row_bytes;
    PXF_CHAN_GROUP colour, matte;
};

// Element x of a caller's row of group g, as a number.
double load(const void *row, const PXF_CHAN_GROUP &g, int x) {
    if (g.type == PXF_C_FLOAT) return static_cast<const float *>(row)[x];
    if (g.type == PXF_C_DOUBLE) return static_cast<const double *>(row)[x];
    if (g.width <= 8) return static_cast<const uint8_t *>(row)[x];
    if (g.width <= 16) return static_cast<const uint16_t *>(row)[x];
    return static_cast<const uint32_t *>(row)[x];
}

double top_of(const PXF_CHAN_GROUP &g) {
    if (g.type != PXF_C_INTEGER) return 1.0;
    return g.width >= 32 ? 4294967295.0 : double((uint64_t(1) << g.width) - 1);
}

std::size_t element_bytes(const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT) return 4;
    if (g.type == PXF_C_DOUBLE) return 8;
    return g.width <= 8 ? 1 : g.width <= 16 ? 2 : 4;
}

// RLA colour is premultiplied by the first matte channel: colour labelled
// unassociated is multiplied on the way (auxiliary channels never are).
void premultiply(const ImageWriter &w, void *const *channel, int c, unsigned char *to) {
    const PXF_CHAN_GROUP &g = w.colour;
    const double matte_top = top_of(w.matte), colour_top = top_of(g);
    const void *from = channel[c], *matte = channel[w.colour.count];
    for (int x = w.x_start; x < w.x_start + w.active_width; ++x) {
        double v = load(from, g, x) * (load(matte, w.matte, x) / matte_top);
        if (g.type == PXF_C_FLOAT) reinterpret_cast<float *>(to)[x] = float(v);
        else if (g.type == PXF_C_DOUBLE) reinterpret_cast<double *>(to)[x] = v;
        else {
            v = v < 0.0 ? 0.0 : v > colour_top ? colour_top : v + 0.5;
            if (g.width <= 8) to[x] = uint8_t(v);
            else if (g.width <= 16) reinterpret_cast<uint16_t *>(to)[x] = uint16_t(v);
            else reinterpret_cast<uint32_t *>(to)[x] = uint32_t(v);
        }
    }
}

bool put(OutFile &f, const void *data, std::size_t n) {
    if (std::fwrite(data, 1, n, f.stream) != n) {
        if (!errno) errno = EIO;
        f.failed = true;
        return false;
    }
    f.pos += n;
    return true;
}

bool put_at(OutFile &f, uint64_t at, const void *data, std::size_t n) {
    errno = 0;
    if (fseeko(f.stream, off_t(at), SEEK_SET) == 0 && std::fwrite(data, 1, n, f.stream) == n) return true;
    if (!errno) errno = EIO;
    f.failed = true;
    return false;
}

int cannot_write(const OutFile &f) {
    return pxf::fail(0, pxf::kErrFlush, kSetMessages, kMsgCannotWrite, "Cannot write to %s; %s", f.path,
                     std::strerror(errno));
}

int clamp_frame(int frame) {
    if (frame > 32767) return 32767;
    if (frame >= -1) return frame;
    return 0;
}

void fill_header(const PXF_INFO &info, const PXF_IMAGE_DESC &d, unsigned char out[kHeaderSize]) {
    Header h;
    std::memset(&h, 0, sizeof h);
    h.window = d.window;
    h.active = d.active_window;
    h.frame = clamp_frame(info.frame);
    h.chan_type = storage_type(d.chan.type);
    h.chan_count = d.chan.count > 0 ? d.chan.count : 0;
    h.matte_count = d.matte.count > 0 ? d.matte.count : 0;
    h.aux_count = d.aux.count > 0 ? d.aux.count : 0;
    h.revision = kRevision;
    // What the image only assumed stays blank, as the file it came from left it.
    if (!(d.chan.extra & PXF_CHAN_GAMMA_ASSUMED))
        std::snprintf(h.gamma, sizeof h.gamma, "%7.4f", double(d.curve.gamma));
    const float *primaries[] = {info.red_pri, info.green_pri, info.blue_pri, info.white_pt};
    char *texts[] = {h.red, h.green, h.blue, h.white};
    for (int i = 0; i < 4 && !(d.chan.extra & PXF_CHAN_PRIMARIES_ASSUMED); ++i)
        std::snprintf(texts[i], sizeof h.red, "%7.4f %7.4f", double(primaries[i][0]), double(primaries[i][1]));
    h.job = info.job_num;
    auto copy = [](char *to, std::size_t size, const char *from) {
        if (from) std::snprintf(to, size, "%s", from);
    };
    copy(h.name, sizeof h.name, info.name);
    copy(h.desc, sizeof h.desc, info.desc);
    copy(h.program, sizeof h.program, info.program);
    copy(h.machine, sizeof h.machine, info.machine);
    copy(h.user, sizeof h.user, info.user);
    copy(h.date, sizeof h.date, info.date);
    copy(h.aspect, sizeof h.aspect, d.aspect);
    std::snprintf(h.aspect_ratio, sizeof h.aspect_ratio, "%5.3f", double(d.aspect_ratio));
    copy(h.chan_format, sizeof h.chan_format, d.chan.format);
    h.field = info.frame_extra;
    copy(h.time, sizeof h.time, info.text_a);
    copy(h.filter, sizeof h.filter, info.text_b);
    h.chan_bits = d.chan.width;
    h.matte_type = storage_type(d.matte.type);
    h.matte_bits = d.matte.width;
    h.aux_type = storage_type(d.aux.type);
    h.aux_bits = d.aux.width;
    copy(h.aux_format, sizeof h.aux_format, d.aux.format);
    h.next = 0;
    pack(h, out);
}

bool coordinate_ok(int v) { return v >= 0 && v <= kMaxCoordinate; }

bool window_ok(const PXF_BOUNDS &w, const PXF_BOUNDS &a) {
    for (int v : {w.left, w.right, w.bottom, w.top, a.left, a.right, a.bottom, a.top})
        if (!coordinate_ok(v)) return false;
    return w.left <= w.right && w.bottom <= w.top && a.left <= a.right && a.bottom <= a.top &&
           w.left <= a.left && w.right >= a.right && w.bottom <= a.bottom && w.top >= a.top;
}

// Checks what the file can hold before anything is created; fixes the recorded
// width of float and double groups.
int check_image(PXF_IMAGE_DESC &d) {
    if (!window_ok(d.window, d.active_window))
        return pxf::fail(0, pxf::kErrCannotDo, kSetMessages, kMsgBadWindow, "%s cannot handle the image window",
                         kDriverName);
    int active_width = d.active_window.right - d.active_window.left + 1;
    for (const Group &g : kGroups) {
        PXF_CHAN_GROUP &group = d.*g.member;
        if (group.count <= 0) continue;
        Fault fault;
        const Codec *codec = codec_for(group.type, group.width, fault);
        if (group.count > kMaxCoordinate) fault = Fault::type;
        if (fault == Fault::type)
            return pxf::fail(0, pxf::kErrCannotDo, kSetMessages, g.type_number, g.type_text, kDriverName);
        if (fault == Fault::width)
            return pxf::fail(0, pxf::kErrCannotDo, kSetMessages, g.width_number, g.width_text, kDriverName);
        // A channel's encoded scanline is one block with a 16-bit length: a
        // window too wide for that is the limit to name, not the element width.
        if (RLA_ENCODED_MAX(uint64_t(active_width), uint64_t(codec->bytes)) > kMaxBlock)
            return pxf::fail(0, pxf::kErrCannotDo, kSetMessages, kMsgBlockLimit,
                             "%s cannot hold scanlines %d pixels wide of %d-byte elements: an encoded channel "
                             "may exceed the %d-byte block limit",
                             kDriverName, active_width, int(codec->bytes), int(kMaxBlock));
        if (codec->bits) group.width = codec->bits;
    }
    return 1;
}

// Bytes of the output buffer for the widest group b and window width w.
std::size_t buffer_size(int b, int w) {
    std::size_t r = std::size_t(w) / 127, n = std::size_t(w) + r + 1;
    if (b <= 8) return n + 2;
    if (b <= 16) return n * 2 + 2;
    if (b <= 32) return n * 4 + 2;
    return n * 8 + 2;
}

bool prepare(ImageWriter &w, const PXF_IMAGE_DESC &d) {
    w.window = d.window;
    w.active = d.active_window;
    w.width = d.window.right - d.window.left + 1;
    w.height = d.window.top - d.window.bottom + 1;
    w.x_start = d.active_window.left - d.window.left;
    w.active_width = d.active_window.right - d.active_window.left + 1;
    w.active_height = d.active_window.top - d.active_window.bottom + 1;
    w.next_line = d.window.bottom;
    int widest = 0;
    w.channels = 0;
    for (const Group &g : kGroups) {
        const PXF_CHAN_GROUP &group = d.*g.member;
        if (group.count <= 0) continue;
        w.channels += group.count;
        if (group.width > widest) widest = group.width;
    }
    w.out = static_cast<unsigned char *>(pxf::alloc(buffer_size(widest, w.width)));
    w.table = static_cast<unsigned char *>(pxf::alloc_zeroed(std::size_t(w.active_height) * 4));
    w.encoders = static_cast<RLA_ENCODER *>(pxf::alloc(std::size_t(w.channels ? w.channels : 1) * sizeof(RLA_ENCODER)));
    if (!w.out || !w.table || !w.encoders) return false;
    int c = 0;
    for (const Group &g : kGroups) {
        const PXF_CHAN_GROUP &group = d.*g.member;
        Fault fault;
        for (int i = 0; i < group.count; ++i) w.encoders[c++] = codec_for(group.type, group.width, fault)->encode;
    }
    if (d.matte.extra == PXF_MATTE_UNASSOCIATED && d.chan.count > 0 && d.matte.count > 0) {
        w.colour = d.chan;
        w.matte = d.matte;
        w.row_bytes = (std::size_t(w.width) * element_bytes(d.chan) + 7) & ~std::size_t(7);
        w.premultiplied = static_cast<unsigned char *>(pxf::alloc(w.row_bytes * std::size_t(d.chan.count)));
        if (!w.premultiplied) return false;
    }
    return true;
}

void release(ImageWriter *records, int count) {
    for (int i = 0; i < count; ++i) {
        pxf::heap_free(records[i].out);
        pxf::heap_free(records[i].table);
        pxf::heap_free(records[i].encoders);
        pxf::heap_free(records[i].premultiplied);
        records[i].premultiplied = nullptr;
        records[i].out = records[i].table = nullptr;
        records[i].encoders = nullptr;
    }
    OutFile *f = records[0].file;
    if (!f) return;
    // Still open here means not committed: the temporary file goes.
    UTL_output_abandon(f->output);
    pxf::heap_free(f->path);
    pxf::heap_free(f);
    for (int i = 0; i < count; ++i) records[i].file = nullptr;
}

// Undoes a write open that got as far as creating the file: only the
// temporary file is removed, never the name the caller gave.
int abandon(ImageWriter *records, int count) {
    int code = pxf__err;
    release(records, count);
    pxf__err = code;
    return 0;
}

int bad_scanline(int line) {
    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgBadScanline,
                     "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
}

int write_scan(void *data, int line, void ***rows, void **) {
    auto *w = static_cast<ImageWriter *>(data);
    if (line != w->next_line || line > w->window.top) return bad_scanline(line);
    if (line >= w->active.bottom && line <= w->active.top) {
        if (!rows || (!*rows && w->channels)) return bad_scanline(line);
        OutFile &f = *w->file;
        errno = 0;
        bool ok = f.pos <= UINT32_MAX;
        if (!ok) errno = EFBIG;
        put32(w->table + 4 * (line - w->active.bottom), uint32_t(f.pos));
        void **channel = *rows;
        for (int c = 0; ok && c < w->channels; ++c) {
            const void *row = channel[c];
            if (w->premultiplied && c < w->colour.count) {
                unsigned char *to = w->premultiplied + std::size_t(c) * w->row_bytes;
                premultiply(*w, channel, c, to);
                row = to;
            }
            int length = w->encoders[c](row, w->x_start, unsigned(w->active_width), w->out + 2);
            put16(w->out, length);
            ok = put(f, w->out, std::size_t(length) + 2);
        }
        if (!ok) {
            f.failed = true;
            return pxf::fail(pxf::kErrFlush, pxf::kErrFlush, kSetMessages, kMsgCannotWriteScanline,
                             "Cannot write scanline %d; %s", line, std::strerror(errno));
        }
    }
    ++w->next_line;
    pxf__err = 0;
    return 0;
}

// Appends the headers of images 2..n, links the chain, settles the first
// table and stamps the elapsed time.
void finish(OutFile &f, ImageWriter *records, int count) {
    errno = 0;
    for (int i = 1; i < count; ++i) {
        ImageWriter &w = records[i];
        w.header_pos = f.pos;
        if (!put(f, w.header, kHeaderSize)) return (void)cannot_write(f);
        w.table_pos = f.pos;
        if (!put(f, w.table, std::size_t(w.active_height) * 4)) return (void)cannot_write(f);
    }
    if (!f.to_stdout) {
        for (int i = 0; i + 1 < count; ++i) {
            unsigned char next[4];
            if (records[i + 1].header_pos > UINT32_MAX) {
                errno = EFBIG;
                return (void)cannot_write(f);
            }
            put32(next, uint32_t(records[i + 1].header_pos));
            if (!put_at(f, records[i].table_pos - 4, next, 4)) return (void)cannot_write(f);
        }
        const ImageWriter &first = records[0];
        if (!put_at(f, first.table_pos, first.table, std::size_t(first.active_height) * 4))
            return (void)cannot_write(f);
        long ticks_per_second = sysconf(_SC_CLK_TCK);
        if (ticks_per_second <= 0) ticks_per_second = 100;
        struct tms unused;
        long seconds = long(times(&unused) - f.start) / ticks_per_second;
        char elapsed[12] = {};
        std::snprintf(elapsed, sizeof elapsed, "%02d:%02d:%02d", int(seconds / 3600), int(seconds / 60 % 60),
                      int(seconds % 60));
        if (!put_at(f, kTimeOffset, elapsed, sizeof elapsed)) return (void)cannot_write(f);
        // Everything else is in the file: now it may say what it holds.
        if (std::fflush(f.stream) != 0) return (void)(f.failed = true, cannot_write(f));
        if (!put_at(f, kTypeOffset, first.header + kTypeOffset, 2)) return (void)cannot_write(f);
    }
    if (std::fflush(f.stream) != 0) return (void)(f.failed = true, cannot_write(f));
}

// The active scanlines not yet written, over every image.
int missing_lines(const ImageWriter *records, int count) {
    int missing = 0;
    for (int i = 0; i < count; ++i) {
        const ImageWriter &w = records[i];
        int next = w.next_line > w.active.bottom ? w.next_line : w.active.bottom;
        if (next <= w.active.top) missing += w.active.top - next + 1;
    }
    return missing;
}

// The caller stopped early: the scanlines it left out are written as zero,
// so that the file stays whole, and a warning says so.
void fill_missing(ImageWriter *records, int count, int missing) {
    OutFile &f = *records[0].file;
    pxf::warn(kSetMessages, kMsgFilled, "%s: %d scanlines not written, filled with zero", f.path, missing);
    int widest = 0, channels = 1;
    for (int i = 0; i < count; ++i) {
        if (records[i].width > widest) widest = records[i].width;
        if (records[i].channels > channels) channels = records[i].channels;
    }
    pxf::HeapPtr<void> zero(pxf::alloc_zeroed(std::size_t(widest) * 8));
    pxf::HeapPtr<void *> rows(static_cast<void **>(pxf::alloc(std::size_t(channels) * sizeof(void *))));
    if (!zero || !rows) {
        f.failed = true;
        return;
    }
    for (int c = 0; c < channels; ++c) rows.get()[c] = zero.get();
    void **table = rows.get();
    for (int i = 0; i < count && !f.failed; ++i)
        while (records[i].next_line <= records[i].window.top && !f.failed)
            if (write_scan(&records[i], records[i].next_line, &table, nullptr) != 0) f.failed = true;
}

int write_close(PXF_IMAGE *image) {
    pxf__err = 0;
    if (image->private_data && image->private_data[0]) {
        auto *records = static_cast<ImageWriter *>(image->private_data[0]);
        int count = image->info.num_images;
        OutFile *f = records[0].file;
        if (f && f->stream) {
            // A file that lost data or misses scanlines is never committed:
            // the caller's old file (if any) stays as it was.
            if (f->failed)
                pxf::report(kSetMessages, kMsgNotKept, "%s: an earlier write failed; the file was not kept", f->path);
            else if (int missing = missing_lines(records, count))
                fill_missing(records, count, missing);
            if (!f->failed) finish(*f, records, count);
            if (!f->failed && f->output) {
                UTL_OUTPUT *output = f->output;
                f->output = nullptr;
                f->stream = nullptr;
                errno = 0;
                if (UTL_output_commit(output) != 0) {
                    f->failed = true;
                    cannot_write(*f);
                }
            }
            if (f->failed) pxf__err = pxf::kErrFlush;
        }
        int code = pxf__err;
        release(records, count);
        pxf__err = code;
    }
    int result = pxf__err;
    pxf__free_obj(image);
    return result;
}

int no_memory(ImageWriter *records, int count) {
    pxf__err = pxf::kErrNoMemory;
    return records ? abandon(records, count) : 0;
}

}  // namespace

int PXF_rla_w_open(PXF_IMAGE *image) {
    PXF_INFO &info = image->info;
    int count = info.num_images;
    if (count <= 0 || !info.images)
        return pxf::fail(0, pxf::kErrMissingField, kSetMessages, 88, "Required field, %s, uninitialized", "images");
    auto **table = static_cast<void **>(pxf::alloc(std::size_t(count) * sizeof(void *)));
    if (!table) return no_memory(nullptr, 0);
    auto *records = static_cast<ImageWriter *>(pxf::alloc_zeroed(std::size_t(count) * sizeof(ImageWriter)));
    if (!records) {
        pxf::heap_free(table);
        return no_memory(nullptr, 0);
    }
    // The handle owns both from here: pxf__free_obj releases them.
    for (int i = 0; i < count; ++i) table[i] = &records[i];
    image->private_data = table;
    image->scan = write_scan;
    image->close = write_close;

    for (int i = 0; i < count; ++i)
        if (!check_image(info.images[i])) return 0;

    auto *f = static_cast<OutFile *>(pxf::alloc_zeroed(sizeof(OutFile)));
    if (!f) return no_memory(nullptr, 0);
    for (int i = 0; i < count; ++i) records[i].file = f;
    const char *path = info.handle;
    if (path && std::strcmp(path, "/dev/stdout") == 0) {
        f->to_stdout = true;
        f->stream = stdout;
    } else {
        path = pxf__build_handle(std::getenv("QV_IMG_DIR"), path, info.ext ? info.ext : pxf::rla_driver_type.extension);
    }
    if (!(f->path = pxf::dup_string(path))) return no_memory(records, count);
    if (!f->stream) {
        errno = 0;
        if (!(f->output = UTL_output_open(f->path))) {
            int error = errno;
            release(records, count);
            return pxf::fail(0, pxf::kErrMissingField, kSetMessages, kMsgCannotOpen, "Cannot open file %s; %s", path,
                             std::strerror(error));
        }
        f->stream = UTL_output_stream(f->output);
        std::setvbuf(f->stream, nullptr, _IOFBF, 1 << 16);
    }
    struct tms unused;
    f->start = times(&unused);

    for (int i = 0; i < count; ++i) {
        if (!prepare(records[i], info.images[i])) return no_memory(records, count);
        fill_header(info, info.images[i], records[i].header);
    }
    ImageWriter &first = records[0];
    unsigned char header[kHeaderSize];
    std::memcpy(header, first.header, kHeaderSize);
    if (!f->to_stdout) put16(header + kTypeOffset, kUnfinished);
    errno = 0;
    if (!put(*f, header, kHeaderSize)) return cannot_write(*f), abandon(records, count);
    first.table_pos = f->pos;
    if (!put(*f, first.table, std::size_t(first.active_height) * 4)) return cannot_write(*f), abandon(records, count);
    pxf__err = 0;
    return 1;
}
