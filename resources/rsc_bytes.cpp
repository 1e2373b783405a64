// Machine-independent byte order: resource files are big-endian.
#include <pxf/rsc.h>

#include <pxf/wmi.h>

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
        WMI_put_u16(out_buffer, v, WMI_BIG_ENDIAN);
        return out_buffer;
    }
    case 2: {
        uint32_t v;
        std::memcpy(&v, value, sizeof v);
        WMI_put_u32(out_buffer, v, WMI_BIG_ENDIAN);
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
        uint16_t v = WMI_get_u16(s, WMI_BIG_ENDIAN);
        std::memcpy(destination, &v, sizeof v);
        return 1;
    }
    case 2: {
        uint32_t v = WMI_get_u32(s, WMI_BIG_ENDIAN);
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
