// Writing containers: frame blocks are appended as their scanlines come, the
// index and the header's pointer to it are written at close.  Appending never
// writes inside the old container: new blocks and the new index go after its
// end, reach the disk, and only then does one 12-byte write of the header
// (frame count and index offset) switch readers over.  Until that write the
// old header points at the old index, so a writer killed at any point leaves
// the old frames readable; a write that fails is cut back to the old size.
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/core_util.h"
#include "core/multiframe.h"
#include "core/registry.h"
#include "formats/mpc_format.h"

namespace {

using namespace pxf::mpc;
using pxf::kSetMessages;
namespace rla = pxf::rla;

// The header's frame count and index offset, side by side: rewritten by one
// write that lies within the file's first sector.
constexpr std::size_t kSwitchAt = 12, kSwitchSize = 12;

struct Writer {
    pxf::Frames frames;  // element 1 of the private data
    std::FILE *stream;
    char *path;
    bool created;       // by this open: removed when the write fails
    bool had_index;     // appending to a container whose index must survive until the switch
    uint64_t original;  // size of an appended container before this open
    uint64_t end;       // where the next byte goes
    Header header;
    Layout layout;
    Entry *index;       // ascending frame numbers
    uint32_t count, capacity;
    int frame;
    int next_line;
    bool started;
    uint64_t block;     // start of the frame being written
    uint32_t *lines;    // its scanline offsets
    unsigned char *table;
    unsigned char *out;
    int failure;        // the first write or memory failure: close then undoes the write
};

int cannot_write(const Writer &w) {
    int error = errno ? errno : EIO;
    return pxf::fail(0, pxf::kErrFlush, kSetMessages, rla::kMsgCannotWrite, "Cannot write to %s; %s", w.path,
                     std::strerror(error));
}

bool put(Writer &w, const void *data, std::size_t n) {
    errno = 0;
    if (n && std::fwrite(data, 1, n, w.stream) != n) return false;
    w.end += n;
    return true;
}

bool put_at(Writer &w, uint64_t at, const void *data, std::size_t n) {
    errno = 0;
    return fseeko(w.stream, off_t(at), SEEK_SET) == 0 && std::fwrite(data, 1, n, w.stream) == n;
}

bool seek_end(Writer &w) { return fseeko(w.stream, off_t(w.end), SEEK_SET) == 0; }

// Position of `frame` in the index, or where it would go.
uint32_t slot(const Writer &w, int frame) {
    uint32_t lo = 0, hi = w.count;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (w.index[mid].frame < frame) lo = mid + 1;
        else hi = mid;
    }
    return lo;
}

bool add_entry(Writer &w, const Entry &e) {
    uint32_t at = slot(w, e.frame);
    if (at < w.count && w.index[at].frame == e.frame) {
        w.index[at] = e;  // written again: the later frame wins
        return true;
    }
    if (w.count == w.capacity) {
        uint32_t grown = w.capacity ? w.capacity * 2 : 64;
        auto *bigger = static_cast<Entry *>(pxf::heap_realloc(w.index, std::size_t(grown) * sizeof(Entry)));
        if (!bigger) {
            pxf::report_no_memory();
            pxf__err = pxf::kErrNoMemory;
            return false;
        }
        w.index = bigger;
        w.capacity = grown;
    }
    std::memmove(w.index + at + 1, w.index + at, (w.count - at) * sizeof(Entry));
    w.index[at] = e;
    ++w.count;
    return true;
}

// Settles the frame being written: its scanline table and its index entry.
// An incomplete frame is dropped and its bytes are reused by the next.
int finish_frame(Writer &w) {
    if (!w.started) return 0;
    w.started = false;
    const Layout &l = w.layout;
    if (w.next_line != l.window.top + 1) {
        int written = w.next_line - l.window.bottom, total = l.window.top - l.window.bottom + 1;
        w.end = w.block;
        seek_end(w);
        return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgIncomplete,
                         "Frame %d of %s is incomplete: %d of %d scanlines written", w.frame, w.path, written, total);
    }
    for (int i = 0; i < l.active_height; ++i) rla::put32(w.table + 4 * i, w.lines[i]);
    if (!put_at(w, w.block + kFrameHead, w.table, 4 * std::size_t(l.active_height)) || !seek_end(w))
        return cannot_write(w), pxf::kErrFlush;
    if (!add_entry(w, {w.frame, w.block, w.end - w.block})) return pxf::kErrNoMemory;
    return 0;
}

// Remembers a failure that loses data, so that close undoes the write.
int noted(Writer &w, int result) {
    if (result != 0 && result != pxf::kErrBadScanline && !w.failure) w.failure = result;
    return result;
}

int set_frame(void *self, int frame) {
    auto &w = *static_cast<Writer *>(self);
    int result = noted(w, finish_frame(w));
    w.frame = frame;
    w.next_line = w.layout.window.bottom;
    if (!result) pxf__err = 0;
    return result;
}

