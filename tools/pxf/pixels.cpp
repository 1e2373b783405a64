// Image layouts and the row conversions between them: the tool fits what
// it reads to what the output driver can store.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "tool.h"

namespace pxftool {
namespace {

PXF_CHAN_GROUP *groups_of(PXF_IMAGE_DESC &d, int k) { return k == kColour ? &d.chan : k == kMatte ? &d.matte : &d.aux; }

double max_value(int width) { return width >= 32 ? 4294967295.0 : double((uint64_t(1) << width) - 1); }

// Reads element x of a row as a number in the group's own units.
double load(const void *row, const Group &g, int x) {
    switch (g.type) {
    case PXF_C_FLOAT: return static_cast<const float *>(row)[x];
    case PXF_C_DOUBLE: return static_cast<const double *>(row)[x];
    default:
        if (g.width <= 8) return static_cast<const uint8_t *>(row)[x];
        if (g.width <= 16) return static_cast<const uint16_t *>(row)[x];
        return static_cast<const uint32_t *>(row)[x];
    }
}

void store(void *row, const Group &g, int x, double v) {
    switch (g.type) {
    case PXF_C_FLOAT: static_cast<float *>(row)[x] = float(v); return;
    case PXF_C_DOUBLE: static_cast<double *>(row)[x] = v; return;
    default: {
        double top = max_value(g.width);
        v = std::clamp(std::floor(v + 0.5), 0.0, top);
        if (g.width <= 8) static_cast<uint8_t *>(row)[x] = uint8_t(v);
        else if (g.width <= 16) static_cast<uint16_t *>(row)[x] = uint16_t(v);
        else static_cast<uint32_t *>(row)[x] = uint32_t(v);
    }
    }
}

void convert_row(const void *src, const Group &from, void *dst, const Group &to, int n) {
    if (from.type == to.type && element_size(from) == element_size(to) &&
        (from.type != PXF_C_INTEGER || from.width == to.width)) {
        std::memcpy(dst, src, std::size_t(n) * std::size_t(element_size(to)));
        return;
    }
    bool from_int = from.type == PXF_C_INTEGER, to_int = to.type == PXF_C_INTEGER;
    // Integers are fractions of their largest value; floats are 0..1.
    double scale = (from_int ? 1.0 / max_value(from.width) : 1.0) * (to_int ? max_value(to.width) : 1.0);
    for (int x = 0; x < n; ++x) store(dst, to, x, load(src, from, x) * scale);
}

// Allowed integer width for a driver's advertised bits; 0 means any.
int driver_bits(int bits) { return bits <= 0 || bits > 32 ? 0 : bits; }

Group fit_group(const Group &from, int count_limit, int bits_limit) {
    Group g = from;
    g.count = std::min(from.count, std::max(count_limit, 0));
    int bits = driver_bits(bits_limit);
    if (bits == 0) return g;
    if (g.type != PXF_C_INTEGER) {
        if (bits < 32) {
            g.type = PXF_C_INTEGER;
            g.width = bits;
        } else if (g.type == PXF_C_DOUBLE) {
            g.type = PXF_C_FLOAT;
            g.width = 32;
        }
    } else if (g.width > bits) {
        g.width = bits;
    }
    return g;
}

// Formats whose files hold one sample type for every channel.
bool one_sample_type(const PXF_TYPE &driver) { return driver.key && std::strcmp(driver.key, "tiff") == 0; }

// Integer colour in a file of one sample type beside float channels would
// make every sample float (and the colour linear light).  The colour keeps
// its integers instead: a float matte is stored like the colour, and float
// auxiliary channels are left out, with a note saying so.
void keep_colour_depth(Layout &to, const PXF_TYPE &driver, std::vector<std::string> &notes) {
    const Group &colour = to.group[kColour];
    if (!one_sample_type(driver) || colour.count < 1 || colour.type != PXF_C_INTEGER) return;
    const std::string kept = std::to_string(colour.width) + "-bit";
    Group &matte = to.group[kMatte];
    if (matte.count > 0 && matte.type != PXF_C_INTEGER) {
        matte.type = PXF_C_INTEGER;
        matte.width = colour.width;
        notes.push_back(std::string(driver.key) + " holds one sample type per file: the " + type_name(PXF_C_FLOAT) +
                        " matte is stored as " + kept + " integers like the colour");
    }
    Group &aux = to.group[kAux];
    if (aux.count > 0 && aux.type != PXF_C_INTEGER) {
        notes.push_back(std::string(driver.key) + " holds one sample type per file: " + std::to_string(aux.count) +
                        " " + type_name(aux.type) + " auxiliary channel" + (aux.count == 1 ? "" : "s") +
                        " left out to keep the colour " + kept + " (rla and exr files keep both)");
        aux.count = 0;
    }
}

}  // namespace

int element_size(const Group &g) {
    if (g.type == PXF_C_FLOAT) return 4;
    if (g.type == PXF_C_DOUBLE) return 8;
    return g.width <= 8 ? 1 : g.width <= 16 ? 2 : 4;
}

Layout layout_of(const PXF_IMAGE_DESC &desc) {
    Layout l;
    const PXF_CHAN_GROUP *g[3] = {&desc.chan, &desc.matte, &desc.aux};
    for (int k = 0; k < 3; ++k) l.group[k] = {g[k]->count, g[k]->type, g[k]->width};
    l.width = desc.window.right - desc.window.left + 1;
    l.height = desc.window.top - desc.window.bottom + 1;
    return l;
}

void apply_layout(PXF_IMAGE_DESC &desc, const Layout &layout) {
    for (int k = 0; k < 3; ++k) {
        PXF_CHAN_GROUP *g = groups_of(desc, k);
        g->count = layout.group[k].count;
        g->type = layout.group[k].type;
        g->width = layout.group[k].width;
    }
    desc.index.count = 0;
    desc.index.type = PXF_C_INTEGER;
    desc.index.width = 16;
}

const char *type_name(int type) {
    switch (type) {
    case PXF_C_INTEGER: return "integer";
    case PXF_C_FLOAT: return "float";
    case PXF_C_DOUBLE: return "double";
    default: return "unknown";
    }
}

void convert_rows(void *const *from_rows, const Layout &from, void *const *to_rows, const Layout &to) {
    int n = std::min(from.width, to.width);
    int from_start = 0, to_start = 0;
    for (int k = 0; k < 3; ++k) {
        const Group &f = from.group[k], &t = to.group[k];
        for (int c = 0; c < t.count; ++c) {
            void *dst = to_rows[to_start + c];
            if (f.count == 0) {
                std::memset(dst, 0, std::size_t(to.width) * std::size_t(element_size(t)));
                continue;
            }
            // Fewer source channels (grey into RGB): repeat the last one.
            convert_row(from_rows[from_start + std::min(c, f.count - 1)], f, dst, t, n);
        }
        from_start += f.count;
        to_start += t.count;
    }
}

Layout fit_to_driver(const Layout &from, const PXF_TYPE &driver, std::vector<std::string> &notes) {
    Layout to = from;
    to.group[kColour] = fit_group(from.group[kColour], driver.number_of_channels > 0 ? driver.number_of_channels : from.group[kColour].count, driver.bits_per_channel);
    to.group[kMatte] = fit_group(from.group[kMatte], driver.number_of_mattes, driver.bits_per_matte);
    to.group[kAux] = fit_group(from.group[kAux], driver.number_of_z_channels, driver.bits_per_z_channel);
    const char *names[3] = {"colour", "matte", "auxiliary"};
    for (int k = 0; k < 3; ++k) {
        int dropped = from.group[k].count - to.group[k].count;
        if (dropped > 0)
            notes.push_back(to.group[k].count == 0
                                ? std::string(driver.key) + " has no place for " + names[k] + " channels: " +
                                      std::to_string(dropped) + " left out"
                                : std::string(driver.key) + " stores " + std::to_string(to.group[k].count) + " " +
                                      names[k] + " channel" + (to.group[k].count == 1 ? "" : "s") + ": " +
                                      std::to_string(dropped) + " left out");
    }
    keep_colour_depth(to, driver, notes);
    return to;
}

ChannelBuffer::ChannelBuffer(const Layout &layout, int pixels) {
    PXF_IMAGE_DESC desc{};
    apply_layout(desc, layout);
    int size = 0;
    rows_ = PXF_chan_alloc(&desc, std::max(pixels, 1), "pxf", &size);
    if (!rows_ && layout.channels() > 0) throw Failure("out of memory for a scanline buffer");
}

ChannelBuffer &ChannelBuffer::operator=(ChannelBuffer &&other) noexcept {
    if (this != &other) {
        if (rows_) PXF_chan_free(rows_);
        rows_ = other.rows_;
        other.rows_ = nullptr;
    }
    return *this;
}

ChannelBuffer::~ChannelBuffer() {
    if (rows_) PXF_chan_free(rows_);
}

}  // namespace pxftool
