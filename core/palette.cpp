// Palette files: GIMP and JASC text palettes and the library's binary form,
// read from memory that is never read past its end and written through a
// temporary file.
#include <pxf/palette.h>
#include <pxf/utl.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "foundation/alloc.h"
#include "foundation/report.h"

namespace {

using pxf::kSetMessages;

constexpr int kMsgNotPalette = 720;
constexpr int kMsgBadLine = 721;
constexpr int kMsgDamaged = 722;
constexpr int kMsgVersion = 723;
constexpr int kMsgTooMany = 724;
constexpr int kMsgEmpty = 725;
constexpr int kMsgUnknownFormat = 726;
constexpr int kMsgCannotOpen = 52;
constexpr int kMsgCannotRead = 54;
constexpr int kMsgCannotWrite = 56;

constexpr char kGplMagic[] = "GIMP Palette";
constexpr char kJascMagic[] = "JASC-PAL";
constexpr char kJascVersion[] = "0100";
constexpr char kBinaryStem[] = "Quorvalen Palette File, Version ";
constexpr std::size_t kBinaryHead = 56;
constexpr std::size_t kBinaryLine = 36;  // the version line with its "\n"
constexpr std::size_t kTextLimit = std::size_t(16) << 20;

const char *shown(const char *name) { return name && *name ? name : "palette"; }

PXF_LUT *refused(const char *name, int number, const char *text) {
    return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrUnknownType, kSetMessages, number, text, shown(name));
}

PXF_LUT *too_many(const char *name, unsigned long count) {
    return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrUnknownType, kSetMessages, kMsgTooMany,
                                "%s: a palette of %lu entries is more than a colour index can address", shown(name),
                                count);
}

bool starts_with(const unsigned char *data, std::size_t size, const char *text) {
    std::size_t n = std::strlen(text);
    return size >= n && std::memcmp(data, text, n) == 0;
}

uint32_t get32(const unsigned char *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
uint16_t get16(const unsigned char *p) { return uint16_t(p[0] << 8 | p[1]); }
void put32(unsigned char *p, uint32_t v) {
    p[0] = uint8_t(v >> 24), p[1] = uint8_t(v >> 16), p[2] = uint8_t(v >> 8), p[3] = uint8_t(v);
}
void put16(unsigned char *p, uint16_t v) { p[0] = uint8_t(v >> 8), p[1] = uint8_t(v); }

// ---- Text ----

// Lines of a block of text, "\n" or "\r\n" ended; the last may lack its end.
struct Lines {
    const char *at, *end;
    int number = 0;
    bool next(const char *&begin, const char *&stop) {
        if (at >= end) return false;
        begin = at;
        const char *nl = static_cast<const char *>(std::memchr(at, '\n', std::size_t(end - at)));
        stop = nl ? nl : end;
        at = nl ? nl + 1 : end;
        while (stop > begin && (stop[-1] == '\r' || stop[-1] == ' ' || stop[-1] == '\t')) --stop;
        ++number;
        return true;
    }
};

bool blank(char c) { return c == ' ' || c == '\t'; }
void skip_blanks(const char *&p, const char *end) {
    while (p < end && blank(*p)) ++p;
}

// An unsigned decimal of at most `limit` at p, blanks before it skipped.
bool number(const char *&p, const char *end, unsigned long limit, unsigned long &value) {
    skip_blanks(p, end);
    const char *start = p;
    value = 0;
    while (p < end && *p >= '0' && *p <= '9') {
        value = value * 10 + unsigned(*p - '0');
        if (value > limit) return false;
        ++p;
    }
    return p > start;
}

bool same_line(const char *begin, const char *stop, const char *text) {
    std::size_t n = std::strlen(text);
    return std::size_t(stop - begin) == n && std::memcmp(begin, text, n) == 0;
}

// "r g b" from 0 to 255 each; `rest` says what may follow: a name (GIMP) or
// one further number (JASC files with alpha).
enum class Rest { name, number };
bool colour(const char *p, const char *end, Rest rest, PXF_LUT_ENTRY *entry) {
    unsigned long rgb[3];
    for (auto &v : rgb)
        if (!number(p, end, 255, v)) return false;
    if (p < end) {
        if (!blank(*p)) return false;
        if (rest == Rest::number) {
            unsigned long alpha;
            if (!number(p, end, 255, alpha)) return false;
            skip_blanks(p, end);
            if (p < end) return false;
        }
    }
    if (entry) *entry = {uint16_t(rgb[0] * 257), uint16_t(rgb[1] * 257), uint16_t(rgb[2] * 257), 0};
    return true;
}

// PXF_lut_alloc has reported it.
PXF_LUT *out_of_memory() {
    pxf__err = pxf::kErrNoMemory;
    pxf::note_error_code(pxf::kErrNoMemory);
    return nullptr;
}

PXF_LUT *bad_line(const char *name, int line) {
    return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrUnknownType, kSetMessages, kMsgBadLine,
                                "%s: palette line %d is not understood", shown(name), line);
}