int frame_count(void *self) { return int(static_cast<Writer *>(self)->count); }

int frame_at(void *self, int i) {
    auto &w = *static_cast<Writer *>(self);
    return i >= 0 && uint32_t(i) < w.count ? w.index[i].frame : -1;
}

int current(void *self) { return static_cast<Writer *>(self)->frame; }

const pxf::FrameOps kOps = {set_frame, frame_count, frame_at, current};

int write_scan(void *data, int line, void ***rows, void **) {
    auto &w = *static_cast<Writer *>(data);
    const Layout &l = w.layout;
    if (line != w.next_line || line > l.window.top || !rows || !*rows)
        return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, rla::kMsgBadScanline,
                         "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
    errno = 0;
    if (!w.started) {
        unsigned char head[kFrameHead];
        std::memcpy(head, kFrameMagic, 4);
        rla::put32(head + 4, uint32_t(w.frame));
        rla::put32(head + 8, uint32_t(l.active_height));
        rla::put32(head + 12, uint32_t(l.channels));
        std::memset(w.table, 0, 4 * std::size_t(l.active_height));
        w.block = w.end;
        w.started = true;
        if (!put(w, head, kFrameHead) || !put(w, w.table, 4 * std::size_t(l.active_height))) {
            w.started = false;
            w.end = w.block;
            seek_end(w);
            return noted(w, pxf::fail(pxf::kErrFlush, pxf::kErrFlush, kSetMessages, rla::kMsgCannotWriteScanline,
                                      "Cannot write scanline %d; %s", line, std::strerror(errno ? errno : EIO)));
        }
    }
    if (line >= l.active.bottom && line <= l.active.top) {
        uint64_t at = w.end - w.block;
        if (at > UINT32_MAX) {
            errno = EFBIG;
            return pxf::fail(pxf::kErrFlush, pxf::kErrFlush, kSetMessages, rla::kMsgCannotWriteScanline,
                             "Cannot write scanline %d; %s", line, std::strerror(errno));
        }
        w.lines[line - l.active.bottom] = uint32_t(at);
        void **channel = *rows;
        for (int c = 0; c < l.channels; ++c) {
            int length = codec_of(l, c)->encode(channel[c], l.leading, unsigned(l.active_width), w.out + 4);
            rla::put32(w.out, uint32_t(length));
            if (!put(w, w.out, std::size_t(length) + 4))
                return noted(w, pxf::fail(pxf::kErrFlush, pxf::kErrFlush, kSetMessages, rla::kMsgCannotWriteScanline,
                                          "Cannot write scanline %d; %s", line, std::strerror(errno ? errno : EIO)));
        }
    }
    ++w.next_line;
    return pxf__err = 0;
}

// The index behind the last frame, then the header pointing at it.
bool finish(Writer &w) {
    unsigned char head[kIndexHead] = {};
    std::memcpy(head, kIndexMagic, 8);
    rla::put32(head + 8, w.count);
    uint64_t at = w.end;
    if (!put(w, head, kIndexHead)) return false;
    unsigned char entry[kEntrySize];
    for (uint32_t i = 0; i < w.count; ++i) {
        std::memset(entry, 0, sizeof entry);
        rla::put32(entry, uint32_t(w.index[i].frame));
        put64(entry + 8, w.index[i].offset);
        put64(entry + 16, w.index[i].length);
        if (!put(w, entry, kEntrySize)) return false;
    }
    // The data must be in the file before the header points at it.
    if (std::fflush(w.stream) != 0) return false;
    w.header.frames = w.count;
    w.header.index = at;
    unsigned char bytes[kHeaderSize];
    pack(w.header, bytes);
    if (!w.had_index) return put_at(w, 0, bytes, kHeaderSize) && std::fflush(w.stream) == 0;
    // The new frames and index reach the disk before the header names them,
    // so not even a crash can leave a header pointing at data never written.
    // The rest of the header is the container's own and is not rewritten.
    if (fdatasync(fileno(w.stream)) != 0) return false;
    return put_at(w, kSwitchAt, bytes + kSwitchAt, kSwitchSize) && std::fflush(w.stream) == 0;
}

void release(Writer *w) {
    if (!w) return;
    if (w->stream) std::fclose(w->stream);
    w->stream = nullptr;
    pxf::heap_free(w->path);
    pxf::heap_free(w->index);
    pxf::heap_free(w->lines);
    pxf::heap_free(w->table);
    pxf::heap_free(w->out);
    w->path = nullptr;
    w->index = nullptr;
    w->lines = nullptr;
    w->table = nullptr;
    w->out = nullptr;
}

