// The stages around the colour transforms: colour clip, normalize, shift,
// min-max, select over a file of chained images, and the display chain
// that stacks them.
#include <pxf/rfl.h>

#include "images.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

using Value = std::function<float(int line, int x, int channel)>;

// A memory image of float channels (colour, matte, auxiliary alike).
PXF_IMAGE *float_writer(const std::string &name, PXF_IMAGE_DESC desc, const Value &value) {
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>("mem");
    info.handle = const_cast<char *>(name.c_str());
    info.num_images = 1;
    info.images = &desc;
    PXF_IMAGE *image = PXF_open(&info, "w");
    if (!image) return image;
    int width = desc.window.right - desc.window.left + 1, channels = desc.chan.count + desc.matte.count + desc.aux.count;
    void **rows = pxf__chan_alloc(&desc, width, "test");
    for (int line = desc.window.bottom; line <= desc.window.top; ++line) {
        for (int c = 0; c < channels; ++c)
            for (int x = 0; x < width; ++x) static_cast<float *>(rows[c])[x] = value(line, x, c);
        void **given = rows;
        EXPECT_EQ(PXF_scan_write(image, line, &given), 0);
    }
    pxf__chan_free(rows);
    return image;
}

PXF_IMAGE_DESC float_desc(int width, int height, int channels, int mattes, int aux, const char *format = "rgb") {
    PXF_IMAGE_DESC d = synthetic_desc(width, height, channels, PXF_C_FLOAT, 32, mattes, aux);
    d.chan.format = const_cast<char *>(format);
    return d;
}

// A synthetic image keeping the description's format name (the handle frees its copy).
PXF_IMAGE *named_synthetic(const PXF_IMAGE_DESC &desc, int mode) {
    PXF_IMAGE *image = synthetic_image(desc, mode);
    char *&format = image->info.images[0].chan.format;
    format = format ? strdup(format) : nullptr;
    return image;
}

// The tags of the chain from the top down to the driver.
std::vector<int> tags(PXF_IMAGE *image, void *driver) {
    std::vector<int> found;
    for (auto *op = static_cast<PXF_OPERATOR *>(image->private_data[0]); op && op != driver;
         op = static_cast<PXF_OPERATOR *>(op->saved_private))
        found.push_back(op->tag);
    return found;
}

TEST(ColorClip, PullsColourInsideTheMatteKeepingItsMean) {
    struct Pixel {
        float in[4], out[3];
    } pixels[] = {
        {{2.0f, 0.5f, 0.5f, 1.0f}, {1.0f, 1.0f, 1.0f}},           // mean at the matte: t = 0
        {{1.5f, 0.3f, 0.0f, 1.0f}, {1.0f, 0.6f + 0.4f / 0.9f * -0.3f, 0.6f + 0.4f / 0.9f * -0.6f}},
        {{0.2f, 0.1f, 0.4f, 0.5f}, {0.2f, 0.1f, 0.4f}},           // inside: kept
        {{0.2f, 0.1f, 0.4f, 0.0f}, {0.0f, 0.0f, 0.0f}},           // no coverage: black
        {{-0.5f, 0.1f, 0.2f, 1.0f}, {0.0f, 0.0f, 0.0f}},          // mean below 0: black
        {{3.0f, 2.0f, 0.1f, 1.0f}, {1.0f, 1.0f, 1.0f}},           // mean above the matte: the matte
        {{0.9f, -0.3f, 0.6f, 0.8f}, {0.4f + 4.0f / 7 * 0.5f, 0.0f, 0.4f + 4.0f / 7 * 0.2f}},  // t from the negative
    };
    const int n = int(sizeof pixels / sizeof pixels[0]);
    auto value = [&](int, int x, int c) { return pixels[x].in[c]; };
    auto check = [&](void **rows) {
        for (int x = 0; x < n; ++x)
            for (int c = 0; c < 3; ++c) EXPECT_NEAR(static_cast<float *>(rows[c])[x], pixels[x].out[c], 1e-5) << x << c;
    };
    // Reading: the rows from below are clipped.
    PXF_IMAGE *writer = float_writer("clip", float_desc(n, 1, 3, 1, 0), value);
    PXF_IMAGE *reader = open_mem("clip");
    ASSERT_TRUE(writer && reader);
    ASSERT_EQ(PXF__color_clip(reader), reader);
    ASSERT_EQ(top_of(reader)->tag, PXF_OP_COLOR_CLIP);
    void **rows = nullptr;
    ASSERT_EQ(PXF_scan_read(reader, 0, &rows), 0);
    check(rows);
    PXF_close(reader);
    // Writing: the caller's rows are clipped on their way down.
    PXF_IMAGE *image = named_synthetic(float_desc(n, 1, 3, 1, 0), PXF_MODE_WRITE);
    PXF__color_clip(image);
    PXF_IMAGE_DESC d = image->info.images[0];
    void **own = pxf__chan_alloc(&d, n, "test");
    for (int c = 0; c < 4; ++c)
        for (int x = 0; x < n; ++x) static_cast<float *>(own[c])[x] = value(0, x, c);
    void **given = own;
    ASSERT_EQ(PXF_scan_write(image, 0, &given), 0);
    check(own);
    pxf__chan_free(own);
    PXF_close(image);
    // Integer colour, or no matte: nothing to clip against.
    for (PXF_IMAGE_DESC refused : {synthetic_desc(4, 1, 3, PXF_C_INTEGER, 8, 1), float_desc(4, 1, 3, 0, 0)}) {
        image = named_synthetic(refused, PXF_MODE_READ);
        void *driver = image->private_data[0];
        EXPECT_EQ(PXF__color_clip(image), image);
        EXPECT_EQ(image->private_data[0], driver);
        PXF_close(image);
    }
    PXF_close(writer);
    PXF_exit();
}

