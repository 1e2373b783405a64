// Records and helpers shared by the resource-file sources.
#pragma once

#include <pxf/dst.h>
#include <pxf/rsc.h>
#include <pxf/wmi.h>

#include <cstdint>
#include <cstdio>

namespace pxf::rsc {

// The size word: data size in the low 24 bits, flags above.
inline constexpr uint32_t kSizeMask = 0x00FFFFFFu;
inline constexpr uint32_t kDeleted = 1u << 24;
inline constexpr uint32_t kDirty = 1u << 25;  // the data exists only in memory

inline constexpr uint32_t kHeaderSize = 24;
inline constexpr uint32_t kSlot = 8;
inline constexpr uint32_t kTypeEntrySize = 3 * kSlot;
inline constexpr uint32_t kMinResourceEntrySize = 2 + 2 * kSlot;

// Message numbers of set 902 (listed in rsc.h).
enum Message : int {
    kMsgCannotOpen = 600,
    kMsgTruncatedHeader = 601,
    kMsgBadVersion = 602,
    kMsgTypeTablePastEnd = 603,
    kMsgResourceTablePastEnd = 604,
    kMsgNamePastEnd = 605,
    kMsgDataPastEnd = 606,
    kMsgTablesOverlap = 607,
    kMsgBadTypeCode = 608,
    kMsgBadName = 609,
    kMsgReadFailed = 610,
    kMsgWriteFailed = 611,
    kMsgNoCurrent = 612,
    kMsgReadOnly = 613,
    kMsgBadType = 614,
    kMsgBadData = 615,
    kMsgBadResourceName = 616,
    kMsgNotOpen = 617,
    kMsgCannotCreate = 618,
    kMsgCannotRemove = 619,
    kMsgAlreadyOpen = 620,
};

struct Resource {
    Resource *next;       // list link, first
    char *name;
    uint32_t name_length;
    uint32_t offset;      // of the data in the file
    unsigned char *data;  // null until read
    uint32_t size_flags;

    uint32_t size() const { return size_flags & kSizeMask; }
    bool deleted() const { return (size_flags & kDeleted) != 0; }
    bool dirty() const { return (size_flags & kDirty) != 0; }
};

struct Type {
    Type *next;  // list link, first
    uint32_t code;
    char text[5];
    uint32_t count;         // resources in the list, deleted ones included
    uint32_t table_offset;  // of its resource table in the file
    DST_LL resources;

    uint32_t live() const;
};

struct File {
    File *next;  // list link, first
    char *location;  // the path it was found at
    char *name;  // as given to open
    FILE *stream;
    uint32_t version;
    DST_MEM *region;  // holds this record, its tables and its names
    bool updated;
    bool writable;
    uint32_t type_count;
    DST_LL types;
};

// Open files and the current one.
File *first_file() noexcept;
File *current_file() noexcept;

// The file a caller names (null = current), reporting when there is none.
File *find_file(const char *name) noexcept;

// Files in search order: the current one, then the rest from the most recently opened.
template <class Visit>
File *search_files(Visit visit) noexcept {
    File *current = current_file();
    if (current && visit(current)) return current;
    for (File *f = first_file(); f; f = f->next)
        if (f != current && visit(f)) return f;
    return nullptr;
}

// Type codes.
uint32_t code_of(const char text[4]) noexcept;
void text_of(uint32_t code, char text[5]) noexcept;
// Checks a caller's type string (four characters), reporting when it is bad.
bool parse_type(const char *type, uint32_t *code) noexcept;

Type *find_type(File *file, uint32_t code) noexcept;
// The resource of that name in the type: a live one, else a deleted one.
Resource *find_resource(Type *type, const char *name) noexcept;
// The live resource, or null; type_out (may be null) receives its type.
Resource *find_live(File *file, uint32_t code, const char *name, Type **type_out = nullptr) noexcept;

// Memory from a file's region; reports and sets pxf__err when exhausted.
void *region_alloc(File *file, std::size_t size) noexcept;

// Data buffers: classes of 64 to 2048 bytes with free lists, exact size above.
unsigned char *buffer_get(uint32_t size) noexcept;
void buffer_release(unsigned char *buffer, uint32_t size) noexcept;
void buffer_purge() noexcept;
// The capacity of the buffer a resource of `size` bytes gets.
uint32_t buffer_capacity(uint32_t size) noexcept;

// Reads a resource's data into memory if it is not there yet; null on failure.
unsigned char *load(File *file, const Type *type, Resource *resource) noexcept;
// Releases the data buffer (the resource keeps no data).
void drop_data(Resource *resource) noexcept;

}  // namespace pxf::rsc