// Two passes over the text: the first checks it and counts the colours, the
// second fills the palette allocated in between.
PXF_LUT *parse_gpl(const char *text, std::size_t size, const char *name) {
    PXF_LUT *lut = nullptr;
    for (int pass = 0; pass < 2; ++pass) {
        Lines lines{text, text + size};
        const char *b, *e;
        if (!lines.next(b, e) || !same_line(b, e, kGplMagic))
            return refused(name, kMsgNotPalette, "%s: This does not appear to be a palette file");
        uint32_t n = 0;
        while (lines.next(b, e)) {
            skip_blanks(b, e);
            if (b == e || *b == '#') continue;
            if (starts_with(reinterpret_cast<const unsigned char *>(b), std::size_t(e - b), "Name:") ||
                starts_with(reinterpret_cast<const unsigned char *>(b), std::size_t(e - b), "Columns:"))
                continue;
            if (n == PXF_LUT_MAX_ENTRIES) return PXF_lut_free(lut), too_many(name, n + 1ul);
            if (!colour(b, e, Rest::name, lut ? &lut->entries[n] : nullptr))
                return PXF_lut_free(lut), bad_line(name, lines.number);
            ++n;
        }
        if (n == 0) return refused(name, kMsgEmpty, "%s: the palette has no entries");
        if (!lut && !(lut = PXF_lut_alloc(n))) return out_of_memory();
    }
    return lut;
}

PXF_LUT *parse_jasc(const char *text, std::size_t size, const char *name) {
    Lines lines{text, text + size};
    const char *b, *e;
    if (!lines.next(b, e) || !same_line(b, e, kJascMagic))
        return refused(name, kMsgNotPalette, "%s: This does not appear to be a palette file");
    if (!lines.next(b, e)) return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
    if (!same_line(b, e, kJascVersion)) {
        char version[16];
        std::snprintf(version, sizeof version, "%.*s", int(e - b < 15 ? e - b : 15), b);
        for (char *c = version; *c; ++c)
            if (static_cast<unsigned char>(*c) < 32 || static_cast<unsigned char>(*c) > 126) *c = '?';
        return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrUnknownType, kSetMessages, kMsgVersion,
                                    "%s: palette version %s is not supported", shown(name), version);
    }
    if (!lines.next(b, e)) return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
    unsigned long count;
    const char *p = b;
    if (!number(p, e, 0xffffffffUL, count) || p != e) return bad_line(name, lines.number);
    if (count == 0) return refused(name, kMsgEmpty, "%s: the palette has no entries");
    if (count > PXF_LUT_MAX_ENTRIES) return too_many(name, count);
    // Every colour line is at least 6 bytes: a count beyond the text is
    // refused before anything is allocated for it.
    if (count > size / 6) return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
    PXF_LUT *lut = PXF_lut_alloc(uint32_t(count));
    if (!lut) return out_of_memory();
    for (uint32_t i = 0; i < count; ++i) {
        if (!lines.next(b, e)) {
            PXF_lut_free(lut);
            return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
        }
        if (!colour(b, e, Rest::number, &lut->entries[i])) return PXF_lut_free(lut), bad_line(name, lines.number);
    }
    return lut;
}

// ---- Binary ----

