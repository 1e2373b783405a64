// Rectangles of open images: corners, partly outside, empty and whole, from
// a file read bottom up and from a container frame.
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

class Region : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
        desc_.window = {10, 29, 100, 111};  // 20 x 12, not at the origin
        desc_.active_window = {12, 27, 101, 110};
    }
    // Reads `want` and checks what came back against the pattern of `frame`.
    void expect_region(PXF_IMAGE *image, RCT_RECT want, const RCT_RECT &clipped, int frame = 0) {
        const int rows_needed = clipped.ymax >= clipped.ymin ? clipped.ymax - clipped.ymin + 1 : 0;
        std::vector<void **> rows(std::max(rows_needed, 1));
        for (auto &r : rows) r = pxf__chan_alloc(&desc_, 20, "test");
        EXPECT_EQ(PXF_get_region(image, &want, rows.data()), rows_needed);
        EXPECT_TRUE(RCT_same(&want, &clipped) || (!rows_needed && !RCT_valid(&want)));
        for (int r = 0; r < rows_needed; ++r)
            for (int c = 0; c < 5; ++c)
                for (int x = clipped.xmin; x <= clipped.xmax; ++x) {
                    const int y = clipped.ymin + r;
                    const PXF_BOUNDS &a = desc_.active_window;
                    const bool active = x >= a.left && x <= a.right && y >= a.bottom && y <= a.top;
                    const PXF_CHAN_GROUP &g = group_of(desc_, c);
                    ASSERT_EQ(element(rows[r][c], x - clipped.xmin, g), active ? pixel(frame, c, x - 10, y, g) : 0.0)
                        << "x " << x << " y " << y << " channel " << c;
                }
        for (auto &r : rows) pxf__chan_free(r);
    }
    void check_all(PXF_IMAGE *image, int frame = 0) {
        const std::pair<RCT_RECT, RCT_RECT> cases[] = {
            {{10, 100, 12, 102}, {10, 100, 12, 102}},    // lower left corner
            {{27, 109, 29, 111}, {27, 109, 29, 111}},    // upper right
            {{10, 109, 11, 111}, {10, 109, 11, 111}},    // upper left
            {{26, 100, 29, 101}, {26, 100, 29, 101}},    // lower right
            {{-5, 90, 13, 104}, {10, 100, 13, 104}},     // partly outside, below and left
            {{25, 108, 400, 900}, {25, 108, 29, 111}},   // partly outside, above and right
            {{30, 100, 40, 111}, {0, 0, -1, -1}},        // beside the window
            {{15, 105, 14, 106}, {0, 0, -1, -1}},        // inverted: empty
            {{0, 0, 1000, 1000}, {10, 100, 29, 111}},    // the whole image
        };
        for (const auto &[want, clipped] : cases) {
            SCOPED_TRACE(testing::Message() << want.xmin << "," << want.ymin << " " << want.xmax << "," << want.ymax);
            expect_region(image, want, clipped, frame);
        }
    }
    PXF_IMAGE_DESC desc_ = describe(20, 12, 3, 16, 1, 1);
    Request request_;
    TempDir dir_;
};

TEST_F(Region, RectanglesOfAFileAndOfAContainerFrame) {
    desc_.aux.type = PXF_C_FLOAT;
    const std::string rla = dir_.file("r.rla"), mpc = dir_.file("r.mpc");
    PXF_IMAGE *image = request_.set(nullptr, rla.c_str(), &desc_).open("w");
    ASSERT_NE(image, nullptr);
    ASSERT_TRUE(write_pattern(image));
    ASSERT_EQ(PXF_close(image), 0);
    ASSERT_NE(image = request_.open("r"), nullptr);
    check_all(image);
    PXF_close(image);

    ASSERT_NE(image = request_.set(nullptr, mpc.c_str(), &desc_).open("w"), nullptr);
    for (int frame : {8, 3}) {
        ASSERT_EQ(PXF_set_frame(image, frame), 0);
        void **rows = pxf__chan_alloc(&desc_, 20, "test");
        for (int y = 100; y <= 111; ++y) {
            for (int c = 0; c < 5; ++c)
                for (int x = 0; x < 20; ++x) {
                    const double v = pixel(frame, c, x, y, group_of(desc_, c));
                    element(rows[c], x, group_of(desc_, c), &v);
                }
            ASSERT_EQ(PXF_scan_write(image, y, &rows), 0);
        }
        pxf__chan_free(rows);
    }
    ASSERT_EQ(PXF_close(image), 0);
    ASSERT_NE(image = request_.open("r"), nullptr);
    for (int frame : {8, 3}) {
        ASSERT_EQ(PXF_set_frame(image, frame), 0);
        check_all(image, frame);
    }
    PXF_close(image);
}

}  // namespace
