#include <pxf/err.h>
#include <pxf/str.h>

#include <cstdint>
#include <cstring>

#include "foundation/alloc.h"

namespace {

constexpr std::size_t kMaxSize = UINT32_MAX;

char *copy_of(const char *a, std::size_t na, const char *b, std::size_t nb) noexcept {
    if (na > kMaxSize - 1 - nb) return nullptr;  // the size would not fit 32 bits
    auto *s = static_cast<char *>(pxf::alloc(na + nb + 1));
    if (!s) return nullptr;
    if (na) std::memcpy(s, a, na);
    if (nb) std::memcpy(s + na, b, nb);
    s[na + nb] = '\0';
    return s;
}

// Copies as much of text as fits behind `used` bytes of the buffer.
int fill(char *buffer, uint32_t size, std::size_t used, const char *text) noexcept {
    std::size_t n = text ? std::strlen(text) : 0;
    std::size_t room = size - used - 1;
    std::size_t take = n < room ? n : room;
    if (take) std::memcpy(buffer + used, text, take);
    buffer[used + take] = '\0';
    return take == n ? 0 : -1;
}

}  // namespace

extern "C" {

char *STR_define(const char *text) { return text ? copy_of(text, std::strlen(text), nullptr, 0) : nullptr; }

char *STR_ndefine(const char *text, uint32_t length) {
    if (!text) return nullptr;
    const void *end = std::memchr(text, '\0', length);
    std::size_t n = end ? static_cast<std::size_t>(static_cast<const char *>(end) - text) : length;
    return copy_of(text, n, nullptr, 0);
}

char *STR_concat(const char *a, const char *b) {
    return copy_of(a, a ? std::strlen(a) : 0, b, b ? std::strlen(b) : 0);
}

char *STR_append(char *string, const char *more) {
    std::size_t n = string ? std::strlen(string) : 0, m = more ? std::strlen(more) : 0;
    if (n > kMaxSize - 1 - m) return nullptr;
    auto *s = static_cast<char *>(ERR_realloc(string, static_cast<uint32_t>(n + m + 1)));
    if (!s) return nullptr;
    if (m) std::memcpy(s + n, more, m);
    s[n + m] = '\0';
    return s;
}

char *STR_more(char *string, uint32_t size) { return static_cast<char *>(ERR_realloc(string, size)); }

int STR_copy(char *buffer, uint32_t size, const char *text) {
    if (!buffer || size == 0) return -1;
    return fill(buffer, size, 0, text);
}

int STR_cat(char *buffer, uint32_t size, const char *text) {
    if (!buffer || size == 0) return -1;
    const void *end = std::memchr(buffer, '\0', size);
    if (!end) return -1;  // not a string within its buffer: nothing is safe to touch
    return fill(buffer, size, static_cast<std::size_t>(static_cast<const char *>(end) - buffer), text);
}

const char *STR_tail(const char *path) {
    if (!path) return nullptr;
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

const char *STR_extension(const char *path) {
    const char *tail = STR_tail(path);
    if (!tail) return nullptr;
    const char *dot = std::strrchr(tail, '.');
    return dot && dot != tail ? dot : tail + std::strlen(tail);
}

void EPTR_free(void *pointer) { ERR_free(pointer); }

uint32_t EPTR_length(void *const *array) {
    uint32_t n = 0;
    if (array)
        while (array[n]) ++n;
    return n;
}

void **EPTR_append(void **array, void *item) {
    if (!item) return nullptr;
    std::size_t n = EPTR_length(array);
    if (n + 2 > kMaxSize / sizeof(void *)) return nullptr;
    auto **grown = static_cast<void **>(ERR_realloc(array, static_cast<uint32_t>((n + 2) * sizeof(void *))));
    if (!grown) return nullptr;
    grown[n] = item;
    grown[n + 1] = nullptr;
    return grown;
}

void EPTR_free_all(void **array, void (*free_item)(void *)) {
    if (!array) return;
    for (void **p = array; *p; ++p) (free_item ? free_item : EPTR_free)(*p);
    pxf::heap_free(array);
}

void PTR_init(PTR_ARRAY *a) {
    if (a) *a = PTR_ARRAY{nullptr, 0, 0};
}

int PTR_reserve(PTR_ARRAY *a, uint32_t capacity) {
    if (!a) return -1;
    if (capacity <= a->capacity) return 0;
    if (capacity > kMaxSize / sizeof(void *)) return -1;
    auto **items = static_cast<void **>(ERR_realloc(a->items, static_cast<uint32_t>(capacity * sizeof(void *))));
    if (!items) return -1;
    a->items = items;
    a->capacity = capacity;
    return 0;
}

int PTR_add(PTR_ARRAY *a, void *item) {
    if (!a) return -1;
    if (a->count == a->capacity) {
        uint32_t want = a->capacity < 8 ? 8 : a->capacity > UINT32_MAX / 2 ? UINT32_MAX : a->capacity * 2;
        if (want == a->capacity || PTR_reserve(a, want) != 0) return -1;
    }
    a->items[a->count++] = item;
    return 0;
}

void *PTR_get(const PTR_ARRAY *a, uint32_t index) { return a && index < a->count ? a->items[index] : nullptr; }

void *PTR_remove(PTR_ARRAY *a, uint32_t index) {
    if (!a || index >= a->count) return nullptr;
    void *item = a->items[index];
    std::memmove(a->items + index, a->items + index + 1, sizeof(void *) * (a->count - index - 1));
    --a->count;
    return item;
}

void PTR_free(PTR_ARRAY *a, void (*free_item)(void *)) {
    if (!a) return;
    if (free_item)
        for (uint32_t i = 0; i < a->count; ++i) free_item(a->items[i]);
    pxf::heap_free(a->items);
    PTR_init(a);
}

}  // extern "C"
