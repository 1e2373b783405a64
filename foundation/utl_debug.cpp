// Debugging allocator: guard zones around every block, a table of the blocks
// handed out, and a quarantine of freed ones so that a second free is seen.
#include "foundation/utl_debug.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pxf/utl.h>

#include "foundation/alloc.h"
#include "foundation/report.h"

namespace pxf::debug {
namespace {

constexpr std::size_t kGuard = 16;
constexpr unsigned char kFront = 0xf5, kBack = 0xb5, kFreed = 0xdd;
constexpr std::size_t kQuarantineBytes = std::size_t(16) << 20;
constexpr std::size_t kQuarantineBlocks = 4096;

struct Header {
    std::size_t size;
    const char *file;
    void *caller;
    int line;
    int pad;
    uint64_t reserved[2];
};
static_assert(sizeof(Header) % 16 == 0);
constexpr std::size_t kFrontSpace = sizeof(Header) + kGuard;

enum State : unsigned char { kEmpty = 0, kLive = 1, kFreedState = 2 };

// Open addressing over user pointers, deletion by backward shift.  Its own
// memory comes from the C library, never from the tracked heap.
struct Table {
    uintptr_t *keys = nullptr;
    unsigned char *states = nullptr;
    std::size_t mask = 0, used = 0;

    std::size_t slot_of(uintptr_t key) const noexcept {
        std::size_t i = static_cast<std::size_t>((key >> 4) * 0x9e3779b97f4a7c15ull) & mask;
        while (states[i] != kEmpty && keys[i] != key) i = (i + 1) & mask;
        return i;
    }
    State get(uintptr_t key) const noexcept { return keys ? static_cast<State>(states[slot_of(key)]) : kEmpty; }
    bool put(uintptr_t key, State state) noexcept {
        if ((used + 1) * 2 > mask + 1 && !grow()) return false;
        std::size_t i = slot_of(key);
        if (states[i] == kEmpty) ++used;
        keys[i] = key;
        states[i] = state;
        return true;
    }
    void erase(uintptr_t key) noexcept {
        if (!keys) return;
        std::size_t i = slot_of(key);
        if (states[i] == kEmpty) return;
        states[i] = kEmpty;
        --used;
        for (std::size_t j = (i + 1) & mask; states[j] != kEmpty; j = (j + 1) & mask) {
            std::size_t home = static_cast<std::size_t>((keys[j] >> 4) * 0x9e3779b97f4a7c15ull) & mask;
            // Move j back into the hole when its home does not lie cyclically in (i, j].
            if ((j > i && (home <= i || home > j)) || (j < i && home <= i && home > j)) {
                keys[i] = keys[j];
                states[i] = states[j];
                states[j] = kEmpty;
                i = j;
            }
        }
    }
    bool grow() noexcept {
        std::size_t size = keys ? (mask + 1) * 2 : 1024;
        auto *k = static_cast<uintptr_t *>(std::calloc(size, sizeof(uintptr_t)));
        auto *s = static_cast<unsigned char *>(std::calloc(size, 1));
        if (!k || !s) {
            std::free(k);
            std::free(s);
            return false;
        }
        Table bigger{k, s, size - 1, 0};
        for (std::size_t i = 0; keys && i <= mask; ++i)
            if (states[i] != kEmpty) bigger.put(keys[i], static_cast<State>(states[i]));
        std::free(keys);
        std::free(states);
        *this = bigger;
        return true;
    }
};

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> enabled{false}, used_ever{false};
Table table;
uintptr_t quarantine[kQuarantineBlocks];
std::size_t quarantine_head = 0, quarantine_count = 0, quarantine_bytes = 0;

struct Guard {
    Guard() { pthread_mutex_lock(&lock); }
    ~Guard() { pthread_mutex_unlock(&lock); }
};

Header *header_of(void *user) noexcept {
    return reinterpret_cast<Header *>(static_cast<unsigned char *>(user) - kFrontSpace);
}

void describe_site(const Header *h, char *out, std::size_t size) noexcept {
    if (h->file) {
        std::snprintf(out, size, "%s:%d", h->file, h->line);
        return;
    }
    Dl_info info;
    if (h->caller && dladdr(h->caller, &info) && info.dli_fname) {
        auto base = reinterpret_cast<uintptr_t>(info.dli_saddr ? info.dli_saddr : info.dli_fbase);
        std::snprintf(out, size, "%p (%s+0x%" PRIxPTR " in %s)", h->caller, info.dli_sname ? info.dli_sname : "",
                      reinterpret_cast<uintptr_t>(h->caller) - base, info.dli_fname);
        return;
    }
    std::snprintf(out, size, "%p", h->caller);
}

void say(const char *what, void *user, const char *file, int line) noexcept {
    const Header *h = header_of(user);
    char site[512];
    describe_site(h, site, sizeof site);
    if (file)
        std::fprintf(stderr, "UTL: %s: block of %zu bytes at %p allocated at %s (seen at %s:%d)\n", what, h->size, user,
                     site, file, line);
    else
        std::fprintf(stderr, "UTL: %s: block of %zu bytes at %p allocated at %s\n", what, h->size, user, site);
}

// Checks both guard zones of a live block; reports and returns the damage.
int check_guards(void *user, const char *file, int line) noexcept {
    const auto *u = static_cast<const unsigned char *>(user);
    std::size_t size = header_of(user)->size;
    int damaged = 0;
    for (std::size_t i = 1; i <= kGuard; ++i)
        if (u[-static_cast<std::ptrdiff_t>(i)] != kFront) {
            say("written before its start", user, file, line);
            ++damaged;
            break;
        }
    for (std::size_t i = 0; i < kGuard; ++i)
        if (u[size + i] != kBack) {
            say("written past its end", user, file, line);
            ++damaged;
            break;
        }
    return damaged;
}

void evict_oldest() noexcept {
    uintptr_t user = quarantine[quarantine_head];
    quarantine_head = (quarantine_head + 1) % kQuarantineBlocks;
    --quarantine_count;
    Header *h = header_of(reinterpret_cast<void *>(user));
    quarantine_bytes -= h->size;
    table.erase(user);
    std::free(h);
}

}  // namespace

bool on() noexcept { return enabled.load(std::memory_order_relaxed); }
bool ever() noexcept { return used_ever.load(std::memory_order_relaxed); }

void *allocate(std::size_t size, const char *file, int line, void *caller) noexcept {
    if (size > SIZE_MAX - kFrontSpace - kGuard) return nullptr;
    auto *h = static_cast<Header *>(std::malloc(kFrontSpace + size + kGuard));
    if (!h) return nullptr;
    *h = Header{size, file, caller, line, 0, {0, 0}};
    unsigned char *user = reinterpret_cast<unsigned char *>(h) + kFrontSpace;
    std::memset(user - kGuard, kFront, kGuard);
    std::memset(user + size, kBack, kGuard);
    Guard g;
    if (!table.put(reinterpret_cast<uintptr_t>(user), kLive)) {
        std::free(h);
        return nullptr;
    }
    return user;
}

bool release(void *pointer, const char *file, int line) noexcept {
    if (!pointer) return true;
    Guard g;
    auto key = reinterpret_cast<uintptr_t>(pointer);
    State state = table.get(key);
    if (state == kEmpty) return false;
    if (state == kFreedState) {
        say("freed twice", pointer, file, line);
        return true;  // the second free is ignored: freeing again would corrupt the heap
    }
    check_guards(pointer, file, line);
    Header *h = header_of(pointer);
    std::memset(pointer, kFreed, h->size);
    table.put(key, kFreedState);
    while (quarantine_count && (quarantine_count == kQuarantineBlocks || quarantine_bytes + h->size > kQuarantineBytes))
        evict_oldest();
    quarantine[(quarantine_head + quarantine_count) % kQuarantineBlocks] = key;
    ++quarantine_count;
    quarantine_bytes += h->size;
    return true;
}

void *reallocate(void *pointer, std::size_t size, const char *file, int line, void *caller) noexcept {
    if (!pointer) return on() ? allocate(size, file, line, caller) : std::malloc(size ? size : 1);
    State state;
    {
        Guard g;
        state = table.get(reinterpret_cast<uintptr_t>(pointer));
        if (state == kFreedState) {
            say("reallocated after being freed", pointer, file, line);
            return nullptr;
        }
    }
    if (state == kEmpty) return std::realloc(pointer, size ? size : 1);
    void *moved = allocate(size, file ? file : header_of(pointer)->file, file ? line : header_of(pointer)->line,
                           caller);
    if (!moved) return nullptr;
    std::size_t old = header_of(pointer)->size;
    std::memcpy(moved, pointer, old < size ? old : size);
    release(pointer, file, line);
    return moved;
}

}  // namespace pxf::debug

