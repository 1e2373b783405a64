// The TIFF driver against files that libtiff writes itself, and its own files
// read back by libtiff.
#include <tiffio.h>

#include <cstring>

#include <gtest/gtest.h>

#include "plugin_host.h"
#include "support/test_support.h"

namespace pxf::test {
namespace {

double sample(int s, int x, int y, int bits, bool is_float) {
    if (is_float) return (x + 3 * y + 11 * s) * 0.125 - 2.0;  // also outside 0..1
    uint64_t v = uint64_t(x) * 2654435761u + uint64_t(y) * 40503u + uint64_t(s) * 977u;
    return double(bits == 32 ? v & 0xffffffffu : v & ((1u << bits) - 1));
}

struct Reference {
    const char *name;
    int bits;
    bool is_float;
    int photometric;
    std::vector<uint16_t> extras;  // EXTRASAMPLE_ codes
    int planar;
    int compression;
    const char *compression_text;
};

void write_reference(const std::string &path, const Reference &r, int width, int height) {
    int colours = r.photometric == PHOTOMETRIC_RGB ? 3 : 1;
    int spp = colours + int(r.extras.size()), bytes = r.bits / 8;
    TIFF *tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(height));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(spp));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(r.bits));
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, uint16_t(r.is_float ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, uint16_t(r.photometric));
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, uint16_t(r.planar));
    TIFFSetField(tif, TIFFTAG_COMPRESSION, uint16_t(r.compression));
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 3u);
    if (!r.extras.empty()) TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(r.extras.size()), r.extras.data());
    std::vector<unsigned char> row(std::size_t(width * spp * bytes));
    auto put = [&](unsigned char *at, double v) {
        if (r.is_float) { float f = float(v); std::memcpy(at, &f, 4); }
        else if (bytes == 1) *at = uint8_t(v);
        else if (bytes == 2) { uint16_t w = uint16_t(v); std::memcpy(at, &w, 2); }
        else { uint32_t w = uint32_t(v); std::memcpy(at, &w, 4); }
    };
    if (r.planar == PLANARCONFIG_SEPARATE) {
        for (int s = 0; s < spp; ++s)
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) put(&row[std::size_t(x * bytes)], sample(s, x, y, r.bits, r.is_float));
                ASSERT_GE(TIFFWriteScanline(tif, row.data(), uint32_t(y), uint16_t(s)), 0);
            }
    } else {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
                for (int s = 0; s < spp; ++s)
                    put(&row[std::size_t((x * spp + s) * bytes)], sample(s, x, y, r.bits, r.is_float));
            ASSERT_GE(TIFFWriteScanline(tif, row.data(), uint32_t(y), 0), 0);
        }
    }
    TIFFClose(tif);
}

class TiffDriver : public ::testing::Test {
protected:
    void SetUp() override { load_drivers(); }
    TempDir dir;
};

TEST_F(TiffDriver, ReadsLibtiffFilesOfEveryDepthLayoutAndCompression) {
    const uint16_t alpha = EXTRASAMPLE_UNASSALPHA, other = EXTRASAMPLE_UNSPECIFIED;
    const Reference refs[] = {
        {"8-bit RGB", 8, false, PHOTOMETRIC_RGB, {}, PLANARCONFIG_CONTIG, COMPRESSION_NONE, "none"},
        {"16-bit grey, alpha, extra, planes", 16, false, PHOTOMETRIC_MINISBLACK, {alpha, other}, PLANARCONFIG_SEPARATE,
         COMPRESSION_LZW, "LZW"},
        {"32-bit RGB + 2 extras", 32, false, PHOTOMETRIC_RGB, {other, other}, PLANARCONFIG_CONTIG,
         COMPRESSION_ADOBE_DEFLATE, "Deflate"},
        {"float RGBA", 32, true, PHOTOMETRIC_RGB, {EXTRASAMPLE_ASSOCALPHA}, PLANARCONFIG_CONTIG, COMPRESSION_PACKBITS,
         "PackBits"},
        {"extra before alpha", 8, false, PHOTOMETRIC_RGB, {other, alpha}, PLANARCONFIG_CONTIG, COMPRESSION_LZW, "LZW"},
    };
    const int w = 19, h = 7;
    for (const Reference &r : refs) {
        SCOPED_TRACE(r.name);
        std::string path = dir.file("ref.tif");
        write_reference(path, r, w, h);
        Pixels p;
        ASSERT_TRUE(read_image(path, nullptr, p));
        int colours = r.photometric == PHOTOMETRIC_RGB ? 3 : 1;
        std::vector<int> file_sample;  // caller's channel -> file sample
        for (int s = 0; s < colours; ++s) file_sample.push_back(s);
        for (std::size_t e = 0; e < r.extras.size(); ++e)
            if (r.extras[e] != other) file_sample.push_back(colours + int(e));
        int mattes = int(file_sample.size()) - colours;
        for (std::size_t e = 0; e < r.extras.size(); ++e)
            if (r.extras[e] == other) file_sample.push_back(colours + int(e));
        EXPECT_EQ(p.chan.count, colours);
        EXPECT_EQ(p.matte.count, mattes);
        EXPECT_EQ(p.aux.count, int(r.extras.size()) - mattes);
        EXPECT_EQ(p.chan.type, r.is_float ? PXF_C_FLOAT : PXF_C_INTEGER);
        EXPECT_EQ(p.chan.width, r.bits);
        EXPECT_EQ(p.compression, r.compression_text);
        ASSERT_EQ(p.values.size(), file_sample.size());
        int wrong = 0;
        for (std::size_t c = 0; c < p.values.size(); ++c)
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    wrong += p.values[c][std::size_t(y * w + x)] != sample(file_sample[c], x, y, r.bits, r.is_float);
        EXPECT_EQ(wrong, 0);
    }
}

