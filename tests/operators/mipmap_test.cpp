// Mipmap levels through the operator form and the image processes: sizes,
// level count, contents against the direct convolution, bump slopes, the
// texture files and the refusals.
#include <pxf/imp.h>

#include <unistd.h>

#include "operators/chain.h"
#include "pictures.h"

namespace {

using namespace pxf::test;

double texture(int x, int y, int c) {
    double v = 0.5 + 0.35 * std::sin(0.7 * x + c) * std::cos(0.45 * y + 2 * c) + 0.1 * ((x * y + c) % 3 - 1);
    return std::clamp(v, 0.0, 1.0);
}

std::string fresh_name() {
    static int n = 0;
    return "mipmap_" + std::to_string(++n);
}

double max_error(const Pixels &a, const Pixels &b) {
    EXPECT_EQ(a.v.size(), b.v.size());
    double e = 0;
    for (std::size_t i = 0; i < std::min(a.v.size(), b.v.size()); ++i) e = std::max(e, std::fabs(a.v[i] - b.v[i]));
    return e;
}

PXF_MIPMAP_REQUEST request(int level, int kind = PXF_TEXTURE_COLOUR, const char *filter = "mitchell") {
    PXF_MIPMAP_REQUEST q{};
    q.level = level;
    q.kind = kind;
    q.filter = filter;
    return q;
}

// Level k by halving level k - 1 with the reference, rounded to the
// elements of `d` at every level as the stored levels are.
std::vector<Pixels> reference_levels(const PXF_IMAGE_DESC &d, const PixelFn &fn, const char *filter, int colour,
                                     int matte) {
    std::vector<Pixels> levels{sample(d, fn)};
    while (levels.back().width > 1 || levels.back().height > 1) {
        const Pixels &p = levels.back();
        int w = std::max(1, p.width / 2), h = std::max(1, p.height / 2);
        levels.push_back(as_elements(reference(p, w, h, filter, colour, matte), d));
    }
    return levels;
}

TEST(Mipmap, LevelCountsAndSizes) {
    EXPECT_EQ(PXF_mipmap_levels(1, 1), 1);
    EXPECT_EQ(PXF_mipmap_levels(4096, 4096), 13);
    EXPECT_EQ(PXF_mipmap_levels(1000, 563), 10);
    EXPECT_EQ(PXF_mipmap_levels(5, 1), 3);
    EXPECT_EQ(PXF_mipmap_levels(0, 3), 0);
}

TEST(Mipmap, EveryLevelMatchesHalvingTheOneBefore) {
    struct Type {
        int type, bits;
        double tolerance;
    };
    for (Type t : {Type{PXF_C_INTEGER, 8, 1.0 / 255 + 1e-9}, Type{PXF_C_FLOAT, 32, 5e-5}}) {
        PXF_IMAGE_DESC d = synthetic_desc(13, 7, 3, t.type, t.bits, 1);
        // The matte is unlabelled: colour is premultiplied and filters as it is.
        std::vector<Pixels> want = reference_levels(d, texture, "lanczos3", 3, -1);
        ASSERT_EQ(want.size(), 4u);  // 13x7, 6x3, 3x1, 1x1
        for (int level = 0; level < 4; ++level) {
            Picture pic(fresh_name(), d, texture);
            PXF_MIPMAP_REQUEST q = request(level, PXF_TEXTURE_COLOUR, "lanczos3");
            q.random_access = level % 2;  // with and without the raster copy
            PXF__mipmap(pic.reader, &q);
            const PXF_IMAGE_DESC &got = pic.reader->info.images[0];
            EXPECT_EQ(got.window.right + 1, want[level].width);
            EXPECT_EQ(got.window.top + 1, want[level].height);
            EXPECT_LE(max_error(read_pixels(pic.reader), want[level]), t.tolerance) << level;
            EXPECT_EQ(PXF__mipmap_done(pic.reader), 1);
            EXPECT_EQ(pic.reader->info.images[0].window.right, 12);
        }
    }
}

TEST(Mipmap, FloatsAskedAsIntegersAreClampedThenQuantized) {
    // A hard edge makes Lanczos overshoot both ways.
    auto edge = [](int x, int, int) { return x < 8 ? 0.0 : 1.0; };
    PXF_IMAGE_DESC d = synthetic_desc(16, 4, 1, PXF_C_FLOAT, 32);
    Picture pic(fresh_name(), d, edge);
    PXF_MIPMAP_REQUEST q = request(1, PXF_TEXTURE_COLOUR, "lanczos3");
    q.output[0] = {PXF_C_INTEGER, 8};
    PXF__mipmap(pic.reader, &q);
    EXPECT_EQ(top_of(pic.reader)->tag, PXF_OP_QUANTIZE);
    EXPECT_EQ(pic.reader->info.images[0].chan.type, PXF_C_INTEGER);
    Pixels want = reference(sample(d, edge), 8, 2, "lanczos3", 1, -1);
    Pixels got = read_pixels(pic.reader);
    for (int x = 0; x < 8; ++x) {
        double v = std::clamp(want.at(x, 0, 0), 0.0, 1.0);
        EXPECT_NEAR(got.at(x, 0, 0), std::floor(float(v) * 255.95f) / 255.0, 1.0 / 255 + 1e-9) << x;
    }
    EXPECT_EQ(got.at(0, 0, 0), 0.0);
    EXPECT_EQ(got.at(7, 1, 0), 1.0);
    EXPECT_EQ(PXF__mipmap_done(pic.reader), 1);
    EXPECT_EQ(pic.reader->info.images[0].chan.type, PXF_C_FLOAT);
}

TEST(Mipmap, BumpSlopesOfARampAreTheSameAtEveryLevel) {
    // h = 0.2 + 0.5 u + 0.25 v over the texture.
    const int W = 64, H = 32;
    auto ramp = [&](int x, int y, int) { return 0.2 + 0.5 * (x + 0.5) / W + 0.25 * (y + 0.5) / H; };
    for (const char *filter : {"box", "mitchell"})
        for (int level : {0, 1, 3}) {
            PXF_IMAGE_DESC d = synthetic_desc(W, H, 1, PXF_C_FLOAT, 32);
            Picture pic(fresh_name(), d, ramp);
            PXF_MIPMAP_REQUEST q = request(level, PXF_TEXTURE_BUMP, filter);
            PXF__mipmap(pic.reader, &q);
            const PXF_IMAGE_DESC &b = pic.reader->info.images[0];
            ASSERT_EQ(b.chan.count, 3);
            EXPECT_STREQ(b.chan.format, "bump");
            Pixels p = read_pixels(pic.reader);
            // Filters wider than a box bend the ramp near the edges.
            int margin = std::string(filter) == "box" ? 0 : 3;
            for (int y = margin; y < p.height - margin; ++y)
                for (int x = margin; x < p.width - margin; ++x) {
                    ASSERT_NEAR(p.at(x, y, 1), 0.5, 1e-3) << filter << " level " << level << " " << x << "," << y;
                    ASSERT_NEAR(p.at(x, y, 2), 0.25, 1e-3) << filter << " level " << level << " " << x << "," << y;
                }
            // The heights themselves: the ramp at each level pixel's centre.
            int x = p.width / 2, y = p.height / 2;
            EXPECT_NEAR(p.at(x, y, 0), 0.2 + 0.5 * (x + 0.5) / p.width + 0.25 * (y + 0.5) / p.height, 1e-3);
        }
}

TEST(Mipmap, BadRequestsAndFailedAllocationsLeaveNoTrace) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(9, 6, 3, PXF_C_FLOAT, 32, 1), PXF_MODE_READ);
    void *driver = image->private_data[0];
    ReportCapture capture;
    PXF_MIPMAP_REQUEST bad = request(4);  // 9x6 has levels 0 to 3
    EXPECT_EQ(PXF__mipmap(image, &bad), image);
    EXPECT_NE(capture.last().find("mipmap operator: bad texture request (no such level)"), std::string::npos);
    bad = request(1, 7);
    PXF__mipmap(image, &bad);
    EXPECT_NE(capture.last().find("unknown texture kind"), std::string::npos);
    bad = request(1, PXF_TEXTURE_COLOUR, "sinc");
    PXF__mipmap(image, &bad);
    EXPECT_NE(capture.last().find("unknown filter sinc"), std::string::npos);
    EXPECT_EQ(image->private_data[0], driver);

    PXF_MIPMAP_REQUEST colour = request(2);
    colour.output[0] = colour.output[1] = {PXF_C_INTEGER, 16};
    expect_clean_failures(image, [&] { PXF__mipmap(image, &colour); }, PXF__mipmap_done);
    PXF_MIPMAP_REQUEST bump = request(1, PXF_TEXTURE_BUMP);
    expect_clean_failures(image, [&] { PXF__mipmap(image, &bump); }, PXF__mipmap_done);

    // Stacked under another stage, it stays; closing takes everything off.
    PXF__mipmap(image, &colour);
    PXF__ssfilter(image, "box", 1.0f);
    EXPECT_EQ(PXF__mipmap_done(image), 0);
    event_log.clear();
    EXPECT_EQ(PXF_close(image), 0);
    EXPECT_EQ(event_log, std::vector<std::string>{"close"});
}

