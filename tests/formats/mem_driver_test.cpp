// Memory images: round trips of every element width, sharing between a
// writer and its readers, and the list of open writers.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <pxf/pxf.h>

#include "core/core_test_util.h"
#include "support/test_support.h"

namespace {

using pxf::test::describe;
using pxf::test::numbered;
using pxf::test::ReportCapture;
using pxf::test::set_text;

class Memory : public ::testing::Test {
protected:
    void SetUp() override {
        catalog_ = pxf::test::numbered_catalog();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
        PXF_info_init(&info_);
    }
    void TearDown() override {
        info_.images = nullptr;
        info_.num_images = 0;
        PXF_info_cleanup(&info_, 1);
        PXF_exit();
        catclose(catalog_);
        pxf__msg_cat = nullptr;
    }
    PXF_IMAGE *open(const char *name, const char *mode, PXF_IMAGE_DESC *desc = nullptr, int images = 1) {
        set_text(info_.key, "mem");
        set_text(info_.handle, name);
        info_.images = desc;
        info_.num_images = desc ? images : 0;
        return PXF_open(&info_, mode);
    }
    nl_catd catalog_{};
    PXF_INFO info_{};
};

std::size_t element_bytes(int type, int bits) {
    if (type == PXF_C_FLOAT) return 4;
    return bits <= 8 ? 1 : bits <= 16 ? 2 : 4;
}

struct Shape {
    int type, bits;
};

TEST_F(Memory, EveryWidthRoundTripsInRandomRowOrder) {
    const Shape shapes[] = {{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 12}, {PXF_C_INTEGER, 16},
                            {PXF_C_INTEGER, 32}, {PXF_C_FLOAT, 32}};
    std::mt19937 random(7);
    for (const Shape &shape : shapes) {
        SCOPED_TRACE(shape.bits);
        const int width = 13, height = 11, channels = 3 + 1 + 2;
        PXF_IMAGE_DESC d = describe(width, height, 3, shape.bits, 1, 2, shape.type);
        std::string name = "round-trip-" + std::to_string(shape.type) + "-" + std::to_string(shape.bits);
        PXF_IMAGE *out = open(name.c_str(), "w", &d);
        ASSERT_NE(out, nullptr);
        std::size_t row_bytes = width * element_bytes(shape.type, shape.bits);
        std::vector<std::vector<uint8_t>> expected(height * channels, std::vector<uint8_t>(row_bytes));
        std::vector<int> order(height);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random);
        void **rows = pxf__chan_alloc(&d, width, "test");
        for (int line : order) {
            for (int c = 0; c < channels; ++c) {
                auto &bytes = expected[line * channels + c];
                for (auto &b : bytes) b = uint8_t(random());
                std::memcpy(rows[c], bytes.data(), row_bytes);
            }
            ASSERT_EQ(PXF_scan_write(out, line, &rows), 0);
        }
        pxf__chan_free(rows);

        PXF_IMAGE *in = open(name.c_str(), "r");
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(in->mode, PXF_MODE_READ);
        EXPECT_EQ(in->info.images, out->info.images);  // shared, not copied
        std::shuffle(order.begin(), order.end(), random);
        for (int line : order) {
            void **got = nullptr;
            ASSERT_EQ(PXF_scan_read(in, line, &got), 0);
            for (int c = 0; c < channels; ++c)
                ASSERT_EQ(std::memcmp(got[c], expected[line * channels + c].data(), row_bytes), 0)
                    << "line " << line << " channel " << c;
        }
        EXPECT_EQ(PXF_close(in), 0);
        EXPECT_EQ(PXF_close(out), 0);
    }
}

