// Reading RLA files.  Files come from anywhere: every length, offset and
// count is checked against the file's size before it is used or allocated.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "core/core_util.h"
#include "core/registry.h"
#include "formats/rla_header.h"

namespace {

using namespace pxf::rla;
using pxf::kSetMessages;

// No row of all channels is allowed beyond this, unless the file is large
// enough to make it plausible (see row_justified).
constexpr uint64_t kRowAllowance = uint64_t(16) << 20;
// The best the byte codec compresses: 128 elements in 2 bytes.
constexpr uint64_t kBestRatio = 64;

// The input stream, shared by every image of the handle.
struct InFile {
    std::FILE *stream;
    bool from_stdin;
    char *path;
    unsigned char *memory;  // standard input read ahead when it cannot seek
    uint64_t size;
    uint64_t pos;         // where the stream stands; UINT64_MAX when unknown
    uint64_t data_start;  // scanline blocks lie behind the first offset table
    unsigned char *block;  // one channel block
    unsigned char *line;   // every block of one scanline, read at once
    std::size_t line_capacity;
};

// One per image; the handle's private data points at them.
struct ImageReader {
    InFile *file;
    PXF_IMAGE_DESC *desc;
    PXF_BOUNDS window, active;
    int width;
    int leading, active_width, trailing;
    int active_height;
    int channels;
    uint32_t *offsets;
    const Codec **codecs;  // one per channel
    void **own_rows;       // used when the caller passes no rows
};

const char *reason(int number, const char *text) { return pxf::text(kSetMessages, number, text); }

const char *end_of_file() { return reason(kMsgEndOfFile, "unexpected end of file"); }

int not_rla(const char *path) {
    return pxf::fail(0, pxf::kErrUnknownType, kSetMessages, kMsgNotRla,
                     "%s: This does not appear to be a Quorvalen file", path);
}

// A header that is sound but for the mark a writer leaves until its file is complete.
bool unfinished(const unsigned char header[kHeaderSize]) {
    if (get16(header + kTypeOffset) != kUnfinished) return false;
    unsigned char copy[kHeaderSize];
    std::memcpy(copy, header, kHeaderSize);
    put16(copy + kTypeOffset, kStoreInteger);
    return plausible(copy);
}

int incomplete(const char *path) {
    return pxf::fail(0, pxf::kErrUnknownType, kSetMessages, kMsgIncomplete,
                     "%s: the file is incomplete (its writing was interrupted)", path);
}

int cannot_read(const InFile &f, const char *why) {
    return pxf::fail(0, pxf::kErrUnknownType, kSetMessages, kMsgCannotRead, "Cannot read from %s; %s", f.path, why);
}

int no_memory() {
    pxf__err = pxf::kErrNoMemory;
    return 0;
}

// Reads exactly n bytes at `at`; false on a short read (errno kept when the stream failed).
bool read_at(InFile &f, uint64_t at, void *to, std::size_t n) {
    if (at > f.size || f.size - at < n) {
        errno = 0;
        return false;
    }
    if (f.pos != at) {
        if (fseeko(f.stream, off_t(at), SEEK_SET) != 0) {
            f.pos = UINT64_MAX;
            return false;
        }
        f.pos = at;
    }
    errno = 0;
    std::size_t got = std::fread(to, 1, n, f.stream);
    f.pos += got;
    if (got != n) {
        f.pos = UINT64_MAX;
        if (!std::ferror(f.stream)) errno = 0;
        return false;
    }
    return true;
}

// Spans from this size on are read straight from the file: the stream's
// buffer would cost a copy more than the system call it saves.  So are
// spans away from where the stream stands (rows read top down from a file
// written bottom up): refilling the buffer there would read ahead in vain.
constexpr std::size_t kDirectRead = 16 << 10;

// `n` bytes at `at` into the line buffer (or in place from memory); null
// when that cannot be done.
const unsigned char *read_span(InFile &f, uint64_t at, std::size_t n, bool &out_of_memory) {
    if (f.memory) return f.memory + at;
    int fd = n >= kDirectRead || f.pos != at ? fileno(f.stream) : -1;
    if (n > f.line_capacity) {
        auto *grown = static_cast<unsigned char *>(pxf::alloc(n));
        if (!grown) {
            out_of_memory = true;
            return nullptr;
        }
        pxf::heap_free(f.line);
        f.line = grown;
        f.line_capacity = n;
    }
    if (fd < 0) return read_at(f, at, f.line, n) ? f.line : nullptr;
    for (std::size_t got = 0; got < n;) {
        ssize_t k = pread(fd, f.line + got, n - got, off_t(at + got));
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return nullptr;
        got += std::size_t(k);
    }
    return f.line;
}

const char *why_short() { return errno ? std::strerror(errno) : end_of_file(); }

// Learns the size of the stream; standard input that cannot seek is read
// into memory first so that scanlines can still be read in any order.
bool measure(InFile &f) {
    if (fseeko(f.stream, 0, SEEK_END) == 0) {
        off_t end = ftello(f.stream);
        if (end >= 0 && fseeko(f.stream, 0, SEEK_SET) == 0) {
            f.size = uint64_t(end);
            f.pos = 0;
            return true;
        }
    }
    std::size_t size = 0, capacity = 1 << 16;
    auto *memory = static_cast<unsigned char *>(pxf::alloc(capacity));
    if (!memory) return no_memory();
    for (;;) {
        size += std::fread(memory + size, 1, capacity - size, f.stream);
        if (size < capacity) break;
        auto *grown = static_cast<unsigned char *>(pxf::heap_realloc(memory, capacity * 2));
        if (!grown) {
            pxf::heap_free(memory);
            pxf::report_no_memory();
            return no_memory();
        }
        memory = grown;
        capacity *= 2;
    }
    if (std::ferror(f.stream)) {
        int error = errno;
        pxf::heap_free(memory);
        return cannot_read(f, std::strerror(error));
    }
    f.memory = memory;
    f.size = size;
    f.pos = 0;
    if (!f.from_stdin) std::fclose(f.stream);
    f.from_stdin = false;
    // An empty stream has nothing to read: a memory stream over one spare byte stands in.
    f.stream = fmemopen(memory, size ? size : 1, "rb");
    if (!f.stream) return cannot_read(f, std::strerror(errno));
    return true;
}

int active_height(const Header &h) { return h.active.top - h.active.bottom + 1; }

struct Shape {
    int channels;
    uint64_t row_bytes;  // one window row of every channel
};

bool row_justified(uint64_t row_bytes, uint64_t file_size) {
    return row_bytes <= kRowAllowance || row_bytes <= kBestRatio * file_size;
}

// Checks one image's header against what the file holds; false after reporting.
bool check_image(InFile &f, const Header &h, uint64_t header_pos, Shape &shape) {
    if (h.aux_count < 0) return not_rla(f.path);
    struct {
        int count, storage, bits;
        const Group &group;
    } groups[] = {{h.chan_count, h.chan_type, h.chan_bits, kGroups[0]},
                  {h.matte_count, h.matte_type, h.matte_bits, kGroups[1]},
                  {h.aux_count, h.aux_type, h.aux_bits, kGroups[2]}};
    int width = h.window.right - h.window.left + 1;
    shape = {0, 0};
    for (const auto &g : groups) {
        if (g.count == 0) continue;
        Fault fault;
        const Codec *codec = codec_for(element_type(g.storage), g.bits, fault);
        if (fault == Fault::type)
            return pxf::fail(false, pxf::kErrCannotDo, kSetMessages, g.group.type_number, g.group.type_text,
                             kDriverName);
        if (fault == Fault::width)
            return pxf::fail(false, pxf::kErrCannotDo, kSetMessages, g.group.width_number, g.group.width_text,
                             kDriverName);
        shape.channels += g.count;
        shape.row_bytes += uint64_t(g.count) * uint64_t(width) * uint64_t(codec->bytes);
    }
    uint64_t lines = uint64_t(active_height(h));
    uint64_t table_end = header_pos + kHeaderSize + 4 * lines;
    // Every active scanline carries at least a length per channel somewhere in the file.
    if (table_end > f.size || f.size < 2 * lines * uint64_t(shape.channels)) return cannot_read(f, end_of_file());
    if (!row_justified(shape.row_bytes, f.size)) return not_rla(f.path);
    return true;
}

// Walks the chain of headers, checking each; the number of images, or 0.
int count_images(InFile &f) {
    unsigned char bytes[kHeaderSize];
    Header h;
    uint64_t at = 0;
    int count = 0;
    for (;;) {
        if (!read_at(f, at, bytes, kHeaderSize)) {
            if (at == 0 && !errno) return not_rla(f.path);
            return cannot_read(f, why_short());
        }
        if (!plausible(bytes)) return unfinished(bytes) ? incomplete(f.path) : not_rla(f.path);
        unpack(bytes, h);
        Shape shape;
        if (!check_image(f, h, at, shape)) return 0;
        ++count;
        if (h.next == 0) return count;
        // Each header lies behind the previous image's table: a chain cannot loop.
        if (h.next < at + kHeaderSize + 4 * uint64_t(active_height(h))) return not_rla(f.path);
        at = h.next;
    }
}

bool set(char *&field, const char *value) {
    pxf::free_string(field);
    return (field = pxf::dup_string(value)) != nullptr;
}

float parse_float(const char *text, float fallback) {
    char *end = nullptr;
    float v = std::strtof(text, &end);
    return end != text && v > 0 ? v : fallback;
}

// false, leaving `out` as it was, when the text holds no chromaticity.
bool parse_primary(const char *text, float out[3]) {
    float x, y;
    if (std::sscanf(text, "%f %f", &x, &y) != 2) return false;
    out[0] = x;
    out[1] = y;
    out[2] = 1.0f - x - y;
    return true;
}

bool fill_info(PXF_INFO &info, const Header &h) {
    if (!set(info.name, h.name) || !set(info.desc, h.desc) || !set(info.program, h.program) ||
        !set(info.machine, h.machine) || !set(info.user, h.user) || !set(info.date, h.date) ||
        !set(info.text_a, h.time) || !set(info.text_b, h.filter) ||
        !set(info.compression, pxf::text(pxf::kSetNames, 4, "run length encoded")))
        return false;
    info.job_num = h.job;
    info.frame = h.frame;
    info.frame_extra = h.field;
    parse_primary(h.red, info.red_pri);
    parse_primary(h.green, info.green_pri);
    parse_primary(h.blue, info.blue_pri);
    parse_primary(h.white, info.white_pt);
    return true;
}

void fill_group(PXF_CHAN_GROUP &g, int count, int storage, int bits) {
    g.count = count;
    if (!count) {
        // Nothing is stored: keep the group usable for channel buffers.
        g.type = PXF_C_INTEGER;
        g.width = bits >= 1 && bits <= 32 ? bits : 8;
        return;
    }
    g.type = element_type(storage);
    Fault fault;
    const Codec *codec = codec_for(g.type, bits, fault);
    g.width = codec && codec->bits ? codec->bits : bits;
}

bool fill_desc(PXF_IMAGE_DESC &d, const Header &h, int index) {
    d.image_kind = index == 0 ? 1 : 2;
    // A blank gamma or primaries field leaves the defaults, marked as assumed.
    float gamma = parse_float(h.gamma, 0.0f);
    if (gamma > 0.0f) d.curve.gamma = gamma;
    else d.chan.extra |= PXF_CHAN_GAMMA_ASSUMED;
    float scratch[3];
    for (const char *primary : {h.red, h.green, h.blue, h.white})
        if (!parse_primary(primary, scratch)) d.chan.extra |= PXF_CHAN_PRIMARIES_ASSUMED;
    d.window = h.window;
    d.active_window = h.active;
    d.x_res = h.window.right - h.window.left + 1;
    d.y_res = h.window.top - h.window.bottom + 1;
    d.aspect_ratio = parse_float(h.aspect_ratio, float(d.x_res) / float(d.y_res));
    d.step = 1;
    d.orientation = 1;
    fill_group(d.chan, h.chan_count, h.chan_type, h.chan_bits);
    fill_group(d.matte, h.matte_count, h.matte_type, h.matte_bits);
    fill_group(d.aux, h.aux_count, h.aux_type, h.aux_bits);
    // Run-length files hold rendered pictures: colour premultiplied by the matte.
    if (d.matte.count > 0) d.matte.extra = PXF_MATTE_ASSOCIATED;
    const char *unknown = pxf::text(pxf::kSetNames, 131, "unknown");
    return set(d.aspect, h.aspect) && set(d.chan.format, h.chan_format) && set(d.matte.format, unknown) &&
           set(d.aux.format, h.aux_format) && set(d.index.format, unknown);
}

// Reads the image's offset table and chooses its decoders.
bool prepare(ImageReader &r, InFile &f, PXF_IMAGE_DESC &d, uint64_t header_pos) {
    r.file = &f;
    r.desc = &d;
    r.window = d.window;
    r.active = d.active_window;
    r.width = d.window.right - d.window.left + 1;
    r.leading = d.active_window.left - d.window.left;
    r.active_width = d.active_window.right - d.active_window.left + 1;
    r.trailing = d.window.right - d.active_window.right;
    r.active_height = d.active_window.top - d.active_window.bottom + 1;
    r.channels = d.chan.count + d.matte.count + d.aux.count;
    std::size_t table_bytes = std::size_t(r.active_height) * 4;
    r.offsets = static_cast<uint32_t *>(pxf::alloc(table_bytes));
    r.codecs = static_cast<const Codec **>(pxf::alloc(std::size_t(r.channels ? r.channels : 1) * sizeof(Codec *)));
    if (!r.offsets || !r.codecs) return no_memory();
    if (!read_at(f, header_pos + kHeaderSize, r.offsets, table_bytes)) return cannot_read(f, why_short());
    auto *raw = reinterpret_cast<const unsigned char *>(r.offsets);
    for (int i = 0; i < r.active_height; ++i) {
        uint32_t v = get32(raw + 4 * i);
        r.offsets[i] = v;
    }
    int c = 0;
    for (const Group &g : kGroups) {
        const PXF_CHAN_GROUP &group = d.*g.member;
        Fault fault;
        for (int i = 0; i < group.count; ++i) r.codecs[c++] = codec_for(group.type, group.width, fault);
    }
    return true;
}

void release(ImageReader *records, int count) {
    for (int i = 0; i < count; ++i) {
        pxf::heap_free(records[i].offsets);
        pxf::heap_free(records[i].codecs);
        pxf__chan_free(records[i].own_rows);
        records[i].offsets = nullptr;
        records[i].codecs = nullptr;
        records[i].own_rows = nullptr;
    }
}

void close_file(InFile *f) {
    if (!f) return;
    if (f->stream && !f->from_stdin) std::fclose(f->stream);
    pxf::heap_free(f->memory);
    pxf::heap_free(f->block);
    pxf::heap_free(f->line);
    pxf::heap_free(f->path);
    pxf::heap_free(f);
}

int bad_scanline(int line) {
    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgBadScanline,
                     "Bad scanline: %d (out of range, or not in sequence if a sequential file)", line);
}

