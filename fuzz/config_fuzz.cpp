// Arbitrary bytes as the configuration file, read by the format,
// framebuffer and colour defaults readers.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <pxf/clr.h>
#include <pxf/err.h>
#include <pxf/fmt.h>
#include <pxf/rfl.h>

namespace {

int quiet(const char *, int, const char *, ERR_DESCRIPTOR *, void *) { return 0; }

const std::string &config_path() {
    static const std::string path = [] {
        char dir[] = "/tmp/pxf-config-fuzz-XXXXXX";
        if (!mkdtemp(dir)) std::abort();
        setenv("HOME", dir, 1);
        unsetenv("QV_ROOT");
        ERR_dcl_handler(nullptr, quiet, nullptr);  // reports are expected; keep the output readable
        return std::string(dir) + "/.pxfrc";
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &path = config_path();
    std::FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    if (FMT_init(nullptr) == 0) {
        while (FMT_ASPECT *a = FMT_info()) (void)a->name[0];
        (void)FMT_find(FMT_def_aspect());
    }
    (void)FMT_def_swatch();
    if (FB_init(nullptr) == 0) {
        while (FB_ENTRY *fb = FB_info()) (void)fb->name[0];
        (void)FB_find(FB_def_framebuffer());
    }
    if (CLR_init(nullptr) == 0) {
        int n = CLR_def_color_samp();
        if (RFL_init(n, 0, 0, 0, 0, 0, 0, 0, 0, 0) > 0) {
            float samples[1024], xyz[3] = {0.3f, 0.4f, 0.5f};
            RFL_xyz_samp(xyz, samples);
            RFL_done();
        }
    }
    FMT_exit();
    FB_exit();
    CLR_exit();
    return 0;
}
