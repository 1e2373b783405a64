// The TIFF driver against files that libtiff writes itself, and its own files
// read back by libtiff.
#include <tiffio.h>

#include <cmath>

#include "core/core_test_util.h"
#include "plugin_host.h"
#include "support/elements.h"

namespace pxf::test {
namespace {

using TiffDriver = DriverTest;

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
    int planar, compression;
    const char *compression_text;
    int mattes;
    std::vector<int> order;  // the file sample of each of our channels: colours, mattes, the rest
};

void write_reference(const std::string &path, const Reference &r, int width, int height) {
    const int spp = (r.photometric == PHOTOMETRIC_RGB ? 3 : 1) + int(r.extras.size());
    const bool planes = r.planar == PLANARCONFIG_SEPARATE;
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
    const PXF_CHAN_GROUP g{nullptr, spp, r.is_float ? PXF_C_FLOAT : PXF_C_INTEGER, r.bits, 0};
    std::vector<uint32_t> row(width * spp * r.bits / 32 + 1);  // host order, as libtiff expects
    for (int plane = 0; plane < (planes ? spp : 1); ++plane)
        for (int y = 0; y < height; ++y) {
            for (int i = 0; i < width * (planes ? 1 : spp); ++i) {
                const double v = planes ? sample(plane, i, y, r.bits, r.is_float) : sample(i % spp, i / spp, y, r.bits, r.is_float);
                element(row.data(), i, g, &v);
            }
            ASSERT_GE(TIFFWriteScanline(tif, row.data(), uint32_t(y), uint16_t(plane)), 0);
        }
    TIFFClose(tif);
}

TEST_F(TiffDriver, ReadsLibtiffFilesOfEveryDepthLayoutAndCompression) {
    const uint16_t alpha = EXTRASAMPLE_UNASSALPHA, other = EXTRASAMPLE_UNSPECIFIED;
    const Reference refs[] = {
        {"8-bit RGB", 8, false, PHOTOMETRIC_RGB, {}, PLANARCONFIG_CONTIG, COMPRESSION_NONE, "none", 0, {0, 1, 2}},
        {"16-bit grey, alpha, extra, planes", 16, false, PHOTOMETRIC_MINISBLACK, {alpha, other}, PLANARCONFIG_SEPARATE,
         COMPRESSION_LZW, "LZW", 1, {0, 1, 2}},
        {"32-bit RGB + 2 extras", 32, false, PHOTOMETRIC_RGB, {other, other}, PLANARCONFIG_CONTIG,
         COMPRESSION_ADOBE_DEFLATE, "Deflate", 0, {0, 1, 2, 3, 4}},
        {"float RGBA", 32, true, PHOTOMETRIC_RGB, {EXTRASAMPLE_ASSOCALPHA}, PLANARCONFIG_CONTIG, COMPRESSION_PACKBITS,
         "PackBits", 1, {0, 1, 2, 3}},
        {"extra before alpha", 8, false, PHOTOMETRIC_RGB, {other, alpha}, PLANARCONFIG_CONTIG, COMPRESSION_LZW, "LZW",
         1, {0, 1, 2, 4, 3}},
    };
    for (const Reference &r : refs) {
        SCOPED_TRACE(r.name);
        write_reference(dir.file("ref.tif"), r, 19, 7);
        Pixels p;
        ASSERT_TRUE(read_image(dir.file("ref.tif"), nullptr, p));
        const int colours = r.photometric == PHOTOMETRIC_RGB ? 3 : 1;
        EXPECT_EQ(std::vector<int>({p.chan.count, p.matte.count, p.aux.count, p.chan.type, p.chan.width}),
                  std::vector<int>({colours, r.mattes, int(r.extras.size()) - r.mattes, r.is_float ? PXF_C_FLOAT : PXF_C_INTEGER, r.bits}));
        EXPECT_EQ(p.compression, r.compression_text);
        ASSERT_EQ(p.values.size(), r.order.size());
        EXPECT_EQ(p.mismatches([&](int c, int x, int y) { return sample(r.order[c], x, y, r.bits, r.is_float); }), 0);
    }
}

const char *compression_choice;
void choose_compression(PXF_INFO &info) { set_text(info.compression, compression_choice); }

TEST_F(TiffDriver, WritesEachCompressionForLibtiffWithExtraChannels) {
    const Pixels in(13, 5, 3, 1, 2, PXF_C_INTEGER, 16, [](int c, int x, int y) { return sample(c, x, y, 16, false); });
    const std::pair<const char *, int> choices[] = {{"none", COMPRESSION_NONE}, {"lzw", COMPRESSION_LZW},
        {"deflate", COMPRESSION_ADOBE_DEFLATE}, {"packbits", COMPRESSION_PACKBITS}};
    for (const auto &[option, code] : choices) {
        SCOPED_TRACE(option);
        compression_choice = option;
        ASSERT_TRUE(write_image(dir.file("out.tif"), "tiff", in, choose_compression));
        TIFF *tif = TIFFOpen(dir.file("out.tif").c_str(), "r");
        ASSERT_NE(tif, nullptr);
        uint16_t compression = 0, spp = 0, bps = 0, count = 0, *extras = nullptr;
        TIFFGetField(tif, TIFFTAG_COMPRESSION, &compression);
        TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
        TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &bps);
        TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &count, &extras);
        EXPECT_EQ(std::vector<int>({compression, spp, bps, count}), std::vector<int>({code, 6, 16, 3}));
        ASSERT_GE(count, 2);
        // A matte of no stated association is the library's: associated.
        EXPECT_EQ(extras[0] * 10 + extras[1], EXTRASAMPLE_ASSOCALPHA * 10 + EXTRASAMPLE_UNSPECIFIED);
        std::vector<uint16_t> row(13 * 6);
        int wrong = 0;
        for (int y = 0; y < 5; ++y) {
            ASSERT_GE(TIFFReadScanline(tif, row.data(), uint32_t(y), 0), 0);
            for (int i = 0; i < 13 * 6; ++i) wrong += row[i] != sample(i % 6, i / 6, y, 16, false);
        }
        EXPECT_EQ(wrong, 0);
        TIFFClose(tif);
    }
    ReportCapture reports;
    compression_choice = "jpeg2000";
    EXPECT_FALSE(write_image(dir.file("bad.tif"), "tiff", in, choose_compression));
    EXPECT_NE(reports.last().find("jpeg2000"), std::string::npos);
}

