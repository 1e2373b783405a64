// Loads the PNG and TIFF driver modules into the test program and reads or
// writes whole images through the library.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <pxf/pxf.h>

#include "support/test_support.h"

namespace pxf::test {

// dlopens the driver modules once and registers them with PXF_init.
void load_drivers();

using Pattern = std::function<double(int channel, int x, int y)>;

// A whole image as numbers: values[channel][y * width + x], rows top down,
// channels in group order (colour, matte, auxiliary).
struct Pixels {
    int width = 0, height = 0;
    PXF_CHAN_GROUP chan{}, matte{}, aux{};
    float gamma = 0.0f;
    std::string compression;
    std::vector<std::vector<double>> values;

    Pixels() = default;
    // Groups of one type and width, filled from `f`.
    Pixels(int w, int h, int colours, int mattes, int aux, int type, int bits, const Pattern &f);
    // How many values differ from `f`.
    int mismatches(const Pattern &f) const;
};

// Reads through PXF_open with `key`; false (with the reason reported) when
// the open or a scanline fails.
bool read_image(const std::string &path, const char *key, Pixels &out);

// Writes `in` through PXF_open with `key`; `setup` may adjust the info
// (with heap strings) before opening.
bool write_image(const std::string &path, const char *key, const Pixels &in, void (*setup)(PXF_INFO &) = nullptr);

// Each of `files`, stored at `path`, must fail to read with a first report
// that names the file.
void expect_damage_reported(const std::string &path, const char *key, const std::vector<std::string> &files);

// Writes `in` through a link to a file in `dir` and to /dev/null: the link
// keeps pointing at its file, which is replaced whole and reads back; the
// device stays a device; nothing but the file and the link is left in `dir`.
void expect_writes_replace_whole_files(TempDir &dir, const char *key, const char *ext, const Pixels &in);

class DriverTest : public ::testing::Test {
protected:
    void SetUp() override { load_drivers(); }
    TempDir dir;
};

}  // namespace pxf::test