namespace {

// Leaks are listed at exit when the environment switched the allocator on.
void leaks_at_exit() { UTL_debug_leaks(); }

[[gnu::constructor]] void switch_on_from_environment() {
    const char *value = std::getenv("PXF_DEBUG_MALLOC");
    if (value && *value && std::strcmp(value, "0") != 0) {
        UTL_debug_malloc(1);
        std::atexit(leaks_at_exit);
    }
}

}  // namespace

extern "C" {

int UTL_debug_malloc(int on) {
    if (on) pxf::debug::used_ever = true;
    return pxf::debug::enabled.exchange(on != 0) ? 1 : 0;
}

void *UTL_malloc(uint32_t size, const char *file, int line) {
    if (!pxf::debug::on()) return pxf::alloc(size);
    void *p = pxf::heap_alloc_at(size, file, line, __builtin_return_address(0));
    if (!p) pxf::report_no_memory();
    return p;
}

void *UTL_realloc(void *pointer, uint32_t size, const char *file, int line) {
    void *p = pxf::debug::ever() ? pxf::heap_realloc_at(pointer, size, file, line, __builtin_return_address(0))
                                 : pxf::heap_realloc(pointer, size);
    if (!p) pxf::report_no_memory();
    return p;
}

void UTL_free(void *pointer, const char *file, int line) {
    if (pointer && pxf::debug::ever() && pxf::debug::release(pointer, file, line)) return;
    std::free(pointer);
}

int UTL_debug_check(void) {
    using namespace pxf::debug;
    Guard g;
    int damaged = 0;
    for (std::size_t i = 0; table.keys && i <= table.mask; ++i)
        if (table.states[i] == kLive) damaged += check_guards(reinterpret_cast<void *>(table.keys[i]), nullptr, 0);
    return damaged;
}

int UTL_debug_leaks(void) {
    using namespace pxf::debug;
    Guard g;
    int leaks = 0;
    for (std::size_t i = 0; table.keys && i <= table.mask; ++i)
        if (table.states[i] == kLive) {
            say("leak", reinterpret_cast<void *>(table.keys[i]), nullptr, 0);
            ++leaks;
        }
    return leaks;
}

}  // extern "C"
