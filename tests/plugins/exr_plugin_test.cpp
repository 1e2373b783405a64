// The OpenEXR driver against files the OpenEXR library and its tools write,
// and its own files read back by them.
#include <Imath/half.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfInputPart.h>
#include <ImfMultiPartInputFile.h>
#include <ImfOutputFile.h>
#include <ImfStandardAttributes.h>
#include <ImfTiledOutputFile.h>
#include <exr_alias.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "core/core_test_util.h"
#include "plugin_host.h"
#include "support/elements.h"

namespace pxf::test {
namespace {

using Box = IMATH_NAMESPACE::Box2i;
using V2i = IMATH_NAMESPACE::V2i;

using ExrDriver = DriverTest;

// Exactly representable in half: multiples of 1/64 up to 16.
double value(int c, int x, int y) { return ((x * 7 + y * 13 + c * 29) % 1024) / 64.0; }

struct FileChannel {
    const char *name;
    exrlib::PixelType type;
};

// Writes an EXR with the OpenEXR library alone; channel c holds value(c, x, y)
// for the pixel at x - data.min.x, y - data.min.y.
void write_reference(const std::string &path, const std::vector<FileChannel> &channels, const Box &data,
                     const Box &display, int tile = 0, exrlib::Compression compression = exrlib::ZIP_COMPRESSION) {
    exrlib::Header h(display, data, 1.0f, IMATH_NAMESPACE::V2f(0, 0), 1.0f, exrlib::INCREASING_Y, compression);
    const int w = data.max.x - data.min.x + 1, rows = data.max.y - data.min.y + 1;
    std::vector<std::vector<char>> planes;
    exrlib::FrameBuffer fb;
    for (std::size_t c = 0; c < channels.size(); ++c) {
        h.channels().insert(channels[c].name, exrlib::Channel(channels[c].type));
        planes.emplace_back(std::size_t(w) * rows * 4);
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < w; ++x) {
                char *at = planes[c].data() + (std::size_t(y) * w + x) * 4;
                double v = value(int(c), x, y);
                if (channels[c].type == exrlib::HALF) *reinterpret_cast<Imath::half *>(at) = Imath::half(float(v));
                else if (channels[c].type == exrlib::FLOAT) *reinterpret_cast<float *>(at) = float(v);
                else *reinterpret_cast<uint32_t *>(at) = uint32_t(v * 64);
            }
        char *base = planes[c].data() - (std::ptrdiff_t(data.min.x) + std::ptrdiff_t(data.min.y) * w) * 4;
        fb.insert(channels[c].name, exrlib::Slice(channels[c].type, base, 4, std::size_t(w) * 4));
    }
    exrlib::addComments(h, "from the library");
    exrlib::addChromaticities(h, exrlib::Chromaticities({0.64f, 0.33f}, {0.3f, 0.6f}, {0.15f, 0.06f}, {0.3127f, 0.329f}));
    if (tile) {
        h.setTileDescription(exrlib::TileDescription(tile, tile));
        exrlib::TiledOutputFile out(path.c_str(), h);
        out.setFrameBuffer(fb);
        out.writeTiles(0, out.numXTiles() - 1, 0, out.numYTiles() - 1);
    } else {
        exrlib::OutputFile out(path.c_str(), h);
        out.setFrameBuffer(fb);
        out.writePixels(rows);
    }
}

// Every channel of part `part` as floats, rows top down, through the library alone.
std::vector<std::vector<float>> read_reference(const std::string &path, std::vector<std::string> &names, int part = 0) {
    exrlib::MultiPartInputFile file(path.c_str());
    exrlib::InputPart in(file, part);
    Box dw = in.header().dataWindow();
    const int w = dw.max.x - dw.min.x + 1, rows = dw.max.y - dw.min.y + 1;
    std::vector<std::vector<float>> planes;
    exrlib::FrameBuffer fb;
    names.clear();
    for (auto it = in.header().channels().begin(); it != in.header().channels().end(); ++it) {
        names.push_back(it.name());
        planes.emplace_back(std::size_t(w) * rows);
    }
    for (std::size_t c = 0; c < names.size(); ++c)
        fb.insert(names[c], exrlib::Slice(exrlib::FLOAT, reinterpret_cast<char *>(planes[c].data() - dw.min.x - std::ptrdiff_t(dw.min.y) * w),
                                       4, std::size_t(w) * 4));
    in.setFrameBuffer(fb);
    in.readPixels(dw.min.y, dw.max.y);
    return planes;
}

PXF_IMAGE *open_read(Request &r, const std::string &path) { return r.set("exr", path.c_str()).open("r"); }

TEST_F(ExrDriver, ReadsScanlineAndTiledFilesTheLibraryWritesWithWindowsChannelsAndAttributes) {
    const std::string path = dir.file("ref.exr");
    // Sorted as the file sorts them: A, B, G, N.x, R, Z.
    const std::vector<FileChannel> channels = {{"A", exrlib::HALF}, {"B", exrlib::HALF}, {"G", exrlib::HALF},
                                               {"N.x", exrlib::FLOAT}, {"R", exrlib::HALF}, {"Z", exrlib::FLOAT}};
    const int colour_of[3] = {4, 2, 1};  // R, G, B among the file's channels
    for (int tile : {0, 8})
        for (exrlib::Compression compression : {exrlib::NO_COMPRESSION, exrlib::PIZ_COMPRESSION}) {
            SCOPED_TRACE(testing::Message() << "tile " << tile << ", compression " << compression);
            // Overscan around a display window with a negative origin.
            write_reference(path, channels, Box(V2i(-12, -5), V2i(30, 20)), Box(V2i(-10, -3), V2i(25, 17)), tile,
                            compression);
            Request r;
            PXF_IMAGE *image = open_read(r, path);
            ASSERT_NE(image, nullptr);
            const PXF_IMAGE_DESC &d = image->info.images[0];
            // Rows mirror about the display window's middle (-3 + 17 = 14).
            EXPECT_EQ(std::vector<int>({d.window.left, d.window.right, d.window.bottom, d.window.top}),
                      std::vector<int>({-12, 30, 14 - 20, 14 + 5}));
            EXPECT_EQ(std::vector<int>({d.active_window.left, d.active_window.right, d.active_window.bottom,
                                        d.active_window.top}),
                      std::vector<int>({-10, 25, -3, 17}));
            EXPECT_EQ(std::vector<int>({d.chan.count, d.chan.type, d.chan.width, d.matte.count, d.matte.width,
                                        d.aux.count, d.aux.width}),
                      std::vector<int>({3, PXF_C_FLOAT, 16, 1, 16, 2, 32}));
            EXPECT_STREQ(d.aux.format, "N.x,Z");
            EXPECT_STREQ(image->info.desc, "from the library");
            EXPECT_FLOAT_EQ(image->info.green_pri[0], 0.3f);
            EXPECT_FLOAT_EQ(image->info.white_pt[1], 0.329f);
            EXPECT_FLOAT_EQ(d.curve.gamma, 1.0f);
            // Caller's order: R G B, A, N.x Z; the file's order differs.
            const int file_channel[6] = {colour_of[0], colour_of[1], colour_of[2], 0, 3, 5};
            int wrong = 0;
            for (int line = d.window.top; line >= d.window.bottom; line -= 3) {  // skipping rows is allowed
                std::vector<float> store(6 * 43);
                void *own[6];
                for (int c = 0; c < 6; ++c) own[c] = &store[std::size_t(c) * 43];
                void **rows = own;
                ASSERT_EQ(PXF_scan_read(image, line, &rows), 0);
                for (int c = 0; c < 6; ++c)
                    for (int x = 0; x < 43; ++x)
                        wrong += static_cast<float *>(rows[c])[x] != float(value(file_channel[c], x, d.window.top - line));
            }
            EXPECT_EQ(wrong, 0);
            void *none[6] = {};
            void **rows = none;
            EXPECT_EQ(PXF_scan_read(image, d.window.top + 1, &rows), PXF_E_BAD_SCANLINE);
            PXF_close(image);
        }
    // Unsigned ints read as 32-bit integers; Y alone is grey.
    write_reference(path, {{"Y", exrlib::UINT}}, Box(V2i(0, 0), V2i(9, 4)), Box(V2i(0, 0), V2i(9, 4)));
    Pixels p;
    ASSERT_TRUE(read_image(path, "exr", p));
    EXPECT_EQ(std::vector<int>({p.chan.count, p.chan.type, p.chan.width, p.matte.count, p.aux.count}),
              std::vector<int>({1, PXF_C_INTEGER, 32, 0, 0}));
    EXPECT_EQ(p.mismatches([](int c, int x, int y) { return double(uint32_t(value(c, x, y) * 64)); }), 0);
}

void exr_compression(PXF_INFO &info, const char *name, int tile) {
    set_text(info.compression, name);
    static PXF_CAP_SETTING setting;
    static PXF_CAP_SETTING *list[2] = {&setting, nullptr};
    setting.code = 0;
    setting.value.integer = tile;
    info.specific = tile ? list : nullptr;
}

TEST_F(ExrDriver, WritesEveryCompressionScanlineOrTiledAsTheLibraryAndItsToolsReadThem) {
    const std::string path = dir.file("ours.exr");
    // Halves (float width 16), floats and 8-bit colour with gamma 2.2.
    Pixels half(37, 21, 3, 1, 1, PXF_C_FLOAT, 16, value);
    half.aux.width = 16;
    struct Case {
        const char *name;
        int tile;
        double tolerance;
        const char *shown;  // as exrheader words it
    };
    for (Case k : {Case{"none", 0, 0, "none"}, Case{"rle", 0, 0, "run-length"}, Case{"zips", 0, 0, "zip, individual"},
                   Case{"zip", 0, 0, "zip, multi"}, Case{"piz", 0, 0, "piz"}, Case{"dwaa", 0, 0.05, "dwa, small"},
                   Case{"zip", 16, 0, "zip, multi"}, Case{"piz", 5, 0, "piz"}}) {
        SCOPED_TRACE(testing::Message() << k.name << ", tile " << k.tile);
        static Case current;
        current = k;
        ASSERT_TRUE(write_image(path, "exr", half, [](PXF_INFO &info) { exr_compression(info, current.name, current.tile); }));
        std::vector<std::string> names;
        auto planes = read_reference(path, names);
        ASSERT_EQ(names, std::vector<std::string>({"A", "B", "G", "R", "Z"}));
        const int ours[5] = {3, 2, 1, 0, 4};
        double worst = 0;
        for (int c = 0; c < 5; ++c)
            for (int i = 0; i < 37 * 21; ++i)
                worst = std::max(worst, std::fabs(planes[c][i] - value(ours[c], i % 37, i / 37)) / 16.0);
        EXPECT_LE(worst, k.tolerance);
        // exrheader, the format's own inspector, agrees on compression and layout.
        std::string cmd = "exrheader '" + path + "' 2>&1";
        FILE *pipe = popen(cmd.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        std::string out;
        char buf[512];
        while (std::fgets(buf, sizeof buf, pipe)) out += buf;
        EXPECT_EQ(pclose(pipe), 0) << out;
        EXPECT_NE(out.find(std::string("compression (type compression): ") + k.shown), std::string::npos) << out;
        EXPECT_EQ(out.find("tiledesc") != std::string::npos, k.tile != 0) << out;
        // And our reader gets the same back.
        Pixels back;
        ASSERT_TRUE(read_image(path, "exr", back));
        EXPECT_EQ(std::vector<int>({back.chan.width, back.matte.width, back.aux.width}), std::vector<int>({16, 16, 16}));
        if (k.tolerance == 0) {
            EXPECT_EQ(back.mismatches(value), 0);
        }
    }
    // 8-bit colour with gamma 2.2 is stored as linear halves.
    Pixels bytes(4, 2, 3, 0, 0, PXF_C_INTEGER, 8, [](int, int x, int) { return x * 85.0; });
    bytes.gamma = 2.2f;
    ASSERT_TRUE(write_image(path, "exr", bytes));
    Pixels back;
    ASSERT_TRUE(read_image(path, "exr", back));
    EXPECT_EQ(back.mismatches([](int, int x, int) { return double(Imath::half(float(std::pow(x / 3.0, 2.2)))); }), 0);
}

// EXR colour is premultiplied: unassociated colour is multiplied by the
// matte on the way in (depth untouched), and files read associated.
TEST_F(ExrDriver, UnassociatedColourIsPremultiplied) {
    const double colour[4] = {1, 0.5, 0.25, 2}, matte[4] = {1, 0.5, 0, 0.25}, depth[4] = {7, -3, 1.5, 0};
    for (int label : {PXF_MATTE_ASSOCIATED, PXF_MATTE_UNASSOCIATED}) {
        SCOPED_TRACE(label);
        Pixels in(4, 1, 3, 1, 1, PXF_C_FLOAT, 32, [&](int c, int x, int) { return c < 3 ? colour[x] : c == 3 ? matte[x] : depth[x]; }), back;
        in.gamma = 1.0f;
        in.matte.extra = label;
        ASSERT_TRUE(write_image(dir.file("m.exr"), "exr", in));
        ASSERT_TRUE(read_image(dir.file("m.exr"), "exr", back));
        EXPECT_EQ(back.matte.extra, PXF_MATTE_ASSOCIATED);
        const bool times = label == PXF_MATTE_UNASSOCIATED;
        EXPECT_EQ(back.mismatches([&](int c, int x, int) {
            return c < 3 ? colour[x] * (times ? matte[x] : 1) : c == 3 ? matte[x] : depth[x];
        }), 0);
    }
}

TEST_F(ExrDriver, ExrmaketiledOutputAndMultiPartFilesRead) {
    const std::string scan = dir.file("scan.exr"), tiled = dir.file("tiled.exr");
    write_reference(scan, {{"B", exrlib::HALF}, {"G", exrlib::HALF}, {"R", exrlib::HALF}}, Box(V2i(0, 0), V2i(40, 30)),
                    Box(V2i(0, 0), V2i(40, 30)));
    ASSERT_EQ(std::system(("exrmaketiled -t 16 16 '" + scan + "' '" + tiled + "' >/dev/null 2>&1").c_str()), 0);
    Pixels p;
    ASSERT_TRUE(read_image(tiled, "exr", p));
    EXPECT_EQ(p.mismatches([](int c, int x, int y) { return value(2 - c, x, y); }), 0);
    EXPECT_NE(p.compression.find("tiled"), std::string::npos);

    // Two images of different sizes make a two-part file.
    const std::string multi = dir.file("multi.exr");
    PXF_IMAGE_DESC d[2] = {describe(6, 4, 3, 16, 0, 0, PXF_C_FLOAT), describe(3, 2, 1, 32, 0, 1, PXF_C_FLOAT)};
    d[1].active_window = d[0].active_window;  // parts share the display window
    Request w;
    PXF_IMAGE *out = w.set("exr", multi.c_str(), d, 2).open("w");
    ASSERT_NE(out, nullptr);
    for (int i = 0; i < 2; ++i) {
        void **buffer = pxf__chan_alloc(&d[i], 6, "test");
        for (int line = d[i].window.top; line >= 0; --line) {
            for (int c = 0; c < d[i].chan.count + d[i].aux.count; ++c)
                for (int x = 0; x <= d[i].window.right; ++x) static_cast<float *>(buffer[c])[x] = float(value(c + i, x, line));
            void **rows = buffer;
            ASSERT_EQ(out->scan(out->private_data[i], line, &rows, out->private_data), 0);
        }
        pxf__chan_free(buffer);
    }
    ASSERT_EQ(PXF_close(out), 0);
    std::vector<std::string> names;
    auto second = read_reference(multi, names, 1);
    EXPECT_EQ(names, std::vector<std::string>({"Y", "Z"}));
    EXPECT_EQ(second[1][0], float(value(2, 0, 1)));  // the file's top row is line 1
    Request r;
    PXF_IMAGE *in = open_read(r, multi);
    ASSERT_NE(in, nullptr);
    ASSERT_EQ(in->info.num_images, 2);
    EXPECT_EQ(in->info.images[1].image_kind, 2);
    EXPECT_EQ(in->info.images[1].window.right, 2);
    void *none[2] = {};
    void **rows = none;
    ASSERT_EQ(in->scan(in->private_data[1], 0, &rows, in->private_data), 0);
    EXPECT_EQ(static_cast<float *>(rows[0])[2], float(value(1, 2, 0)));
    PXF_close(in);
}

TEST_F(ExrDriver, DamagedOrHostileFilesAndBadRequestsFailWithOneLineReports) {
    const std::string good = dir.file("good.exr"), path = dir.file("bad.exr");
    write_reference(good, {{"G", exrlib::HALF}, {"R", exrlib::HALF}, {"B", exrlib::HALF}}, Box(V2i(0, 0), V2i(63, 63)),
                    Box(V2i(0, 0), V2i(63, 63)));
    const std::string bytes = read_file(good);
    std::string header = bytes, huge = bytes, garbled = bytes;
    header.replace(8, 40, std::string(40, '\x7f'));
    // The data window's right edge (after "dataWindow\0box2i\0" and the size).
    std::size_t at = huge.find("dataWindow");
    ASSERT_NE(at, std::string::npos);
    huge.replace(at + 11 + 6 + 4 + 8, 4, std::string("\xff\xff\xff\x3f", 4));
    for (std::size_t i = bytes.size() - 200; i < bytes.size(); i += 7) garbled[i] = char(garbled[i] ^ 0x5a);
    expect_damage_reported(path, "exr", {bytes.substr(0, 4), bytes.substr(0, bytes.size() / 2), header, huge, garbled,
                                         "v/1\x01 not really"});
    // Reports are single lines.
    write_file(path, bytes.substr(0, bytes.size() / 3));
    ReportCapture reports;
    Pixels p;
    EXPECT_FALSE(read_image(path, "exr", p));
    for (const auto &report : reports.reports()) EXPECT_EQ(report.text.find('\n'), std::string::npos) << report.text;

    // A refused write leaves the existing file as it was.
    Pixels two(4, 4, 2, 0, 0, PXF_C_FLOAT, 32, value);
    two.chan.format = const_cast<char *>("R,R");
    EXPECT_FALSE(write_image(good, "exr", two));
    Pixels three(4, 4, 3, 0, 0, PXF_C_FLOAT, 32, value);
    EXPECT_FALSE(write_image(good, "exr", three, [](PXF_INFO &info) { set_text(info.compression, "lzma"); }));
    EXPECT_EQ(read_file(good), bytes);
}

// Written through a temporary file: a link keeps pointing at the file it
// names, which is replaced whole; a device is written as it is, never
// replaced by a file; nothing is left beside the target.
TEST_F(ExrDriver, WritesReplaceTheFileALinkNamesAndLeaveDevicesAlone) {
    Pixels in(16, 8, 3, 0, 0, PXF_C_FLOAT, 32, value);
    expect_writes_replace_whole_files(dir, "exr", "exr", in);
}

}  // namespace
}  // namespace pxf::test