int unreadable(int line, const char *why) {
    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgCannotReadScanline,
                     "Cannot read scanline %d; %s", line, why);
}

int read_scan(void *data, int line, void ***rows, void **) {
    auto *r = static_cast<ImageReader *>(data);
    if (line < r->window.bottom || line > r->window.top) return bad_scanline(line);
    if (!r->channels) {
        pxf__err = 0;
        return 0;
    }
    void **dest = rows && *rows ? *rows : nullptr;
    if (!dest) {
        if (!r->own_rows && !(r->own_rows = pxf__chan_alloc(r->desc, r->width, kDriverName))) {
            pxf::report_no_memory();
            return pxf::kErrNoMemory;
        }
        dest = r->own_rows;
        if (rows) *rows = dest;
    }
    if (line < r->active.bottom || line > r->active.top) {
        for (int c = 0; c < r->channels; ++c) r->codecs[c]->clear(dest[c], r->width);
        pxf__err = 0;
        return 0;
    }
    InFile &f = *r->file;
    int index = line - r->active.bottom;
    uint64_t at = r->offsets[index];
    if (at < f.data_start || at > f.size || f.size - at < 2 * uint64_t(r->channels))
        return unreadable(line, reason(kMsgBadOffset, "offset out of range"));
    // Lines written in order end where the next one starts: one read for all
    // their blocks.  Anything unexpected goes the block-by-block way, which
    // says what is wrong.
    uint64_t end = index + 1 < r->active_height ? r->offsets[index + 1] : 0;
    if (end > at && end <= f.size && end - at <= uint64_t(r->channels) * (kMaxBlock + 2)) {
        bool out_of_memory = false;
        const unsigned char *span = read_span(f, at, std::size_t(end - at), out_of_memory);
        if (out_of_memory) {
            pxf::report_no_memory();
            return pxf::kErrNoMemory;
        }
        if (span) {
            const unsigned char *p = span, *stop = span + (end - at);
            int c = 0;
            for (; c < r->channels && stop - p >= 2; ++c) {
                std::size_t length = get16u(p);
                if (std::size_t(stop - p - 2) < length) break;
                int written = r->codecs[c]->decode(p + 2, int(length), dest[c], r->active_width,
                                                   unsigned(r->leading), r->trailing);
                if (written != r->width)
                    return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgCannotDecode,
                                     "Cannot decode scanline %d", line);
                p += 2 + length;
            }
            if (c == r->channels) {
                pxf__err = 0;
                return 0;
            }
        }
    }
    for (int c = 0; c < r->channels; ++c) {
        unsigned char length_bytes[2];
        if (!read_at(f, at, length_bytes, 2)) return unreadable(line, why_short());
        std::size_t length = get16u(length_bytes);
        if (!read_at(f, at + 2, f.block, length)) return unreadable(line, why_short());
        at += 2 + length;
        int written = r->codecs[c]->decode(f.block, int(length), dest[c], r->active_width, unsigned(r->leading),
                                           r->trailing);
        if (written != r->width)
            return pxf::fail(pxf::kErrBadScanline, pxf::kErrBadScanline, kSetMessages, kMsgCannotDecode,
                             "Cannot decode scanline %d", line);
    }
    pxf__err = 0;
    return 0;
}