// ---- Processes ----

struct ProcessTest : ::testing::Test {
    TempDir dir;
    PXF_IMAGE *open_file(const std::string &path) {
        PXF_INFO info;
        PXF_info_init(&info);
        info.handle = const_cast<char *>(path.c_str());
        return PXF_open(&info, "r");
    }
    int run(int type, PXF_IMAGE *source, const std::string &path, const IMP_OPTIONS &o) {
        PXF_INFO out;
        PXF_info_init(&out);
        out.handle = const_cast<char *>(path.c_str());
        return IMP_run(type, source, &out, &o);
    }
};

TEST_F(ProcessTest, MipmapFileHoldsEveryLevelChained) {
    PXF_IMAGE_DESC d = synthetic_desc(21, 10, 3, PXF_C_INTEGER, 8, 1);
    std::vector<Pixels> want = reference_levels(d, texture, "triangle", 3, -1);  // premultiplied colour
    for (int kind : {PXF_TEXTURE_COLOUR, PXF_TEXTURE_SCALAR}) {
        Picture pic(fresh_name(), d, texture);
        IMP_OPTIONS o;
        IMP_options_init(&o);
        o.kind = kind;
        o.filter = "triangle";
        long seen[2] = {};  // the last report: done, total
        o.progress = [](void *data, long done, long all) {
            static_cast<long *>(data)[0] = done;
            static_cast<long *>(data)[1] = all;
        };
        o.progress_data = seen;
        void *driver = pic.reader->private_data[0];
        std::string path = dir.file("texture" + std::to_string(kind) + ".rla");
        ASSERT_EQ(run(IMP_MIPMAP, pic.reader, path, o), 0);
        EXPECT_EQ(seen[0], 10 + 5 + 2 + 1 + 1);
        EXPECT_EQ(seen[1], seen[0]);
        EXPECT_EQ(pic.reader->private_data[0], driver);  // nothing left stacked
        PXF_IMAGE *file = open_file(path);
        ASSERT_TRUE(file);
        ASSERT_EQ(file->info.num_images, 5);  // 21x10, 10x5, 5x2, 2x1, 1x1
        for (int k = 0; k < 5; ++k) {
            const PXF_IMAGE_DESC &level = file->info.images[k];
            EXPECT_EQ(level.image_kind, k ? 2 : 1);
            EXPECT_EQ(level.chan.count, kind == PXF_TEXTURE_SCALAR ? 1 : 3);
            Pixels got = read_pixels(file, false, k);
            Pixels expect = want[k];
            if (kind == PXF_TEXTURE_SCALAR) {
                // The first channel filtered alone (no matte to weight it).
                PXF_IMAGE_DESC one = synthetic_desc(21, 10, 1, PXF_C_INTEGER, 8);
                std::vector<Pixels> alone = reference_levels(one, texture, "triangle", 1, -1);
                expect = alone[k];
            }
            EXPECT_LE(max_error(got, expect), 1.0 / 255 + 1e-9) << k;
        }
        PXF_close(file);
    }
}

