// Heap access for the whole library.  Every allocation goes through here so
// that tests can make the Nth one fail and check the out-of-memory paths.
#pragma once

#include <cstddef>
#include <memory>

namespace pxf {

// Plain heap calls, counted and subject to injected failure; they report nothing.
void *heap_alloc(std::size_t size) noexcept;
void *heap_realloc(void *pointer, std::size_t size) noexcept;
void heap_free(void *pointer) noexcept;
// The same, naming the allocation site for the debugging allocator (file may be null).
void *heap_alloc_at(std::size_t size, const char *file, int line, void *caller) noexcept;
void *heap_realloc_at(void *pointer, std::size_t size, const char *file, int line, void *caller) noexcept;

// Reporting allocation: 902/94 "No more internal memory" on failure.
void *alloc(std::size_t size) noexcept;
void *alloc_zeroed(std::size_t size) noexcept;

template <class T>
T *alloc_array(std::size_t count) noexcept {
    return static_cast<T *>(alloc_zeroed(count * sizeof(T)));
}

struct HeapDeleter {
    void operator()(void *p) const noexcept { heap_free(p); }
};
// Owns a block from the library heap; freed with heap_free.
template <class T>
using HeapPtr = std::unique_ptr<T, HeapDeleter>;

namespace fault {
// Makes the nth allocation from now fail (1 = the next one); with every_after,
// that one and all later ones fail.  0 disarms.
void arm(long nth, bool every_after = false) noexcept;
void disarm() noexcept;
// Whether an injected failure has happened since the last arm().
bool fired() noexcept;
}  // namespace fault

}  // namespace pxf
