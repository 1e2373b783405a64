// The built-in sample image: colour bars over grey and hue ramps, a matte
// with soft edges (colour premultiplied by it) and a depth channel, so that a
// demo needs no input file.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

class SampleSource : public RowSource {
public:
    SampleSource(int width, int height) {
        layout_.width = width;
        layout_.height = height;
        layout_.group[kColour] = {3, PXF_C_INTEGER, 8};
        layout_.group[kMatte] = {1, PXF_C_INTEGER, 8};
        layout_.group[kAux] = {1, PXF_C_FLOAT, 32};
        desc_.image_kind = 1;
        desc_.curve.kind = PXF_CURVE_GAMMA;
        desc_.curve.gamma = 2.2f;
        desc_.window = {0, width - 1, 0, height - 1};
        desc_.active_window = desc_.window;
        desc_.x_res = width;
        desc_.y_res = height;
        desc_.aspect_ratio = float(width) / float(height);
        desc_.step = 1;
        desc_.orientation = 0;
        apply_layout(desc_, layout_);
        desc_.matte.extra = PXF_MATTE_ASSOCIATED;  // as a renderer delivers it
        PXF_info_init(&info_);
        info_.name = name_.data();
        info_.desc = text_.data();
        buffer_ = ChannelBuffer(layout_, width);
    }
    ~SampleSource() override { PXF_info_cleanup(&info_, 0); }
    const Layout &layout() const override { return layout_; }
    const PXF_IMAGE_DESC &desc() const override { return desc_; }
    const PXF_INFO *info() const override { return &info_; }
    bool bottom_up() const override { return false; }
    bool random_access() const override { return true; }

    void *const *row(int line) override {
        int w = layout_.width, h = layout_.height, y = h - 1 - line;  // y = 0 at the top
        void **rows = buffer_.rows();
        auto *r = static_cast<uint8_t *>(rows[0]), *g = static_cast<uint8_t *>(rows[1]),
             *b = static_cast<uint8_t *>(rows[2]), *a = static_cast<uint8_t *>(rows[3]);
        auto *z = static_cast<float *>(rows[4]);
        for (int x = 0; x < w; ++x) {
            colour(x, y, r[x], g[x], b[x]);
            a[x] = matte(x, y);
            for (uint8_t *c : {&r[x], &g[x], &b[x]}) *c = uint8_t((*c * a[x] + 127) / 255);
            z[x] = depth(x, y);
        }
        return rows;
    }

private:
    void colour(int x, int y, uint8_t &r, uint8_t &g, uint8_t &b) const {
        int w = layout_.width, h = layout_.height;
        if (y < h * 2 / 3) {
            // Seven bars at 75%: white, yellow, cyan, green, magenta, red, blue.
            static const uint8_t bars[7][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                                               {191, 0, 191},   {191, 0, 0},   {0, 0, 191}};
            const uint8_t *c = bars[std::min(6, x * 7 / w)];
            r = c[0], g = c[1], b = c[2];
        } else if (y < h * 5 / 6) {
            r = g = b = uint8_t(w > 1 ? x * 255 / (w - 1) : 0);  // grey ramp
        } else {
            // Hue sweep at full saturation.
            float hue = w > 1 ? 6.0f * float(x) / float(w - 1) : 0.0f;
            float f = hue - std::floor(hue);
            auto up = uint8_t(255.0f * f + 0.5f), down = uint8_t(255.0f * (1.0f - f) + 0.5f);
            switch (std::min(5, int(hue))) {
            case 0: r = 255, g = up, b = 0; break;
            case 1: r = down, g = 255, b = 0; break;
            case 2: r = 0, g = 255, b = up; break;
            case 3: r = 0, g = down, b = 255; break;
            case 4: r = up, g = 0, b = 255; break;
            default: r = 255, g = 0, b = down; break;
            }
        }
    }

    // Opaque inside a rounded rectangle, fading out over a few pixels.
    uint8_t matte(int x, int y) const {
        float w = float(layout_.width), h = float(layout_.height);
        float inset = std::max(2.0f, std::min(w, h) * 0.04f), radius = inset * 2.0f;
        float dx = std::max(0.0f, std::fabs(float(x) + 0.5f - w / 2) - (w / 2 - inset - radius));
        float dy = std::max(0.0f, std::fabs(float(y) + 0.5f - h / 2) - (h / 2 - inset - radius));
        float outside = std::sqrt(dx * dx + dy * dy) - radius;  // > 0 beyond the edge
        float alpha = std::clamp(0.5f - outside / inset, 0.0f, 1.0f);
        return uint8_t(alpha * 255.0f + 0.5f);
    }

    // A floor receding from 1 to 10 units with a ball in front of it.
    float depth(int x, int y) const {
        float w = float(layout_.width), h = float(layout_.height);
        float z = 10.0f - 9.0f * (h > 1 ? float(y) / (h - 1) : 0.0f);
        float radius = std::min(w, h) / 4, dx = float(x) - w / 2, dy = float(y) - h / 2;
        float d2 = dx * dx + dy * dy;
        if (d2 < radius * radius) z = std::min(z, 3.0f - 1.5f * std::sqrt(1.0f - d2 / (radius * radius)));
        return z;
    }

    Layout layout_;
    PXF_IMAGE_DESC desc_{};
    PXF_INFO info_;
    std::string name_ = "pxf sample";
    std::string text_ = "colour bars, grey and hue ramps, soft matte, depth";
    ChannelBuffer buffer_;
};

}  // namespace

std::unique_ptr<RowSource> make_sample(int width, int height) {
    return std::make_unique<SampleSource>(width, height);
}

}  // namespace pxftool
