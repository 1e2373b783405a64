#include <pxf/wmi.h>

#include <bit>
#include <cstdio>
#include <cstring>

namespace {

template <class U>
void put(unsigned char *b, U v, int order) noexcept {
    constexpr int n = sizeof(U);
    for (int i = 0; i < n; ++i) {
        int shift = 8 * (order == WMI_LITTLE_ENDIAN ? i : n - 1 - i);
        b[i] = static_cast<unsigned char>(v >> shift);
    }
}

template <class U>
U get(const unsigned char *b, int order) noexcept {
    constexpr int n = sizeof(U);
    U v = 0;
    for (int i = 0; i < n; ++i) {
        int shift = 8 * (order == WMI_LITTLE_ENDIAN ? i : n - 1 - i);
        v |= static_cast<U>(static_cast<U>(b[i]) << shift);
    }
    return v;
}

template <class U>
int write(FILE *stream, U v, int order) noexcept {
    unsigned char b[sizeof(U)];
    put(b, v, order);
    return stream && std::fwrite(b, sizeof b, 1, stream) == 1 ? 0 : -1;
}

template <class U>
int read(FILE *stream, U *v, int order) noexcept {
    unsigned char b[sizeof(U)];
    if (!stream || !v || std::fread(b, 1, sizeof b, stream) != sizeof b) return -1;
    *v = get<U>(b, order);
    return 0;
}

template <class F, class U>
int read_float(FILE *stream, F *v, int order) noexcept {
    U bits;
    if (!v || read(stream, &bits, order) != 0) return -1;
    *v = std::bit_cast<F>(bits);
    return 0;
}

}  // namespace

extern "C" {

int WMI_host_order(void) { return std::endian::native == std::endian::little ? WMI_LITTLE_ENDIAN : WMI_BIG_ENDIAN; }

void WMI_put_u16(unsigned char *b, uint16_t v, int order) { put(b, v, order); }
void WMI_put_u32(unsigned char *b, uint32_t v, int order) { put(b, v, order); }
void WMI_put_u64(unsigned char *b, uint64_t v, int order) { put(b, v, order); }
void WMI_put_f32(unsigned char *b, float v, int order) { put(b, std::bit_cast<uint32_t>(v), order); }
void WMI_put_f64(unsigned char *b, double v, int order) { put(b, std::bit_cast<uint64_t>(v), order); }

uint16_t WMI_get_u16(const unsigned char *b, int order) { return get<uint16_t>(b, order); }
uint32_t WMI_get_u32(const unsigned char *b, int order) { return get<uint32_t>(b, order); }
uint64_t WMI_get_u64(const unsigned char *b, int order) { return get<uint64_t>(b, order); }
int16_t WMI_get_i16(const unsigned char *b, int order) { return static_cast<int16_t>(get<uint16_t>(b, order)); }
int32_t WMI_get_i32(const unsigned char *b, int order) { return static_cast<int32_t>(get<uint32_t>(b, order)); }
int64_t WMI_get_i64(const unsigned char *b, int order) { return static_cast<int64_t>(get<uint64_t>(b, order)); }
float WMI_get_f32(const unsigned char *b, int order) { return std::bit_cast<float>(get<uint32_t>(b, order)); }
double WMI_get_f64(const unsigned char *b, int order) { return std::bit_cast<double>(get<uint64_t>(b, order)); }

int WMI_write_u8(FILE *stream, uint8_t v) { return stream && std::fputc(v, stream) != EOF ? 0 : -1; }
int WMI_write_u16(FILE *stream, uint16_t v, int order) { return write(stream, v, order); }
int WMI_write_u32(FILE *stream, uint32_t v, int order) { return write(stream, v, order); }
int WMI_write_u64(FILE *stream, uint64_t v, int order) { return write(stream, v, order); }
int WMI_write_f32(FILE *stream, float v, int order) { return write(stream, std::bit_cast<uint32_t>(v), order); }
int WMI_write_f64(FILE *stream, double v, int order) { return write(stream, std::bit_cast<uint64_t>(v), order); }

int WMI_read_u8(FILE *stream, uint8_t *v) {
    int c = stream && v ? std::fgetc(stream) : EOF;
    if (c == EOF) return -1;
    *v = static_cast<uint8_t>(c);
    return 0;
}
int WMI_read_u16(FILE *stream, uint16_t *v, int order) { return read(stream, v, order); }
int WMI_read_u32(FILE *stream, uint32_t *v, int order) { return read(stream, v, order); }
int WMI_read_u64(FILE *stream, uint64_t *v, int order) { return read(stream, v, order); }
int WMI_read_f32(FILE *stream, float *v, int order) { return read_float<float, uint32_t>(stream, v, order); }
int WMI_read_f64(FILE *stream, double *v, int order) { return read_float<double, uint64_t>(stream, v, order); }

}  // extern "C"