PXF_LUT *parse_binary(const unsigned char *data, std::size_t size, const char *name) {
    if (!starts_with(data, size, kBinaryStem))
        return refused(name, kMsgNotPalette, "%s: This does not appear to be a palette file");
    if (size < kBinaryLine && std::memcmp(data, PXF_LITERAL_HARD_LUT_version, size) == 0)
        return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
    if (size < kBinaryLine || std::memcmp(data, PXF_LITERAL_HARD_LUT_version, kBinaryLine - 1) != 0 ||
        data[kBinaryLine - 1] != '\n') {
        char version[16] = {};
        const std::size_t from = sizeof kBinaryStem - 1;
        for (std::size_t i = 0; i < 15 && from + i < size && data[from + i] != '\n'; ++i)
            version[i] = data[from + i] >= 32 && data[from + i] <= 126 ? char(data[from + i]) : '?';
        return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrUnknownType, kSetMessages, kMsgVersion,
                                    "%s: palette version %s is not supported", shown(name), version);
    }
    if (size < kBinaryHead) return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
    const uint32_t count = get32(data + 40);
    const int32_t maximum = int32_t(get32(data + 44));
    const uint32_t bits = get32(data + 48);
    float gamma;
    std::memcpy(&gamma, &bits, sizeof gamma);
    if (count == 0) return refused(name, kMsgEmpty, "%s: the palette has no entries");
    if (count > PXF_LUT_MAX_ENTRIES) return too_many(name, count);
    if (size != kBinaryHead + 8 * std::size_t(count) || maximum < -1 || maximum >= int64_t(count) ||
        !std::isfinite(gamma) || !(gamma > 0.0f))
        return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
    PXF_LUT *lut = PXF_lut_alloc(count);
    if (!lut) return out_of_memory();
    lut->maximum = maximum;
    lut->gamma = gamma;
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned char *p = data + kBinaryHead + 8 * std::size_t(i);
        lut->entries[i] = {get16(p), get16(p + 2), get16(p + 4), get16(p + 6)};
    }
    return lut;
}

// ---- Writing ----

struct Buffer {
    char *data = nullptr;
    std::size_t used = 0, size = 0;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <class... Args>
void append(Buffer &b, const char *format, Args... args) {
    int n = std::snprintf(b.data + b.used, b.size - b.used, format, args...);
    if (n > 0) b.used += std::size_t(n) < b.size - b.used ? std::size_t(n) : b.size - b.used - 1;
}
#pragma GCC diagnostic pop

uint8_t to8(uint16_t v) { return uint8_t((uint32_t(v) * 255u + 32767u) / 65535u); }

// Entries the text forms store: 0 to maximum.
uint32_t used_entries(const PXF_LUT &lut) {
    if (lut.maximum < 0) return 0;
    return uint32_t(lut.maximum) < lut.count ? uint32_t(lut.maximum) + 1 : lut.count;
}

void *format_text(const PXF_LUT &lut, PXF_LUT_FORMAT format, const char *name, std::size_t *size) {
    const uint32_t n = used_entries(lut);
    if (n == 0)
        return pxf::fail<void *>(nullptr, pxf::kErrCannotDo, kSetMessages, kMsgEmpty, "%s: the palette has no entries",
                                 shown(name));
    if (n > PXF_LUT_MAX_ENTRIES)
        return pxf::fail<void *>(nullptr, pxf::kErrCannotDo, kSetMessages, kMsgTooMany,
                                 "%s: a palette of %lu entries is more than a colour index can address", shown(name),
                                 static_cast<unsigned long>(n));
    Buffer b;
    const std::size_t label = 200;  // the GIMP name line, shortened to fit
    b.size = 64 + label + 32 * std::size_t(n);
    if (!(b.data = static_cast<char *>(pxf::alloc(b.size)))) return pxf__err = pxf::kErrNoMemory, nullptr;
    if (format == PXF_LUT_GPL) {
        char title[label];
        std::snprintf(title, sizeof title, "%s", shown(name));
        for (char *c = title; *c; ++c)
            if (static_cast<unsigned char>(*c) < 32) *c = ' ';
        append(b, "%s\nName: %s\nColumns: 16\n#\n", kGplMagic, title);
        for (uint32_t i = 0; i < n; ++i) {
            const PXF_LUT_ENTRY &e = lut.entries[i];
            append(b, "%3u %3u %3u\tIndex %u\n", unsigned(to8(e.red)), unsigned(to8(e.green)), unsigned(to8(e.blue)),
                   unsigned(i));
        }
    } else {
        // JASC palettes are written with "\r\n", as the programs that made the form write them.
        append(b, "%s\r\n%s\r\n%u\r\n", kJascMagic, kJascVersion, unsigned(n));
        for (uint32_t i = 0; i < n; ++i) {
            const PXF_LUT_ENTRY &e = lut.entries[i];
            append(b, "%u %u %u\r\n", unsigned(to8(e.red)), unsigned(to8(e.green)), unsigned(to8(e.blue)));
        }
    }
    *size = b.used;
    return b.data;
}

void *format_binary(const PXF_LUT &lut, const char *name, std::size_t *size) {
    if (lut.count == 0)
        return pxf::fail<void *>(nullptr, pxf::kErrCannotDo, kSetMessages, kMsgEmpty, "%s: the palette has no entries",
                                 shown(name));
    if (lut.count > PXF_LUT_MAX_ENTRIES)
        return pxf::fail<void *>(nullptr, pxf::kErrCannotDo, kSetMessages, kMsgTooMany,
                                 "%s: a palette of %lu entries is more than a colour index can address", shown(name),
                                 static_cast<unsigned long>(lut.count));
    const std::size_t total = kBinaryHead + 8 * std::size_t(lut.count);
    auto *bytes = static_cast<unsigned char *>(pxf::alloc_zeroed(total));
    if (!bytes) return pxf__err = pxf::kErrNoMemory, nullptr;
    std::memcpy(bytes, PXF_LITERAL_HARD_LUT_version, kBinaryLine - 1);
    bytes[kBinaryLine - 1] = '\n';
    put32(bytes + 40, lut.count);
    // A maximum outside the entries is stored as the last entry.
    int32_t maximum = lut.maximum < -1 || lut.maximum >= int64_t(lut.count) ? int32_t(lut.count) - 1 : lut.maximum;
    put32(bytes + 44, uint32_t(maximum));
    // Gamma as the record has it, unless it could not be read back.
    float gamma = std::isfinite(lut.gamma) && lut.gamma > 0.0f ? lut.gamma : 1.0f;
    uint32_t bits;
    std::memcpy(&bits, &gamma, sizeof bits);
    put32(bytes + 48, bits);
    for (uint32_t i = 0; i < lut.count; ++i) {
        unsigned char *p = bytes + kBinaryHead + 8 * std::size_t(i);
        const PXF_LUT_ENTRY &e = lut.entries[i];
        put16(p, e.red), put16(p + 2, e.green), put16(p + 4, e.blue), put16(p + 6, e.flags);
    }
    *size = total;
    return bytes;
}

bool known(PXF_LUT_FORMAT format) {
    return format == PXF_LUT_GPL || format == PXF_LUT_JASC || format == PXF_LUT_BINARY;
}

template <class R>
R unknown_format(R result, int format) {
    return pxf::fail(result, pxf::kErrCannotDo, kSetMessages, kMsgUnknownFormat, "Unknown palette format %d", format);
}

}  // namespace

