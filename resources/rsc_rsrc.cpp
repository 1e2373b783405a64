// Types and resources of open resource files: lookups, data on demand,
// adding, deleting and marking, counts and lists.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/alloc.h"
#include "foundation/report.h"
#include "resources/rsc_internal.h"

namespace pxf::rsc {

uint32_t Type::live() const {
    uint32_t n = 0;
    for (auto *r = static_cast<const Resource *>(resources.head); r; r = r->next)
        if (!r->deleted()) ++n;
    return n;
}

uint32_t code_of(const char text[4]) noexcept {
    return WMI_get_u32(reinterpret_cast<const unsigned char *>(text), WMI_BIG_ENDIAN);
}

void text_of(uint32_t code, char text[5]) noexcept {
    WMI_put_u32(reinterpret_cast<unsigned char *>(text), code, WMI_BIG_ENDIAN);
    text[4] = '\0';
}

bool parse_type(const char *type, uint32_t *code) noexcept {
    if (!type || strnlen(type, 5) != 4)
        return fail(false, RSC_ERR_REQUEST, kSetMessages, kMsgBadType,
                    "Bad resource type \"%s\"; a type is four characters", type ? type : "");
    *code = code_of(type);
    return true;
}

Type *find_type(File *file, uint32_t code) noexcept {
    for (auto *t = static_cast<Type *>(file->types.head); t; t = t->next)
        if (t->code == code) return t;
    return nullptr;
}

Resource *find_resource(Type *type, const char *name) noexcept {
    Resource *deleted = nullptr;
    for (auto *r = static_cast<Resource *>(type->resources.head); r; r = r->next) {
        if (std::strcmp(r->name, name) != 0) continue;
        if (!r->deleted()) return r;
        if (!deleted) deleted = r;
    }
    return deleted;
}

Resource *find_live(File *file, uint32_t code, const char *name, Type **type_out) noexcept {
    Type *t = find_type(file, code);
    Resource *r = t ? find_resource(t, name) : nullptr;
    if (!r || r->deleted()) return nullptr;
    if (type_out) *type_out = t;
    return r;
}

unsigned char *load(File *file, const Type *type, Resource *resource) noexcept {
    if (resource->data) return resource->data;
    uint32_t size = resource->size();
    unsigned char *buffer = buffer_get(size);
    if (!buffer) {
        pxf__err = kErrNoMemory;
        return nullptr;
    }
    // Straight from the descriptor: the stream's buffer may hold bytes the
    // file no longer has.
    uint32_t done = 0;
    while (done < size) {
        ssize_t n = pread(fileno(file->stream), buffer + done, size - done, off_t{resource->offset} + done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<uint32_t>(n);
    }
    if (done < size) {
        buffer_release(buffer, size);
        return fail<unsigned char *>(nullptr, RSC_ERR_FILE, kSetMessages, kMsgReadFailed,
                                     "Cannot read resource %s of type %s from resource file %s", resource->name,
                                     type->text, file->location);
    }
    resource->data = buffer;
    return buffer;
}

void drop_data(Resource *resource) noexcept {
    buffer_release(resource->data, resource->size());
    resource->data = nullptr;
}

}  // namespace pxf::rsc

using namespace pxf::rsc;
using pxf::fail;
using pxf::kSetMessages;

namespace {

bool check_name(const char *name) noexcept {
    if (!name) return fail(false, RSC_ERR_REQUEST, kSetMessages, kMsgBadResourceName, "A resource name is missing");
    if (strnlen(name, RSC_MAX_NAME + 1) > RSC_MAX_NAME)
        return fail(false, RSC_ERR_REQUEST, kSetMessages, kMsgBadResourceName,
                    "Resource name %.40s... is too long (at most %d bytes)", name, RSC_MAX_NAME);
    return true;
}

bool check_writable(const File *f) noexcept {
    if (f->writable) return true;
    return fail(false, RSC_ERR_REQUEST, kSetMessages, kMsgReadOnly,
                "Resource file %s was opened for reading only and cannot be changed", f->location);
}

// A live resource found along the search order, with its file and type.
struct Found {
    File *file = nullptr;
    Type *type = nullptr;
    Resource *resource = nullptr;
};

Found search_resource(uint32_t code, const char *name) noexcept {
    Found found;
    found.file = search_files([&](File *f) { return (found.resource = find_live(f, code, name, &found.type)) != nullptr; });
    return found;
}

Found file_resource(File *f, uint32_t code, const char *name) noexcept {
    Found found;
    found.resource = find_live(f, code, name, &found.type);
    if (found.resource) found.file = f;
    return found;
}

// Arguments of the plain variants; the file of the c and f ones as well.
bool args(const char *type, const char *name, uint32_t *code) noexcept {
    return parse_type(type, code) && check_name(name);
}

File *file_args(const char *file, const char *type, const char *name, uint32_t *code) noexcept {
    File *f = find_file(file);
    return f && args(type, name, code) ? f : nullptr;
}

void *get(const Found &found, uint32_t *size) noexcept {
    if (!found.resource) return nullptr;
    unsigned char *data = load(found.file, found.type, found.resource);
    if (data && size) *size = found.resource->size();
    return data;
}

int mark(const Found &found) noexcept {
    if (!found.resource || !check_writable(found.file)) return 0;
    if (found.resource->data) found.resource->size_flags |= kDirty;
    found.file->updated = true;
    return 1;
}

int release(const Found &found) noexcept {
    if (!found.resource) return 0;
    if (!found.resource->dirty()) drop_data(found.resource);
    return 1;
}

// Whether a live resource of that name is in a file searched before `file`.
bool shadowed(File *file, uint32_t code, const char *name) noexcept {
    bool seen = false;
    search_files([&](File *f) {
        if (f == file) return true;
        return seen = find_live(f, code, name) != nullptr;
    });
    return seen;
}

bool type_shadowed(File *file, uint32_t code) noexcept {
    bool seen = false;
    search_files([&](File *f) {
        if (f == file) return true;
        Type *t = find_type(f, code);
        return seen = t && t->live() > 0;
    });
    return seen;
}

// Resource names of one type in one file (all files when `all`, each name
// once); stores up to max of them and returns how many there are.
int collect_names(File *file, bool all, uint32_t code, const char **names, int max) noexcept {
    int n = 0;
    auto visit = [&](File *f) {
        Type *t = find_type(f, code);
        if (!t) return false;
        for (auto *r = static_cast<Resource *>(t->resources.head); r; r = r->next) {
            if (r->deleted() || (all && shadowed(f, code, r->name))) continue;
            if (names && n < max) names[n] = r->name;
            ++n;
        }
        return false;
    };
    if (all) search_files(visit);
    else visit(file);
    return n;
}

int collect_types(File *file, bool all, RSC_TYPE *types, int max) noexcept {
    int n = 0;
    auto visit = [&](File *f) {
        for (auto *t = static_cast<Type *>(f->types.head); t; t = t->next) {
            if (t->live() == 0 || (all && type_shadowed(f, t->code))) continue;
            if (types && n < max) std::memcpy(types[n].code, t->text, sizeof types[n].code);
            ++n;
        }
        return false;
    };
    if (all) search_files(visit);
    else visit(file);
    return n;
}

int stored(int total, int max) noexcept { return max <= 0 ? 0 : total < max ? total : max; }

}  // namespace

extern "C" {

int RSC_type_count(void) { return collect_types(nullptr, true, nullptr, 0); }
int RSC_type_countc(void) { return RSC_type_countf(nullptr); }
int RSC_type_countf(const char *file) {
    File *f = find_file(file);
    return f ? collect_types(f, false, nullptr, 0) : -1;
}

int RSC_type_list(RSC_TYPE *types, int max) { return stored(collect_types(nullptr, true, types, max), max); }
int RSC_type_listc(RSC_TYPE *types, int max) { return RSC_type_listf(nullptr, types, max); }
int RSC_type_listf(const char *file, RSC_TYPE *types, int max) {
    File *f = find_file(file);
    return f ? stored(collect_types(f, false, types, max), max) : -1;
}

void *RSC_rsrc_get(const char *type, const char *name, uint32_t *size) {
    uint32_t code;
    return args(type, name, &code) ? get(search_resource(code, name), size) : nullptr;
}
void *RSC_rsrc_getc(const char *type, const char *name, uint32_t *size) {
    return RSC_rsrc_getf(nullptr, type, name, size);
}
void *RSC_rsrc_getf(const char *file, const char *type, const char *name, uint32_t *size) {
    uint32_t code;
    File *f = file_args(file, type, name, &code);
    return f ? get(file_resource(f, code, name), size) : nullptr;
}

int RSC_rsrc_addc(const char *type, const char *name, const void *data, uint32_t size) {
    return RSC_rsrc_addf(nullptr, type, name, data, size);
}

int RSC_rsrc_addf(const char *file, const char *type, const char *name, const void *data, uint32_t size) {
    uint32_t code;
    File *f = file_args(file, type, name, &code);
    if (!f) return 0;
    if (size > RSC_MAX_SIZE)
        return fail(0, RSC_ERR_REQUEST, kSetMessages, kMsgBadData,
                    "Resource %s of type %s is too large (%ld bytes; at most %ld)", name, type, static_cast<long>(size),
                    static_cast<long>(RSC_MAX_SIZE));
    if (!data && size)
        return fail(0, RSC_ERR_REQUEST, kSetMessages, kMsgBadData, "No data given for resource %s of type %s", name, type);
    if (!check_writable(f)) return 0;
    unsigned char *buffer = buffer_get(size);
    if (!buffer) {
        pxf__err = pxf::kErrNoMemory;
        return 0;
    }
    if (size) std::memcpy(buffer, data, size);

    Type *t = find_type(f, code);
    Resource *r = t ? find_resource(t, name) : nullptr;
    if (r) {
        drop_data(r);
    } else {
        // Everything is allocated before anything is linked, so a failure
        // leaves the tables as they were (the region keeps the scraps).
        Type *added = nullptr;
        if (!t) {
            added = static_cast<Type *>(region_alloc(f, sizeof(Type)));
            if (added) {
                *added = Type{};
                added->code = code;
                text_of(code, added->text);
            }
        }
        std::size_t length = std::strlen(name);
        r = (t || added) ? static_cast<Resource *>(region_alloc(f, sizeof(Resource))) : nullptr;
        char *copy = r ? static_cast<char *>(region_alloc(f, length + 1)) : nullptr;
        if (!copy) {
            buffer_release(buffer, size);
            return 0;
        }
        std::memcpy(copy, name, length + 1);
        *r = Resource{nullptr, copy, static_cast<uint32_t>(length), 0, nullptr, 0};
        if (added) {
            DST_ll_addt(&f->types, added);
            ++f->type_count;
            t = added;
        }
        DST_ll_addt(&t->resources, r);
        ++t->count;
    }
    r->data = buffer;
    r->size_flags = size | kDirty;
    f->updated = true;
    return 1;
}

int RSC_rsrc_deletec(const char *type, const char *name) { return RSC_rsrc_deletef(nullptr, type, name); }
int RSC_rsrc_deletef(const char *file, const char *type, const char *name) {
    uint32_t code;
    File *f = file_args(file, type, name, &code);
    if (!f || !check_writable(f)) return 0;
    Resource *r = find_live(f, code, name);
    if (!r) return 0;
    drop_data(r);
    r->size_flags = r->size() | kDeleted;
    f->updated = true;
    return 1;
}

int RSC_rsrc_mark(const char *type, const char *name) {
    uint32_t code;
    return args(type, name, &code) ? mark(search_resource(code, name)) : 0;
}
int RSC_rsrc_markc(const char *type, const char *name) { return RSC_rsrc_markf(nullptr, type, name); }
int RSC_rsrc_markf(const char *file, const char *type, const char *name) {
    uint32_t code;
    File *f = file_args(file, type, name, &code);
    return f ? mark(file_resource(f, code, name)) : 0;
}

int RSC_rsrc_free(const char *type, const char *name) {
    uint32_t code;
    return args(type, name, &code) ? release(search_resource(code, name)) : 0;
}
int RSC_rsrc_freec(const char *type, const char *name) { return RSC_rsrc_freef(nullptr, type, name); }
int RSC_rsrc_freef(const char *file, const char *type, const char *name) {
    uint32_t code;
    File *f = file_args(file, type, name, &code);
    return f ? release(file_resource(f, code, name)) : 0;
}

int RSC_rsrc_available(const char *type, const char *name) {
    uint32_t code;
    return args(type, name, &code) && search_resource(code, name).resource ? 1 : 0;
}
int RSC_rsrc_availablec(const char *type, const char *name) { return RSC_rsrc_availablef(nullptr, type, name); }
int RSC_rsrc_availablef(const char *file, const char *type, const char *name) {
    uint32_t code;
    File *f = file_args(file, type, name, &code);
    return f && file_resource(f, code, name).resource ? 1 : 0;
}

int RSC_rsrc_count(const char *type) {
    uint32_t code;
    return parse_type(type, &code) ? collect_names(nullptr, true, code, nullptr, 0) : -1;
}
int RSC_rsrc_countc(const char *type) { return RSC_rsrc_countf(nullptr, type); }
int RSC_rsrc_countf(const char *file, const char *type) {
    uint32_t code;
    File *f = find_file(file);
    return f && parse_type(type, &code) ? collect_names(f, false, code, nullptr, 0) : -1;
}

int RSC_rsrc_list(const char *type, const char **names, int max) {
    uint32_t code;
    return parse_type(type, &code) ? stored(collect_names(nullptr, true, code, names, max), max) : -1;
}
int RSC_rsrc_listc(const char *type, const char **names, int max) { return RSC_rsrc_listf(nullptr, type, names, max); }
int RSC_rsrc_listf(const char *file, const char *type, const char **names, int max) {
    uint32_t code;
    File *f = find_file(file);
    return f && parse_type(type, &code) ? stored(collect_names(f, false, code, names, max), max) : -1;
}

}  // extern "C"