// Leaves the file as it was before this open: removed when created, cut back
// to its old size when appended to (its header was not touched).
void undo(Writer &w) {
    if (!w.stream) return;
    std::fflush(w.stream);
    if (w.created) {
        std::fclose(w.stream);
        w.stream = nullptr;
        unlink(w.path);
    } else if (ftruncate(fileno(w.stream), off_t(w.original)) != 0) {
        // Nothing more to do: the old header still points at the old index.
    }
}

int write_close(PXF_IMAGE *image) {
    pxf__err = 0;
    auto *w = image->private_data ? static_cast<Writer *>(image->private_data[0]) : nullptr;
    int result = 0;
    if (w && w->stream) {
        // An incomplete last frame is reported and left out; any other
        // failure keeps the file as it was.
        int code = noted(*w, finish_frame(*w));
        if (w->failure) {
            code = w->failure;
            undo(*w);
        } else if (!finish(*w)) {
            cannot_write(*w);
            code = pxf__err;
            undo(*w);
        } else {
            int failed = std::fclose(w->stream);
            w->stream = nullptr;
            if (failed) {
                cannot_write(*w);
                code = pxf__err;
            }
        }
        result = code;
    }
    release(w);
    pxf__free_obj(image);
    pxf__err = result;
    return result;
}

bool same_shape(const Header &a, const Header &b) {
    auto same_bounds = [](const PXF_BOUNDS &x, const PXF_BOUNDS &y) {
        return x.left == y.left && x.right == y.right && x.bottom == y.bottom && x.top == y.top;
    };
    if (!same_bounds(a.window, b.window) || !same_bounds(a.active, b.active)) return false;
    for (int g = 0; g < 3; ++g)
        if (a.groups[g].count != b.groups[g].count ||
            (a.groups[g].count && (a.groups[g].type != b.groups[g].type || a.groups[g].width != b.groups[g].width)))
            return false;
    return true;
}

void fill_header(const PXF_INFO &info, const PXF_IMAGE_DESC &d, Header &h) {
    std::memset(&h, 0, sizeof h);
    h.version = kVersion;
    h.header_size = int(kHeaderSize);
    h.window = d.window;
    h.active = d.active_window;
    const PXF_CHAN_GROUP *groups[] = {&d.chan, &d.matte, &d.aux};
    for (int g = 0; g < 3; ++g) {
        int count = groups[g]->count > 0 ? groups[g]->count : 0;
        h.groups[g] = {count, count ? groups[g]->type : 0, count ? groups[g]->width : 0};
    }
    h.gamma = d.curve.gamma;
    h.aspect_ratio = d.aspect_ratio;
    h.frame_rate = info.frame_rate;
    const float *primaries[] = {info.red_pri, info.green_pri, info.blue_pri, info.white_pt};
    for (int i = 0; i < 4; ++i) h.primaries[2 * i] = primaries[i][0], h.primaries[2 * i + 1] = primaries[i][1];
    auto copy = [](char *to, std::size_t size, const char *from) {
        if (from) std::snprintf(to, size, "%s", from);
    };
    copy(h.chan_format, sizeof h.chan_format, d.chan.format);
    copy(h.aux_format, sizeof h.aux_format, d.aux.format);
    copy(h.aspect, sizeof h.aspect, d.aspect);
}

// Opens an existing container to add frames to; false after a report.
bool reopen(Writer &w, const char *path) {
    int fd = ::open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    Header old;
    Layout layout;
    uint32_t count = 0;
    Entry *index = nullptr;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0) {
        // An empty file (such as one made by UTL_output_open) starts a new
        // container in place; a failure cuts it back to empty.
        if (!(w.stream = fdopen(fd, "r+b"))) {
            ::close(fd);
            return pxf::fail(false, pxf::kErrMissingField, kSetMessages, rla::kMsgCannotOpen,
                             "Cannot open file %s; %s", path, std::strerror(errno));
        }
        std::setvbuf(w.stream, nullptr, _IOFBF, 1 << 16);
        unsigned char bytes[kHeaderSize];
        pack(w.header, bytes);
        if (!put(w, bytes, kHeaderSize)) return cannot_write(w), undo(w), false;
        return true;
    }
    if (fstat(fd, &st) != 0 || !load_index(fd, path, uint64_t(st.st_size), old, layout, index, count)) {
        ::close(fd);
        return pxf__err = pxf__err ? pxf__err : pxf::kErrFlush, false;
    }
    if (!same_shape(old, w.header)) {
        ::close(fd);
        pxf::heap_free(index);
        return pxf::fail(false, pxf::kErrCannotDo, kSetMessages, kMsgCannotAppend,
                         "%s: frames of another size or layout cannot be added", path);
    }
    if (!(w.stream = fdopen(fd, "r+b"))) {
        ::close(fd);
        pxf::heap_free(index);
        return pxf::fail(false, pxf::kErrMissingField, kSetMessages, rla::kMsgCannotOpen, "Cannot open file %s; %s",
                         path, std::strerror(errno));
    }
    std::setvbuf(w.stream, nullptr, _IOFBF, 1 << 16);
    w.index = index;
    w.count = w.capacity = count;
    w.original = w.end = uint64_t(st.st_size);
    w.had_index = old.index != 0;
    w.header = old;  // the same shape; the container keeps its own texts
    return true;
}

}  // namespace

