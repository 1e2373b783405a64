// The JPEG driver against files cjpeg and libjpeg write, and its own files
// decoded by djpeg.
#include <cstdio>
#include <jpeglib.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>

#include "core/core_test_util.h"
#include "plugin_host.h"

namespace pxf::test {
namespace {

using JpegDriver = DriverTest;

// Smooth, so that the codec's loss stays small.
double smooth(int c, int x, int y) { return std::floor(128 + 90 * std::sin(x * 0.11 + c) * std::cos(y * 0.07 - c)); }

// Mean absolute difference between `p` and `f` over every value.
double mean_error(const Pixels &p, const Pattern &f) {
    double sum = 0;
    std::size_t n = 0;
    for (std::size_t c = 0; c < p.values.size(); ++c)
        for (int i = 0; i < p.width * p.height; ++i, ++n) sum += std::fabs(p.values[c][i] - f(int(c), i % p.width, i / p.width));
    return n ? sum / double(n) : 1e9;
}

// A binary PPM or PGM of the pattern, as cjpeg takes it.
std::string netpbm(int w, int h, int channels) {
    std::string s = (channels == 3 ? "P6\n" : "P5\n") + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < channels; ++c) s += char(smooth(c, x, y));
    return s;
}

std::string run(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "r");
    std::string out;
    char buf[4096];
    std::size_t n;
    while (pipe && (n = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    if (pipe) {
        EXPECT_EQ(pclose(pipe), 0) << command;
    }
    return out;
}

// Values of a PNM that djpeg wrote, as Pixels of `channels` planes.
Pixels from_netpbm(const std::string &pnm, int channels) {
    Pixels p;
    int max = 0, used = 0;
    EXPECT_EQ(std::sscanf(pnm.c_str() + 2, "%d %d %d%n", &p.width, &p.height, &max, &used), 3);
    std::size_t at = 2 + std::size_t(used) + 1;
    p.values.assign(std::size_t(channels), std::vector<double>(std::size_t(p.width) * p.height));
    for (int i = 0; i < p.width * p.height; ++i)
        for (int c = 0; c < channels; ++c) p.values[c][i] = static_cast<unsigned char>(pnm[at++]);
    return p;
}

TEST_F(JpegDriver, ReadsBaselineProgressiveGreyAndCmykFiles) {
    const std::string source = dir.file("in.pnm"), path = dir.file("ref.jpg");
    for (int channels : {1, 3})
        for (const char *mode : {"", "-progressive"}) {
            SCOPED_TRACE(testing::Message() << channels << " channels " << mode);
            write_file(source, netpbm(53, 29, channels));
            run(std::string("cjpeg -quality 95 ") + mode + " -outfile '" + path + "' '" + source + "'");
            Pixels p;
            ASSERT_TRUE(read_image(path, "jpeg", p));
            EXPECT_EQ(std::vector<int>({p.width, p.height, p.chan.count, p.chan.width, p.matte.count}),
                      std::vector<int>({53, 29, channels, 8, 0}));
            EXPECT_EQ(p.compression, *mode ? "progressive" : "baseline");
            EXPECT_LT(mean_error(p, smooth), 2.0);
        }
    // CMYK written by libjpeg (Adobe's inverted convention), read as RGB.
    FILE *f = std::fopen(path.c_str(), "wb");
    jpeg_compress_struct out;
    jpeg_error_mgr err;
    out.err = jpeg_std_error(&err);
    jpeg_create_compress(&out);
    jpeg_stdio_dest(&out, f);
    out.image_width = 16, out.image_height = 8, out.input_components = 4, out.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&out);
    jpeg_set_quality(&out, 100, TRUE);
    out.write_Adobe_marker = TRUE;
    jpeg_start_compress(&out, TRUE);
    JSAMPLE row[16 * 4];
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 16; ++x) row[x * 4] = 255, row[x * 4 + 1] = 128, row[x * 4 + 2] = JSAMPLE(x * 16), row[x * 4 + 3] = 255;
        JSAMPROW r = row;
        jpeg_write_scanlines(&out, &r, 1);
    }
    jpeg_finish_compress(&out);
    jpeg_destroy_compress(&out);
    std::fclose(f);
    ReportCapture reports;
    Pixels p;
    ASSERT_TRUE(read_image(path, "jpeg", p));
    EXPECT_EQ(p.chan.count, 3);
    EXPECT_NE(p.compression.find("CMYK converted to RGB"), std::string::npos);
    ASSERT_FALSE(reports.reports().empty());  // the note
    // Inverted inks with K = 255 (no black): the light is the stored value.
    EXPECT_LT(mean_error(p, [](int c, int x, int) { return c == 0 ? 255.0 : c == 1 ? 128.0 : x * 16.0; }), 2.0);
}

