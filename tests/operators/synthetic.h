// A tiny image driver for the operator tests, made by hand (no registry):
// it delivers known pixels when read, records what reaches it when written
// and logs its close.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <pxf/pxf.h>

namespace pxf::test {

// "close" when a synthetic image closes, and what tests add.
inline std::vector<std::string> event_log;
// Scanlines read from synthetic images.
inline int scan_count = 0;
// When set, the first values of the first channel of float images.
inline std::vector<float> float_override;
// What reached synthetic write images, by scanline: every channel row as
// the description at open time lays it out.
inline std::map<int, std::vector<uint8_t>> written_lines;

// Window 0..width-1 x 0..height-1, top down, gamma 1, every group alike.
PXF_IMAGE_DESC synthetic_desc(int width, int height, int channels, int type, int bits, int mattes = 0, int aux = 0);
PXF_IMAGE *synthetic_image(const PXF_IMAGE_DESC &desc, int mode);

// The pixels delivered: integers of `bits` bits, or floats in 0..1.
uint32_t integer_pixel(int line, int x, int c, int bits);
float float_pixel(int line, int x, int c);

inline PXF_OPERATOR *top_of(PXF_IMAGE *image) { return static_cast<PXF_OPERATOR *>(image->private_data[0]); }

}  // namespace pxf::test
