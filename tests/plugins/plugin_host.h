// Loads the PNG and TIFF driver modules into the test program and reads or
// writes whole images through the library.
#pragma once

#include <pxf/pxf.h>

#include <string>
#include <vector>

namespace pxf::test {

// dlopens the driver modules once and registers them with PXF_init.
void load_drivers();

// A whole image as numbers: values[channel][row * width + x], rows top down,
// channels in group order (colour, matte, auxiliary).
struct Pixels {
    int width = 0, height = 0;
    PXF_CHAN_GROUP chan{}, matte{}, aux{};
    float gamma = 0.0f;
    std::string compression;
    std::vector<std::vector<double>> values;
};

// Reads through PXF_open with `key`; false (with the reason reported) when
// the open or a scanline fails.
bool read_image(const std::string &path, const char *key, Pixels &out);

// Writes `in` through PXF_open with `key`; every group of `in` must carry a
// type and width.  `setup` may adjust the info before opening.
bool write_image(const std::string &path, const char *key, const Pixels &in, void (*setup)(PXF_INFO &) = nullptr);

}  // namespace pxf::test
