// Memory images: round trips of every element width, sharing between a
// writer and its readers, and the list of open writers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <pxf/pxf.h>

#include "core/core_test_util.h"
#include "pattern_io.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

class Memory : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    }
    PXF_IMAGE *open(const char *name, const char *mode, PXF_IMAGE_DESC *desc = nullptr, int images = 1) {
        return request_.set("mem", name, desc, images).open(mode);
    }
    Request request_;
};

TEST_F(Memory, EveryWidthRoundTripsInRandomRowOrder) {
    std::mt19937 rng(7);
    for (auto [type, bits] : {std::pair{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 12}, {PXF_C_INTEGER, 16},
                              {PXF_C_INTEGER, 32}, {PXF_C_FLOAT, 32}}) {
        SCOPED_TRACE(testing::Message() << type << "/" << bits);
        PXF_IMAGE_DESC d = describe(13, 11, 3, bits, 1, 2, type);
        const std::string name = "round-trip-" + std::to_string(type) + "-" + std::to_string(bits);
        PXF_IMAGE *out = open(name.c_str(), "w", &d);
        ASSERT_TRUE(out && write_pattern(out, &rng));
        PXF_IMAGE *in = open(name.c_str(), "r");
        ASSERT_NE(in, nullptr);
        expect_pattern(in, true, rng);
        EXPECT_EQ(PXF_close(in), 0);
        EXPECT_EQ(PXF_close(out), 0);
    }
}

TEST_F(Memory, OldestWriterOfANameWinsAndTheImageDiesWithItsWriters) {
    ReportCapture capture;
    PXF_IMAGE_DESC small = describe(2, 2, 1, 8), large = describe(5, 3, 1, 8);
    PXF_IMAGE *first = open("twice", "w", &small), *second = open("twice", "w", &large);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(open("Twice", "r"), nullptr);  // names are case-sensitive
    for (PXF_IMAGE *writer : {first, second}) {
        PXF_IMAGE *reader = open("twice", "r");
        ASSERT_NE(reader, nullptr);
        EXPECT_EQ(reader->current_line, -1);
        EXPECT_EQ(reader->info.images[0].window.right, writer == first ? 1 : 4);
        PXF_close(reader);
        PXF_close(writer);  // the next writer now serves the name
    }
    EXPECT_EQ(open("twice", "r"), nullptr);
    EXPECT_TRUE(capture.reports().empty());  // an unknown name fails silently
    PXF_IMAGE *again = open("twice", "w", &small);  // the list is made anew
    ASSERT_NE(again, nullptr);
    PXF_close(again);
}

TEST_F(Memory, ReadersKeepTheirOwnBuffersAndDescriptions) {
    PXF_IMAGE_DESC d = describe(4, 2, 3, 8);
    PXF_IMAGE *out = open("pair", "w", &d);
    ASSERT_NE(out, nullptr);
    void **rows = pxf__chan_alloc(&d, 4, "test");
    for (int c = 0; c < 3; ++c) std::memset(rows[c], 200 + c, 4);
    ASSERT_EQ(PXF_scan_write(out, 1, &rows), 0);
    pxf__chan_free(rows);

    PXF_IMAGE *first = open("pair", "r"), *second = open("pair", "r");
    ASSERT_TRUE(first && second);
    // An operator on one reader converts that reader's description only.
    ASSERT_EQ(PXF__cast(first), first);
    EXPECT_EQ(first->info.images[0].chan.type, PXF_C_FLOAT);
    EXPECT_EQ(out->info.images[0].chan.type, PXF_C_INTEGER);
    void **got = nullptr;
    ASSERT_EQ(PXF_scan_read(first, 1, &got), 0);
    EXPECT_FLOAT_EQ(static_cast<float *>(got[2])[3], 202 / 255.0f);
    EXPECT_EQ(PXF_close(first), 0);

    // The second reader's buffer survived the first reader's close, and a
    // reader opened now still copies bytes.
    ASSERT_EQ(PXF_scan_read(second, 1, &got), 0);
    EXPECT_EQ(static_cast<uint8_t *>(got[0])[0], 200);
    PXF_IMAGE *third = open("pair", "r");
    ASSERT_NE(third, nullptr);
    ASSERT_EQ(PXF_scan_read(third, 1, &got), 0);
    EXPECT_EQ(static_cast<uint8_t *>(got[1])[3], 201);
    PXF_close(third);
    PXF_close(second);
    PXF_close(out);
}

TEST_F(Memory, RowsOutsideTheWindowAreRefused) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8);
    PXF_IMAGE *out = open("bounds", "w", &d);
    ASSERT_NE(out, nullptr);
    void **rows = pxf__chan_alloc(&d, 4, "test"), **got = nullptr;
    for (int line : {-1, 3}) {
        ReportCapture capture;
        EXPECT_EQ(PXF_scan_write(out, line, &rows), PXF_E_BAD_SCANLINE);
        EXPECT_EQ(pxf__err, PXF_E_BAD_SCANLINE);
        EXPECT_EQ(capture.last(), numbered(53, "Bad scanline: " + std::to_string(line) +
                                                   " (out of range, or not in sequence if a sequential file)"));
        EXPECT_EQ(out->current_line, -1);
    }
    PXF_IMAGE *in = open("bounds", "r");
    EXPECT_EQ(PXF_scan_read(in, 3, &got), PXF_E_BAD_SCANLINE);
    EXPECT_EQ(got, nullptr);
    pxf__chan_free(rows);
    PXF_close(in);
    PXF_close(out);
}

TEST_F(Memory, SeveralImagesAndChannelFaults) {
    PXF_IMAGE_DESC d[3] = {describe(4, 2, 3, 8), describe(6, 5, 1, 16, 1), describe(2, 9, 2, 32)};
    PXF_IMAGE *out = open("layers", "w", d, 3), *in = open("layers", "r");
    ASSERT_TRUE(out && in);
    EXPECT_EQ(in->info.num_images, 3);
    PXF_close(in);
    PXF_close(out);  // frees every image's row table exactly once

    d[0].aux.type = 0;
    ReportCapture capture;
    EXPECT_EQ(open("bad", "w", d), nullptr);
    EXPECT_EQ(capture.last(), numbered(70, "mem cannot handle auxiliary channel type"));
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_FALSE(PXF_mem_is_file("bad", nullptr));
}

}  // namespace
