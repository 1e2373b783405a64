// Shared body of the driver-module targets: the bytes become a file in
// memory, the module named MODULE (built beside the library in this build)
// opens it through PXF_open, every scanline is read, plain and through the
// cast operator, and the image is closed.
#pragma once

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <pxf/err.h>
#include <pxf/pxf.h>

namespace {

int swallow(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

void *module_handle;
const char *module_key;

int enumerate(void **library, const char **name) {
    static bool given = false;
    if (given) return 0;
    given = true;
    *library = module_handle;
    *name = module_key;
    return 1;
}

// One memory file per process, refilled for each input.
int memory_file = -1;
char memory_path[64];

void start(const char *key) {
    module_key = key;
    module_handle = dlopen((std::string(PLUGIN_DIR) + "/" + key + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module_handle) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::abort();
    }
    ERR_dcl_handler(nullptr, swallow, nullptr);
    if (PXF_init(nullptr, enumerate) != 0) std::abort();
    memory_file = memfd_create("pxf-fuzz", 0);
    if (memory_file < 0) std::abort();
    std::snprintf(memory_path, sizeof memory_path, "/proc/self/fd/%d", memory_file);
}

void read_all(PXF_IMAGE *image) {
    PXF_IMAGE_DESC *d = image->info.images;
    if (image->info.num_images < 1 || !d) return;
    int width = d->window.right - d->window.left + 1;
    void **buffer = pxf__chan_alloc(d, width, "fuzz");
    if (!buffer) return;
    for (int y = d->window.top; y >= d->window.bottom; --y) {
        void **rows = buffer;
        if (PXF_scan_read(image, y, &rows) < 0) break;
    }
    pxf__chan_free(buffer);
}

int fuzz_one(const uint8_t *data, size_t size) {
    if (ftruncate(memory_file, 0) != 0 || pwrite(memory_file, data, size, 0) != ssize_t(size)) return 0;
    for (int cast = 0; cast < 2; ++cast) {
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = const_cast<char *>(module_key);
        info.handle = memory_path;
        PXF_IMAGE *image = PXF_open(&info, "r");
        info.key = info.handle = nullptr;  // not ours to free
        PXF_info_cleanup(&info, 1);
        if (!image) return 0;
        if (cast) image = PXF__cast(image);
        read_all(image);
        PXF_close(image);
    }
    return 0;
}

}  // namespace

#define PXF_PLUGIN_FUZZ_TARGET(KEY)                                                                \
    extern "C" int LLVMFuzzerInitialize(int *, char ***) {                                          \
        start(KEY);                                                                                 \
        return 0;                                                                                   \
    }                                                                                               \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) { return fuzz_one(data, size); }