TEST(Normalize, MapsTheRangeOntoZeroToOneAndClipsBeyond) {
    const float aux[] = {-3.0f, 0.5f, 1.0f, 5000.5f, 10000.0f, 20000.0f};
    const int n = 6;
    auto value = [&](int, int x, int c) { return c < 3 ? 0.25f + 0.1f * float(x) : aux[x]; };
    PXF_IMAGE *writer = float_writer("normalize", float_desc(n, 1, 3, 0, 1), value);
    PXF_IMAGE *reader = open_mem("normalize");
    ASSERT_TRUE(writer && reader);
    const float colour_range[2] = {0.3f, 0.7f}, aux_range[2] = {1.0f, 10000.0f};
    ASSERT_EQ(PXF__normalize(reader, colour_range, nullptr, aux_range), reader);
    ASSERT_EQ(top_of(reader)->tag, PXF_OP_NORMALIZE);
    void **rows = nullptr;
    ASSERT_EQ(PXF_scan_read(reader, 0, &rows), 0);
    for (int x = 0; x < n; ++x) {
        float c = std::min(std::max(0.25f + 0.1f * float(x) - 0.3f, 0.0f), 0.4f) / 0.4f;
        EXPECT_NEAR(static_cast<float *>(rows[0])[x], c, 1e-6) << x;
        float z = std::min(std::max(aux[x] - 1.0f, 0.0f), 9999.0f) / 9999.0f;
        EXPECT_NEAR(static_cast<float *>(rows[3])[x], z, 1e-6) << x;
    }
    EXPECT_EQ(static_cast<float *>(rows[3])[2], 0.0f);  // at the low end
    EXPECT_EQ(static_cast<float *>(rows[3])[4], 1.0f);  // at the high end
    PXF_close(reader);
    PXF_close(writer);
    // A range for an integer group, an empty range, or the info's flag off: nothing.
    PXF_IMAGE *image = synthetic_image(synthetic_desc(4, 1, 3, PXF_C_INTEGER, 8, 0, 1), PXF_MODE_READ);
    image->info.images[0].aux.type = PXF_C_FLOAT;
    void *driver = image->private_data[0];
    const float empty[2] = {2.0f, 2.0f};
    PXF__normalize(image, colour_range, nullptr, nullptr);
    PXF__normalize(image, nullptr, nullptr, empty);
    image->info.open_flag = 0;
    PXF__normalize(image, nullptr, nullptr, aux_range);
    EXPECT_EQ(image->private_data[0], driver);
    PXF_close(image);
    PXF_exit();
}

