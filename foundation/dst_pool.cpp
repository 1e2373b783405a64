#include <pxf/dst.h>

#include <cstring>

#include "foundation/alloc.h"

namespace {

struct Block {
    Block *next;
};

constexpr uint32_t kAlign = 8;
constexpr uint32_t kDefaultChunk = 512;

constexpr uint64_t round8(uint64_t n) { return (n + kAlign - 1) & ~uint64_t{kAlign - 1}; }

}  // namespace

extern "C" {

void *DST_malloc(void **pool, uint32_t size) {
    // A pooled block is handed out whatever size is asked: pools hold blocks of one size.
    if (pool && *pool) {
        auto *block = static_cast<Block *>(*pool);
        *pool = block->next;
        return block;
    }
    return pxf::alloc(size < sizeof(Block) ? sizeof(Block) : size);
}

void *DST_free(void *block, void *pool) {
    if (!block) return pool;
    static_cast<Block *>(block)->next = static_cast<Block *>(pool);
    return block;
}

int DST_purge(void *pool) {
    auto *block = static_cast<Block *>(pool);
    while (block) {
        Block *next = block->next;
        pxf::heap_free(block);
        block = next;
    }
    return 0;
}

DST_MEM *DST_mem_init(uint32_t chunk_size) {
    auto *region = static_cast<DST_MEM *>(pxf::heap_alloc(sizeof(DST_MEM)));
    if (!region) return nullptr;
    // Room for the chunk link is added to the rounded size.
    uint64_t size = chunk_size < kAlign ? kDefaultChunk : round8(chunk_size) + kAlign;
    *region = DST_MEM{nullptr, nullptr, static_cast<uint32_t>(size), 0};
    return region;
}

void *DST_mem_ptr(DST_MEM *region, uint32_t size) {
    if (!region) return nullptr;
    uint64_t n = round8(size);
    if (n <= region->left) {
        void *block = region->next;
        region->next += n;
        region->left -= static_cast<uint32_t>(n);
        return block;
    }
    // A new chunk; the old one's remainder is abandoned.  A block that would not
    // fit beside the link in a standard chunk gets a chunk of its own size.
    uint64_t chunk = n + kAlign > region->chunk_size ? n + kAlign : region->chunk_size;
    if (chunk > UINT32_MAX) return nullptr;
    auto *link = static_cast<Block *>(pxf::heap_alloc(chunk));
    if (!link) return nullptr;
    link->next = static_cast<Block *>(region->chunks);
    region->chunks = link;
    char *block = reinterpret_cast<char *>(link) + kAlign;
    region->next = block + n;
    region->left = static_cast<uint32_t>(chunk - kAlign - n);
    return block;
}

char *DST_mem_str_ptr(DST_MEM *region, const char *string) {
    if (!string) return nullptr;
    std::size_t length = std::strlen(string) + 1;
    if (length > UINT32_MAX) return nullptr;
    auto *copy = static_cast<char *>(DST_mem_ptr(region, static_cast<uint32_t>(length)));
    if (copy) std::memcpy(copy, string, length);
    return copy;
}

void DST_mem_free(DST_MEM *region) {
    if (!region) return;
    DST_purge(region->chunks);
    pxf::heap_free(region);
}

}  // extern "C"
