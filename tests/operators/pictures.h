// Pictures of any element type in memory images, read back as doubles, and
// a plain double-precision resampler that the filtering stages are checked
// against: every output pixel a direct two-dimensional weighted sum.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <pxf/pxf.h>

#include "images.h"

namespace pxf::test {

// value(x, y, channel) in 0..1, scaled to the group's integer range; y counts
// from the window's bottom.
using PixelFn = std::function<double(int x, int y, int c)>;

// Channels of a picture: image, then matte, then auxiliary, as in rows.
struct Pixels {
    int width = 0, height = 0, channels = 0;
    std::vector<double> v;  // [c][y][x], integers normalised to 0..1
    double at(int x, int y, int c) const { return v[(std::size_t(c) * height + y) * width + x]; }
    double &at(int x, int y, int c) { return v[(std::size_t(c) * height + y) * width + x]; }
};

inline double top_of_group(const PXF_CHAN_GROUP &g) {
    return g.type == PXF_C_INTEGER ? double((uint64_t{1} << g.width) - 1) : 1.0;
}

inline const PXF_CHAN_GROUP &group_of(const PXF_IMAGE_DESC &d, int c) {
    return c < d.chan.count ? d.chan : c < d.chan.count + d.matte.count ? d.matte : d.aux;
}

inline int channels_of(const PXF_IMAGE_DESC &d) { return d.chan.count + d.matte.count + d.aux.count; }

inline void put_value(void *row, int x, const PXF_CHAN_GROUP &g, double v) {
    if (g.type == PXF_C_FLOAT) static_cast<float *>(row)[x] = float(v);
    else if (g.type == PXF_C_DOUBLE) static_cast<double *>(row)[x] = v;
    else {
        double q = std::floor(v * top_of_group(g) + 0.5);
        if (g.width <= 8) static_cast<uint8_t *>(row)[x] = uint8_t(q);
        else if (g.width <= 16) static_cast<uint16_t *>(row)[x] = uint16_t(q);
        else static_cast<uint32_t *>(row)[x] = uint32_t(q);
    }
}

inline double get_value(const void *row, int x, const PXF_CHAN_GROUP &g) {
    if (g.type == PXF_C_FLOAT) return static_cast<const float *>(row)[x];
    if (g.type == PXF_C_DOUBLE) return static_cast<const double *>(row)[x];
    double q = g.width <= 8    ? static_cast<const uint8_t *>(row)[x]
               : g.width <= 16 ? static_cast<const uint16_t *>(row)[x]
                               : static_cast<const uint32_t *>(row)[x];
    return q / top_of_group(g);
}

// A memory image holding `fn`: the writer stays open while the reader is
// used; close() closes both.
struct Picture {
    PXF_IMAGE *writer = nullptr, *reader = nullptr;
    Picture(const std::string &name, PXF_IMAGE_DESC desc, const PixelFn &fn) {
        PXF_INFO info;
        PXF_info_init(&info);
        info.key = const_cast<char *>("mem");
        info.handle = const_cast<char *>(name.c_str());
        info.num_images = 1;
        info.images = &desc;
        info.open_flag = 1;
        writer = PXF_open(&info, "w");
        if (!writer) return;
        const int w = desc.window.right - desc.window.left + 1;
        void **rows = pxf__chan_alloc(&desc, w, "test");
        for (int y = 0; y <= desc.window.top - desc.window.bottom; ++y) {
            for (int c = 0; c < channels_of(desc); ++c)
                for (int x = 0; x < w; ++x) put_value(rows[c], x, group_of(desc, c), fn(x, y, c));
            void **given = rows;
            PXF_scan_write(writer, desc.window.bottom + y, &given);
        }
        pxf__chan_free(rows);
        info.num_images = 0;
        info.images = nullptr;
        reader = PXF_open(&info, "r");
    }
    ~Picture() { close(); }
    void close() {
        if (reader) PXF_close(reader);
        if (writer) PXF_close(writer);
        reader = writer = nullptr;
    }
};

// Every scanline of image `index` (0: through the operators stacked on it;
// others: straight from the driver), bottom up or top down.
inline Pixels read_pixels(PXF_IMAGE *image, bool downward = false, int index = 0) {
    const PXF_IMAGE_DESC &d = image->info.images[index];
    Pixels p;
    p.width = d.window.right - d.window.left + 1;
    p.height = d.window.top - d.window.bottom + 1;
    p.channels = channels_of(d);
    p.v.assign(std::size_t(p.channels) * p.width * p.height, -1.0);
    for (int k = 0; k < p.height; ++k) {
        int y = downward ? p.height - 1 - k : k;
        void **rows = nullptr;
        int status = index ? image->scan(image->private_data[index], d.window.bottom + y, &rows, image->private_data)
                           : PXF_scan_read(image, d.window.bottom + y, &rows);
        EXPECT_EQ(status, 0) << y;
        if (!rows) return p;
        for (int c = 0; c < p.channels; ++c)
            for (int x = 0; x < p.width; ++x) p.at(x, y, c) = get_value(rows[c], x, group_of(d, c));
    }
    return p;
}

inline Pixels sample(const PXF_IMAGE_DESC &d, const PixelFn &fn) {
    Pixels p;
    p.width = d.window.right - d.window.left + 1;
    p.height = d.window.top - d.window.bottom + 1;
    p.channels = channels_of(d);
    p.v.resize(std::size_t(p.channels) * p.width * p.height);
    for (int c = 0; c < p.channels; ++c)
        for (int y = 0; y < p.height; ++y)
            for (int x = 0; x < p.width; ++x) {
                // What the picture holds after rounding to its elements.
                std::vector<uint8_t> cell(8);
                put_value(cell.data(), 0, group_of(d, c), fn(x, y, c));
                p.at(x, y, c) = get_value(cell.data(), 0, group_of(d, c));
            }
    return p;
}

// ---- The reference ----

inline double ref_kernel(const std::string &name, double x) {
    const double pi = 3.14159265358979323846;
    auto sinc = [&](double t) { return t == 0 ? 1.0 : std::sin(pi * t) / (pi * t); };
    double a = std::fabs(x);
    if (name == "box") return (x >= -0.5 && x < 0.5) ? 1 : 0;
    if (name == "triangle") return a < 1 ? 1 - a : 0;
    if (name == "lanczos3") return a < 3 ? sinc(x) * sinc(x / 3) : 0;
    if (name == "gaussian") return a < 2 ? std::exp(-x * x / (2 * 0.25)) : 0;
    double B = name == "mitchell" ? 1.0 / 3 : 0.0, C = name == "mitchell" ? 1.0 / 3 : 0.5;
    if (a < 1) return ((12 - 9 * B - 6 * C) * a * a * a + (-18 + 12 * B + 6 * C) * a * a + (6 - 2 * B)) / 6;
    if (a < 2)
        return ((-B - 6 * C) * a * a * a + (6 * B + 30 * C) * a * a + (-12 * B - 48 * C) * a + (8 * B + 24 * C)) / 6;
    return 0;
}

inline double ref_radius(const std::string &name) {
    return name == "box" ? 0.5 : name == "triangle" ? 1 : name == "lanczos3" ? 3 : 2;
}

// Normalised weights of every source pixel for output pixel i; pixels
// beyond the edges take the edge pixel's value.
inline std::vector<double> ref_weights(const std::string &filter, int source, int target, int i,
                                       double stretch = 1.0) {
    double ratio = double(source) / target, widen = stretch * std::max(1.0, ratio);
    double centre = (i + 0.5) * ratio - 0.5, support = ref_radius(filter) * widen;
    std::vector<double> w(source, 0.0);
    double total = 0;
    for (int k = int(std::ceil(centre - support)); k <= int(std::floor(centre + support)); ++k) {
        double v = ref_kernel(filter, (k - centre) / widen);
        w[std::clamp(k, 0, source - 1)] += v;
        total += v;
    }
    for (double &v : w) v /= total;
    return w;
}

// The picture filtered to width x height by direct convolution; colour
// premultiplied by the matte (channel `matte`, or -1) and divided again.
inline Pixels reference(const Pixels &in, int width, int height, const std::string &filter, int colour, int matte,
                        double stretch = 1.0) {
    Pixels out;
    out.width = width;
    out.height = height;
    out.channels = in.channels;
    out.v.resize(std::size_t(in.channels) * width * height);
    std::vector<std::vector<double>> wx(width), wy(height);
    for (int i = 0; i < width; ++i) wx[i] = ref_weights(filter, in.width, width, i, stretch);
    for (int j = 0; j < height; ++j) wy[j] = ref_weights(filter, in.height, height, j, stretch);
    for (int j = 0; j < height; ++j)
        for (int i = 0; i < width; ++i) {
            double a = 0;
            if (matte >= 0)
                for (int y = 0; y < in.height; ++y)
                    for (int x = 0; x < in.width; ++x) a += wy[j][y] * wx[i][x] * in.at(x, y, matte);
            for (int c = 0; c < in.channels; ++c) {
                bool premultiplied = matte >= 0 && c < colour;
                double s = 0;
                for (int y = 0; y < in.height; ++y)
                    for (int x = 0; x < in.width; ++x)
                        s += wy[j][y] * wx[i][x] * in.at(x, y, c) * (premultiplied ? in.at(x, y, matte) : 1.0);
                out.at(i, j, c) = premultiplied ? (a > 0 ? s / a : 0.0) : s;
            }
        }
    return out;
}

// Integers as the stages deliver them: rounded and clamped.
inline Pixels as_elements(Pixels p, const PXF_IMAGE_DESC &d) {
    for (int c = 0; c < p.channels; ++c) {
        const PXF_CHAN_GROUP &g = group_of(d, c);
        if (g.type != PXF_C_INTEGER) continue;
        double top = top_of_group(g);
        for (int y = 0; y < p.height; ++y)
            for (int x = 0; x < p.width; ++x) {
                double v = std::floor(p.at(x, y, c) * top + 0.5);
                p.at(x, y, c) = std::clamp(v, 0.0, top) / top;
            }
    }
    return p;
}

}  // namespace pxf::test