int PXF_mpc_w_open(PXF_IMAGE *image) {
    PXF_INFO &info = image->info;
    if (info.num_images <= 0 || !info.images)
        return pxf::fail(0, pxf::kErrMissingField, kSetMessages, 88, "Required field, %s, uninitialized", "images");
    PXF_IMAGE_DESC &d = info.images[0];
    if (info.num_images > 1)
        return pxf::fail(0, pxf::kErrCannotDo, kSetMessages, 61, "%s cannot store multiple images", kDriverName);
    auto **table = static_cast<void **>(pxf::alloc_zeroed(2 * sizeof(void *)));
    auto *w = static_cast<Writer *>(pxf::alloc_zeroed(sizeof(Writer)));
    if (!table || !w) {
        pxf::heap_free(table);
        pxf::heap_free(w);
        return pxf__err = pxf::kErrNoMemory, 0;
    }
    table[0] = w;
    image->private_data = table;  // pxf__free_obj frees both
    image->close = write_close;

    // Float and double groups record their real widths.
    PXF_CHAN_GROUP *groups[] = {&d.chan, &d.matte, &d.aux};
    for (auto *g : groups) {
        rla::Fault fault;
        const rla::Codec *codec = g->count > 0 ? rla::codec_for(g->type, g->width, fault) : nullptr;
        if (codec && codec->bits) g->width = codec->bits;
    }
    fill_header(info, d, w->header);
    int group;
    rla::Fault fault;
    if (!layout_of(w->header.window, w->header.active, w->header.groups, w->layout, group, fault)) {
        if (group >= 0)
            return pxf::fail(0, pxf::kErrCannotDo, kSetMessages,
                             fault == rla::Fault::width ? rla::kGroups[group].width_number : rla::kGroups[group].type_number,
                             fault == rla::Fault::width ? rla::kGroups[group].width_text : rla::kGroups[group].type_text,
                             kDriverName);
        return pxf::fail(0, pxf::kErrCannotDo, kSetMessages, rla::kMsgBadWindow, "%s cannot handle the image window",
                         kDriverName);
    }
    const Layout &l = w->layout;
    std::size_t widest = 0;
    for (int c = 0; c < l.channels; ++c) {
        std::size_t n = RLA_ENCODED_MAX(std::size_t(l.active_width), std::size_t(codec_of(l, c)->bytes));
        if (n > widest) widest = n;
    }
    w->lines = static_cast<uint32_t *>(pxf::alloc(4 * std::size_t(l.active_height)));
    w->table = static_cast<unsigned char *>(pxf::alloc(4 * std::size_t(l.active_height)));
    w->out = static_cast<unsigned char *>(pxf::alloc(widest + 4));
    const char *path = pxf__build_handle(std::getenv("QV_IMG_DIR"), info.handle, info.ext ? info.ext : ".mpc");
    if (!w->lines || !w->table || !w->out || !(w->path = pxf::dup_string(path))) {
        release(w);
        return pxf__err = pxf::kErrNoMemory, 0;
    }
    errno = 0;
    if (info.option_flag && access(w->path, F_OK) == 0) {
        if (!reopen(*w, w->path)) {
            int code = pxf__err;
            release(w);
            pxf__err = code;
            return 0;
        }
    } else {
        if (!(w->stream = std::fopen(w->path, "w+b"))) {
            int error = errno;
            release(w);
            return pxf::fail(0, pxf::kErrMissingField, kSetMessages, rla::kMsgCannotOpen, "Cannot open file %s; %s",
                             path, std::strerror(error));
        }
        w->created = true;
        std::setvbuf(w->stream, nullptr, _IOFBF, 1 << 16);
        unsigned char bytes[kHeaderSize];
        pack(w->header, bytes);
        if (!put(*w, bytes, kHeaderSize)) {
            cannot_write(*w);
            int code = pxf__err;
            undo(*w);
            release(w);
            pxf__err = code;
            return 0;
        }
    }
    if (!seek_end(*w)) {
        cannot_write(*w);
        int code = pxf__err;
        undo(*w);
        release(w);
        pxf__err = code;
        return 0;
    }
    w->frame = info.frame;
    w->next_line = l.window.bottom;
    w->frames = {&kOps, w};
    pxf::frames_attach(image, &w->frames);
    image->scan = write_scan;
    return pxf__err = 0, 1;
}
