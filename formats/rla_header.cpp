// The RLA header layout, the probe and the driver's registry row.
#include "formats/rla_header.h"

#include <cstring>

namespace pxf::rla {

namespace {

// A text field: at most size - 1 characters, NUL-padded.
void put_text(unsigned char *at, std::size_t size, const char *s) {
    std::memset(at, 0, size);
    if (!s) return;
    std::size_t n = std::strlen(s);
    if (n > size - 1) n = size - 1;
    std::memcpy(at, s, n);
}

// Copies a field that may lack its NUL into a buffer one byte longer.
template <std::size_t N>
void get_text(const unsigned char *at, char (&out)[N]) {
    std::memcpy(out, at, N - 1);
    out[N - 1] = '\0';
}

template <std::size_t N>
void put_text(unsigned char *at, const char (&s)[N]) {
    put_text(at, N - 1, s);
}

void put_bounds(unsigned char *at, const PXF_BOUNDS &b) {
    put16(at, b.left);
    put16(at + 2, b.right);
    put16(at + 4, b.bottom);
    put16(at + 6, b.top);
}

PXF_BOUNDS get_bounds(const unsigned char *at) {
    return {get16(at), get16(at + 2), get16(at + 4), get16(at + 6)};
}

}  // namespace

void pack(const Header &h, unsigned char out[kHeaderSize]) noexcept {
    std::memset(out, 0, kHeaderSize);
    put_bounds(out, h.window);
    put_bounds(out + 8, h.active);
    put16(out + 16, h.frame);
    put16(out + 18, h.chan_type);
    put16(out + 20, h.chan_count);
    put16(out + 22, h.matte_count);
    put16(out + 24, h.aux_count);
    put16(out + 26, h.revision);
    put_text(out + 28, h.gamma);
    put_text(out + 44, h.red);
    put_text(out + 68, h.green);
    put_text(out + 92, h.blue);
    put_text(out + 116, h.white);
    put32(out + 140, uint32_t(h.job));
    put_text(out + 144, h.name);
    put_text(out + 272, h.desc);
    put_text(out + 400, h.program);
    put_text(out + 464, h.machine);
    put_text(out + 496, h.user);
    put_text(out + 528, h.date);
    put_text(out + 548, h.aspect);
    put_text(out + 572, h.aspect_ratio);
    put_text(out + 580, h.chan_format);
    put16(out + 612, h.field);
    put_text(out + kTimeOffset, h.time);
    put_text(out + 626, h.filter);
    put16(out + 658, h.chan_bits);
    put16(out + 660, h.matte_type);
    put16(out + 662, h.matte_bits);
    put16(out + 664, h.aux_type);
    put16(out + 666, h.aux_bits);
    put_text(out + 668, h.aux_format);
    put32(out + kNextOffset, h.next);
}

void unpack(const unsigned char in[kHeaderSize], Header &h) noexcept {
    h.window = get_bounds(in);
    h.active = get_bounds(in + 8);
    h.frame = get16(in + 16);
    h.chan_type = get16(in + 18);
    h.chan_count = get16(in + 20);
    h.matte_count = get16(in + 22);
    h.aux_count = get16(in + 24);
    h.revision = get16(in + 26);
    get_text(in + 28, h.gamma);
    get_text(in + 44, h.red);
    get_text(in + 68, h.green);
    get_text(in + 92, h.blue);
    get_text(in + 116, h.white);
    h.job = int32_t(get32(in + 140));
    get_text(in + 144, h.name);
    get_text(in + 272, h.desc);
    get_text(in + 400, h.program);
    get_text(in + 464, h.machine);
    get_text(in + 496, h.user);
    get_text(in + 528, h.date);
    get_text(in + 548, h.aspect);
    get_text(in + 572, h.aspect_ratio);
    get_text(in + 580, h.chan_format);
    h.field = get16(in + 612);
    get_text(in + kTimeOffset, h.time);
    get_text(in + 626, h.filter);
    h.chan_bits = get16(in + 658);
    h.matte_type = get16(in + 660);
    h.matte_bits = get16(in + 662);
    h.aux_type = get16(in + 664);
    h.aux_bits = get16(in + 666);
    get_text(in + 668, h.aux_format);
    h.next = get32(in + kNextOffset);
}

bool plausible(const unsigned char in[kHeaderSize]) noexcept {
    PXF_BOUNDS w = get_bounds(in), a = get_bounds(in + 8);
    if (w.left < 0 || w.right < 0 || w.bottom < 0 || w.top < 0) return false;
    if (a.left < 0 || a.right < 0 || a.bottom < 0 || a.top < 0) return false;
    if (w.left > w.right || w.bottom > w.top || a.left > a.right || a.bottom > a.top) return false;
    if (w.left > a.left || w.right < a.right || w.bottom > a.bottom || w.top < a.top) return false;
    if (!in[548] && !in[572]) return false;
    if (get16u(in + 20) > 3) return false;
    if (get16(in + 22) < 0 || get16(in + 660) < 0) return false;
    return get16(in + 18) >= 0;
}

int storage_type(int element_type) noexcept {
    switch (element_type) {
    case PXF_C_FLOAT: return kStoreFloat;
    case PXF_C_DOUBLE: return kStoreDouble;
    default: return kStoreInteger;
    }
}

int element_type(int storage) noexcept {
    switch (storage) {
    case kStoreInteger: return PXF_C_INTEGER;
    case kStoreFloat: return PXF_C_FLOAT;
    case kStoreDouble: return PXF_C_DOUBLE;
    default: return 0;
    }
}

const Codec *codec_for(int type, int width, Fault &fault) noexcept {
    static const Codec byte{rla__enc_byte, rla__dec_byte, rla__inact_dec_byte, 1, 0};
    static const Codec shrt{rla__enc_short, rla__dec_short, rla__inact_dec_short, 2, 0};
    static const Codec word{rla__enc_word, rla__dec_word, rla__inact_dec_word, 4, 0};
    static const Codec flt{rla__enc_float, rla__dec_float, rla__inact_dec_float, 4, 32};
    static const Codec dbl{rla__enc_double, rla__dec_double, rla__inact_dec_double, 8, 64};
    fault = Fault::none;
    switch (type) {
    case PXF_C_INTEGER:
        if (width <= 8) return &byte;
        if (width <= 16) return &shrt;
        if (width <= 32) return &word;
        fault = Fault::width;
        return nullptr;
    case PXF_C_FLOAT: return &flt;
    case PXF_C_DOUBLE: return &dbl;
    default: fault = Fault::type; return nullptr;
    }
}

const Group kGroups[3] = {
    {&PXF_IMAGE_DESC::chan, 72, "%s cannot handle image channel type", 73, "%s cannot handle image channel width"},
    {&PXF_IMAGE_DESC::matte, 79, "%s cannot handle matte channel type", 80, "%s cannot handle matte channel width"},
    {&PXF_IMAGE_DESC::aux, 70, "%s cannot handle auxiliary channel type", 71,
     "%s cannot handle auxiliary channel width"},
};

}  // namespace pxf::rla