void quality_and_comment(PXF_INFO &info) {
    static PXF_CAP_SETTING quality;
    static PXF_CAP_SETTING *list[2] = {&quality, nullptr};
    quality.code = 1;
    quality.value.real = 97.0f;
    info.specific = list;
    set_text(info.desc, "made by the driver");
    set_text(info.compression, "progressive");
}

TEST_F(JpegDriver, WritesGreyAndRgbThatDjpegDecodesWithQualityCommentAndProgression) {
    const std::string path = dir.file("ours.jpg");
    for (int channels : {1, 3}) {
        SCOPED_TRACE(testing::Message() << channels << " channels");
        Pixels in(61, 33, channels, 0, 0, PXF_C_INTEGER, 8, smooth);
        ASSERT_TRUE(write_image(path, "jpeg", in, quality_and_comment));
        Pixels decoded = from_netpbm(run("djpeg -pnm '" + path + "'"), channels);
        EXPECT_EQ(std::vector<int>({decoded.width, decoded.height}), std::vector<int>({61, 33}));
        EXPECT_LT(mean_error(decoded, smooth), 1.5);
        EXPECT_NE(run("rdjpgcom -verbose '" + path + "'").find("made by the driver"), std::string::npos);
        EXPECT_NE(run("rdjpgcom -verbose '" + path + "'").find("Progressive"), std::string::npos);
        Pixels back;
        ASSERT_TRUE(read_image(path, "jpeg", back));
        EXPECT_LT(mean_error(back, smooth), 1.5);
    }
    // 16-bit values are scaled to 8 bits.
    Pixels wide(8, 8, 1, 0, 0, PXF_C_INTEGER, 16, [](int, int x, int) { return x * 257.0 * 30; });
    ASSERT_TRUE(write_image(path, "jpeg", wide));
    Pixels back;
    ASSERT_TRUE(read_image(path, "jpeg", back));
    EXPECT_LT(mean_error(back, [](int, int x, int) { return x * 30.0; }), 2.0);
}

// cjpeg's file of a 4 x 2 grey image with an EXIF block (orientation `o`) after SOI.
std::string with_orientation(const std::string &jpeg, int o) {
    const char tiff[] = {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1, 0, char(o), 0, 0, 0, 0, 0, 0, 0, 0};
    std::string body = std::string("Exif\0\0", 6) + std::string(tiff, sizeof tiff);
    std::string app1 = std::string("\xff\xe1", 2) + char((body.size() + 2) >> 8) + char((body.size() + 2) & 0xff) + body;
    return jpeg.substr(0, 2) + app1 + jpeg.substr(2);
}

void upright(PXF_INFO &info) {
    static PXF_CAP_SETTING on;
    static PXF_CAP_SETTING *list[2] = {&on, nullptr};
    on.code = 0;
    on.value.integer = 1;
    info.specific = list;
}

