// Reading containers.  The file comes from anywhere: the header, the index
// and every frame block are checked against the file's size before they are
// used, and nothing is allocated beyond what the file can justify.
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cerrno>
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

// No row of all channels beyond this unless the file is large enough to make
// it plausible: the codec packs at most 64 elements a byte.
constexpr uint64_t kRowAllowance = uint64_t(16) << 20;
constexpr uint64_t kBestRatio = 64;
constexpr std::size_t kReadAhead = std::size_t(1) << 18;

struct Reader {
    pxf::Frames frames;  // element 1 of the private data
    int fd;
    char *path;
    uint64_t size;
    Layout layout;
    PXF_IMAGE_DESC *desc;
    Entry *index;
    uint32_t count;
    int current;         // index entry of the current frame, -1 before the first
    int refused;         // the frame whose block failed its checks, while current is -1
    uint32_t *lines;     // active_height + 1 offsets within the block; the last is its length
    unsigned char *data;  // scanline blocks read ahead from the current frame
    std::size_t data_size;
    uint64_t data_from, data_to;  // the part of the frame block held in data
    void **own_rows;
};

const char *end_of_file() { return pxf::text(kSetMessages, rla::kMsgEndOfFile, "unexpected end of file"); }

int damaged(int number, const char *text, const char *path) {
    return pxf::fail(0, pxf::kErrUnknownType, kSetMessages, number, text, path);
}

// Reads exactly n bytes at `at`; false on a short read (errno 0 at the end of the file).
bool read_at(const Reader &r, uint64_t at, void *to, std::size_t n) {
    if (at > r.size || r.size - at < n) {
        errno = 0;
        return false;
    }
    auto *p = static_cast<unsigned char *>(to);
    while (n) {
        ssize_t got = pread(r.fd, p, n, off_t(at));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            if (got == 0) errno = 0;
            return false;
        }
        p += got, at += uint64_t(got), n -= std::size_t(got);
    }
    return true;
}

const char *why_short() { return errno ? std::strerror(errno) : end_of_file(); }

int cannot_read(const Reader &r) {
    return pxf::fail(0, pxf::kErrUnknownType, kSetMessages, rla::kMsgCannotRead, "Cannot read from %s; %s", r.path,
                     why_short());
}

bool set(char *&field, const char *value) {
    pxf::free_string(field);
    return (field = pxf::dup_string(value)) != nullptr;
}

// The image description from the header.
bool describe(PXF_IMAGE *image, const Header &h) {
    PXF_INFO &info = image->info;
    PXF_IMAGE_DESC &d = info.images[0];
    float *primaries[] = {info.red_pri, info.green_pri, info.blue_pri, info.white_pt};
    for (int i = 0; i < 4; ++i) {
        primaries[i][0] = h.primaries[2 * i];
        primaries[i][1] = h.primaries[2 * i + 1];
        primaries[i][2] = 1.0f - h.primaries[2 * i] - h.primaries[2 * i + 1];
    }
    if (h.frame_rate > 0) info.frame_rate = h.frame_rate;
    if (h.gamma > 0) d.curve.gamma = h.gamma;
    d.image_kind = 1;
    d.window = h.window;
    d.active_window = h.active;
    d.x_res = h.window.right - h.window.left + 1;
    d.y_res = h.window.top - h.window.bottom + 1;
    d.aspect_ratio = h.aspect_ratio > 0 ? h.aspect_ratio : float(d.x_res) / float(d.y_res);
    d.step = 1;
    d.orientation = 1;
    PXF_CHAN_GROUP *groups[] = {&d.chan, &d.matte, &d.aux};
    for (int g = 0; g < 3; ++g) {
        groups[g]->count = h.groups[g].count;
        if (h.groups[g].count) {
            groups[g]->type = h.groups[g].type;
            groups[g]->width = h.groups[g].width;
        }
    }
    const char *unknown = pxf::text(pxf::kSetNames, 131, "unknown");
    return set(d.aspect, h.aspect) && set(d.chan.format, h.chan_format) && set(d.aux.format, h.aux_format) &&
           set(d.matte.format, unknown) && set(d.index.format, unknown) &&
           set(info.compression, pxf::text(pxf::kSetNames, 4, "run length encoded"));
}