PXF_LUT_FORMAT PXF_lut_format_of(const void *data, std::size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(data);
    if (!bytes) return PXF_LUT_ANY;
    if (starts_with(bytes, size, kGplMagic)) return PXF_LUT_GPL;
    if (starts_with(bytes, size, kJascMagic)) return PXF_LUT_JASC;
    if (starts_with(bytes, size, kBinaryStem)) return PXF_LUT_BINARY;
    return PXF_LUT_ANY;
}

PXF_LUT_FORMAT PXF_lut_format_for_name(const char *path) {
    const char *dot = path ? std::strrchr(path, '.') : nullptr;
    if (dot && std::strchr(dot, '/')) dot = nullptr;
    if (dot && strcasecmp(dot, ".gpl") == 0) return PXF_LUT_GPL;
    if (dot && strcasecmp(dot, ".pal") == 0) return PXF_LUT_JASC;
    return PXF_LUT_BINARY;
}

const char *PXF_lut_format_name(PXF_LUT_FORMAT format) {
    switch (format) {
    case PXF_LUT_GPL: return "gpl";
    case PXF_LUT_JASC: return "jasc";
    case PXF_LUT_BINARY: return "binary";
    default: return nullptr;
    }
}

PXF_LUT *PXF_lut_parse(const void *data, std::size_t size, const char *name, PXF_LUT_FORMAT format) {
    if (!data) size = 0;
    const auto *bytes = static_cast<const unsigned char *>(data ? data : "");
    if (format == PXF_LUT_ANY) format = PXF_lut_format_of(bytes, size);
    switch (format) {
    case PXF_LUT_ANY: return refused(name, kMsgNotPalette, "%s: This does not appear to be a palette file");
    case PXF_LUT_GPL:
    case PXF_LUT_JASC:
        if (size > kTextLimit) return refused(name, kMsgDamaged, "%s: the palette is damaged or truncated");
        return format == PXF_LUT_GPL ? parse_gpl(reinterpret_cast<const char *>(bytes), size, name)
                                     : parse_jasc(reinterpret_cast<const char *>(bytes), size, name);
    case PXF_LUT_BINARY: return parse_binary(bytes, size, name);
    }
    return unknown_format<PXF_LUT *>(nullptr, int(format));
}

