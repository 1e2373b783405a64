#include "plugin_host.h"

#include <dlfcn.h>

#include <cstring>

#include <gtest/gtest.h>

namespace pxf::test {
namespace {

const char *const kModules[] = {"png", "tiff"};
std::size_t next_module = 0;
void *handles[2];

int enumerate(void **library, const char **name) {
    if (next_module >= 2) return 0;
    *library = handles[next_module];
    *name = kModules[next_module];
    ++next_module;
    return 1;
}

std::size_t element_size(const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT) return 4;
    if (g.type == PXF_C_DOUBLE) return 8;
    return g.width <= 8 ? 1 : g.width <= 16 ? 2 : 4;
}

double load(const void *row, const PXF_CHAN_GROUP &g, int x) {
    switch (element_size(g)) {
    case 1: return static_cast<const uint8_t *>(row)[x];
    case 2: return static_cast<const uint16_t *>(row)[x];
    case 8: return static_cast<const double *>(row)[x];
    default:
        return g.type == PXF_C_FLOAT ? double(static_cast<const float *>(row)[x])
                                     : double(static_cast<const uint32_t *>(row)[x]);
    }
}

void store(void *row, const PXF_CHAN_GROUP &g, int x, double v) {
    switch (element_size(g)) {
    case 1: static_cast<uint8_t *>(row)[x] = uint8_t(v); break;
    case 2: static_cast<uint16_t *>(row)[x] = uint16_t(v); break;
    case 8: static_cast<double *>(row)[x] = v; break;
    default:
        if (g.type == PXF_C_FLOAT) static_cast<float *>(row)[x] = float(v);
        else static_cast<uint32_t *>(row)[x] = uint32_t(v);
    }
}

const PXF_CHAN_GROUP &group_of(const Pixels &p, std::size_t channel) {
    std::size_t c = std::size_t(p.chan.count), m = std::size_t(p.matte.count);
    return channel < c ? p.chan : channel < c + m ? p.matte : p.aux;
}

}  // namespace

void load_drivers() {
    static bool loaded = false;
    if (loaded) return;
    for (int i = 0; i < 2; ++i) {
        std::string path = std::string(PLUGIN_DIR) + "/" + kModules[i] + ".so";
        handles[i] = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handles[i], nullptr) << dlerror();
    }
    ASSERT_EQ(PXF_init(nullptr, enumerate), 0);
    loaded = true;
}

bool read_image(const std::string &path, const char *key, Pixels &out) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>(key);
    info.handle = const_cast<char *>(path.c_str());
    PXF_IMAGE *image = PXF_open(&info, "r");
    if (!image) return false;
    PXF_IMAGE_DESC &d = image->info.images[0];
    out.width = d.window.right - d.window.left + 1;
    out.height = d.window.top - d.window.bottom + 1;
    out.chan = d.chan;
    out.matte = d.matte;
    out.aux = d.aux;
    out.chan.format = out.matte.format = out.aux.format = nullptr;
    out.gamma = d.curve.gamma;
    out.compression = image->info.compression ? image->info.compression : "";
    std::size_t channels = std::size_t(d.chan.count + d.matte.count + d.aux.count);
    out.values.assign(channels, std::vector<double>(std::size_t(out.width) * std::size_t(out.height)));
    void **buffer = pxf__chan_alloc(&d, out.width, "test");
    bool ok = buffer != nullptr;
    for (int y = 0; ok && y < out.height; ++y) {
        void **rows = buffer;
        if (PXF_scan_read(image, d.window.top - y, &rows) != 0) {
            ok = false;
            break;
        }
        for (std::size_t c = 0; c < channels; ++c)
            for (int x = 0; x < out.width; ++x)
                out.values[c][std::size_t(y) * std::size_t(out.width) + std::size_t(x)] =
                    load(rows[c], group_of(out, c), x);
    }
    pxf__chan_free(buffer);
    PXF_close(image);
    return ok;
}

bool write_image(const std::string &path, const char *key, const Pixels &in, void (*setup)(PXF_INFO &)) {
    PXF_IMAGE_DESC d{};
    d.image_kind = 1;
    d.curve.kind = PXF_CURVE_GAMMA;
    d.curve.gamma = in.gamma > 0 ? in.gamma : 2.2f;
    d.window = {0, in.width - 1, 0, in.height - 1};
    d.active_window = d.window;
    d.step = 1;
    d.chan = in.chan;
    d.matte = in.matte;
    d.aux = in.aux;
    d.index.type = PXF_C_INTEGER;
    d.index.width = 16;
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>(key);
    info.handle = const_cast<char *>(path.c_str());
    info.num_images = 1;
    info.images = &d;
    if (setup) setup(info);
    PXF_IMAGE *image = PXF_open(&info, "w");
    if (!image) return false;
    void **buffer = pxf__chan_alloc(&d, in.width, "test");
    bool ok = buffer != nullptr;
    for (int y = 0; ok && y < in.height; ++y) {
        for (std::size_t c = 0; c < in.values.size(); ++c)
            for (int x = 0; x < in.width; ++x)
                store(buffer[c], group_of(in, c), x, in.values[c][std::size_t(y) * std::size_t(in.width) + std::size_t(x)]);
        void **rows = buffer;
        ok = PXF_scan_write(image, in.height - 1 - y, &rows) == 0;
    }
    pxf__chan_free(buffer);
    return PXF_close(image) == 0 && ok;
}

}  // namespace pxf::test
