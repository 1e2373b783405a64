// Buffers for resource data.  Most resources are small, so their buffers come
// in six classes of 64 to 2048 bytes, each with its own free list; a larger
// resource gets a buffer of its exact size.
#include <pxf/dst.h>

#include "foundation/alloc.h"
#include "resources/rsc_internal.h"

namespace pxf::rsc {
namespace {

constexpr int kClasses = 6;
constexpr uint32_t kSmallest = 64;
constexpr uint32_t kLargest = kSmallest << (kClasses - 1);  // 2048

void *free_lists[kClasses];

int class_of(uint32_t size) noexcept {
    if (size > kLargest) return -1;
    int c = 0;
    while ((kSmallest << c) < size) ++c;
    return c;
}

}  // namespace

uint32_t buffer_capacity(uint32_t size) noexcept {
    int c = class_of(size);
    return c < 0 ? size : kSmallest << c;
}

unsigned char *buffer_get(uint32_t size) noexcept {
    int c = class_of(size);
    if (c < 0) return static_cast<unsigned char *>(alloc(size));
    return static_cast<unsigned char *>(DST_malloc(&free_lists[c], kSmallest << c));
}

void buffer_release(unsigned char *buffer, uint32_t size) noexcept {
    if (!buffer) return;
    int c = class_of(size);
    if (c < 0) heap_free(buffer);
    else free_lists[c] = DST_free(buffer, free_lists[c]);
}

void buffer_purge() noexcept {
    for (void *&list : free_lists) {
        DST_purge(list);
        list = nullptr;
    }
}

}  // namespace pxf::rsc
