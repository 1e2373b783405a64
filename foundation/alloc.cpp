#include "foundation/alloc.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "foundation/report.h"
#include "foundation/utl_debug.h"

namespace pxf {
namespace {

std::atomic<long> fail_at{0};      // countdown to the failing allocation; 0 = off
std::atomic<bool> fail_after{false};
std::atomic<bool> has_fired{false};

bool inject() noexcept {
    long armed = fail_at.load(std::memory_order_relaxed);
    if (armed == 0) return false;
    if (has_fired.load(std::memory_order_relaxed) && fail_after.load(std::memory_order_relaxed))
        return true;
    long left = fail_at.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (left == 0) {
        has_fired.store(true, std::memory_order_relaxed);
        if (!fail_after.load(std::memory_order_relaxed)) fail_at.store(0);
        else fail_at.store(-1);  // keeps failing
        return true;
    }
    return false;
}

}  // namespace

void *heap_alloc_at(std::size_t size, const char *file, int line, void *caller) noexcept {
    if (inject()) return nullptr;
    if (debug::on()) return debug::allocate(size, file, line, caller);
    return std::malloc(size ? size : 1);
}

void *heap_realloc_at(void *pointer, std::size_t size, const char *file, int line, void *caller) noexcept {
    if (inject()) return nullptr;
    if (debug::ever()) return debug::reallocate(pointer, size, file, line, caller);
    return std::realloc(pointer, size ? size : 1);
}

void *heap_alloc(std::size_t size) noexcept {
    return heap_alloc_at(size, nullptr, 0, __builtin_return_address(0));
}

void *heap_realloc(void *pointer, std::size_t size) noexcept {
    return heap_realloc_at(pointer, size, nullptr, 0, __builtin_return_address(0));
}

void heap_free(void *pointer) noexcept {
    // Blocks of the debugging allocator go back through it; others, and
    // every block when it was never switched on, to the C library.
    if (pointer && debug::ever() && debug::release(pointer, nullptr, 0)) return;
    std::free(pointer);
}

void *alloc(std::size_t size) noexcept {
    void *p = heap_alloc_at(size, nullptr, 0, __builtin_return_address(0));
    if (!p) report_no_memory();
    return p;
}

void *alloc_zeroed(std::size_t size) noexcept {
    void *p = alloc(size);
    if (p) std::memset(p, 0, size);
    return p;
}

namespace fault {
void arm(long nth, bool every_after) noexcept {
    has_fired = false;
    fail_after = every_after;
    fail_at = nth;
}
void disarm() noexcept { arm(0); }
bool fired() noexcept { return has_fired; }
}  // namespace fault

}  // namespace pxf