int read_close(PXF_IMAGE *image) {
    if (image->private_data && image->private_data[0]) {
        auto *records = static_cast<ImageReader *>(image->private_data[0]);
        InFile *f = records[0].file;
        release(records, image->info.num_images);
        close_file(f);
    }
    pxf__free_obj(image);
    pxf__err = 0;
    return 0;
}

// Frees what the open made before failing; the handle keeps the rest for pxf__free_obj.
int abandon(PXF_IMAGE *image, InFile *f) {
    int code = pxf__err;
    if (image->private_data && image->private_data[0])
        release(static_cast<ImageReader *>(image->private_data[0]), image->info.num_images);
    close_file(f);
    pxf__err = code;
    return 0;
}

}  // namespace

namespace pxf::rla {

int read_open_stream(PXF_IMAGE *image, std::FILE *stream, const char *path) noexcept {
    auto *f = static_cast<InFile *>(pxf::alloc_zeroed(sizeof(InFile)));
    if (!f) {
        if (stream != stdin) std::fclose(stream);
        return no_memory();
    }
    f->stream = stream;
    f->from_stdin = stream == stdin;
    if (!(f->path = pxf::dup_string(path)) || !measure(*f)) return abandon(image, f);
    int count = count_images(*f);
    if (!count) return abandon(image, f);
    // No block is longer than its 16-bit length, nor than the file.
    std::size_t block = f->size < kMaxBlock ? std::size_t(f->size) : kMaxBlock;
    if (!(f->block = static_cast<unsigned char *>(pxf::alloc(block + 1)))) return abandon(image, f);

    PXF_INFO &info = image->info;
    auto **table = static_cast<void **>(pxf::alloc(std::size_t(count) * sizeof(void *)));
    auto *records = static_cast<ImageReader *>(pxf::alloc_zeroed(std::size_t(count) * sizeof(ImageReader)));
    info.images = static_cast<PXF_IMAGE_DESC *>(pxf::alloc_zeroed(std::size_t(count) * sizeof(PXF_IMAGE_DESC)));
    if (!table || !records || !info.images) {
        pxf::heap_free(table);
        pxf::heap_free(records);
        pxf::heap_free(info.images);
        info.images = nullptr;
        no_memory();
        return abandon(image, f);
    }
    for (int i = 0; i < count; ++i) table[i] = &records[i];
    image->private_data = table;
    info.num_images = count;
    pxf__init_ifd(image);

    unsigned char bytes[kHeaderSize];
    Header h;
    uint64_t at = 0;
    for (int i = 0; i < count; ++i, at = h.next) {
        if (!read_at(*f, at, bytes, kHeaderSize)) return cannot_read(*f, why_short()), abandon(image, f);
        unpack(bytes, h);
        if (i == 0) {
            f->data_start = at + kHeaderSize + 4 * uint64_t(active_height(h));
            if (!fill_info(info, h)) return no_memory(), abandon(image, f);
        }
        if (!fill_desc(info.images[i], h, i)) return no_memory(), abandon(image, f);
        if (!prepare(records[i], *f, info.images[i], at)) return abandon(image, f);
    }
    if (info.handle && pxf::ends_with(info.handle, ".rlb") && !set(info.ext, ".rlb"))
        return no_memory(), abandon(image, f);
    image->scan = read_scan;
    image->close = read_close;
    pxf__err = 0;
    return 1;
}

}  // namespace pxf::rla

int PXF_rla_r_open(PXF_IMAGE *image) {
    const char *name = image->info.handle;
    if (!name)
        return pxf::fail(0, pxf::kErrMissingField, kSetMessages, 88, "Required field, %s, uninitialized", "handle");
    if (std::strcmp(name, "/dev/stdin") == 0) return pxf::rla::read_open_stream(image, stdin, name);
    const char *ext = pxf::ends_with(name, ".rlb") ? ".rlb" : image->info.ext ? image->info.ext : ".rla";
    const char *path = pxf__build_handle(std::getenv("QV_IMG_DIR"), name, ext);
    errno = 0;
    std::FILE *in = std::fopen(path, "rb");
    // A name given without its extension may still be the file itself.
    if (!in && errno == ENOENT && std::strcmp(path, name) != 0) {
        path = name;
        in = std::fopen(path, "rb");
    }
    if (!in)
        return pxf::fail(0, pxf::kErrMissingField, kSetMessages, kMsgCannotOpen, "Cannot open file %s; %s", path,
                         std::strerror(errno));
    std::setvbuf(in, nullptr, _IOFBF, 1 << 16);
    return pxf::rla::read_open_stream(image, in, path);
}
