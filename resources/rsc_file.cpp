// Resource files: the search path, opening and checking a file, rewriting it
// on close, and the status dumps.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "resources/rsc_internal.h"

namespace pxf::rsc {
namespace {

constexpr uint32_t kRegionChunk = 4096;

struct PathEntry {
    PathEntry *next;  // list link, first
    char directory[1];
};

DST_LL files;  // most recently opened first
File *current;
DST_LL paths;  // in the order added

template <class... Args>
int file_error(int number, const char *text, Args... args) noexcept {
    return fail(0, RSC_ERR_FILE, kSetMessages, number, text, args...);
}

// Reads the tables through the stream; every offset is checked against the
// file's size before it is read.
class Reader {
public:
    Reader(FILE *stream) noexcept : stream_(stream) {}
    bool seek(uint64_t offset) noexcept { return fseeko(stream_, static_cast<off_t>(offset), SEEK_SET) == 0; }
    bool bytes(void *buffer, std::size_t n) noexcept { return std::fread(buffer, 1, n, stream_) == n; }
    bool slot(uint32_t *value) noexcept {
        unsigned char b[kSlot];
        if (!bytes(b, sizeof b)) return false;
        *value = WMI_get_u32(b, WMI_BIG_ENDIAN);  // the slot's second half is ignored
        return true;
    }

private:
    FILE *stream_;
};

// Writes sequentially; remembers the first failure and its errno.
class Writer {
public:
    Writer(FILE *stream) noexcept : stream_(stream) {}
    void seek(uint64_t offset) noexcept {
        if (ok_ && fseeko(stream_, static_cast<off_t>(offset), SEEK_SET) != 0) failed();
    }
    void bytes(const void *data, std::size_t n) noexcept {
        if (ok_ && n && std::fwrite(data, 1, n, stream_) != n) failed();
    }
    void u16(uint32_t v) noexcept {
        unsigned char b[2];
        WMI_put_u16(b, static_cast<uint16_t>(v), WMI_BIG_ENDIAN);
        bytes(b, sizeof b);
    }
    // 32 bits in the first half; the second half is always zero.
    void slot(uint32_t v) noexcept {
        unsigned char b[kSlot] = {};
        WMI_put_u32(b, v, WMI_BIG_ENDIAN);
        bytes(b, sizeof b);
    }
    void finish(uint64_t length) noexcept {
        if (ok_ && std::fflush(stream_) != 0) failed();
        // A file that shrank must not keep its old tail.
        if (ok_ && ftruncate(fileno(stream_), static_cast<off_t>(length)) != 0) failed();
    }
    bool ok() const noexcept { return ok_; }
    int error() const noexcept { return error_; }

private:
    void failed() noexcept {
        ok_ = false;
        error_ = errno ? errno : EIO;
    }
    FILE *stream_;
    bool ok_ = true;
    int error_ = 0;
};

bool same_file(const File *f, const char *name) noexcept {
    return std::strcmp(f->name, name) == 0 || std::strcmp(f->location, name) == 0;
}

File *lookup(const char *name) noexcept {
    for (auto *f = static_cast<File *>(files.head); f; f = f->next)
        if (same_file(f, name)) return f;
    return nullptr;
}

// A file record in a region of its own, holding copies of both names.
File *new_file(const char *location, const char *name) noexcept {
    DST_MEM *region = DST_mem_init(kRegionChunk);
    File *f = region ? static_cast<File *>(DST_mem_ptr(region, sizeof(File))) : nullptr;
    char *spec_copy = f ? DST_mem_str_ptr(region, location) : nullptr;
    char *name_copy = spec_copy ? DST_mem_str_ptr(region, name) : nullptr;
    if (!name_copy) {
        DST_mem_free(region);
        return fail<File *>(nullptr, kErrNoMemory, kSetMessages, 94, "No more internal memory");
    }
    *f = File{};
    f->location = spec_copy;
    f->name = name_copy;
    f->version = RSC_VERSION;
    f->region = region;
    return f;
}

void free_file(File *f) noexcept {
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next)
        for (auto *r = static_cast<Resource *>(t->resources.head); r; r = r->next) drop_data(r);
    if (f->stream) std::fclose(f->stream);
    DST_mem_free(f->region);
}

// Reads the header, the type table and every resource table, checking each
// count, offset and length against the file's size before anything is
// allocated for it, so a damaged file costs no more memory than its size.
bool read_tables(File *f, uint64_t size) noexcept {
    const char *location = f->location;
    Reader in(f->stream);
    if (size < kHeaderSize)
        return file_error(kMsgTruncatedHeader, "Resource file %s is too short for its header (%ld bytes)", location,
                          static_cast<long>(size));
    uint32_t version = 0, type_count = 0, type_table = 0;
    if (!in.seek(0) || !in.slot(&version) || !in.slot(&type_count) || !in.slot(&type_table))
        return file_error(kMsgReadFailed, "Cannot read resource file %s", location);
    if (version != RSC_VERSION)
        return file_error(kMsgBadVersion, "Resource file %s has version %ld; only version %d is supported", location,
                          static_cast<long>(version), RSC_VERSION);
    f->version = version;
    uint64_t type_table_end = type_table + uint64_t{type_count} * kTypeEntrySize;
    if (type_count && type_table_end > size)
        return file_error(kMsgTypeTablePastEnd,
                          "Resource file %s: its type table (%ld types at offset %ld) lies past the end of the file",
                          location, static_cast<long>(type_count), static_cast<long>(type_table));
    if (type_count && type_table < kHeaderSize)
        return file_error(kMsgTablesOverlap, "Resource file %s: its tables overlap", location);

    // What the resource tables may take at most: the file less header and type table.
    uint64_t budget = size - kHeaderSize - uint64_t{type_count} * kTypeEntrySize;
    struct Extent {
        uint64_t begin, end;
    };
    HeapPtr<uint32_t> codes(static_cast<uint32_t *>(alloc(std::size_t{type_count} * sizeof(uint32_t))));
    HeapPtr<Extent> extents(static_cast<Extent *>(alloc((std::size_t{type_count} + 2) * sizeof(Extent))));
    if (!codes || !extents) {
        pxf__err = kErrNoMemory;
        return false;
    }

    if (type_count && !in.seek(type_table)) return file_error(kMsgReadFailed, "Cannot read resource file %s", location);
    for (uint32_t i = 0; i < type_count; ++i) {
        unsigned char entry[kTypeEntrySize];
        if (!in.bytes(entry, sizeof entry)) return file_error(kMsgReadFailed, "Cannot read resource file %s", location);
        if (std::memchr(entry, 0, 4))
            return file_error(kMsgBadTypeCode, "Resource file %s: type %ld has a null byte in its code", location,
                              static_cast<long>(i));
        auto *t = static_cast<Type *>(region_alloc(f, sizeof(Type)));
        if (!t) return false;
        *t = Type{};
        t->code = WMI_get_u32(entry, WMI_BIG_ENDIAN);
        text_of(t->code, t->text);
        t->count = WMI_get_u32(entry + kSlot, WMI_BIG_ENDIAN);
        t->table_offset = WMI_get_u32(entry + 2 * kSlot, WMI_BIG_ENDIAN);
        codes.get()[i] = t->code;
        DST_ll_addt(&f->types, t);
    }
    f->type_count = type_count;
    std::sort(codes.get(), codes.get() + type_count);
    for (uint32_t i = 1; i < type_count; ++i)
        if (codes.get()[i] == codes.get()[i - 1]) {
            char text[5];
            text_of(codes.get()[i], text);
            return file_error(kMsgBadTypeCode, "Resource file %s lists type %s twice", location, text);
        }

    std::size_t n_extents = 0;
    extents.get()[n_extents++] = {0, kHeaderSize};
    if (type_count) extents.get()[n_extents++] = {type_table, type_table_end};
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next) {
        if (t->count == 0) continue;
        uint64_t at = t->table_offset;
        uint64_t least = uint64_t{t->count} * kMinResourceEntrySize;
        if (at + least > size)
            return file_error(kMsgResourceTablePastEnd,
                              "Resource file %s: the resource table of type %s (%ld resources at offset %ld) lies "
                              "past the end of the file",
                              location, t->text, static_cast<long>(t->count), static_cast<long>(at));
        if (least > budget) return file_error(kMsgTablesOverlap, "Resource file %s: its tables overlap", location);
        budget -= least;
        if (!in.seek(at)) return file_error(kMsgReadFailed, "Cannot read resource file %s", location);
        for (uint32_t j = 0; j < t->count; ++j) {
            unsigned char length_bytes[2];
            if (!in.bytes(length_bytes, sizeof length_bytes))
                return file_error(kMsgReadFailed, "Cannot read resource file %s", location);
            uint32_t length = WMI_get_u16(length_bytes, WMI_BIG_ENDIAN);
            if (at + kMinResourceEntrySize + length > size)
                return file_error(kMsgNamePastEnd,
                                  "Resource file %s: the name of resource %ld of type %s runs past the end of the file",
                                  location, static_cast<long>(j), t->text);
            if (length > budget) return file_error(kMsgTablesOverlap, "Resource file %s: its tables overlap", location);
            budget -= length;
            auto *r = static_cast<Resource *>(region_alloc(f, sizeof(Resource)));
            char *name = r ? static_cast<char *>(region_alloc(f, length + 1)) : nullptr;
            if (!name) return false;
            uint32_t offset = 0, data_size = 0;
            if (!in.bytes(name, length) || !in.slot(&offset) || !in.slot(&data_size))
                return file_error(kMsgReadFailed, "Cannot read resource file %s", location);
            name[length] = '\0';
            if (std::memchr(name, 0, length))
                return file_error(kMsgBadName, "Resource file %s: a resource name of type %s holds a null byte", location,
                                  t->text);
            if (data_size > kSizeMask || uint64_t{offset} + data_size > size)
                return file_error(kMsgDataPastEnd,
                                  "Resource file %s: the data of resource %s of type %s lies past the end of the file",
                                  location, name, t->text);
            *r = Resource{nullptr, name, length, offset, nullptr, data_size};
            DST_ll_addt(&t->resources, r);
            at += kMinResourceEntrySize + length;
        }
        extents.get()[n_extents++] = {t->table_offset, at};
    }

