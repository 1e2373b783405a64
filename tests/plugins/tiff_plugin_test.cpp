// The TIFF driver against files that libtiff writes itself, and its own files
// read back by libtiff.
#include <tiffio.h>

#include <cmath>
#include <fstream>
#include <map>

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
    int predictor = PREDICTOR_NONE;
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
    if (r.predictor != PREDICTOR_NONE) TIFFSetField(tif, TIFFTAG_PREDICTOR, uint16_t(r.predictor));
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
        // Predicted strips, as other programs write them (tiffcp -c lzw:2, -c zip:3).
        {"8-bit RGBA, LZW, horizontal predictor", 8, false, PHOTOMETRIC_RGB, {alpha}, PLANARCONFIG_CONTIG,
         COMPRESSION_LZW, "LZW, horizontal predictor", 1, {0, 1, 2, 3}, PREDICTOR_HORIZONTAL},
        {"16-bit grey, planes, Deflate, horizontal predictor", 16, false, PHOTOMETRIC_MINISBLACK, {other},
         PLANARCONFIG_SEPARATE, COMPRESSION_ADOBE_DEFLATE, "Deflate, horizontal predictor", 0, {0, 1},
         PREDICTOR_HORIZONTAL},
        {"32-bit RGB, LZW, horizontal predictor", 32, false, PHOTOMETRIC_RGB, {}, PLANARCONFIG_CONTIG, COMPRESSION_LZW,
         "LZW, horizontal predictor", 0, {0, 1, 2}, PREDICTOR_HORIZONTAL},
        {"float RGB, Deflate, float predictor", 32, true, PHOTOMETRIC_RGB, {}, PLANARCONFIG_CONTIG,
         COMPRESSION_ADOBE_DEFLATE, "Deflate, float predictor", 0, {0, 1, 2}, PREDICTOR_FLOATINGPOINT},
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

// What libtiff reads back from our file: the predictor, the rows per strip
// and how many of the samples differ from `expected`.
struct ReadBack {
    int predictor = -1;
    uint32_t rows_per_strip = 0, strips = 0;
    int wrong = -1;
};
ReadBack read_back(const std::string &path, const Pixels &expected) {
    ReadBack r;
    TIFF *tif = TIFFOpen(path.c_str(), "r");
    if (!tif) return r;
    uint16_t predictor = PREDICTOR_NONE, spp = 0, bps = 0;
    if (!TIFFGetFieldDefaulted(tif, TIFFTAG_PREDICTOR, &predictor)) predictor = PREDICTOR_NONE;  // codecs without one
    TIFFGetField(tif, TIFFTAG_ROWSPERSTRIP, &r.rows_per_strip);
    TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &bps);
    r.predictor = predictor;
    r.strips = TIFFNumberOfStrips(tif);
    r.wrong = 0;
    const PXF_CHAN_GROUP g{nullptr, spp, expected.chan.type, bps, 0};
    std::vector<uint32_t> row(std::size_t(expected.width) * spp * bps / 32 + 1);
    for (int y = 0; y < expected.height; ++y) {
        if (TIFFReadScanline(tif, row.data(), uint32_t(y), 0) < 0) return TIFFClose(tif), r.wrong = -1, r;
        for (int i = 0; i < expected.width * spp; ++i)
            r.wrong += element(row.data(), i, g) != expected.values[i % spp][std::size_t(y) * expected.width + i / spp];
    }
    TIFFClose(tif);
    return r;
}

