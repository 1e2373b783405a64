// The container header and the layout checks that reader and writer share.
#include "formats/mpc_format.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "core/core_util.h"
#include "core/registry.h"

namespace pxf::mpc {

namespace {

void put_text(unsigned char *p, std::size_t size, const char *text) {
    std::memset(p, 0, size);
    if (text) std::memcpy(p, text, std::min(std::strlen(text), size - 1));
}

void get_text(const unsigned char *p, std::size_t size, char *out) {
    std::memcpy(out, p, size);
    out[size] = '\0';
}

void put_bounds(unsigned char *p, const PXF_BOUNDS &b) {
    rla::put32(p, uint32_t(b.left));
    rla::put32(p + 4, uint32_t(b.right));
    rla::put32(p + 8, uint32_t(b.bottom));
    rla::put32(p + 12, uint32_t(b.top));
}

PXF_BOUNDS get_bounds(const unsigned char *p) {
    return {int32_t(rla::get32(p)), int32_t(rla::get32(p + 4)), int32_t(rla::get32(p + 8)),
            int32_t(rla::get32(p + 12))};
}

// No frame is wider or taller than this, and no group has more channels.
constexpr int64_t kMaxSide = int64_t(1) << 20;
constexpr int kMaxChannels = 4096;

}  // namespace

void pack(const Header &h, unsigned char out[kHeaderSize]) noexcept {
    std::memset(out, 0, kHeaderSize);
    std::memcpy(out, kMagic, 8);
    rla::put16(out + 8, h.version);
    rla::put16(out + 10, int(kHeaderSize));
    rla::put32(out + 12, h.frames);
    put64(out + 16, h.index);
    put_bounds(out + 24, h.window);
    put_bounds(out + 40, h.active);
    for (int g = 0; g < 3; ++g) {
        rla::put32(out + 56 + 12 * g, uint32_t(h.groups[g].count));
        rla::put32(out + 60 + 12 * g, uint32_t(h.groups[g].type));
        rla::put32(out + 64 + 12 * g, uint32_t(h.groups[g].width));
    }
    putf(out + 92, h.gamma);
    putf(out + 96, h.aspect_ratio);
    putf(out + 100, h.frame_rate);
    for (int i = 0; i < 8; ++i) putf(out + 104 + 4 * i, h.primaries[i]);
    put_text(out + 136, 32, h.chan_format);
    put_text(out + 168, 32, h.aux_format);
    put_text(out + 200, 24, h.aspect);
}

bool unpack(const unsigned char in[kHeaderSize], Header &h) noexcept {
    if (std::memcmp(in, kMagic, 8) != 0) return false;
    h.version = int(rla::get16u(in + 8));
    h.header_size = int(rla::get16u(in + 10));
    h.frames = rla::get32(in + 12);
    h.index = get64(in + 16);
    h.window = get_bounds(in + 24);
    h.active = get_bounds(in + 40);
    for (int g = 0; g < 3; ++g)
        h.groups[g] = {int32_t(rla::get32(in + 56 + 12 * g)), int32_t(rla::get32(in + 60 + 12 * g)),
                       int32_t(rla::get32(in + 64 + 12 * g))};
    h.gamma = getf(in + 92);
    h.aspect_ratio = getf(in + 96);
    h.frame_rate = getf(in + 100);
    for (int i = 0; i < 8; ++i) h.primaries[i] = getf(in + 104 + 4 * i);
    get_text(in + 136, 32, h.chan_format);
    get_text(in + 168, 32, h.aux_format);
    get_text(in + 200, 24, h.aspect);
    return true;
}

bool layout_of(const PXF_BOUNDS &w, const PXF_BOUNDS &a, const GroupShape groups[3], Layout &l, int &group,
               rla::Fault &fault) noexcept {
    group = -1;
    fault = rla::Fault::none;
    auto side = [](int32_t lo, int32_t hi) { return int64_t(hi) - int64_t(lo) + 1; };
    if (side(w.left, w.right) < 1 || side(w.bottom, w.top) < 1 || side(w.left, w.right) > kMaxSide ||
        side(w.bottom, w.top) > kMaxSide || a.left < w.left || a.right > w.right || a.bottom < w.bottom ||
        a.top > w.top || a.left > a.right || a.bottom > a.top)
        return false;
    l.window = w;
    l.active = a;
    l.width = int(side(w.left, w.right));
    l.leading = a.left - w.left;
    l.active_width = int(side(a.left, a.right));
    l.trailing = w.right - a.right;
    l.active_height = int(side(a.bottom, a.top));
    l.channels = 0;
    l.row_bytes = 0;
    for (int g = 0; g < 3; ++g) {
        l.codecs[g] = nullptr;
        l.counts[g] = 0;
        if (groups[g].count == 0) continue;
        group = g;
        if (groups[g].count < 0 || groups[g].count > kMaxChannels) {
            fault = rla::Fault::type;
            return false;
        }
        if (!(l.codecs[g] = rla::codec_for(groups[g].type, groups[g].width, fault))) return false;
        l.counts[g] = groups[g].count;
        l.channels += groups[g].count;
        l.row_bytes += uint64_t(groups[g].count) * uint64_t(l.width) * uint64_t(l.codecs[g]->bytes);
    }
    group = -1;
    return l.channels > 0;
}

bool plausible(const unsigned char *bytes, std::size_t n) noexcept {
    return n >= 10 && std::memcmp(bytes, kMagic, 8) == 0;
}

}  // namespace pxf::mpc

int PXF_mpc_is_file(const char *path, void *stream) {
    unsigned char bytes[10];
    std::size_t got = 0;
    if (stream) {
        auto *s = static_cast<std::FILE *>(stream);
        std::rewind(s);
        got = std::fread(bytes, 1, sizeof bytes, s);
    } else if (path) {
        std::FILE *s = std::fopen(path, "rb");
        if (!s) return 0;
        got = std::fread(bytes, 1, sizeof bytes, s);
        std::fclose(s);
    }
    return pxf::mpc::plausible(bytes, got) ? 1 : 0;
}

namespace pxf {

const PXF_TYPE mpc_driver_type = {
    .next = nullptr,
    .builtin = 1,
    .version = "3.2",
    .key = "mpc",
    .extension = ".mpc",
    .name = "mpc",
    .description = "multi-frame container",
    .format_string = "%s%s",
    .name_syntax = "Name.Ext",
    .add_extension = 1,
    .usage = 255,
    .orientation = 1,
    .bits_per_palette_entry = 0,
    .number_of_channels = 4096,
    .bits_per_channel = 64,
    .number_of_mattes = 4096,
    .bits_per_matte = 64,
    .number_of_z_channels = 4096,
    .bits_per_z_channel = 64,
    .supports_active_window = 1,
    .access = 28,  // reads, writes, and reads scanlines in any order
    .multi_frame = 2,
    .hard_link_duplicates = 1,
    .supports_remote_access = 0,
    .capability = nullptr,
    .caps_avail_update = nullptr,
    .read_open = PXF_mpc_r_open,
    .write_open = PXF_mpc_w_open,
    .done = nullptr,
    .is_file = PXF_mpc_is_file,
    .private_ui_popup = nullptr,
    .private_ui_popdown = nullptr,
    .text_set = 0,
    .text_number = 0,
};

}  // namespace pxf