    Extent *e = extents.get();
    std::sort(e, e + n_extents, [](const Extent &a, const Extent &b) { return a.begin < b.begin; });
    for (std::size_t i = 1; i < n_extents; ++i)
        if (e[i].begin < e[i - 1].end) return file_error(kMsgTablesOverlap, "Resource file %s: its tables overlap", location);
    return true;
}

// Tries one path, for update and then for reading; only regular files count.
FILE *try_open(const char *path, bool *writable, int *error) noexcept {
    FILE *stream = std::fopen(path, "r+");
    *writable = stream != nullptr;
    if (!stream) stream = std::fopen(path, "r");
    if (!stream) {
        *error = errno;
        return nullptr;
    }
    struct stat st;
    if (fstat(fileno(stream), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fclose(stream);
        *error = EISDIR;
        return nullptr;
    }
    return stream;
}

// The name as given, then along the search path unless it is absolute.
// On success *location holds the path found (from the library heap).
FILE *search(const char *name, char **location, bool *writable) noexcept {
    int error = ENOENT;
    FILE *stream = try_open(name, writable, &error);
    if (stream) {
        *location = static_cast<char *>(alloc(std::strlen(name) + 1));
        if (!*location) {
            std::fclose(stream);
            pxf__err = kErrNoMemory;
            return nullptr;
        }
        std::strcpy(*location, name);
        return stream;
    }
    int first_error = error;
    if (name[0] != '/') {
        for (auto *p = static_cast<PathEntry *>(paths.head); p; p = p->next) {
            std::size_t dir_length = std::strlen(p->directory);
            bool slash = dir_length && p->directory[dir_length - 1] == '/';
            HeapPtr<char> path(static_cast<char *>(alloc(dir_length + 1 + std::strlen(name) + 1)));
            if (!path) {
                pxf__err = kErrNoMemory;
                return nullptr;
            }
            std::strcpy(path.get(), p->directory);
            if (!slash) std::strcat(path.get(), "/");
            std::strcat(path.get(), name);
            stream = try_open(path.get(), writable, &error);
            if (stream) {
                *location = path.release();
                return stream;
            }
        }
    }
    file_error(kMsgCannotOpen, "Cannot open resource file %s; %s", name, std::strerror(first_error));
    return nullptr;
}

void link(File *f) noexcept {
    DST_ll_addh(&files, f);
    current = f;
}

void unlink(File *f) noexcept {
    DST_ll_rem(&files, f);
    if (current == f) current = static_cast<File *>(files.head);
}

// Rewrites an updated file: every resource's data is brought into memory
// first, because the new layout overwrites the old one in place.
bool write_file(File *f) noexcept {
    if (!f->writable)
        return fail(false, RSC_ERR_REQUEST, kSetMessages, kMsgReadOnly,
                    "Resource file %s was opened for reading only and cannot be changed", f->location);
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next)
        for (auto *r = static_cast<Resource *>(t->resources.head); r; r = r->next)
            if (!r->deleted() && !load(f, t, r)) return false;

    // Offsets are 32 bits wide: refuse before anything is overwritten.
    uint64_t total = kHeaderSize;
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next) {
        if (t->live()) total += kTypeEntrySize;
        for (auto *r = static_cast<Resource *>(t->resources.head); r; r = r->next)
            if (!r->deleted()) total += r->size() + kMinResourceEntrySize + r->name_length;
    }
    if (total > UINT32_MAX)
        return fail(false, RSC_ERR_FILE, kSetMessages, kMsgWriteFailed, "Cannot write resource file %s; %s", f->location,
                    std::strerror(EFBIG));

    Writer out(f->stream);
    uint64_t at = kHeaderSize;
    out.seek(at);
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next)
        for (auto *r = static_cast<Resource *>(t->resources.head); r; r = r->next) {
            if (r->deleted()) continue;
            r->offset = static_cast<uint32_t>(at);
            out.bytes(r->data, r->size());
            at += r->size();
        }
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next) {
        t->table_offset = static_cast<uint32_t>(at);
        for (auto *r = static_cast<Resource *>(t->resources.head); r; r = r->next) {
            if (r->deleted()) continue;
            out.u16(r->name_length);
            out.bytes(r->name, r->name_length);
            out.slot(r->offset);
            out.slot(r->size());
            at += kMinResourceEntrySize + r->name_length;
        }
    }
    uint64_t type_table = at;
    uint32_t written = 0;
    for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next) {
        uint32_t live = t->live();
        if (live == 0) continue;
        out.slot(t->code);
        out.slot(live);
        out.slot(t->table_offset);
        ++written;
        at += kTypeEntrySize;
    }
    out.seek(0);
    out.slot(f->version);
    out.slot(written);
    out.slot(static_cast<uint32_t>(type_table));
    out.finish(at);
    if (!out.ok())
        return fail(false, RSC_ERR_FILE, kSetMessages, kMsgWriteFailed, "Cannot write resource file %s; %s", f->location,
                    std::strerror(out.error()));
    f->updated = false;
    f->type_count = written;
    return true;
}