int PXF_rla_is_file(const char *path, void *stream) {
    unsigned char header[pxf::rla::kHeaderSize];
    std::size_t got = 0;
    if (stream) {
        auto *in = static_cast<std::FILE *>(stream);
        std::rewind(in);
        got = std::fread(header, 1, sizeof header, in);
    } else {
        if (!path) return 0;
        std::FILE *in = std::fopen(path, "rb");
        if (!in) return 0;
        got = std::fread(header, 1, sizeof header, in);
        std::fclose(in);
    }
    return got == sizeof header && pxf::rla::plausible(header) ? 1 : 0;
}

namespace pxf {

const PXF_TYPE rla_driver_type = {
    .next = nullptr,
    .builtin = 1,
    .version = "3.2",
    .key = "rla",
    .extension = ".rla",
    .name = "rla",
    .description = "run length encoded",
    .format_string = "%s.%04.4d%s",
    .name_syntax = "Name.####.Ext",
    .add_extension = 1,
    .usage = 255,
    .orientation = 1,
    .bits_per_palette_entry = 0,
    .number_of_channels = 3,
    .bits_per_channel = 64,
    .number_of_mattes = 32767,
    .bits_per_matte = 64,
    .number_of_z_channels = 32767,
    .bits_per_z_channel = 64,
    .supports_active_window = 1,
    .access = 28,  // reads, writes, and reads scanlines in any order
    .multi_frame = 0,
    .hard_link_duplicates = 1,
    .supports_remote_access = 0,
    .capability = nullptr,
    .caps_avail_update = nullptr,
    .read_open = PXF_rla_r_open,
    .write_open = PXF_rla_w_open,
    .done = nullptr,
    .is_file = PXF_rla_is_file,
    .private_ui_popup = nullptr,
    .private_ui_popdown = nullptr,
    .text_set = 0,
    .text_number = 0,
};

}  // namespace pxf
