// Frame-numbered file sequences opened as one multi-frame image.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <pxf/frames.h>

#include "core/core_test_util.h"
#include "pattern_io.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

class Sequence : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    }
    // Writes one RLA file whose pixels are those of `frame`.
    void write(const std::string &name, int frame, PXF_IMAGE_DESC d) {
        PXF_IMAGE *image = request_.set(nullptr, dir_.file(name).c_str(), &d).open("w");
        ASSERT_NE(image, nullptr);
        void **rows = pxf__chan_alloc(&d, d.window.right + 1, "test");
        for (int y = 0; y <= d.window.top; ++y) {
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x <= d.window.right; ++x) {
                    const double v = pixel(frame, c, x, y, group_of(d, c));
                    element(rows[c], x, group_of(d, c), &v);
                }
            ASSERT_EQ(PXF_scan_write(image, y, &rows), 0);
        }
        pxf__chan_free(rows);
        ASSERT_EQ(PXF_close(image), 0);
    }
    PXF_IMAGE *open(const std::string &pattern) {
        return request_.set(nullptr, dir_.file(pattern).c_str()).open("r");
    }
    PXF_IMAGE_DESC desc_ = describe(11, 6, 3, 16, 1);
    Request request_;
    TempDir dir_;
};

TEST_F(Sequence, FilesOfTheDirectoryReadAsFramesAndGapsAreReported) {
    for (int f : {12, 10, 9, 14, 17}) write("shot." + std::string(f < 10 ? "000" : "00") + std::to_string(f) + ".rla", f, desc_);
    write("shot.0010.rlx", 99, desc_);  // another suffix
    write("other.0011.rla", 99, desc_);  // another name
    for (const char *pattern : {"shot.####.rla", "shot.%04d.rla"}) {
        SCOPED_TRACE(pattern);
        ReportCapture capture;
        PXF_IMAGE *image = open(pattern);
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(capture.last(), numbered(711, dir_.file(pattern) + ": frames missing from the sequence: 11, 13, 15-16"));
        EXPECT_EQ(capture.reports()[0].severity, 2);
        ASSERT_EQ(PXF_multiframe_count(image), 5);
        EXPECT_EQ(PXF_get_frame(image), 9);
        EXPECT_EQ(image->info.frame, 9);
        EXPECT_EQ(image->info.images[0].window.right, 10);
        std::mt19937 rng(5);
        for (int f : {17, 9, 14, 10, 12}) {
            ASSERT_EQ(PXF_set_frame(image, f), 0);
            void **rows = nullptr;
            for (int y : lines_of(desc_.window, &rng)) {
                ASSERT_EQ(PXF_scan_read(image, y, &rows), 0);
                for (int x = 0; x <= 10; x += 3)
                    ASSERT_EQ(element(rows[3], x, desc_.matte), pixel(f, 3, x, y, desc_.matte)) << f << " " << x << " " << y;
            }
        }
        EXPECT_EQ(PXF_set_frame(image, 13), PXF_E_NO_FRAME);
        EXPECT_EQ(capture.last(), numbered(706, dir_.file(pattern) + ": there is no frame 13"));
        EXPECT_EQ(PXF_close(image), 0);
    }
}

TEST_F(Sequence, FramesMustMatchAndSomeMustExist) {
    write("s.1.rla", 1, desc_);
    PXF_IMAGE_DESC wider = describe(12, 6, 3, 16, 1);
    write("s.2.rla", 2, wider);
    ReportCapture capture;
    PXF_IMAGE *image = open("s.#.rla");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(PXF_set_frame(image, 2), -16);
    EXPECT_EQ(capture.last(), numbered(713, "Frame 2 (" + dir_.file("s.2.rla") + ") differs in size or layout from the sequence"));
    EXPECT_EQ(PXF_get_frame(image), 1);
    EXPECT_EQ(PXF_close(image), 0);
    EXPECT_EQ(open("none.####.rla"), nullptr);
    EXPECT_EQ(capture.last(), numbered(712, dir_.file("none.####.rla") + ": no frame of the sequence was found"));
    EXPECT_EQ(pxf__err, -5);
    for_each_allocation_failure([&] {
        PXF_IMAGE *seq = open("s.#.rla");
        return seq && PXF_close(seq) == 0;
    });
}

}  // namespace
