// Helpers for the image-core tests: the numbered catalogue, plug-in loading,
// image descriptions and open requests.
#pragma once

#include <gtest/gtest.h>
#include <nl_types.h>

#include <cstring>
#include <string>
#include <vector>

#include <pxf/pxf.h>

namespace pxf::test {

// The catalogue whose set-902 texts start with "[number] ", as numbered() spells them.
inline nl_catd numbered_catalog() {
#ifdef TEST_CATALOG
    return catopen(TEST_CATALOG, 0);
#else
    return nullptr;
#endif
}
inline std::string numbered(int n, const std::string &text) { return "[" + std::to_string(n) + "] " + text; }

// Opens the named test plug-ins (file stems in the plug-in folder) and hands
// them to PXF_init, in order; returns PXF_init's result.
int init_with_plugins(const std::vector<std::string> &names, nl_catd catalog = nullptr);

// A description of one image, window 0..width-1 x 0..height-1, groups all
// integer of the given width (index 16).
inline PXF_IMAGE_DESC describe(int width, int height, int channels, int bits, int mattes = 0, int aux = 0,
                               int type = PXF_C_INTEGER) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = d.step = d.orientation = 1;
    d.curve.kind = PXF_CURVE_GAMMA;
    d.curve.gamma = 1.0f;
    d.window = d.active_window = {0, width - 1, 0, height - 1};
    d.chan = {nullptr, channels, type, bits, 0}, d.matte = {nullptr, mattes, type, bits, 0};
    d.aux = {nullptr, aux, type, bits, 0}, d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    return d;
}

inline void set_text(char *&field, const char *value) { free(field); field = value ? strdup(value) : nullptr; }

// An initialised info for PXF_open: the key and handle are heap copies, the
// descriptions stay the caller's.
struct Request {
    PXF_INFO info;
    Request() { PXF_info_init(&info); }
    ~Request() { PXF_info_cleanup(&set(nullptr, nullptr).info, 1); }  // the descriptions are not ours to free
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;
    Request &set(const char *key, const char *handle, PXF_IMAGE_DESC *images = nullptr, int count = 1) {
        set_text(info.key, key);
        set_text(info.handle, handle);
        info.images = images;
        info.num_images = images ? count : 0;
        return *this;
    }
    PXF_IMAGE *open(const char *mode) { return PXF_open(&info, mode); }
};

// A test whose library messages come from the numbered catalogue; the
// registry is shut down and the catalogue closed afterwards.
class Numbered : public ::testing::Test {
protected:
    void SetUp() override {
        catalog_ = numbered_catalog();
        ASSERT_NE(catalog_, reinterpret_cast<nl_catd>(-1));
        pxf__msg_cat = catalog_;
    }
    void TearDown() override {
        PXF_exit();
        catclose(catalog_);
        pxf__msg_cat = nullptr;
    }
    nl_catd catalog_{};
};

}  // namespace pxf::test
