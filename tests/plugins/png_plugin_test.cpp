// The PNG driver against files that libpng writes itself, and its own files
// read back by libpng.
#include <png.h>

#include <cmath>
#include <cstdio>

#include <gtest/gtest.h>

#include "plugin_host.h"
#include "support/test_support.h"

namespace pxf::test {
namespace {

// A pattern that differs per channel, column and row and uses the full range.
unsigned sample(int c, int x, int y, int depth) {
    return depth == 16 ? unsigned(x * 1031 + y * 4099 + c * 16411) & 0xffffu : unsigned(x * 7 + y * 13 + c * 61) & 0xffu;
}

int channels_of(int colour_type) {
    switch (colour_type) {
    case PNG_COLOR_TYPE_GRAY: return 1;
    case PNG_COLOR_TYPE_GRAY_ALPHA: return 2;
    case PNG_COLOR_TYPE_RGB: return 3;
    default: return 4;
    }
}

// Writes a PNG with libpng alone.
void write_reference(const std::string &path, int width, int height, int colour_type, int depth, int interlace) {
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_set_IHDR(png, info, png_uint_32(width), png_uint_32(height), depth, colour_type, interlace,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_gAMA(png, info, 1.0 / 1.8);
    png_write_info(png, info);
    int n = channels_of(colour_type), bytes = depth / 8;
    std::vector<std::vector<png_byte>> rows(std::size_t(height), std::vector<png_byte>(std::size_t(width * n * bytes)));
    std::vector<png_bytep> pointers;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < n; ++c) {
                unsigned v = sample(c, x, y, depth);
                png_byte *at = &rows[std::size_t(y)][std::size_t((x * n + c) * bytes)];
                if (bytes == 2) at[0] = png_byte(v >> 8), at[1] = png_byte(v);  // big endian
                else at[0] = png_byte(v);
            }
        pointers.push_back(rows[std::size_t(y)].data());
    }
    png_write_image(png, pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
}

class PngDriver : public ::testing::Test {
protected:
    void SetUp() override { load_drivers(); }
    TempDir dir;
};

TEST_F(PngDriver, ReadsEveryColourTypeDepthAndInterlaceThatLibpngWrites) {
    const int types[] = {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA};
    for (int type : types)
        for (int depth : {8, 16})
            for (int interlace : {PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7}) {
                SCOPED_TRACE("colour type " + std::to_string(type) + ", depth " + std::to_string(depth) +
                             (interlace ? ", interlaced" : ""));
                std::string path = dir.file("ref.png");
                write_reference(path, 37, 11, type, depth, interlace);
                Pixels p;
                ASSERT_TRUE(read_image(path, nullptr, p));
                int n = channels_of(type), alpha = (type & PNG_COLOR_MASK_ALPHA) ? 1 : 0;
                EXPECT_EQ(p.width, 37);
                EXPECT_EQ(p.height, 11);
                EXPECT_EQ(p.chan.count, n - alpha);
                EXPECT_EQ(p.matte.count, alpha);
                EXPECT_EQ(p.aux.count, 0);
                EXPECT_EQ(p.chan.width, depth);
                EXPECT_FLOAT_EQ(p.gamma, 1.8f);
                int wrong = 0;
                for (int c = 0; c < n; ++c)
                    for (int y = 0; y < 11; ++y)
                        for (int x = 0; x < 37; ++x)
                            wrong += p.values[std::size_t(c)][std::size_t(y * 37 + x)] != sample(c, x, y, depth);
                EXPECT_EQ(wrong, 0);
            }
}

TEST_F(PngDriver, PaletteWithTransparencyReadsAsRgbAndMatte) {
    std::string path = dir.file("palette.png");
    FILE *f = std::fopen(path.c_str(), "wb");
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_set_IHDR(png, info, 4, 1, 8, PNG_COLOR_TYPE_PALETTE, 0, 0, 0);
    png_color palette[2] = {{10, 20, 30}, {200, 100, 50}};
    png_byte alpha[2] = {0, 255};
    png_set_PLTE(png, info, palette, 2);
    png_set_tRNS(png, info, alpha, 2, nullptr);
    png_write_info(png, info);
    png_byte row[4] = {0, 1, 1, 0};
    png_write_row(png, row);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);