// The extra-sample tag says whether colour is premultiplied; the label
// travels through the description both ways, numbers untouched.
TEST_F(TiffDriver, MatteAssociationTravelsWithTheExtraSampleTag) {
    for (uint16_t tag : {EXTRASAMPLE_ASSOCALPHA, EXTRASAMPLE_UNASSALPHA}) {
        SCOPED_TRACE(tag);
        const Reference r{"RGBA", 8, false, PHOTOMETRIC_RGB, {tag}, PLANARCONFIG_CONTIG, COMPRESSION_NONE, "none", 1, {}};
        write_reference(dir.file("ref.tif"), r, 5, 3);
        Pixels p;
        ASSERT_TRUE(read_image(dir.file("ref.tif"), nullptr, p));
        EXPECT_EQ(p.matte.extra, tag == EXTRASAMPLE_ASSOCALPHA ? PXF_MATTE_ASSOCIATED : PXF_MATTE_UNASSOCIATED);
    }
    const std::pair<int, uint16_t> labels[] = {{PXF_MATTE_UNSPECIFIED, EXTRASAMPLE_ASSOCALPHA},
                                               {PXF_MATTE_ASSOCIATED, EXTRASAMPLE_ASSOCALPHA},
                                               {PXF_MATTE_UNASSOCIATED, EXTRASAMPLE_UNASSALPHA}};
    for (const auto &[label, tag] : labels) {
        SCOPED_TRACE(label);
        Pixels in(4, 2, 3, 2, 1, PXF_C_INTEGER, 8, [](int c, int x, int y) { return sample(c, x, y, 8, false); }), back;
        in.matte.extra = label;
        ASSERT_TRUE(write_image(dir.file("out.tif"), "tiff", in));
        TIFF *tif = TIFFOpen(dir.file("out.tif").c_str(), "r");
        ASSERT_NE(tif, nullptr);
        uint16_t count = 0, *extras = nullptr;
        ASSERT_TRUE(TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &count, &extras));
        EXPECT_EQ(std::vector<uint16_t>(extras, extras + count), (std::vector<uint16_t>{tag, tag, EXTRASAMPLE_UNSPECIFIED}));
        TIFFClose(tif);
        ASSERT_TRUE(read_image(dir.file("out.tif"), nullptr, back));
        EXPECT_EQ(back.matte.extra, label == PXF_MATTE_UNASSOCIATED ? PXF_MATTE_UNASSOCIATED : PXF_MATTE_ASSOCIATED);
        EXPECT_EQ(back.values, in.values);
    }
}

