// The quantize operator: the 0.95 rounding, depths, no clipping, and when it
// stays away.
#include <gtest/gtest.h>

#include <cstring>

#include "support/test_support.h"
#include "synthetic.h"

namespace {

using pxf::test::float_pixel;
using pxf::test::synthetic_desc;
using pxf::test::synthetic_image;
using pxf::test::top_of;

constexpr int W = 50, H = 2;

// A float image whose first channel's first pixels hold `values`.
struct Probe {
    PXF_OPERATOR head;
    const float *values;
    int count;
};

int poke_scan(void *data, int line, void ***rows, void **table) {
    auto *p = static_cast<Probe *>(data);
    int status = p->head.saved_scan(p->head.saved_private, line, rows, table);
    std::memcpy((*rows)[0], p->values, sizeof(float) * std::size_t(p->count));
    return status;
}

int poke_close(PXF_IMAGE *image) {
    auto *p = static_cast<Probe *>(image->private_data[0]);
    image->scan = p->head.saved_scan;
    image->close = p->head.saved_close;
    image->private_data[0] = p->head.saved_private;
    delete p;
    return PXF_close_do_it(image);
}

// Quantizes `values` to `bits` and returns the first row.
template <class T>
std::vector<T> quantize(const std::vector<float> &values, int bits) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 1, PXF_C_FLOAT, 32), PXF_MODE_READ);
    auto *p = new Probe{{3, image->scan, image->close, image->private_data[0]}, values.data(), int(values.size())};
    image->scan = poke_scan;
    image->close = poke_close;
    image->private_data[0] = p;
    const PXF_CHAN_TYPE request[3] = {{PXF_C_INTEGER, bits}, {0, 0}, {0, 0}};
    PXF__quantize(image, request);
    EXPECT_EQ(top_of(image)->tag, PXF_OP_QUANTIZE);
    EXPECT_EQ(image->info.images[0].chan.width, bits);
    void **rows = nullptr;
    EXPECT_EQ(PXF_scan_read(image, 0, &rows), 0);
    std::vector<T> out(static_cast<T *>(rows[0]), static_cast<T *>(rows[0]) + values.size());
    PXF_close(image);
    return out;
}

TEST(Quantize, RoundsUpOnlyWithinAStepOfTheNextCode) {
    EXPECT_EQ(quantize<uint8_t>({1.0f, 0.5f, 0.99f, 0.0f, 254.0f / 255, 254.2f / 255}, 8),
              (std::vector<uint8_t>{255, 127, 253, 0, 254, 255}));
    EXPECT_EQ(quantize<uint16_t>({1.0f, 0.5f}, 12), (std::vector<uint16_t>{4095, 2047}));
    EXPECT_EQ(quantize<uint16_t>({1.0f}, 16), (std::vector<uint16_t>{65535}));
}

TEST(Quantize, NoClipping) {
    // 1.5 x 255.95 = 383.9: the low 8 bits of 383 are kept.
    EXPECT_EQ(quantize<uint8_t>({1.5f}, 8), (std::vector<uint8_t>{383 & 0xff}));
    // 32-bit results of 2^31 and above are kept as unsigned.
    auto wide = quantize<uint32_t>({0.75f, 0.5f}, 32);
    EXPECT_EQ(wide[0], uint32_t(0.75f * float(4294967295.0 + 0.95)));
    EXPECT_GE(wide[0], 2147483648u);
}

TEST(Quantize, UntouchedGroupsPassThroughAndDescriptionIsRestored) {
    PXF_IMAGE_DESC d = synthetic_desc(W, H, 2, PXF_C_FLOAT, 32, 1, 1);
    PXF_IMAGE *image = synthetic_image(d, PXF_MODE_READ);
    const PXF_CHAN_TYPE request[3] = {{0, 0}, {PXF_C_INTEGER, 16}, {0, 0}};
    PXF__quantize(image, request);
    ASSERT_EQ(top_of(image)->tag, PXF_OP_QUANTIZE);
    EXPECT_EQ(image->info.images[0].chan.type, PXF_C_FLOAT);
    EXPECT_EQ(image->info.images[0].matte.type, PXF_C_INTEGER);
    void **rows = nullptr;
    ASSERT_EQ(PXF_scan_read(image, 1, &rows), 0);
    for (int x = 0; x < W; ++x) {
        EXPECT_EQ(static_cast<float *>(rows[1])[x], float(float_pixel(1, x, 1)));
        EXPECT_EQ(static_cast<uint16_t *>(rows[2])[x], uint16_t(float(float_pixel(1, x, 2)) * 65535.95f));
        EXPECT_EQ(static_cast<float *>(rows[3])[x], float(float_pixel(1, x, 3)));
    }
    EXPECT_EQ(PXF__quantize_done(image), 1);
    EXPECT_EQ(std::memcmp(&image->info.images[0], &d, sizeof d), 0);
    PXF_close(image);
}

TEST(Quantize, StaysAwayWhenThereIsNothingToDo) {
    const PXF_CHAN_TYPE bytes[3] = {{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}};
    PXF_IMAGE *integer = synthetic_image(synthetic_desc(W, H, 3, PXF_C_INTEGER, 8), PXF_MODE_READ);
    PXF_IMAGE *flagged = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32), PXF_MODE_READ);
    flagged->info.open_flag = 0;
    PXF_IMAGE *writing = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32), PXF_MODE_WRITE);
    PXF_IMAGE *deep = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32), PXF_MODE_READ);
    const PXF_CHAN_TYPE too_deep[3] = {{PXF_C_INTEGER, 33}, {0, 0}, {0, 0}};
    for (PXF_IMAGE *image : {integer, flagged, writing, deep}) {
        void *driver = image->private_data[0];
        EXPECT_EQ(PXF__quantize(image, image == deep ? too_deep : bytes), image);
        EXPECT_EQ(image->private_data[0], driver);
        PXF_close(image);
    }
}

TEST(Quantize, OutOfMemoryLeavesChainAndDescriptionAsTheyWere) {
    PXF_IMAGE *image = synthetic_image(synthetic_desc(W, H, 3, PXF_C_FLOAT, 32, 1), PXF_MODE_READ);
    PXF_IMAGE_DESC before = image->info.images[0];
    void *driver = image->private_data[0];
    const PXF_CHAN_TYPE bytes[3] = {{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 8}, {0, 0}};
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure(
        [&] {
            PXF__quantize(image, bytes);
            if (image->private_data[0] == driver) return false;
            PXF__quantize_done(image);
            return true;
        },
        [&](int) {
            EXPECT_EQ(image->private_data[0], driver);
            EXPECT_EQ(std::memcmp(&image->info.images[0], &before, sizeof before), 0);
        });
    PXF_close(image);
}

}  // namespace
