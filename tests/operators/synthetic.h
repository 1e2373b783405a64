// A tiny image driver for the operator tests: made by hand (no registry),
// it delivers known pixels when read, records what reaches it when written
// and logs its close.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <pxf/pxf.h>

namespace pxf::test {

// Events in order: "close" from the driver, and what tests add.
std::vector<std::string> &event_log();
// Scanlines read from synthetic images so far.
int &scan_count();

// One image, window 0..width-1 x 0..height-1 (top down unless bottom_up),
// every group of the given type and bits.
PXF_IMAGE_DESC synthetic_desc(int width, int height, int channels, int type, int bits, int mattes = 0, int aux = 0);

// The value the driver delivers for pixel x of `line`, channel c of the
// whole row array, for an integer group of `bits` bits or a float group.
uint32_t integer_pixel(int line, int x, int c, int bits);
double float_pixel(int line, int x, int c);

// An image opened with `mode` (PXF_MODE_READ or PXF_MODE_WRITE) over `desc`.
PXF_IMAGE *synthetic_image(const PXF_IMAGE_DESC &desc, int mode);

// What reached synthetic write images, by scanline: every channel row, as
// many bytes as the description at open time says.  Tests clear it.
std::map<int, std::vector<uint8_t>> &written_lines();

// Element of a row as an unsigned integer or a double.
inline uint32_t int_at(const void *row, int bits, int x) {
    if (bits <= 8) return static_cast<const uint8_t *>(row)[x];
    if (bits <= 16) return static_cast<const uint16_t *>(row)[x];
    return static_cast<const uint32_t *>(row)[x];
}

inline PXF_OPERATOR *top_of(PXF_IMAGE *image) { return static_cast<PXF_OPERATOR *>(image->private_data[0]); }

}  // namespace pxf::test