    Pixels p;
    ASSERT_TRUE(read_image(path, nullptr, p));
    ASSERT_EQ(p.chan.count, 3);
    ASSERT_EQ(p.matte.count, 1);
    EXPECT_EQ(p.values[0][1], 200);
    EXPECT_EQ(p.values[2][0], 30);
    EXPECT_EQ(p.values[3][0], 0);
    EXPECT_EQ(p.values[3][2], 255);
}

void describe_for_png(PXF_INFO &info) {
    static char text[] = "a test card";
    info.desc = text;
    info.red_pri[0] = 0.64f, info.red_pri[1] = 0.33f;
    info.green_pri[0] = 0.3f, info.green_pri[1] = 0.6f;
    info.blue_pri[0] = 0.15f, info.blue_pri[1] = 0.06f;
    info.white_pt[0] = 0.3127f, info.white_pt[1] = 0.329f;
}

TEST_F(PngDriver, WrittenFilesCarryGammaChromaticitiesAndTextForLibpng) {
    Pixels in;
    in.width = 5, in.height = 3, in.gamma = 1.8f;
    in.chan = {nullptr, 3, PXF_C_INTEGER, 16, 0};
    in.matte = {nullptr, 1, PXF_C_INTEGER, 16, 0};
    in.aux = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    in.values.assign(4, std::vector<double>(15));
    for (int c = 0; c < 4; ++c)
        for (int i = 0; i < 15; ++i) in.values[std::size_t(c)][std::size_t(i)] = sample(c, i % 5, i / 5, 16);
    std::string path = dir.file("out.png");
    ASSERT_TRUE(write_image(path, "png", in, describe_for_png));

    FILE *f = std::fopen(path.c_str(), "rb");
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_read_info(png, info);
    EXPECT_EQ(png_get_color_type(png, info), PNG_COLOR_TYPE_RGB_ALPHA);
    EXPECT_EQ(png_get_bit_depth(png, info), 16);
    double gamma = 0, wx, wy, rx, ry, gx, gy, bx, by;
    ASSERT_TRUE(png_get_gAMA(png, info, &gamma));
    EXPECT_NEAR(gamma, 1 / 1.8, 1e-4);
    ASSERT_TRUE(png_get_cHRM(png, info, &wx, &wy, &rx, &ry, &gx, &gy, &bx, &by));
    EXPECT_NEAR(wx, 0.3127, 1e-4);
    EXPECT_NEAR(gy, 0.6, 1e-4);
    png_textp texts;
    int count = png_get_text(png, info, &texts, nullptr);
    bool described = false;
    for (int i = 0; i < count; ++i)
        described |= std::string(texts[i].key) == "Description" && std::string(texts[i].text) == "a test card";
    EXPECT_TRUE(described);
    std::vector<png_byte> row(5 * 4 * 2);
    int wrong = 0;
    for (int y = 0; y < 3; ++y) {
        png_read_row(png, row.data(), nullptr);
        for (int x = 0; x < 5; ++x)
            for (int c = 0; c < 4; ++c) {
                unsigned v = unsigned(row[std::size_t((x * 4 + c) * 2)] << 8 | row[std::size_t((x * 4 + c) * 2 + 1)]);
                wrong += v != sample(c, x, y, 16);
            }
    }
    EXPECT_EQ(wrong, 0);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
}

TEST_F(PngDriver, OddWidthsAreRescaledAndFloatsRefused) {
    Pixels in;
    in.width = 2, in.height = 1;
    in.chan = {nullptr, 1, PXF_C_INTEGER, 12, 0};
    in.matte = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    in.aux = in.matte;
    in.values = {{4095, 0}};
    std::string path = dir.file("grey12.png");
    ASSERT_TRUE(write_image(path, "png", in));
    Pixels back;
    ASSERT_TRUE(read_image(path, nullptr, back));
    EXPECT_EQ(back.chan.width, 16);
    EXPECT_EQ(back.values[0][0], 65535);
    EXPECT_EQ(back.values[0][1], 0);

    ReportCapture reports;
    in.chan.type = PXF_C_FLOAT;
    in.chan.width = 32;
    EXPECT_FALSE(write_image(dir.file("float.png"), "png", in));
    EXPECT_NE(reports.last().find("integer"), std::string::npos) << reports.last();
}

TEST_F(PngDriver, DamagedFilesAreReportedNotFatal) {
    std::string good = dir.file("good.png");
    write_reference(good, 64, 64, PNG_COLOR_TYPE_RGB, 8, PNG_INTERLACE_NONE);
    std::string bytes = read_file(good);
    struct Case {
        const char *name;
        std::string contents;
    } cases[] = {
        {"cut in the pixel data", bytes.substr(0, bytes.size() / 2)},
        {"cut in the header", bytes.substr(0, 20)},
        {"scrambled pixel data", bytes.substr(0, 60) + std::string(bytes.size() - 60, '\x5a')},
        {"signature only", bytes.substr(0, 8)},
        {"not a PNG", "hello, world"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir.file("bad.png");
        write_file(path, c.contents);
        ReportCapture reports;
        Pixels p;
        EXPECT_FALSE(read_image(path, "png", p));
        ASSERT_FALSE(reports.reports().empty());
        EXPECT_NE(reports.reports().front().text.find(path), std::string::npos) << reports.reports().front().text;
    }
}

TEST_F(PngDriver, ContentProbeOutranksTheName) {
    std::string path = dir.file("really_a_png.tif");
    write_reference(path, 2, 2, PNG_COLOR_TYPE_GRAY, 8, PNG_INTERLACE_NONE);
    int decided = 1;
    const char *key = PXF_get_file_type(path.c_str(), nullptr, &decided);
    ASSERT_NE(key, nullptr);
    EXPECT_STREQ(key, "png");
}

}  // namespace
}  // namespace pxf::test