TEST(Shift, ChangesIntegerDepthsKeepingTheTopCode) {
    struct Case {
        int from, to;
        uint32_t (*expect)(uint32_t);
    } cases[] = {
        {16, 8, [](uint32_t v) { return v >> 8; }},
        {12, 8, [](uint32_t v) { return v >> 4; }},
        {8, 16, [](uint32_t v) { return v * 257; }},
        {4, 8, [](uint32_t v) { return v * 17; }},
        {8, 12, [](uint32_t v) { return v << 4 | v >> 4; }},
    };
    for (const Case &k : cases) {
        PXF_IMAGE *image = synthetic_image(synthetic_desc(40, 3, 2, PXF_C_INTEGER, k.from, 1), PXF_MODE_READ);
        const PXF_CHAN_TYPE want[3] = {{PXF_C_INTEGER, k.to}, {0, 0}, {0, 0}};
        ASSERT_EQ(PXF__shift(image, want), image);
        ASSERT_EQ(top_of(image)->tag, PXF_OP_SHIFT);
        EXPECT_EQ(image->info.images[0].chan.width, k.to);
        EXPECT_EQ(image->info.images[0].matte.width, k.from);
        auto expect = [&](int l, int x, int c) -> uint32_t {
            uint32_t v = integer_pixel(l, x, c, k.from);
            return c < 2 ? k.expect(v) : v;  // the matte passes as it was
        };
        if (k.to <= 8) expect_rows<uint8_t>(image, 2, expect);
        else expect_rows<uint16_t>(image, 2, expect);
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, 1, &rows), 0);
        if (k.from <= 8) EXPECT_EQ(static_cast<uint8_t *>(rows[2])[5], integer_pixel(1, 5, 2, k.from));
        EXPECT_EQ(PXF__shift_done(image), 1);
        EXPECT_EQ(image->info.images[0].chan.width, k.from);
        PXF_close(image);
    }
    PXF_IMAGE *image = synthetic_image(synthetic_desc(8, 2, 3, PXF_C_INTEGER, 16), PXF_MODE_READ);
    const PXF_CHAN_TYPE want[3] = {{PXF_C_INTEGER, 8}, {0, 0}, {0, 0}};
    expect_clean_failures(image, [&] { PXF__shift(image, want); }, PXF__shift_done);
    PXF_close(image);
}

TEST(MinMax, MapsObservedOrGivenRangesAndReportsThem) {
    const int width = 30, height = 4, bits = 12;
    PXF_IMAGE *image = synthetic_image(synthetic_desc(width, height, 2, PXF_C_INTEGER, bits, 1), PXF_MODE_READ);
    float low[3] = {1e9f, 1e9f, 1e9f}, high[3] = {-1e9f, -1e9f, -1e9f};
    for (int l = 0; l < height; ++l)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                float v = float(integer_pixel(l, x, c, bits));
                low[c] = std::min(low[c], v), high[c] = std::max(high[c], v);
            }
    ASSERT_EQ(PXF__minmax_init(image, nullptr), image);
    ASSERT_EQ(top_of(image)->tag, PXF_OP_MINMAX);
    EXPECT_EQ(image->info.images[0].chan.type, PXF_C_FLOAT);
    for (int c = 0; c < 3; ++c) {
        float lo, hi;
        ASSERT_EQ(PXF__minmax_range(image, c, &lo, &hi), 1);
        EXPECT_EQ(lo, low[c]);
        EXPECT_EQ(hi, high[c]);
    }
    EXPECT_EQ(PXF__minmax_range(image, 3, nullptr, nullptr), 0);
    // Scanlines in any order, from what was kept.
    expect_rows<float>(image, 3, [&](int l, int x, int c) {
        return (float(integer_pixel(l, x, c, bits)) - low[c]) * (1.0f / (high[c] - low[c]));
    }, {3, 0, 2, 0});
    EXPECT_EQ(PXF__minmax_done(image), 1);
    EXPECT_EQ(image->info.images[0].chan.type, PXF_C_INTEGER);
    EXPECT_EQ(PXF__minmax_range(image, 0, nullptr, nullptr), 0);
    // Given ranges: values outside are clipped; a flat range reads 0.
    const float ranges[6] = {100.0f, 1100.0f, 0.0f, 4095.0f, 7.0f, 7.0f};
    ASSERT_EQ(PXF__minmax_init(image, ranges), image);
    expect_rows<float>(image, 3, [&](int l, int x, int c) {
        if (c == 2) return 0.0f;
        float v = (float(integer_pixel(l, x, c, bits)) - ranges[2 * c]) * (1.0f / (ranges[2 * c + 1] - ranges[2 * c]));
        return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
    });
    EXPECT_EQ(PXF__minmax_done(image), 1);
    expect_clean_failures(image, [&] { PXF__minmax_init(image, nullptr); }, PXF__minmax_done);
    PXF_close(image);
}