// Predictors and levels change the bytes, never the samples; strips are
// large (hundreds of rows here), the last one shorter.
TEST_F(TiffDriver, PredictorsAndLevelsKeepEverySampleInStripsOfAboutTwoMegabytes) {
    const Pixels ints(1000, 400, 3, 0, 0, PXF_C_INTEGER, 16, [](int c, int x, int y) { return double((x * 37 + y * 11 + c * 1000) & 0xffff); });
    const Pixels floats(300, 7, 1, 1, 0, PXF_C_FLOAT, 32, [](int c, int x, int y) { return (x - 3 * y + c) * 0.125; });
    // Noise clipped at the top half the time: the predictor only scrambles the runs.
    const Pixels clipped(1000, 60, 3, 0, 0, PXF_C_INTEGER, 16, [](int c, int x, int y) {
        uint32_t h = uint32_t(x) * 2654435761u ^ uint32_t(y) * 40503u ^ uint32_t(c) * 97u;
        h = (h ^ h >> 15) * 0x5bd1e995u;
        h = (h ^ h >> 13) & 0xffff;
        return double(h > 0x8000 ? 0xffff : h);
    });
    const struct {
        const Pixels &in;
        const char *text;
        int predictor;
    } cases[] = {
        {ints, "lzw", PREDICTOR_HORIZONTAL},  // the defaults, where the predictor pays
        {clipped, "lzw", PREDICTOR_NONE},     // and where it does not
        {clipped, "deflate", PREDICTOR_NONE},
        {clipped, "lzw;predictor=horizontal", PREDICTOR_HORIZONTAL},
        {ints, "deflate", PREDICTOR_HORIZONTAL},
        {floats, "", PREDICTOR_FLOATINGPOINT},
        {floats, "deflate", PREDICTOR_FLOATINGPOINT},
        {ints, "lzw;predictor=none", PREDICTOR_NONE},
        {ints, "deflate; level = 1 ;predictor=horizontal", PREDICTOR_HORIZONTAL},
        {ints, "deflate;level=9", PREDICTOR_HORIZONTAL},
        {floats, "lzw;predictor=horizontal", PREDICTOR_HORIZONTAL},
        {floats, "deflate;predictor=3", PREDICTOR_FLOATINGPOINT},
        {ints, "none", PREDICTOR_NONE},
        {ints, "packbits;predictor=none", PREDICTOR_NONE},
    };
    std::map<std::string, std::size_t> sizes;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        compression_choice = c.text;
        ASSERT_TRUE(write_image(dir.file("p.tif"), "tiff", c.in, choose_compression));
        const ReadBack r = read_back(dir.file("p.tif"), c.in);
        EXPECT_EQ(r.predictor, c.predictor);
        EXPECT_EQ(r.wrong, 0);
        const std::size_t line = std::size_t(c.in.width) * (c.in.chan.count + c.in.matte.count) * 4 / (c.in.chan.type == PXF_C_FLOAT ? 1 : 2);
        EXPECT_EQ(r.rows_per_strip, std::min<std::size_t>((std::size_t(2) << 20) / line, c.in.height));
        if (&c.in == &ints) {
            EXPECT_EQ(r.strips, 2u);  // 349 + 51 rows
        }
        sizes[std::string(&c.in == &clipped ? "clipped " : "") + c.text] = read_file(dir.file("p.tif")).size();
        Pixels back;  // and through the driver
        ASSERT_TRUE(read_image(dir.file("p.tif"), nullptr, back));
        EXPECT_EQ(back.values, c.in.values);
    }
    // The settings reach the codec: the predictor shrinks the ramps, a higher level shrinks more.
    EXPECT_LT(sizes["lzw"] * 2, sizes["lzw;predictor=none"]);
    EXPECT_LT(sizes["clipped lzw"], sizes["clipped lzw;predictor=horizontal"]);
    EXPECT_LT(sizes["deflate;level=9"], sizes["deflate; level = 1 ;predictor=horizontal"]);
}

// Strips compressed on helper threads make the file one thread makes.  Noise
// grows under LZW by more than libtiff's strip buffer holds, so each strip
// reaches the file in several pieces.
TEST_F(TiffDriver, StripsEncodedOnHelperThreadsMakeTheFileOneThreadMakes) {
    const Pixels noise(600, 2000, 3, 1, 0, PXF_C_INTEGER, 8, [](int c, int x, int y) {
        uint32_t h = uint32_t(x) * 2654435761u ^ uint32_t(y) * 40503u ^ uint32_t(c) * 97u;
        h ^= h >> 13;
        h *= 0x5bd1e995u;
        return double((h ^ h >> 15) & 0xff);
    });
    for (const char *method : {"lzw", "deflate;level=1"}) {
        SCOPED_TRACE(method);
        std::string one;
        for (const char *threads : {"1", "2", "4", ""}) {
            SCOPED_TRACE(threads);
            std::string text = std::string(method) + (*threads ? ";threads=" : "") + threads;
            compression_choice = text.c_str();
            ASSERT_TRUE(write_image(dir.file("t.tif"), "tiff", noise, [](PXF_INFO &info) {
                choose_compression(info);
                set_text(info.date, "{1000000000}");  // not the time of writing
            }));
            const ReadBack r = read_back(dir.file("t.tif"), noise);
            EXPECT_EQ(r.strips, 3u);  // 873 + 873 + 254 rows
            EXPECT_EQ(r.wrong, 0);
            if (one.empty()) one = read_file(dir.file("t.tif"));
            else EXPECT_TRUE(read_file(dir.file("t.tif")) == one);
        }
    }
}

TEST_F(TiffDriver, CompressionSettingsItCannotHonourAreRefusedByName) {
    const Pixels ints(4, 2, 1, 0, 0, PXF_C_INTEGER, 8, [](int, int x, int) { return x; });
    const std::pair<const char *, const char *> refused[] = {
        {"lzw;predictor=diagonal", "diagonal"},
        {"lzw;predictor=float", "float samples"},
        {"packbits;predictor=horizontal", "LZW or Deflate"},
        {"lzw;level=5", "only TIFF Deflate"},
        {"deflate;level=10", "1 to 9"},
        {"deflate;quality=5", "\"quality\""},
        {"deflate;level", "KEY=VALUE"},
        {"deflate;level=", "KEY=VALUE"},
        {"lzw;threads=0", "1 to 4 threads"},
    };
    for (const auto &[text, reason] : refused) {
        SCOPED_TRACE(text);
        ReportCapture reports;
        compression_choice = text;
        EXPECT_FALSE(write_image(dir.file("r.tif"), "tiff", ints, choose_compression));
        EXPECT_NE(reports.last().find(reason), std::string::npos) << reports.last();
        EXPECT_FALSE(std::ifstream(dir.file("r.tif")).good());
    }
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
