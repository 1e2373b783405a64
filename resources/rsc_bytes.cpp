// Machine-independent byte order: resource files are big-endian.
#include <pxf/rsc.h>

#include <cstring>

namespace {
unsigned char out_buffer[4];
}

extern "C" {

unsigned char *rsc__mio(const void *value, int mode) {
    if (!value) return nullptr;
    switch (mode) {
    case 1: {
        uint16_t v;
        std::memcpy(&v, value, sizeof v);
        out_buffer[0] = static_cast<unsigned char>(v >> 8);
        out_buffer[1] = static_cast<unsigned char>(v);
        return out_buffer;
    }
    case 2: {
        uint32_t v;
        std::memcpy(&v, value, sizeof v);
        out_buffer[0] = static_cast<unsigned char>(v >> 24);
        out_buffer[1] = static_cast<unsigned char>(v >> 16);
        out_buffer[2] = static_cast<unsigned char>(v >> 8);
        out_buffer[3] = static_cast<unsigned char>(v);
        return out_buffer;
    }
    case 3:
        std::memcpy(out_buffer, value, sizeof out_buffer);
        return out_buffer;
    default:
        return nullptr;
    }
}

int rsc__mii(void *destination, const void *source, int mode) {
    if (!destination || !source) return 0;
    const auto *s = static_cast<const unsigned char *>(source);
    switch (mode) {
    case 1: {
        auto v = static_cast<uint16_t>((s[0] << 8) | s[1]);
        std::memcpy(destination, &v, sizeof v);
        return 1;
    }
    case 2: {
        uint32_t v = (uint32_t{s[0]} << 24) | (uint32_t{s[1]} << 16) | (uint32_t{s[2]} << 8) | s[3];
        std::memcpy(destination, &v, sizeof v);
        return 1;
    }
    case 3:
        std::memcpy(destination, source, 4);
        return 1;
    default:
        return 0;
    }
}

}  // extern "C"