// TIFF states no gamma and, here, no primaries: both read as assumed, and
// assumed primaries are not written.  A PNG's RFC 1123 date becomes DateTime.
void rfc_date(PXF_INFO &info) { set_text(info.date, "Thu, 01 Jan 1970 01:02:03 GMT"); }

TEST_F(TiffDriver, AssumedPrimariesStayUnwrittenAndDatesTakeTiffForm) {
    setenv("TZ", "UTC", 1);
    tzset();
    Pixels in(3, 2, 3, 0, 0, PXF_C_INTEGER, 8, [](int c, int x, int y) { return sample(c, x, y, 8, false); }), back;
    for (int assumed : {0, PXF_CHAN_PRIMARIES_ASSUMED}) {
        SCOPED_TRACE(assumed);
        in.chan.extra = assumed;
        ASSERT_TRUE(write_image(dir.file("out.tif"), "tiff", in, rfc_date));
        TIFF *tif = TIFFOpen(dir.file("out.tif").c_str(), "r");
        ASSERT_NE(tif, nullptr);
        float *primaries = nullptr;
        char *date = nullptr;
        EXPECT_EQ(TIFFGetField(tif, TIFFTAG_PRIMARYCHROMATICITIES, &primaries) != 0, assumed == 0);
        ASSERT_TRUE(TIFFGetField(tif, TIFFTAG_DATETIME, &date));
        EXPECT_STREQ(date, "1970:01:01 01:02:03");
        TIFFClose(tif);
        ASSERT_TRUE(read_image(dir.file("out.tif"), nullptr, back));
        EXPECT_EQ(back.chan.extra, PXF_CHAN_GAMMA_ASSUMED | assumed);
    }
}

// Mixed groups are stored as float, and float files are linear: encoded
// integer colour is decoded on the way.
TEST_F(TiffDriver, MixedGroupsAreStoredAsLinearFloat) {
    Pixels in(2, 1, 1, 0, 1, PXF_C_INTEGER, 8, [](int c, int x, int) { return c ? (x ? -1 : 7.5) : (x ? 51 : 255); });
    in.aux.type = PXF_C_FLOAT, in.aux.width = 32;
    for (float gamma : {1.0f, 2.0f}) {
        in.gamma = gamma;
        Pixels back;
        ASSERT_TRUE(write_image(dir.file("mixed.tif"), "tiff", in));
        ASSERT_TRUE(read_image(dir.file("mixed.tif"), nullptr, back));
        EXPECT_EQ(back.chan.type, PXF_C_FLOAT);
        EXPECT_EQ(back.gamma, 1.0f);
        EXPECT_FLOAT_EQ(float(back.values[0][0]), 1.0f);
        EXPECT_FLOAT_EQ(float(back.values[0][1]), std::pow(0.2f, gamma));
        EXPECT_EQ(back.values[1], (std::vector<double>{7.5, -1}));
    }
}

TEST_F(TiffDriver, DamagedFilesAreReportedNotFatal) {
    write_reference(dir.file("good.tif"), {"ref", 8, false, PHOTOMETRIC_RGB, {}, PLANARCONFIG_CONTIG, COMPRESSION_LZW, "LZW", 0, {}}, 64, 64);
    const std::string bytes = read_file(dir.file("good.tif"));
    std::string scrambled = bytes;
    for (std::size_t i = 8; i < scrambled.size() / 2; ++i) scrambled[i] = char(scrambled[i] ^ 0x5a);
    expect_damage_reported(dir.file("bad.tif"), "tiff",
                           {bytes.substr(0, bytes.size() / 3), bytes.substr(0, 8), scrambled, "II*\0garbage"});
}

}  // namespace
}  // namespace pxf::test
