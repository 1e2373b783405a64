// Hash tables with chained entries; string keys live inside their entry.
#include <pxf/dst_symbol.h>

#include <cstdint>
#include <cstring>

#include "foundation/alloc.h"

struct DST_SYM {
    DST_SYM *next;  // chain of the bucket
    uint64_t hash;
    void *data;
    const void *key;  // points at text for string keys
    std::size_t length;
    char text[];
};

struct DST_SYMBOL {
    DST_SYM **buckets;
    uint64_t mask;  // bucket count - 1 (a power of two)
    uint32_t count;
    int kind;
};

namespace {

inline uint64_t mix(uint64_t h) noexcept {
    h ^= h >> 32;
    h *= 0xd6e8feb86659fd93ull;
    h ^= h >> 32;
    return h;
}

// Eight bytes at a time; the tail is read as a zero-padded word.
uint64_t hash_bytes(const char *s, std::size_t n) noexcept {
    uint64_t h = 0x9e3779b97f4a7c15ull ^ (n * 0xff51afd7ed558ccdull);
    while (n >= 8) {
        uint64_t w;
        std::memcpy(&w, s, 8);
        h = (h ^ mix(w)) * 0xc4ceb9fe1a85ec53ull;
        s += 8;
        n -= 8;
    }
    uint64_t w = 0;
    std::memcpy(&w, s, n);
    return mix(h ^ mix(w ^ n));
}

inline uint64_t hash_of(const DST_SYMBOL *t, const void *key, std::size_t *length) noexcept {
    if (t->kind == DST_SYMBOL_POINTER) {
        *length = 0;
        return mix(reinterpret_cast<uintptr_t>(key) * 0x9e3779b97f4a7c15ull);
    }
    *length = std::strlen(static_cast<const char *>(key));
    return hash_bytes(static_cast<const char *>(key), *length);
}

inline bool same(const DST_SYMBOL *t, const DST_SYM *e, const void *key, uint64_t hash, std::size_t length) noexcept {
    if (e->hash != hash) return false;
    if (t->kind == DST_SYMBOL_POINTER) return e->key == key;
    return e->length == length && std::memcmp(e->text, key, length) == 0;
}

// The link that points at key's entry, or at the null ending its chain.
DST_SYM **locate(const DST_SYMBOL *t, const void *key, uint64_t hash, std::size_t length) noexcept {
    DST_SYM **link = &t->buckets[hash & t->mask];
    while (*link && !same(t, *link, key, hash, length)) link = &(*link)->next;
    return link;
}

// Doubles the buckets.  Without memory the table keeps its size: chains get
// longer, nothing is lost, so the failure is not reported.
void grow(DST_SYMBOL *t) noexcept {
    uint64_t size = (t->mask + 1) * 2;
    auto **buckets = static_cast<DST_SYM **>(pxf::heap_alloc(sizeof(DST_SYM *) * size));
    if (!buckets) return;
    std::memset(buckets, 0, sizeof(DST_SYM *) * size);
    for (uint64_t i = 0; i <= t->mask; ++i) {
        DST_SYM *e = t->buckets[i];
        while (e) {
            DST_SYM *next = e->next;
            DST_SYM **slot = &buckets[e->hash & (size - 1)];
            e->next = *slot;
            *slot = e;
            e = next;
        }
    }
    pxf::heap_free(t->buckets);
    t->buckets = buckets;
    t->mask = size - 1;
}

}  // namespace

extern "C" {

DST_SYMBOL *DST_symbol_new(int kind, uint32_t expected) {
    if (kind != DST_SYMBOL_STRING && kind != DST_SYMBOL_POINTER) return nullptr;
    uint64_t size = 16;
    while (size < expected) size *= 2;
    auto *t = static_cast<DST_SYMBOL *>(pxf::alloc(sizeof(DST_SYMBOL)));
    if (!t) return nullptr;
    t->buckets = static_cast<DST_SYM **>(pxf::alloc_zeroed(sizeof(DST_SYM *) * size));
    if (!t->buckets) {
        pxf::heap_free(t);
        return nullptr;
    }
    t->mask = size - 1;
    t->count = 0;
    t->kind = kind;
    return t;
}

void DST_symbol_free(DST_SYMBOL *t) {
    if (!t) return;
    for (uint64_t i = 0; i <= t->mask; ++i)
        for (DST_SYM *e = t->buckets[i], *next; e; e = next) {
            next = e->next;
            pxf::heap_free(e);
        }
    pxf::heap_free(t->buckets);
    pxf::heap_free(t);
}

int DST_symbol_insert(DST_SYMBOL *t, const void *key, void *data) {
    if (!t || (!key && t->kind == DST_SYMBOL_STRING)) return -1;
    std::size_t length;
    uint64_t hash = hash_of(t, key, &length);
    DST_SYM **link = locate(t, key, hash, length);
    if (*link) return 0;
    std::size_t extra = t->kind == DST_SYMBOL_STRING ? length + 1 : 0;
    auto *e = static_cast<DST_SYM *>(pxf::alloc(sizeof(DST_SYM) + extra));
    if (!e) return -1;
    e->next = nullptr;
    e->hash = hash;
    e->data = data;
    e->length = length;
    if (extra) {
        std::memcpy(e->text, key, extra);
        e->key = e->text;
    } else {
        e->key = key;
    }
    *link = e;
    if (++t->count > t->mask + 1) grow(t);
    return 1;
}

DST_SYM *DST_symbol_lookup(const DST_SYMBOL *t, const void *key) {
    if (!t || (!key && t->kind == DST_SYMBOL_STRING)) return nullptr;
    std::size_t length;
    uint64_t hash = hash_of(t, key, &length);
    return *locate(t, key, hash, length);
}

void *DST_symbol_find(const DST_SYMBOL *t, const void *key) {
    DST_SYM *e = DST_symbol_lookup(t, key);
    return e ? e->data : nullptr;
}

int DST_symbol_delete(DST_SYMBOL *t, const void *key, void **data) {
    if (!t || (!key && t->kind == DST_SYMBOL_STRING)) return 0;
    std::size_t length;
    uint64_t hash = hash_of(t, key, &length);
    DST_SYM **link = locate(t, key, hash, length);
    DST_SYM *e = *link;
    if (!e) return 0;
    if (data) *data = e->data;
    *link = e->next;
    pxf::heap_free(e);
    --t->count;
    return 1;
}

uint32_t DST_symbol_count(const DST_SYMBOL *t) { return t ? t->count : 0; }

DST_SYM *DST_sym_first(const DST_SYMBOL *t) {
    if (!t) return nullptr;
    for (uint64_t i = 0; i <= t->mask; ++i)
        if (t->buckets[i]) return t->buckets[i];
    return nullptr;
}

DST_SYM *DST_sym_next(const DST_SYMBOL *t, const DST_SYM *e) {
    if (!t || !e) return nullptr;
    if (e->next) return e->next;
    for (uint64_t i = (e->hash & t->mask) + 1; i <= t->mask; ++i)
        if (t->buckets[i]) return t->buckets[i];
    return nullptr;
}

const void *DST_sym_key(const DST_SYM *e) { return e ? e->key : nullptr; }
void *DST_sym_data(const DST_SYM *e) { return e ? e->data : nullptr; }
void DST_sym_set_data(DST_SYM *e, void *data) {
    if (e) e->data = data;
}

}  // extern "C"