bool close_file(File *f, bool rewrite) noexcept {
    bool ok = !rewrite || !f->updated || write_file(f);
    unlink(f);
    free_file(f);
    return ok;
}

void print_file(const File *f, FILE *out) noexcept {
    std::fprintf(out, "Resource file\n");
    std::fprintf(out, "\tFile spec      : %s\n", f->location);
    std::fprintf(out, "\tFile name      : %s\n", f->name);
    std::fprintf(out, "\tversion        : %ld\n", static_cast<long>(f->version));
    std::fprintf(out, "\tnTypes         : %ld\n", static_cast<long>(f->type_count));
    const char *tp = "\t";
    const char *rp = "\t\t";
    for (auto *t = static_cast<const Type *>(f->types.head); t; t = t->next) {
        std::fprintf(out, "%sTYPE\n", tp);
        std::fprintf(out, "%s\tcode           : %s\n", tp, t->text);
        std::fprintf(out, "%s\tnResources     : %ld\n", tp, static_cast<long>(t->count));
        for (auto *r = static_cast<const Resource *>(t->resources.head); r; r = r->next) {
            std::fprintf(out, "%sRESOURCE%s\n", rp, r->deleted() ? " (DELETED)" : "");
            std::fprintf(out, "%s\tname           : %s\n", rp, r->name);
            std::fprintf(out, "%s\toffset         : %ld\n", rp, static_cast<long>(r->offset));
            std::fprintf(out, "%s\tsize           : %ld\n", rp, static_cast<long>(r->size()));
        }
    }
}

}  // namespace

