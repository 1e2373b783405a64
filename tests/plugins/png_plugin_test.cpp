// The PNG driver against files that libpng writes itself, and its own files
// read back by libpng.
#include <png.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

#include "core/core_test_util.h"
#include "plugin_host.h"

namespace pxf::test {
namespace {

using PngDriver = DriverTest;

// A pattern that differs per channel, column and row and uses the full range.
double sample(int c, int x, int y, int depth) {
    return depth == 16 ? (x * 1031 + y * 4099 + c * 16411) & 0xffff : (x * 7 + y * 13 + c * 61) & 0xff;
}

int channels_of(int type) { return (type & PNG_COLOR_MASK_COLOR ? 3 : 1) + (type & PNG_COLOR_MASK_ALPHA ? 1 : 0); }

// Two palette entries, the first transparent; palette pixels are (x + y) % 2.
const png_color kPalette[2] = {{10, 20, 30}, {200, 100, 50}};
png_byte kAlpha[2] = {0, 255};

// Writes a PNG with libpng alone.
void write_reference(const std::string &path, int width, int height, int type, int depth, int interlace,
                     bool with_gamma = true) {
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_set_IHDR(png, info, width, height, depth, type, interlace, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (with_gamma) png_set_gAMA(png, info, 1.0 / 1.8);
    if (type == PNG_COLOR_TYPE_PALETTE) png_set_PLTE(png, info, kPalette, 2), png_set_tRNS(png, info, kAlpha, 2, nullptr);
    png_write_info(png, info);
    const int n = type == PNG_COLOR_TYPE_PALETTE ? 1 : channels_of(type), bytes = depth / 8;
    std::vector<std::vector<png_byte>> rows(height, std::vector<png_byte>(width * n * bytes));
    std::vector<png_bytep> pointers;
    for (int y = 0; y < height; ++y) {
        for (int i = 0; i < width * n; ++i) {  // big endian
            unsigned v = type == PNG_COLOR_TYPE_PALETTE ? (i + y) % 2 : unsigned(sample(i % n, i / n, y, depth));
            rows[y][i * bytes] = png_byte(v >> 8), rows[y][i * bytes + bytes - 1] = png_byte(v);
        }
        pointers.push_back(rows[y].data());
    }
    png_write_image(png, pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
}

TEST_F(PngDriver, ReadsEveryColourTypeDepthAndInterlaceThatLibpngWrites) {
    const std::string path = dir.file("ref.png");
    Pixels p;
    for (int type : {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA})
        for (int depth : {8, 16})
            for (int interlace : {PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7}) {
                SCOPED_TRACE(testing::Message() << "colour type " << type << ", depth " << depth << ", interlace " << interlace);
                write_reference(path, 37, 11, type, depth, interlace);
                ASSERT_TRUE(read_image(path, nullptr, p));
                const int alpha = type & PNG_COLOR_MASK_ALPHA ? 1 : 0;
                EXPECT_EQ(std::vector<int>({p.width, p.height, p.chan.count, p.matte.count, p.aux.count, p.chan.width}),
                          std::vector<int>({37, 11, channels_of(type) - alpha, alpha, 0, depth}));
                EXPECT_FLOAT_EQ(p.gamma, 1.8f);
                EXPECT_EQ(p.mismatches([&](int c, int x, int y) { return sample(c, x, y, depth); }), 0);
            }
    // A palette with transparency reads as colour and matte.
    write_reference(path, 5, 3, PNG_COLOR_TYPE_PALETTE, 8, PNG_INTERLACE_NONE);
    ASSERT_TRUE(read_image(path, nullptr, p));
    ASSERT_EQ(p.chan.count * 10 + p.matte.count, 31);
    EXPECT_EQ(p.mismatches([](int c, int x, int y) {
        const png_color &e = kPalette[(x + y) % 2];
        return c == 0 ? e.red : c == 1 ? e.green : c == 2 ? e.blue : kAlpha[(x + y) % 2];
    }), 0);
}

void describe_for_png(PXF_INFO &info) {
    set_text(info.desc, "a test card");
    info.red_pri[0] = 0.64f, info.red_pri[1] = 0.33f;
    info.green_pri[0] = 0.3f, info.green_pri[1] = 0.6f;
    info.blue_pri[0] = 0.15f, info.blue_pri[1] = 0.06f;
    info.white_pt[0] = 0.3127f, info.white_pt[1] = 0.329f;
}

TEST_F(PngDriver, WrittenFilesCarryGammaChromaticitiesAndTextForLibpng) {
    Pixels in(5, 3, 3, 1, 0, PXF_C_INTEGER, 16, [](int c, int x, int y) { return sample(c, x, y, 16); });
    in.matte.extra = PXF_MATTE_UNASSOCIATED;  // stored as given
    in.gamma = 1.8f;
    const std::string path = dir.file("out.png");
    ASSERT_TRUE(write_image(path, "png", in, describe_for_png));

    FILE *f = std::fopen(path.c_str(), "rb");
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_read_info(png, info);
    EXPECT_EQ(png_get_color_type(png, info), PNG_COLOR_TYPE_RGB_ALPHA);
    EXPECT_EQ(png_get_bit_depth(png, info), 16);
    double gamma = 0, wx, wy, rx, ry, gx, gy, bx, by;
    ASSERT_TRUE(png_get_gAMA(png, info, &gamma) && png_get_cHRM(png, info, &wx, &wy, &rx, &ry, &gx, &gy, &bx, &by));
    EXPECT_NEAR(gamma, 1 / 1.8, 1e-4);
    EXPECT_NEAR(wx, 0.3127, 1e-4);
    EXPECT_NEAR(gy, 0.6, 1e-4);
    png_textp texts;
    const int count = png_get_text(png, info, &texts, nullptr);
    EXPECT_TRUE(std::any_of(texts, texts + count, [](const png_text &t) {
        return std::string(t.key) == "Description" && std::string(t.text) == "a test card";
    }));
    std::vector<png_byte> row(5 * 4 * 2);
    int wrong = 0;
    for (int y = 0; y < 3; ++y) {
        png_read_row(png, row.data(), nullptr);
        for (int i = 0; i < 5 * 4; ++i) wrong += (row[2 * i] << 8 | row[2 * i + 1]) != sample(i % 4, i / 4, y, 16);
    }
    EXPECT_EQ(wrong, 0);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
}

// PNG colour is never premultiplied: associated colour is divided by the
// matte on the way in, and what is read is labelled unassociated.
TEST_F(PngDriver, AssociatedColourIsDividedByTheMatte) {
    // (colour, matte): transparent, half, opaque, colour above its matte, tiny matte.
    const double colour[5] = {7, 64, 200, 150, 1}, matte[5] = {0, 128, 255, 100, 2};
    const double divided[5] = {7, 128, 200, 255, 128};
    for (int label : {PXF_MATTE_UNSPECIFIED, PXF_MATTE_ASSOCIATED, PXF_MATTE_UNASSOCIATED}) {
        SCOPED_TRACE(label);
        Pixels in(5, 1, 3, 1, 0, PXF_C_INTEGER, 8, [&](int c, int x, int) { return c < 3 ? colour[x] : matte[x]; }), back;
        in.matte.extra = label;
        ASSERT_TRUE(write_image(dir.file("a.png"), "png", in));
        ASSERT_TRUE(read_image(dir.file("a.png"), nullptr, back));
        EXPECT_EQ(back.matte.extra, PXF_MATTE_UNASSOCIATED);
        const double *want = label == PXF_MATTE_UNASSOCIATED ? colour : divided;
        EXPECT_EQ(back.mismatches([&](int c, int x, int) { return c < 3 ? want[x] : matte[x]; }), 0);
    }
}

// A file that says nothing of its gamma or primaries reads with the
// defaults, marked as assumed, and is written back saying nothing either.
void date_zero(PXF_INFO &info) { set_text(info.date, "{0}"); }

TEST_F(PngDriver, FileWithoutGammaOrChromaticitiesGainsNone) {
    Pixels p;
    write_reference(dir.file("said.png"), 3, 2, PNG_COLOR_TYPE_RGB, 8, PNG_INTERLACE_NONE);
    ASSERT_TRUE(read_image(dir.file("said.png"), nullptr, p));
    EXPECT_EQ(p.chan.extra, PXF_CHAN_PRIMARIES_ASSUMED);
    write_reference(dir.file("bare.png"), 3, 2, PNG_COLOR_TYPE_RGB, 8, PNG_INTERLACE_NONE, false);
    ASSERT_TRUE(read_image(dir.file("bare.png"), nullptr, p));
    EXPECT_EQ(p.chan.extra, PXF_CHAN_GAMMA_ASSUMED | PXF_CHAN_PRIMARIES_ASSUMED);
    EXPECT_FLOAT_EQ(p.gamma, 2.2f);
    ASSERT_TRUE(write_image(dir.file("out.png"), "png", p, date_zero));

    FILE *f = std::fopen(dir.file("out.png").c_str(), "rb");
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_read_info(png, info);
    EXPECT_FALSE(png_get_valid(png, info, PNG_INFO_gAMA));
    EXPECT_FALSE(png_get_valid(png, info, PNG_INFO_cHRM));
    // The library's "{seconds}" date becomes an RFC 1123 date.
    png_textp texts;
    const int count = png_get_text(png, info, &texts, nullptr);
    EXPECT_TRUE(std::any_of(texts, texts + count, [](const png_text &t) {
        return std::string(t.key) == "Creation Time" && std::string(t.text) == "Thu, 01 Jan 1970 00:00:00 GMT";
    }));
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
}

TEST_F(PngDriver, OddWidthsAreRescaledAndFloatsRefused) {
    Pixels in(2, 1, 1, 0, 0, PXF_C_INTEGER, 12, [](int, int x, int) { return x ? 0 : 4095; }), back;
    ASSERT_TRUE(write_image(dir.file("grey12.png"), "png", in));
    ASSERT_TRUE(read_image(dir.file("grey12.png"), nullptr, back));
    EXPECT_EQ(back.chan.width, 16);
    EXPECT_EQ(back.values[0], (std::vector<double>{65535, 0}));
    ReportCapture reports;
    in.chan.type = PXF_C_FLOAT, in.chan.width = 32;
    EXPECT_FALSE(write_image(dir.file("float.png"), "png", in));
    EXPECT_NE(reports.last().find("integer"), std::string::npos) << reports.last();
}

const char *compression_choice;
void choose_compression(PXF_INFO &info) { set_text(info.compression, compression_choice); }

// Matching methods, filters and levels change the bytes, never the pixels.
TEST_F(PngDriver, EveryMethodFilterAndLevelKeepsThePixels) {
    Pixels in(120, 40, 3, 1, 0, PXF_C_INTEGER, 16, [](int c, int x, int y) { return double((x * 300 + y * 700 + c * 9000) & 0xffff); });
    in.matte.extra = PXF_MATTE_UNASSOCIATED;  // stored as given
    const std::size_t raw = std::size_t(40) * (1 + 120 * 4 * 2);
    std::map<std::string, std::size_t> sizes;
    for (const char *text : {"", "rle", "deflate", "deflate;level=9", "huffman", "none", "rle;filter=none",
                             "deflate;filter=sub", "rle;filter=up", ";filter=average", "rle;filter=paeth;level=1",
                             "deflate;filter=adaptive", "deflate;level=0"}) {
        SCOPED_TRACE(text);
        compression_choice = text;
        ASSERT_TRUE(write_image(dir.file("m.png"), "png", in, choose_compression));
        Pixels back;
        ASSERT_TRUE(read_image(dir.file("m.png"), nullptr, back));
        EXPECT_EQ(back.values, in.values);
        sizes[text] = read_file(dir.file("m.png")).size();
    }
    // The settings reach libpng and zlib: stored blocks hold every byte, the
    // filters turn these ramps into runs.
    EXPECT_GT(sizes["none"], raw);
    EXPECT_GT(sizes["deflate;level=0"], raw);
    EXPECT_LT(sizes[""] * 2, sizes["rle;filter=none"]);
    EXPECT_LT(sizes["deflate"] * 2, sizes["huffman"]);  // period-8 repeats: no runs of one byte
}

TEST_F(PngDriver, CompressionSettingsItCannotHonourAreRefusedByName) {
    const Pixels in(4, 2, 1, 0, 0, PXF_C_INTEGER, 8, [](int, int x, int) { return x; });
    const std::pair<const char *, const char *> refused[] = {
        {"lzw", "\"lzw\""},           {"rle;filter=diagonal", "diagonal"}, {"rle;level=10", "0 to 9"},
        {"rle;predictor=horizontal", "\"predictor\""}, {"rle;;level=1", "KEY=VALUE"},
    };
    for (const auto &[text, reason] : refused) {
        SCOPED_TRACE(text);
        ReportCapture reports;
        compression_choice = text;
        EXPECT_FALSE(write_image(dir.file("r.png"), "png", in, choose_compression));
        EXPECT_NE(reports.last().find(reason), std::string::npos) << reports.last();
        EXPECT_FALSE(std::ifstream(dir.file("r.png")).good());
    }
}

TEST_F(PngDriver, DamagedFilesAreReportedNotFatal) {
    write_reference(dir.file("good.png"), 64, 64, PNG_COLOR_TYPE_RGB, 8, PNG_INTERLACE_NONE);
    const std::string bytes = read_file(dir.file("good.png"));
    expect_damage_reported(dir.file("bad.png"), "png",
                           {bytes.substr(0, bytes.size() / 2), bytes.substr(0, 20),  // cut in the pixels, in the header
                            bytes.substr(0, 60) + std::string(bytes.size() - 60, '\x5a'),  // scrambled pixels
                            bytes.substr(0, 8), "hello, world"});  // the signature alone, not a PNG
}

TEST_F(PngDriver, ContentProbeOutranksTheName) {
    const std::string path = dir.file("really_a_png.tif");
    write_reference(path, 2, 2, PNG_COLOR_TYPE_GRAY, 8, PNG_INTERLACE_NONE);
    int decided = 1;
    const char *key = PXF_get_file_type(path.c_str(), nullptr, &decided);
    ASSERT_NE(key, nullptr);
    EXPECT_STREQ(key, "png");
}

}  // namespace
}  // namespace pxf::test