// Reads and checks the header and the index.
bool load(Reader &r, Header &h) {
    unsigned char bytes[kHeaderSize];
    if (!read_at(r, 0, bytes, kHeaderSize)) {
        if (!errno) return damaged(kMsgNotMpc, "%s: This does not appear to be a multi-frame container", r.path);
        return cannot_read(r);
    }
    if (!unpack(bytes, h)) return damaged(kMsgNotMpc, "%s: This does not appear to be a multi-frame container", r.path);
    if (h.version != kVersion)
        return pxf::fail(false, pxf::kErrUnknownType, kSetMessages, kMsgVersion,
                         "%s: container version %d is not supported", r.path, h.version);
    int group;
    rla::Fault fault;
    if (h.header_size != int(kHeaderSize) || !layout_of(h.window, h.active, h.groups, r.layout, group, fault)) {
        if (group >= 0 && fault == rla::Fault::width)
            return pxf::fail(false, pxf::kErrCannotDo, kSetMessages, rla::kGroups[group].width_number,
                             rla::kGroups[group].width_text, kDriverName);
        if (group >= 0 && fault == rla::Fault::type)
            return pxf::fail(false, pxf::kErrCannotDo, kSetMessages, rla::kGroups[group].type_number,
                             rla::kGroups[group].type_text, kDriverName);
        return damaged(kMsgBadDescription, "%s: the container's image description is damaged", r.path);
    }
    if (r.layout.row_bytes > kRowAllowance && r.layout.row_bytes > kBestRatio * r.size)
        return damaged(kMsgBadDescription, "%s: the container's image description is damaged", r.path);
    r.count = h.frames;
    if (h.index == 0 && h.frames == 0) return true;  // written without frames, or never closed
    const char *bad_index = "%s: the frame index lies outside the file or is damaged";
    uint64_t table = uint64_t(h.frames) * kEntrySize;
    if (h.index < kHeaderSize || h.index > r.size || r.size - h.index < kIndexHead + table)
        return damaged(kMsgBadIndex, bad_index, r.path);
    unsigned char head[kIndexHead];
    if (!read_at(r, h.index, head, kIndexHead)) return cannot_read(r);
    if (std::memcmp(head, kIndexMagic, 8) != 0 || rla::get32(head + 8) != h.frames)
        return damaged(kMsgBadIndex, bad_index, r.path);
    if (!h.frames) return true;
    auto *raw = static_cast<unsigned char *>(pxf::alloc(std::size_t(table)));
    r.index = pxf::alloc_array<Entry>(h.frames);
    if (!raw || !r.index) {
        pxf::heap_free(raw);
        pxf__err = pxf::kErrNoMemory;
        return false;
    }
    bool ok = read_at(r, h.index + kIndexHead, raw, std::size_t(table));
    if (!ok) cannot_read(r);
    uint64_t index_end = h.index + kIndexHead + table;
    uint64_t smallest = kFrameHead + 4 * uint64_t(r.layout.active_height);
    for (uint32_t i = 0; ok && i < h.frames; ++i) {
        const unsigned char *p = raw + kEntrySize * i;
        Entry &e = r.index[i];
        e = {int32_t(rla::get32(p)), get64(p + 8), get64(p + 16)};
        if (i && e.frame <= r.index[i - 1].frame) {
            ok = pxf::fail(false, pxf::kErrUnknownType, kSetMessages, kMsgUnordered,
                           "%s: the frame index is not in ascending frame order at entry %d", r.path, int(i));
            break;
        }
        // Inside the file, clear of the header and of the index itself.
        bool inside = e.offset >= kHeaderSize && e.offset <= r.size && e.length >= smallest &&
                      e.length <= r.size - e.offset && (e.offset + e.length <= h.index || e.offset >= index_end);
        if (!inside)
            ok = pxf::fail(false, pxf::kErrUnknownType, kSetMessages, kMsgBadEntry,
                           "%s: index entry %d (frame %d) points outside the frame data", r.path, int(i), int(e.frame));
    }
    pxf::heap_free(raw);
    return ok;
}