File *first_file() noexcept { return static_cast<File *>(files.head); }
File *current_file() noexcept { return current; }

File *find_file(const char *name) noexcept {
    if (!name) {
        if (!current) return fail<File *>(nullptr, RSC_ERR_REQUEST, kSetMessages, kMsgNoCurrent, "No current resource file");
        return current;
    }
    File *f = lookup(name);
    if (!f) return fail<File *>(nullptr, RSC_ERR_REQUEST, kSetMessages, kMsgNotOpen, "No open resource file is named %s", name);
    return f;
}

void *region_alloc(File *file, std::size_t size) noexcept {
    void *p = size <= UINT32_MAX ? DST_mem_ptr(file->region, static_cast<uint32_t>(size)) : nullptr;
    if (!p) {
        report_no_memory();
        pxf__err = kErrNoMemory;
    }
    return p;
}

}  // namespace pxf::rsc

using namespace pxf::rsc;

extern "C" {

int RSC_init(void) { return 1; }

int RSC_exit(void) {
    bool ok = true;
    while (File *f = first_file()) ok = close_file(f, true) && ok;
    while (void *p = DST_ll_remh(&paths)) pxf::heap_free(p);
    buffer_purge();
    return ok ? 1 : 0;
}

int RSC_add_path(const char *directory) {
    if (!directory || !*directory) return 0;
    for (auto *p = static_cast<PathEntry *>(paths.head); p; p = p->next)
        if (std::strcmp(p->directory, directory) == 0) return 1;
    auto *p = static_cast<PathEntry *>(pxf::alloc(sizeof(PathEntry) + std::strlen(directory)));
    if (!p) {
        pxf__err = pxf::kErrNoMemory;
        return 0;
    }
    p->next = nullptr;
    std::strcpy(p->directory, directory);
    DST_ll_addt(&paths, p);
    return 1;
}

int RSC_file_open(const char *name) {
    if (!name || !*name) return file_error(kMsgCannotOpen, "Cannot open resource file %s; %s", "", std::strerror(ENOENT));
    if (File *open = lookup(name)) {
        current = open;
        return 1;
    }
    char *found = nullptr;
    bool writable = false;
    FILE *stream = search(name, &found, &writable);
    if (!stream) return 0;
    pxf::HeapPtr<char> location(found);
    // Found along the path under a name already open: the same file.
    if (File *open = lookup(location.get())) {
        std::fclose(stream);
        current = open;
        return 1;
    }
    File *f = new_file(location.get(), name);
    if (!f) {
        std::fclose(stream);
        return 0;
    }
    f->stream = stream;
    f->writable = writable;
    struct stat st;
    if (fstat(fileno(stream), &st) != 0) {
        free_file(f);
        return file_error(kMsgReadFailed, "Cannot read resource file %s", name);
    }
    if (!read_tables(f, static_cast<uint64_t>(st.st_size))) {
        free_file(f);
        return 0;
    }
    link(f);
    return 1;
}

int RSC_file_create(const char *name) {
    if (!name || !*name) return file_error(kMsgCannotCreate, "Cannot create resource file %s; %s", "", std::strerror(ENOENT));
    if (lookup(name))
        return pxf::fail(0, RSC_ERR_REQUEST, pxf::kSetMessages, kMsgAlreadyOpen, "Resource file %s is already open", name);
    // The record first: an old file is replaced only once nothing else can fail.
    File *f = new_file(name, name);
    if (!f) return 0;
    f->stream = std::fopen(name, "w+");
    if (!f->stream) {
        int error = errno;
        free_file(f);
        return file_error(kMsgCannotCreate, "Cannot create resource file %s; %s", name, std::strerror(error));
    }
    f->writable = true;
    f->updated = true;  // so that even an empty file gets its header
    link(f);
    return 1;
}

int RSC_file_close(const char *file) {
    File *f = find_file(file);
    return f && close_file(f, true) ? 1 : 0;
}

int RSC_file_delete(const char *file) {
    File *f = find_file(file);
    if (!f) return 0;
    int ok = 1;
    if (std::remove(f->location) != 0)
        ok = file_error(kMsgCannotRemove, "Cannot remove resource file %s; %s", f->location, std::strerror(errno));
    close_file(f, false);
    return ok;
}

int RSC_file_count(void) { return static_cast<int>(DST_ll_length(&files)); }

int RSC_file_list(const char **names, int max) {
    int n = 0;
    for (File *f = first_file(); f && n < max; f = f->next)
        if (names) names[n++] = f->name;
    return n;
}

int RSC_file_status(const char *file, FILE *stream) {
    File *f = find_file(file);
    if (!f) return 0;
    print_file(f, stream ? stream : stdout);
    return 1;
}

int RSC_status(FILE *stream) {
    FILE *out = stream ? stream : stdout;
    std::fprintf(out, "Number of pathnames      : %d\n", static_cast<int>(DST_ll_length(&paths)));
    for (auto *p = static_cast<PathEntry *>(paths.head); p; p = p->next)
        std::fprintf(out, "\tpathname           : %s\n", p->directory);
    std::fprintf(out, "Number of resource files : %d\n", RSC_file_count());
    return 1;
}

int RSC_status_all(FILE *stream) {
    FILE *out = stream ? stream : stdout;
    RSC_status(out);
    for (File *f = first_file(); f; f = f->next) print_file(f, out);
    return 1;
}

int RSC_set_current(const char *file) {
    // Unlike the other functions a null name is no file at all here.
    if (!file)
        return pxf::fail(0, RSC_ERR_REQUEST, pxf::kSetMessages, kMsgNotOpen, "No open resource file is named %s", "");
    File *f = find_file(file);
    if (!f) return 0;
    current = f;
    return 1;
}

const char *RSC_get_current(void) { return current ? current->name : nullptr; }

}  // extern "C"