TEST_F(Memory, TypicalRequestWritesAndReadsWhileTheWriterIsOpen) {
    PXF_IMAGE_DESC d = describe(8, 6, 3, 8);
    PXF_IMAGE *writer = open("shot", "w", &d);
    ASSERT_NE(writer, nullptr);
    void **rows = pxf__chan_alloc(&d, 8, "test");
    for (int line = 0; line < 6; ++line) {
        for (int c = 0; c < 3; ++c) std::memset(rows[c], line * 10 + c, 8);
        ASSERT_EQ(PXF_scan_write(writer, line, &rows), 0);
    }
    pxf__chan_free(rows);
    PXF_IMAGE *reader = open("shot", "r");
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->current_line, -1);
    EXPECT_STREQ(reader->info.handle, "shot");
    for (int line = 0; line < 6; ++line) {
        void **got = nullptr;
        ASSERT_EQ(PXF_scan_read(reader, line, &got), 0);
        EXPECT_EQ(static_cast<uint8_t *>(got[2])[7], line * 10 + 2);
        EXPECT_EQ(reader->current_line, line);
    }
    EXPECT_EQ(PXF_close(reader), 0);
    EXPECT_EQ(PXF_close(writer), 0);
    EXPECT_EQ(open("shot", "r"), nullptr);  // the image died with its writer
}

TEST_F(Memory, ReadingAnUnknownNameFailsSilently) {
    ReportCapture capture;
    EXPECT_EQ(open("never-written", "r"), nullptr);
    PXF_IMAGE_DESC d = describe(2, 2, 1, 8);
    PXF_IMAGE *out = open("written", "w", &d);
    EXPECT_EQ(open("Written", "r"), nullptr);  // names are case-sensitive
    EXPECT_TRUE(capture.reports().empty());
    PXF_close(out);
}

TEST_F(Memory, OldestWriterOfANameWins) {
    PXF_IMAGE_DESC small = describe(2, 2, 1, 8), large = describe(5, 3, 1, 8);
    PXF_IMAGE *first = open("twice", "w", &small);
    PXF_IMAGE *second = open("twice", "w", &large);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    PXF_IMAGE *reader = open("twice", "r");
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->info.images[0].window.right, 1);
    PXF_close(reader);
    PXF_close(first);  // the second writer now serves the name
    reader = open("twice", "r");
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->info.images[0].window.right, 4);
    PXF_close(reader);
    PXF_close(second);
    EXPECT_EQ(open("twice", "r"), nullptr);
    PXF_IMAGE *again = open("twice", "w", &small);  // the list is made anew
    ASSERT_NE(again, nullptr);
    PXF_close(again);
}

TEST_F(Memory, RowsOutsideTheWindowAreRefused) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8);
    PXF_IMAGE *out = open("bounds", "w", &d);
    ASSERT_NE(out, nullptr);
    void **rows = pxf__chan_alloc(&d, 4, "test");
    for (int line : {-1, 3}) {
        ReportCapture capture;
        EXPECT_EQ(PXF_scan_write(out, line, &rows), PXF_E_BAD_SCANLINE);
        EXPECT_EQ(pxf__err, PXF_E_BAD_SCANLINE);
        EXPECT_EQ(capture.last(), numbered(53, "Bad scanline: " + std::to_string(line) +
                                                   " (out of range, or not in sequence if a sequential file)"));
        EXPECT_EQ(out->current_line, -1);
    }
    PXF_IMAGE *in = open("bounds", "r");
    void **got = nullptr;
    EXPECT_EQ(PXF_scan_read(in, 3, &got), PXF_E_BAD_SCANLINE);
    EXPECT_EQ(got, nullptr);
    pxf__chan_free(rows);
    PXF_close(in);
    PXF_close(out);
}

TEST_F(Memory, SeveralImagesEachKeepTheirOwnRows) {
    PXF_IMAGE_DESC d[3] = {describe(4, 2, 3, 8), describe(6, 5, 1, 16, 1), describe(2, 9, 2, 32)};
    PXF_IMAGE *out = open("layers", "w", d, 3);
    ASSERT_NE(out, nullptr);
    PXF_IMAGE *in = open("layers", "r");
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(in->info.num_images, 3);
    PXF_close(in);
    PXF_close(out);  // frees every image's row table exactly once
}

TEST_F(Memory, ChannelFaultsFailTheOpens) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8);
    d.aux.type = 0;
    ReportCapture capture;
    EXPECT_EQ(open("bad", "w", &d), nullptr);
    EXPECT_EQ(capture.last(), numbered(70, "mem cannot handle auxiliary channel type"));
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_FALSE(PXF_mem_is_file("bad", nullptr));
}

}  // namespace