char compression_choice[16];
void choose_compression(PXF_INFO &info) { info.compression = compression_choice; }

TEST_F(TiffDriver, WritesEachCompressionForLibtiffWithExtraChannels) {
    Pixels in;
    in.width = 13, in.height = 5;
    in.chan = {nullptr, 3, PXF_C_INTEGER, 16, 0};
    in.matte = {nullptr, 1, PXF_C_INTEGER, 16, 0};
    in.aux = {nullptr, 2, PXF_C_INTEGER, 16, 0};
    in.values.assign(6, std::vector<double>(65));
    for (int c = 0; c < 6; ++c)
        for (int i = 0; i < 65; ++i) in.values[std::size_t(c)][std::size_t(i)] = sample(c, i % 13, i / 13, 16, false);
    const struct {
        const char *option;
        int code;
    } choices[] = {{"none", COMPRESSION_NONE}, {"lzw", COMPRESSION_LZW}, {"deflate", COMPRESSION_ADOBE_DEFLATE},
                   {"packbits", COMPRESSION_PACKBITS}};
    for (const auto &choice : choices) {
        SCOPED_TRACE(choice.option);
        std::strcpy(compression_choice, choice.option);
        std::string path = dir.file("out.tif");
        ASSERT_TRUE(write_image(path, "tiff", in, choose_compression));
        TIFF *tif = TIFFOpen(path.c_str(), "r");
        ASSERT_NE(tif, nullptr);
        uint16_t compression = 0, spp = 0, bps = 0, count = 0, *extras = nullptr;
        TIFFGetField(tif, TIFFTAG_COMPRESSION, &compression);
        TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
        TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &count, &extras);
        EXPECT_EQ(compression, choice.code);
        EXPECT_EQ(spp, 6);
        EXPECT_EQ(bps, 16);
        ASSERT_EQ(count, 3);
        EXPECT_EQ(extras[0], EXTRASAMPLE_UNASSALPHA);
        EXPECT_EQ(extras[1], EXTRASAMPLE_UNSPECIFIED);
        std::vector<uint16_t> row(13 * 6);
        int wrong = 0;
        for (int y = 0; y < 5; ++y) {
            ASSERT_GE(TIFFReadScanline(tif, row.data(), uint32_t(y), 0), 0);
            for (int x = 0; x < 13; ++x)
                for (int s = 0; s < 6; ++s) wrong += row[std::size_t(x * 6 + s)] != sample(s, x, y, 16, false);
        }
        EXPECT_EQ(wrong, 0);
        TIFFClose(tif);
    }
    ReportCapture reports;
    std::strcpy(compression_choice, "jpeg2000");
    EXPECT_FALSE(write_image(dir.file("bad.tif"), "tiff", in, choose_compression));
    EXPECT_NE(reports.last().find("jpeg2000"), std::string::npos);
}

TEST_F(TiffDriver, MixedGroupsAreStoredAsLinearFloat) {
    Pixels in;
    in.width = 2, in.height = 1, in.gamma = 1.0f;
    in.chan = {nullptr, 1, PXF_C_INTEGER, 8, 0};
    in.matte = {nullptr, 0, PXF_C_INTEGER, 8, 0};
    in.aux = {nullptr, 1, PXF_C_FLOAT, 32, 0};
    in.values = {{255, 51}, {7.5, -1}};
    std::string path = dir.file("mixed.tif");
    ASSERT_TRUE(write_image(path, "tiff", in));
    Pixels back;
    ASSERT_TRUE(read_image(path, nullptr, back));
    EXPECT_EQ(back.chan.type, PXF_C_FLOAT);
    EXPECT_FLOAT_EQ(float(back.values[0][0]), 1.0f);
    EXPECT_FLOAT_EQ(float(back.values[0][1]), 0.2f);
    EXPECT_EQ(back.values[1][0], 7.5);
    EXPECT_EQ(back.values[1][1], -1);
    EXPECT_EQ(back.gamma, 1.0f);

    // Encoded integer colour is decoded: float files are linear.
    in.gamma = 2.0f;
    ASSERT_TRUE(write_image(path, "tiff", in));
    ASSERT_TRUE(read_image(path, nullptr, back));
    EXPECT_FLOAT_EQ(float(back.values[0][1]), 0.04f);
    EXPECT_EQ(back.values[1][0], 7.5);
}

TEST_F(TiffDriver, DamagedFilesAreReportedNotFatal) {
    Reference r{"ref", 8, false, PHOTOMETRIC_RGB, {}, PLANARCONFIG_CONTIG, COMPRESSION_LZW, "LZW"};
    std::string good = dir.file("good.tif");
    write_reference(good, r, 64, 64);
    std::string bytes = read_file(good);
    std::string scrambled = bytes;
    for (std::size_t i = 8; i < scrambled.size() / 2; ++i) scrambled[i] = char(scrambled[i] ^ 0x5a);
    struct Case {
        const char *name;
        std::string contents;
    } cases[] = {
        {"cut short", bytes.substr(0, bytes.size() / 3)},
        {"header only", bytes.substr(0, 8)},
        {"scrambled strips", scrambled},
        {"not a TIFF", "II*\0garbage"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir.file("bad.tif");
        write_file(path, c.contents);
        ReportCapture reports;
        Pixels p;
        EXPECT_FALSE(read_image(path, "tiff", p));
        ASSERT_FALSE(reports.reports().empty());
        EXPECT_NE(reports.reports().front().text.find(path), std::string::npos) << reports.reports().front().text;
    }
}

}  // namespace
}  // namespace pxf::test