TEST_F(ProcessTest, BumpTextureFileHoldsHeightsAndSlopes) {
    PXF_IMAGE_DESC d = synthetic_desc(16, 8, 1, PXF_C_INTEGER, 16);
    Picture pic(fresh_name(), d, [](int x, int, int) { return x / 32.0; });
    IMP_OPTIONS o;
    IMP_options_init(&o);
    o.kind = PXF_TEXTURE_BUMP;
    o.filter = "box";
    std::string path = dir.file("bump.rla");
    ASSERT_EQ(run(IMP_MIPMAP, pic.reader, path, o), 0);
    PXF_IMAGE *file = open_file(path);
    ASSERT_EQ(file->info.num_images, 5);
    for (int k = 0; k < 5; ++k) {
        EXPECT_STREQ(file->info.images[k].chan.format, "bump");
        Pixels p = read_pixels(file, false, k);
        double slope = p.width > 1 ? 0.5 : 0.0;  // x / 32 over 16 pixels: h = u / 2
        for (int y = 0; y < p.height; ++y)
            for (int x = 0; x < p.width; ++x) {
                EXPECT_NEAR(p.at(x, y, 1), slope, 1e-3) << k;
                EXPECT_NEAR(p.at(x, y, 2), 0.0, 1e-6);
            }
    }
    PXF_close(file);
}

