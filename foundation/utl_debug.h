// The debugging allocator behind the library heap (foundation/alloc.cpp).
#pragma once

#include <cstddef>

namespace pxf::debug {

// Whether new allocations are tracked, and whether any ever were (frees
// must then ask whether a block is tracked).
bool on() noexcept;
bool ever() noexcept;
// A tracked block of `size` bytes, or null when the heap is exhausted.
void *allocate(std::size_t size, const char *file, int line, void *caller) noexcept;
// realloc for any block: tracked blocks move into a new tracked block,
// others go to the C library.  Null (the old block intact) on failure or
// for a block already freed.
void *reallocate(void *pointer, std::size_t size, const char *file, int line, void *caller) noexcept;
// Frees a tracked block, checking its guards, or reports a second free;
// false when the block is not one of ours (the caller frees it).
bool release(void *pointer, const char *file, int line) noexcept;

}  // namespace pxf::debug