// Reads the frame block's head and scanline table; checks both.
int choose(Reader &r, int entry) {
    const Entry &e = r.index[entry];
    const Layout &l = r.layout;
    unsigned char head[kFrameHead];
    std::size_t n = std::size_t(l.active_height);
    if (!read_at(r, e.offset, head, kFrameHead) || !read_at(r, e.offset + kFrameHead, r.lines, 4 * n)) {
        cannot_read(r);
        return pxf__err;
    }
    bool ok = std::memcmp(head, kFrameMagic, 4) == 0 && int32_t(rla::get32(head + 4)) == e.frame &&
              rla::get32(head + 8) == n && rla::get32(head + 12) == uint32_t(l.channels);
    auto *raw = reinterpret_cast<unsigned char *>(r.lines);
    uint64_t previous = kFrameHead + 4 * n;
    // Backwards, so that each entry is read before its place is overwritten.
    for (std::size_t i = n; i-- > 0;) r.lines[i] = rla::get32(raw + 4 * i);
    for (std::size_t i = 0; ok && i < n; ++i) {
        // Every scanline holds at least a length per channel.
        ok = r.lines[i] >= previous && r.lines[i] <= e.length && e.length - r.lines[i] >= 4 * uint64_t(l.channels);
        previous = r.lines[i] + 4 * uint64_t(l.channels);
    }
    if (!ok) {
        r.data_from = r.data_to = 0;
        r.current = -1;
        r.refused = e.frame;
        return pxf::fail(pxf::kErrUnknownType, pxf::kErrUnknownType, kSetMessages, kMsgFrameMismatch,
                         "%s: frame %d does not match the container's frame layout", r.path, int(e.frame));
    }
    r.lines[n] = uint32_t(e.length);
    r.current = entry;
    r.data_from = r.data_to = 0;
    pxf__err = 0;
    return 0;
}

int find(const Reader &r, int frame) {
    uint32_t lo = 0, hi = r.count;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (r.index[mid].frame < frame) lo = mid + 1;
        else hi = mid;
    }
    return lo < r.count && r.index[lo].frame == frame ? int(lo) : -1;
}

int set_frame(void *self, int frame) {
    auto &r = *static_cast<Reader *>(self);
    int entry = find(r, frame);
    if (entry < 0)
        return pxf::fail(PXF_E_NO_FRAME, PXF_E_NO_FRAME, kSetMessages, kMsgNoFrame, "%s: there is no frame %d", r.path,
                         frame);
    if (entry == r.current) return pxf__err = 0;
    return choose(r, entry);
}

int frame_count(void *self) { return int(static_cast<Reader *>(self)->count); }

int frame_at(void *self, int i) {
    auto &r = *static_cast<Reader *>(self);
    return i >= 0 && uint32_t(i) < r.count ? r.index[i].frame : -1;
}

int current(void *self) {
    auto &r = *static_cast<Reader *>(self);
    return r.current >= 0 ? r.index[r.current].frame : -1;
}

const pxf::FrameOps kOps = {set_frame, frame_count, frame_at, current};

int bad_scanline(int line) {
    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, rla::kMsgBadScanline,
                     "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
}

int cannot_decode(int line) {
    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, rla::kMsgCannotDecode,
                     "Cannot decode scanline %d", line);
}

int read_scan(void *data, int line, void ***rows, void **) {
    auto &r = *static_cast<Reader *>(data);
    const Layout &l = r.layout;
    if (line < l.window.bottom || line > l.window.top) return bad_scanline(line);
    if (r.current < 0) {
        if (!r.count)
            return pxf::fail(PXF_E_NO_FRAME, PXF_E_NO_FRAME, kSetMessages, kMsgNoFrames,
                             "%s: the container holds no frames", r.path);
        // A frame that failed its checks stays unreadable until another is chosen.
        return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgFrameMismatch,
                         "%s: frame %d does not match the container's frame layout", r.path, r.refused);
    }
    void **dest = rows && *rows ? *rows : nullptr;
    if (!dest) {
        if (!r.own_rows && !(r.own_rows = pxf__chan_alloc(r.desc, l.width, kDriverName))) {
            pxf::report_no_memory();
            return pxf::kErrNoMemory;
        }
        dest = r.own_rows;
        if (rows) *rows = dest;
    }
    if (line < l.active.bottom || line > l.active.top) {
        for (int c = 0; c < l.channels; ++c) codec_of(l, c)->clear(dest[c], l.width);
        return pxf__err = 0;
    }
    int i = line - l.active.bottom;
    std::size_t n = r.lines[i + 1] - r.lines[i];
    const Entry &e = r.index[r.current];
    // Scanlines are read ahead in large pieces: one read per line would cost
    // more than decoding it.
    if (r.lines[i] < r.data_from || r.lines[i + 1] > r.data_to) {
        std::size_t want = n > kReadAhead ? n : kReadAhead;
        if (want > e.length - r.lines[i]) want = std::size_t(e.length - r.lines[i]);
        if (want > r.data_size) {
            auto *grown = static_cast<unsigned char *>(pxf::heap_realloc(r.data, want));
            if (!grown) {
                pxf::report_no_memory();
                return pxf__err = pxf::kErrNoMemory;
            }
            r.data = grown;
            r.data_size = want;
        }
        r.data_from = r.data_to = 0;
        if (!read_at(r, e.offset + r.lines[i], r.data, want))
            return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, rla::kMsgCannotReadScanline,
                             "Cannot read scanline %d; %s", line, why_short());
        r.data_from = r.lines[i];
        r.data_to = r.lines[i] + want;
    }
    const unsigned char *block = r.data + (r.lines[i] - r.data_from);
    std::size_t at = 0;
    for (int c = 0; c < l.channels; ++c) {
        if (n - at < 4) return cannot_decode(line);
        uint32_t length = rla::get32(block + at);
        at += 4;
        if (length > n - at || length > uint32_t(INT32_MAX)) return cannot_decode(line);
        int written = codec_of(l, c)->decode(block + at, int(length), dest[c], l.active_width,
                                             unsigned(l.leading), l.trailing);
        if (written != l.width) return cannot_decode(line);
        at += length;
    }
    return pxf__err = 0;
}