PXF_LUT *PXF_lut_load(const char *path, PXF_LUT_FORMAT format, PXF_LUT_FORMAT *found) {
    if (found) *found = PXF_LUT_ANY;
    if (format != PXF_LUT_ANY && !known(format)) return unknown_format<PXF_LUT *>(nullptr, int(format));
    std::FILE *stream = path ? std::fopen(path, "rb") : nullptr;
    if (!stream)
        return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrMissingField, kSetMessages, kMsgCannotOpen,
                                    "Cannot open file %s; %s", path ? path : "(null)",
                                    std::strerror(path ? errno : EINVAL));
    // The whole file, up to one byte more than a palette can be.
    Buffer b;
    bool failed = false;
    for (;;) {
        if (b.used == b.size) {
            if (b.size > kTextLimit) break;
            std::size_t grown = b.size ? b.size * 4 : 4096;
            if (grown > kTextLimit + 1) grown = kTextLimit + 1;
            auto *bigger = static_cast<char *>(pxf::heap_realloc(b.data, grown));
            if (!bigger) {
                pxf::heap_free(b.data);
                std::fclose(stream);
                pxf::report_no_memory();
                return pxf__err = pxf::kErrNoMemory, nullptr;
            }
            b.data = bigger;
            b.size = grown;
        }
        std::size_t n = std::fread(b.data + b.used, 1, b.size - b.used, stream);
        b.used += n;
        if (n == 0) {
            failed = std::ferror(stream) != 0;
            break;
        }
    }
    int error = errno;
    std::fclose(stream);
    if (failed) {
        pxf::heap_free(b.data);
        return pxf::fail<PXF_LUT *>(nullptr, pxf::kErrMissingField, kSetMessages, kMsgCannotRead,
                                    "Cannot read from %s; %s", path, std::strerror(error ? error : EIO));
    }
    PXF_LUT_FORMAT kind = format != PXF_LUT_ANY ? format : PXF_lut_format_of(b.data, b.used);
    PXF_LUT *lut = PXF_lut_parse(b.data, b.used, path, kind);
    pxf::heap_free(b.data);
    if (lut && found) *found = kind;
    return lut;
}

void *PXF_lut_format(const PXF_LUT *lut, PXF_LUT_FORMAT format, const char *name, std::size_t *size) {
    if (size) *size = 0;
    if (!known(format)) return unknown_format<void *>(nullptr, int(format));
    if (!lut || !size || (lut->count && !lut->entries))
        return pxf::fail<void *>(nullptr, pxf::kErrMissingField, kSetMessages, 88, "Required field, %s, uninitialized",
                                 "palette");
    return format == PXF_LUT_BINARY ? format_binary(*lut, name, size) : format_text(*lut, format, name, size);
}

int PXF_lut_save(const PXF_LUT *lut, const char *path, PXF_LUT_FORMAT format) {
    if (!path || !*path)
        return pxf::fail(pxf::kErrMissingField, pxf::kErrMissingField, kSetMessages, 88,
                         "Required field, %s, uninitialized", "path");
    if (format == PXF_LUT_ANY) format = PXF_lut_format_for_name(path);
    // The GIMP name line: the file's own name without its folder and extension.
    char title[128];
    const char *slash = std::strrchr(path, '/');
    std::snprintf(title, sizeof title, "%s", slash ? slash + 1 : path);
    if (char *dot = std::strrchr(title, '.'); dot && dot != title) *dot = '\0';
    std::size_t size = 0;
    void *bytes = PXF_lut_format(lut, format, title, &size);
    if (!bytes) return pxf__err;
    errno = 0;
    UTL_OUTPUT *out = UTL_output_open(path);
    if (!out && errno == ENOMEM) {
        pxf::heap_free(bytes);
        pxf::report_no_memory();
        pxf::note_error_code(pxf::kErrNoMemory);
        return pxf__err = pxf::kErrNoMemory;
    }
    bool ok = out && std::fwrite(bytes, 1, size, UTL_output_stream(out)) == size;
    int error = errno;
    pxf::heap_free(bytes);
    if (ok) {
        ok = UTL_output_commit(out) == 0;
        error = errno;
    } else {
        UTL_output_abandon(out);
    }
    if (!ok)
        return pxf::fail(pxf::kErrFlush, pxf::kErrFlush, kSetMessages, kMsgCannotWrite, "Cannot write to %s; %s", path,
                         std::strerror(error ? error : EIO));
    return pxf__err = 0;
}

int PXF_lut_index_group(const PXF_LUT *lut, PXF_CHAN_GROUP *group) {
    if (!lut || !group || lut->count == 0) return -1;
    uint32_t highest = used_entries(*lut);
    highest = highest ? highest - 1 : lut->count - 1;
    int bits = 1;
    while (bits < 16 && (highest >> bits) != 0) ++bits;
    group->count = 1;
    group->type = PXF_C_INTEGER;
    group->width = bits;
    return bits;
}