TEST_F(JpegDriver, ExifOrientationTurnsTheImageUprightOnlyWhenAsked) {
    const std::string source = dir.file("in.pgm"), plain = dir.file("plain.jpg"), path = dir.file("turned.jpg");
    // Blocks of 16 x 16 so the codec keeps them apart: 64 x 32, four shades.
    auto shade = [](int x, int y) { return 40.0 + 60 * (x / 16) + (y / 16) * 10; };
    std::string pgm = "P5\n64 32\n255\n";
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 64; ++x) pgm += char(shade(x, y));
    write_file(source, pgm);
    run("cjpeg -quality 100 -grayscale -outfile '" + plain + "' '" + source + "'");
    const std::string bytes = read_file(plain);
    struct Case {
        int orientation, width;
        double (*expected)(int x, int y);
    };
    const Case cases[] = {
        {1, 64, [](int x, int y) { return 40.0 + 60 * (x / 16) + (y / 16) * 10; }},
        {3, 64, [](int x, int y) { return 40.0 + 60 * ((63 - x) / 16) + ((31 - y) / 16) * 10; }},
        {6, 32, [](int x, int y) { return 40.0 + 60 * (y / 16) + ((31 - x) / 16) * 10; }},
        {8, 32, [](int x, int y) { return 40.0 + 60 * ((63 - y) / 16) + (x / 16) * 10; }},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(testing::Message() << "orientation " << k.orientation);
        write_file(path, with_orientation(bytes, k.orientation));
        Pixels as_stored, turned;
        ASSERT_TRUE(read_image(path, "jpeg", as_stored));
        EXPECT_EQ(as_stored.width, 64);
        EXPECT_LT(mean_error(as_stored, [&](int, int x, int y) { return shade(x, y); }), 1.0);
        Request r;
        upright(r.info);
        r.set("jpeg", path.c_str());
        PXF_IMAGE *image = r.open("r");
        ASSERT_NE(image, nullptr);
        const PXF_IMAGE_DESC &d = image->info.images[0];
        ASSERT_EQ(d.window.right + 1, k.width);
        int wrong = 0;
        for (int y = 0; y <= d.window.top; ++y) {
            void *none[1] = {};
            void **rows = none;
            ASSERT_EQ(PXF_scan_read(image, d.window.top - y, &rows), 0);
            for (int x = 0; x < k.width; ++x) wrong += std::fabs(static_cast<uint8_t *>(rows[0])[x] - k.expected(x, y)) > 3;
        }
        EXPECT_EQ(wrong, 0);
        r.info.specific = nullptr;
        PXF_close(image);
    }
}

TEST_F(JpegDriver, DamagedOrHostileFilesAndBadRequestsFailWithOneLineReports) {
    const std::string source = dir.file("in.ppm"), good = dir.file("good.jpg"), path = dir.file("bad.jpg");
    write_file(source, netpbm(64, 64, 3));
    run("cjpeg -progressive -outfile '" + good + "' '" + source + "'");
    const std::string bytes = read_file(good);
    std::string huge = bytes, header = bytes;
    // The frame header's height and width (after FF C2, length and precision).
    std::size_t sof = bytes.find("\xff\xc2");
    ASSERT_NE(sof, std::string::npos);
    huge.replace(sof + 5, 4, "\xff\xdc\xff\xdc");
    header[sof + 4] = 12;  // 12-bit samples claimed
    header.replace(sof + 9, 1, "\x07");  // and seven components
    expect_damage_reported(path, "jpeg", {bytes.substr(0, 3), bytes.substr(0, bytes.size() / 2), huge, header,
                                          std::string("\xff\xd8\xff\xe0", 4) + std::string(40, '\x33')});
    // A refused write leaves the existing file as it was.
    Pixels matte(8, 8, 3, 1, 0, PXF_C_INTEGER, 8, smooth);
    EXPECT_FALSE(write_image(good, "jpeg", matte));
    Pixels floats(8, 8, 3, 0, 0, PXF_C_FLOAT, 32, smooth);
    EXPECT_FALSE(write_image(good, "jpeg", floats));
    EXPECT_EQ(read_file(good), bytes);
}

// Written through a temporary file: a link keeps pointing at the file it
// names, which is replaced whole; a device is written as it is, never
// replaced by a file; nothing is left beside the target.
TEST_F(JpegDriver, WritesReplaceTheFileALinkNamesAndLeaveDevicesAlone) {
    Pixels in(16, 8, 3, 0, 0, PXF_C_INTEGER, 8, smooth);
    expect_writes_replace_whole_files(dir, "jpeg", "jpg", in);
}

}  // namespace
}  // namespace pxf::test