TEST(Select, OneImageOfAFileWithChainedImages) {
    TempDir dir;
    const std::string path = dir.file("two.rla");
    PXF_IMAGE_DESC images[2] = {synthetic_desc(6, 4, 3, PXF_C_INTEGER, 8), synthetic_desc(5, 3, 1, PXF_C_INTEGER, 8)};
    images[0].chan.format = const_cast<char *>("rgb");
    images[1].chan.format = const_cast<char *>("grey");
    auto value = [](int i, int l, int x, int c) { return uint8_t(i * 100 + l * 20 + x * 3 + c); };
    PXF_INFO info;
    PXF_info_init(&info);
    info.key = const_cast<char *>("rla");
    info.handle = const_cast<char *>(path.c_str());
    info.num_images = 2;
    info.images = images;
    PXF_IMAGE *out = PXF_open(&info, "w");
    ASSERT_TRUE(out);
    for (int i = 0; i < 2; ++i) {
        PXF_IMAGE_DESC d = images[i];
        int w = d.window.right + 1;
        void **rows = pxf__chan_alloc(&d, w, "test");
        for (int l = 0; l <= d.window.top; ++l) {
            for (int c = 0; c < d.chan.count; ++c)
                for (int x = 0; x < w; ++x) static_cast<uint8_t *>(rows[c])[x] = value(i, l, x, c);
            void **r = rows;
            ASSERT_EQ(out->scan(out->private_data[i], l, &r, out->private_data), 0);
        }
        pxf__chan_free(rows);
    }
    ASSERT_EQ(PXF_close(out), 0);

    info.key = nullptr;
    info.num_images = 0;
    info.images = nullptr;
    PXF_IMAGE *in = PXF_open(&info, "r");
    ASSERT_TRUE(in);
    ASSERT_EQ(in->info.num_images, 2);
    PXF_IMAGE_DESC *all = in->info.images;
    void *first = in->private_data[0], *second = in->private_data[1];
    EXPECT_EQ(PXF__select(in, 2), in);  // no such image
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    ASSERT_EQ(PXF__select(in, 1), in);
    ASSERT_EQ(top_of(in)->tag, PXF_OP_SELECT);
    EXPECT_EQ(in->info.num_images, 1);
    EXPECT_EQ(in->info.images[0].chan.count, 1);
    EXPECT_EQ(in->info.images[0].window.right, 4);
    // Stages stack on the selected image as on any other.
    PXF__cast(in);
    expect_rows<float>(in, 1, [&](int l, int x, int c) { return float(value(1, l, x, c)) * (1.0f / 255); });
    EXPECT_EQ(PXF__select_done(in), 0);  // the cast is on top
    EXPECT_EQ(PXF__cast_done(in), 1);
    EXPECT_EQ(PXF__select_done(in), 1);
    EXPECT_EQ(in->info.num_images, 2);
    EXPECT_EQ(in->info.images, all);
    EXPECT_EQ(in->private_data[0], first);
    EXPECT_EQ(in->private_data[1], second);
    // Closing a selected handle closes the whole file.
    PXF__select(in, 0);
    EXPECT_EQ(PXF_close(in), 0);
    // One image: nothing to select.
    PXF_IMAGE *single = synthetic_image(synthetic_desc(4, 1, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    void *driver = single->private_data[0];
    EXPECT_EQ(PXF__select(single, 0), single);
    EXPECT_EQ(single->private_data[0], driver);
    PXF_close(single);
    PXF_exit();
}

TEST(Stages, OutOfMemoryInstallsLeaveNoTrace) {
    // Colour clip and normalize on float colour with a matte.
    PXF_IMAGE *image = named_synthetic(float_desc(6, 2, 3, 1, 0), PXF_MODE_READ);
    const float range[2] = {0.0f, 2.0f};
    expect_clean_failures(image, [&] { PXF__color_clip(image); }, PXF__color_clip_done);
    expect_clean_failures(image, [&] { PXF__normalize(image, range, range, nullptr); }, PXF__normalize_done);
    PXF_close(image);
    // Samples written as XYZ: the colour setup made for it ends with it.
    ASSERT_EQ(RFL_init(4, 0, 0, 0, 0, 0, 0, 0, 0, 0), 4);
    RFL_done();
    image = named_synthetic(float_desc(6, 2, 3, 1, 0, "xyz"), PXF_MODE_WRITE);
    image->info.open_flag = 0;
    expect_clean_failures(image, [&] { PXF__samp_to_xyz(image, 4); }, PXF__samp_to_xyz_done);
    EXPECT_EQ(rfl_samples, 0);
    PXF_close(image);
    // Select on a handle of two images.
    image = synthetic_image(synthetic_desc(6, 2, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF_IMAGE_DESC *one = image->info.images;
    PXF_IMAGE_DESC two[2] = {one[0], synthetic_desc(3, 2, 1, PXF_C_INTEGER, 8)};
    void *privates[2] = {image->private_data[0], image->private_data[0]};
    void **own = image->private_data;
    image->info.images = two;
    image->info.num_images = 2;
    image->private_data = privates;
    expect_clean_failures(image, [&] { PXF__select(image, 1); }, PXF__select_done);
    EXPECT_EQ(image->info.num_images, 2);
    EXPECT_EQ(image->info.images, two);
    EXPECT_EQ(privates[1], privates[0]);
    image->info.images = one;
    image->info.num_images = 1;
    image->private_data = own;
    PXF_close(image);
}

// ---- The display chain ----

PXF_RESPONSE_CURVE gamma_curve(float g) { return {PXF_CURVE_GAMMA, g, nullptr, 0, 0, 0, 0, nullptr}; }

TEST(Display, FloatRgbaBecomesClippedEightBitColourAndMatte) {
    const int n = 4;
    const float colours[n][4] = {
        {2.0f, 0.5f, 0.5f, 1.0f}, {0.25f, 0.5f, 0.75f, 1.0f}, {0.0f, 1.0f, 0.1f, 1.0f}, {0.2f, 0.1f, 0.05f, 0.5f}};
    PXF_IMAGE *writer = float_writer("display", float_desc(n, 2, 3, 1, 0), [&](int, int x, int c) { return colours[x][c]; });
    PXF_IMAGE *reader = open_mem("display");
    ASSERT_TRUE(writer && reader);
    void *driver = reader->private_data[0];
    PXF_IMAGE_DESC before = reader->info.images[0];
    PXF_RESPONSE_CURVE display = gamma_curve(2.0f);
    const int request = PXF_DISPLAY_RED | PXF_DISPLAY_GREEN | PXF_DISPLAY_BLUE | PXF_DISPLAY_MATTE;
    ASSERT_EQ(PXF__display(reader, request, nullptr, &display), reader);
    EXPECT_EQ(tags(reader, driver), (std::vector<int>{PXF_OP_DISPLAY, PXF_OP_GAMMA, PXF_OP_QUANTIZE, PXF_OP_COLOR_CLIP}));
    EXPECT_EQ(reader->info.images[0].chan.type, PXF_C_INTEGER);
    EXPECT_EQ(reader->info.images[0].matte.width, 8);
    void **rows = nullptr;
    ASSERT_EQ(PXF_scan_read(reader, 1, &rows), 0);
    for (int x = 0; x < n; ++x)
        for (int c = 0; c < 4; ++c) {
            // The first pixel is pulled in to white; the others are inside their matte.
            float v = x == 0 && c < 3 ? 1.0f : colours[x][c];
            int quantized = int(v * 255.95f);
            // Linear 8-bit codes encoded for a display of gamma 2.
            int want = c < 3 ? int(std::pow(quantized / 255.0, 0.5) * 255 + 0.5) : quantized;
            EXPECT_EQ(static_cast<uint8_t *>(rows[c])[x], want) << x << " " << c;
        }
    EXPECT_EQ(PXF__display_done(reader), 1);
    EXPECT_EQ(reader->private_data[0], driver);
    EXPECT_EQ(reader->info.images[0].chan.type, before.chan.type);
    EXPECT_EQ(reader->info.images[0].matte.width, before.matte.width);
    PXF_close(reader);
    PXF_close(writer);
    PXF_exit();
}

TEST(Display, DeepAndXyzImagesAndLuminance) {
    // 16-bit colour: only a shift to 8 bits.
    PXF_IMAGE *image = synthetic_image(synthetic_desc(20, 3, 3, PXF_C_INTEGER, 16), PXF_MODE_READ);
    image->info.images[0].chan.format = strdup("rgb");  // the handle frees it
    void *driver = image->private_data[0];
    ASSERT_EQ(PXF__display(image, PXF_DISPLAY_RED | PXF_DISPLAY_GREEN | PXF_DISPLAY_BLUE, nullptr, nullptr), image);
    EXPECT_EQ(tags(image, driver), (std::vector<int>{PXF_OP_DISPLAY, PXF_OP_SHIFT}));
    expect_rows<uint8_t>(image, 3, [](int l, int x, int c) { return uint8_t(integer_pixel(l, x, c, 16) >> 8); });
    PXF_close(image);

    // XYZ: towards RGB; luminance of RGB: one channel.
    struct Case {
        const char *format;
        int request;
        std::vector<int> chain;
        int channels;
    } cases[] = {
        {"xyz", PXF_DISPLAY_RED, {PXF_OP_DISPLAY, PXF_OP_XYZ_RGB}, 3},
        {"rgb", PXF_DISPLAY_LUMINANCE, {PXF_OP_DISPLAY, PXF_OP_RGB_Y}, 1},
        {"xyz", PXF_DISPLAY_LUMINANCE, {PXF_OP_DISPLAY, PXF_OP_XYZ_Y, PXF_OP_GAMMA}, 1},
    };
    PXF_RESPONSE_CURVE display = gamma_curve(2.2f);
    for (const Case &k : cases) {
        image = synthetic_image(synthetic_desc(20, 3, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
        image->info.images[0].chan.format = strdup(k.format);  // the handle frees it
        driver = image->private_data[0];
        ASSERT_EQ(PXF__display(image, k.request, nullptr, &display), image);
        EXPECT_EQ(tags(image, driver), k.chain) << k.format;
        EXPECT_EQ(image->info.images[0].chan.count, k.channels);
        void **rows = nullptr;
        EXPECT_EQ(PXF_scan_read(image, 2, &rows), 0);
        EXPECT_EQ(PXF__display_done(image), 1);
        EXPECT_EQ(image->private_data[0], driver);
        EXPECT_EQ(image->info.images[0].chan.count, 3);
        EXPECT_EQ(rfl_samples, 0);
        PXF_close(image);
    }
    // The auxiliary channel over 1 to 10000.
    const float aux[] = {0.5f, 1.0f, 5000.5f, 10000.0f, 1e6f};
    PXF_IMAGE *writer = float_writer("display_aux", float_desc(5, 1, 1, 0, 1, "grey"),
                                     [&](int, int x, int c) { return c == 0 ? 0.5f : aux[x]; });
    image = open_mem("display_aux");
    ASSERT_TRUE(writer && image);
    driver = image->private_data[0];
    ASSERT_EQ(PXF__display(image, PXF_DISPLAY_AUX, nullptr, nullptr), image);
    EXPECT_EQ(tags(image, driver), (std::vector<int>{PXF_OP_DISPLAY, PXF_OP_QUANTIZE, PXF_OP_NORMALIZE}));
    void **rows = nullptr;
    ASSERT_EQ(PXF_scan_read(image, 0, &rows), 0);
    for (int x = 0; x < 5; ++x)
        EXPECT_EQ(static_cast<uint8_t *>(rows[1])[x],
                  uint8_t(std::min(std::max(aux[x] - 1.0f, 0.0f), 9999.0f) / 9999.0f * 255.95f)) << x;
    EXPECT_EQ(static_cast<uint8_t *>(rows[1])[1], 0);
    EXPECT_EQ(static_cast<uint8_t *>(rows[1])[3], 255);
    PXF_close(image);
    PXF_close(writer);
    PXF_exit();
}

TEST(Display, RefusalsSayWhyAndFailuresComeOffCleanly) {
    struct Case {
        int mattes, aux;
        const char *format;
        int request;
        std::string said;
        int error;
    } cases[] = {
        {2, 0, "rgb", PXF_DISPLAY_MATTE, "display operator cannot handle multiple matte channels", PXF_E_CANNOT_DO},
        {0, 0, "rgb", PXF_DISPLAY_MATTE, "The image has no matte channel information", PXF_E_CANNOT_DO},
        {0, 2, "rgb", PXF_DISPLAY_AUX, "display operator cannot handle multiple auxiliary channels", PXF_E_CANNOT_DO},
        {0, 0, "rgb", PXF_DISPLAY_AUX, "The image has no auxiliary channel information", PXF_E_CANNOT_DO},
        {0, 0, "cmyk", PXF_DISPLAY_LUMINANCE, "Invalid channel format cmyk", PXF_E_UNKNOWN_TYPE},
        {0, 0, "cmyk", PXF_DISPLAY_RED, "Invalid channel format cmyk", PXF_E_UNKNOWN_TYPE},
    };
    for (const Case &k : cases) {
        PXF_IMAGE *image = synthetic_image(synthetic_desc(4, 1, 3, PXF_C_INTEGER, 8, k.mattes, k.aux), PXF_MODE_READ);
        image->info.images[0].chan.format = strdup(k.format);  // the handle frees it
        void *driver = image->private_data[0];
        ReportCapture capture;
        EXPECT_EQ(PXF__display(image, k.request, nullptr, nullptr), image);
        EXPECT_EQ(capture.last(), k.said);
        EXPECT_EQ(pxf__err, k.error);
        EXPECT_EQ(image->private_data[0], driver);
        PXF_close(image);
    }
    // Whatever allocation fails, taking the display off leaves the image as it was.
    PXF_IMAGE *image = synthetic_image(synthetic_desc(6, 2, 3, PXF_C_FLOAT, 32, 1), PXF_MODE_READ);
    image->info.images[0].chan.format = strdup("rgb");  // the handle frees it
    void *driver = image->private_data[0];
    const float target[8] = {0.64f, 0.33f, 0.30f, 0.60f, 0.15f, 0.06f, 0.3127f, 0.3290f};
    PXF_RESPONSE_CURVE display = gamma_curve(2.2f);
    ASSERT_EQ(RFL_init(3, 0, 0, 0, 0, 0, 0, 0, 0, 0), 3);  // the colour defaults are read before the loop
    RFL_done();
    FMT_def_gamma_tab_res();
    PXF_IMAGE_DESC before = image->info.images[0];
    ReportCapture quiet;
    int failures = 0;
    for_each_allocation_failure(
        [&] {
            PXF_IMAGE *result = PXF__display(image, PXF_DISPLAY_RED | PXF_DISPLAY_MATTE, target, &display);
            bool whole = result && tags(image, driver) ==
                                       std::vector<int>{PXF_OP_DISPLAY, PXF_OP_RGB_RGB, PXF_OP_QUANTIZE, PXF_OP_COLOR_CLIP};
            while (image->private_data[0] != driver) {
                int tag = top_of(image)->tag;
                int removed = tag == PXF_OP_DISPLAY ? PXF__display_done(image)
                            : tag == PXF_OP_QUANTIZE ? PXF__quantize_done(image)
                            : tag == PXF_OP_COLOR_CLIP ? PXF__color_clip_done(image) : PXF__rgb_rgb_done(image);
                EXPECT_EQ(removed, 1);
            }
            return whole;
        },
        [&](int) {
            ++failures;
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(image->info.images[0].chan.type, before.chan.type);
            EXPECT_EQ(image->info.images[0].matte.width, before.matte.width);
            EXPECT_EQ(rfl_samples, 0);
        });
    EXPECT_GT(failures, 5);
    PXF_close(image);
}

}  // namespace