void release(Reader *r) {
    if (!r) return;
    if (r->fd >= 0) ::close(r->fd);
    pxf::heap_free(r->path);
    pxf::heap_free(r->index);
    pxf::heap_free(r->lines);
    pxf::heap_free(r->data);
    pxf__chan_free(r->own_rows);
    r->fd = -1;
    r->path = nullptr;
    r->index = nullptr;
    r->lines = nullptr;
    r->data = nullptr;
    r->own_rows = nullptr;
}

int read_close(PXF_IMAGE *image) {
    if (image->private_data) release(static_cast<Reader *>(image->private_data[0]));
    pxf__free_obj(image);
    return pxf__err = 0;
}

int abandon(PXF_IMAGE *image) {
    int code = pxf__err ? pxf__err : pxf::kErrNoMemory;
    if (image->private_data) release(static_cast<Reader *>(image->private_data[0]));
    pxf__err = code;
    return 0;
}

}  // namespace

int PXF_mpc_r_open(PXF_IMAGE *image) {
    const char *name = image->info.handle;
    if (!name)
        return pxf::fail(0, pxf::kErrMissingField, kSetMessages, 88, "Required field, %s, uninitialized", "handle");
    auto **table = static_cast<void **>(pxf::alloc_zeroed(2 * sizeof(void *)));
    auto *r = static_cast<Reader *>(pxf::alloc_zeroed(sizeof(Reader)));
    if (!table || !r) {
        pxf::heap_free(table);
        pxf::heap_free(r);
        return pxf__err = pxf::kErrNoMemory, 0;
    }
    r->fd = -1;
    r->current = -1;
    table[0] = r;
    image->private_data = table;
    const char *path = pxf__build_handle(std::getenv("QV_IMG_DIR"), name, image->info.ext ? image->info.ext : ".mpc");
    errno = 0;
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT && std::strcmp(path, name) != 0) fd = ::open(path = name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        int error = errno;
        pxf::fail(0, pxf::kErrMissingField, kSetMessages, rla::kMsgCannotOpen, "Cannot open file %s; %s", path,
                  std::strerror(error));
        return abandon(image);
    }
    r->fd = fd;
    if (!(r->path = pxf::dup_string(path))) return abandon(image);
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        errno = errno ? errno : EINVAL;
        cannot_read(*r);
        return abandon(image);
    }
    r->size = uint64_t(st.st_size);
    Header h;
    if (!load(*r, h)) return abandon(image);
    PXF_INFO &info = image->info;
    if (!(info.images = pxf::alloc_array<PXF_IMAGE_DESC>(1))) return abandon(image);
    info.num_images = 1;
    pxf__init_ifd(image);
    r->desc = &info.images[0];
    if (!describe(image, h)) return abandon(image);
    r->lines = static_cast<uint32_t *>(pxf::alloc((std::size_t(r->layout.active_height) + 1) * 4));
    if (!r->lines) return abandon(image);
    r->frames = {&kOps, r};
    pxf::frames_attach(image, &r->frames);
    image->scan = read_scan;
    image->close = read_close;
    if (r->count) {
        if (choose(*r, 0) != 0) return abandon(image);
        info.frame = r->index[0].frame;
    }
    return pxf__err = 0, 1;
}

namespace pxf::mpc {

bool load_index(int fd, const char *path, uint64_t size, Header &h, Layout &layout, Entry *&index,
                uint32_t &count) noexcept {
    Reader r{};
    r.fd = fd;
    r.path = const_cast<char *>(path);
    r.size = size;
    bool ok = load(r, h);
    if (!ok) pxf::heap_free(r.index);
    layout = r.layout;
    index = ok ? r.index : nullptr;
    count = ok ? r.count : 0;
    return ok;
}

}  // namespace pxf::mpc
