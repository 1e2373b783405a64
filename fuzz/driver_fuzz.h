// One driver module through the public interface, as an application uses
// it: the bytes become a file, which is opened, read scanline by scanline
// (every image of the file) and closed.  The including file defines
// PLUGIN_NAME; CMake gives PLUGIN_DIR.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <pxf/err.h>
#include <pxf/pxf.h>

namespace {

void *module;

int enumerate(void **library, const char **name) {
    static bool given = false;
    if (given) return 0;
    given = true;
    *library = module;
    *name = PLUGIN_NAME;
    return 1;
}

int swallow(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

std::string scratch;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    module = dlopen(PLUGIN_DIR "/" PLUGIN_NAME ".so", RTLD_NOW | RTLD_LOCAL);
    if (!module || PXF_init(nullptr, enumerate) != 0) {
        std::fprintf(stderr, "cannot load %s\n", PLUGIN_DIR "/" PLUGIN_NAME ".so");
        std::abort();
    }
    ERR_dcl_handler(nullptr, swallow, nullptr);
    char name[] = "/tmp/pxf-fuzz-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) std::abort();
    close(fd);
    scratch = name;
    std::atexit([] { unlink(scratch.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::FILE *f = std::fopen(scratch.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>(PLUGIN_NAME);
    info.handle = const_cast<char *>(scratch.c_str());
    PXF_IMAGE *image = PXF_open(&info, "r");
    PXF_info_cleanup(&info, 0);
    if (!image) return 0;
    for (int i = 0; i < image->info.num_images; ++i) {
        PXF_IMAGE_DESC d = image->info.images[i];
        void **buffer = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, "fuzz");
        for (int line = d.window.top; buffer && line >= d.window.bottom; --line) {
            void **rows = buffer;
            if (image->scan(image->private_data[i], line, &rows, image->private_data) < 0) break;
        }
        pxf__chan_free(buffer);
    }
    PXF_close(image);
    return 0;
}