TEST_F(ProcessTest, SwatchAndCopyAndRefusals) {
    PXF_IMAGE_DESC d = synthetic_desc(40, 22, 3, PXF_C_INTEGER, 8);
    Picture pic(fresh_name(), d, texture);
    void *driver = pic.reader->private_data[0];
    IMP_OPTIONS o;
    IMP_options_init(&o);
    o.size = 10;
    ASSERT_EQ(run(IMP_SWATCH, pic.reader, dir.file("swatch.rla"), o), 0);
    PXF_IMAGE *file = open_file(dir.file("swatch.rla"));
    EXPECT_EQ(file->info.images[0].window.right, 9);
    EXPECT_EQ(file->info.images[0].window.top, 5);  // 22 x 10 / 40 = 5.5, rounded
    Pixels want = as_elements(reference(sample(d, texture), 10, 6, "mitchell", 3, -1), d);
    EXPECT_LE(max_error(read_pixels(file), want), 1.0 / 255 + 1e-9);
    PXF_close(file);

    ASSERT_EQ(run(IMP_NONE, pic.reader, dir.file("copy.rla"), o), 0);
    file = open_file(dir.file("copy.rla"));
    EXPECT_EQ(max_error(read_pixels(file), sample(d, texture)), 0.0);
    PXF_close(file);

    ReportCapture capture;
    EXPECT_EQ(IMP_process_type("mipmap"), IMP_MIPMAP);
    EXPECT_EQ(IMP_process_type("blur"), -1);
    EXPECT_EQ(capture.last(), "Unknown image process blur");
    o.size = 0;
    EXPECT_EQ(run(IMP_SWATCH, pic.reader, dir.file("none.rla"), o), -1);
    EXPECT_NE(capture.last().find("bad size 0 x 0"), std::string::npos);
    EXPECT_NE(access(dir.file("none.rla").c_str(), F_OK), 0);
    EXPECT_EQ(pic.reader->private_data[0], driver);
}

}  // namespace
