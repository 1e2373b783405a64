// Field pairs read as one interlaced frame, over memory images named like
// field files.
#include <gtest/gtest.h>

#include <string>

#include "mem_images.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

constexpr int W = 6, H = 4;  // one field

// Field file n holds n * 40 + line * 8 + x in every channel.
uint8_t field_value(int n, int line, int x) { return uint8_t(n * 40 + line * 8 + x); }

class FieldPair : public ::testing::Test {
protected:
    void TearDown() override {
        for (PXF_IMAGE *w : writers_) PXF_close(w);
        PXF_exit();
    }
    // Writes field files numbered 7 and 8 under the given names.
    void write_pair(const std::string &odd, const std::string &even, PXF_IMAGE_DESC even_desc = mem_desc(W, H, 3),
                    const std::function<void(PXF_INFO &)> &adjust_even = nullptr) {
        PXF_IMAGE_DESC odd_desc = mem_desc(W, H, 3);
        odd_desc.active_window = {1, 4, 0, 2};
        writers_.push_back(open_mem(odd, &odd_desc, [](int l, int x, int) { return field_value(7, l, x); }));
        writers_.push_back(
            open_mem(even, &even_desc, [](int l, int x, int) { return field_value(8, l, x); }, adjust_even));
    }
    std::vector<PXF_IMAGE *> writers_;
};

// Every frame scanline: even ones from file 7, odd ones from file 8.
void expect_interlaced(PXF_IMAGE *frame) {
    for (int y = 0; y < 2 * H; ++y) {
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(frame, y, &rows), 0) << y;
        for (int x = 0; x < W; ++x)
            ASSERT_EQ(static_cast<uint8_t *>(rows[2])[x], field_value(y % 2 ? 8 : 7, y / 2, x)) << y << " " << x;
    }
}

TEST_F(FieldPair, TwoFieldsReadAsOneFrameOfTwiceTheHeight) {
    PXF_IMAGE_DESC even = mem_desc(W, H, 3);
    even.active_window = {2, 5, 1, 3};
    write_pair("shot.0007", "shot.0008", even);
    write_pair("take.07", "take.0008");           // the partner always has four digits
    write_pair("clip.0007.mem", "clip.0008");     // and no driver extension
    for (const char *given : {"shot.0007", "shot.0008", "take.07", "clip.0007.mem"}) {
        PXF_IMAGE *field = open_mem(given);
        PXF_IMAGE *frame = PXF__field_init(field);
        ASSERT_NE(frame, field) << given;
        EXPECT_EQ(frame->mode, PXF_MODE_WRITE);
        EXPECT_EQ(static_cast<PXF_OPERATOR *>(frame->private_data[0])->tag, PXF_OP_FIELD);
        const PXF_IMAGE_DESC &d = frame->info.images[0];
        EXPECT_EQ(d.window.top, 2 * (H - 1) + 1);  // doubled, not summed
        if (given[0] == 's') {
            // The union of both active windows, doubled vertically.
            const PXF_BOUNDS expected = {1, 5, 0, 7};
            EXPECT_EQ(std::memcmp(&d.active_window, &expected, sizeof expected), 0);
        }
        expect_interlaced(frame);
        EXPECT_EQ(given[0] == 'c' ? PXF__field_done(frame) : PXF_close(frame), 0);  // closes both fields
    }
}

TEST_F(FieldPair, NamesWithoutAFieldNumberOrPartnerAreLeftAlone) {
    for (const char *name : {"nodot", "shot.00a7", "shot.", "alone.0011"}) {
        PXF_IMAGE_DESC d = mem_desc(W, H, 3);
        writers_.push_back(open_mem(name, &d, [](int, int, int) { return uint8_t(1); }));
        PXF_IMAGE *field = open_mem(name);
        ReportCapture capture;
        EXPECT_EQ(PXF__field_init(field), field) << name;
        EXPECT_TRUE(capture.reports().empty());
        PXF_close(field);
    }
}

TEST_F(FieldPair, MismatchedFieldsAreRefusedInOrder) {
    struct Case {
        const char *message;
        std::function<void(PXF_IMAGE_DESC &)> change;
        std::function<void(PXF_INFO &)> change_info;
    };
    const Case cases[] = {
        {"Field frames have different color primaries", nullptr, [](PXF_INFO &i) { i.white_pt[1] += 0.01f; }},
        {"Field frames have different gammas", [](PXF_IMAGE_DESC &d) { d.curve.gamma = 2.2f; }, nullptr},
        {"Field frames have different image channel properties",
         [](PXF_IMAGE_DESC &d) { d.chan.format = const_cast<char *>("xyz"); }, nullptr},
        {"Field frames have different matte channel properties", [](PXF_IMAGE_DESC &d) { d.matte.count = 1; },
         nullptr},
        {"Field frames have different aspect types", [](PXF_IMAGE_DESC &d) { d.aspect_ratio = 1.5f; }, nullptr},
        {"Field frames have different image window sizes", [](PXF_IMAGE_DESC &d) { d.window.right += 1; }, nullptr},
        // Two differences: the earlier check speaks.
        {"Field frames have different image channel properties",
         [](PXF_IMAGE_DESC &d) { d.chan.count = 4, d.window.top += 1; }, nullptr},
    };
    int n = 0;
    for (const Case &c : cases) {
        std::string stem = "bad" + std::to_string(n++);
        PXF_IMAGE_DESC d = mem_desc(W, H, 3);
        if (c.change) c.change(d);
        write_pair(stem + ".0007", stem + ".0008", d, c.change_info);
        PXF_IMAGE *field = open_mem(stem + ".0007");
        ReportCapture capture;
        EXPECT_EQ(PXF__field_init(field), field);
        EXPECT_EQ(capture.last(), c.message);
        EXPECT_EQ(pxf__err, PXF_E_FIELD_MISMATCH);
        void **rows = nullptr;  // the given field is still whole
        ASSERT_EQ(PXF_scan_read(field, 1, &rows), 0);
        EXPECT_EQ(static_cast<uint8_t *>(rows[0])[2], field_value(7, 1, 2));
        PXF_close(field);
    }
}

TEST_F(FieldPair, OutOfMemoryReturnsTheGivenFieldUsable) {
    write_pair("oom.0007", "oom.0008");
    ReportCapture capture;
    for_each_allocation_failure([&] {
        PXF_IMAGE *field = open_mem("oom.0007");
        if (!field) return false;
        PXF_IMAGE *frame = PXF__field_init(field);
        if (frame != field) return PXF_close(frame) == 0;
        void **rows = nullptr;
        EXPECT_EQ(PXF_scan_read(field, 0, &rows), 0);
        PXF_close(field);
        return false;
    });
}

}  // namespace

namespace {

// The same pair as real field files on disk, once the RLA driver is built in.
TEST(FieldFiles, RlaShotPairReadsAsOneFrame) {
    if (!PXF_find("rla")) GTEST_SKIP() << "no rla driver in this build";
    TempDir dir;
    auto adjust = [](PXF_INFO &info) { info.key = const_cast<char *>("rla"); };
    for (int n : {7, 8}) {
        PXF_IMAGE_DESC d = mem_desc(W, H, 3);
        PXF_IMAGE *w = open_mem(dir.file("shot.000" + std::to_string(n) + ".rla"), &d,
                                [n](int l, int x, int) { return field_value(n, l, x); }, adjust);
        ASSERT_NE(w, nullptr);
        ASSERT_EQ(PXF_close(w), 0);
    }
    PXF_INFO info;
    PXF_info_init(&info);
    std::string given = dir.file("shot.0007.rla");
    info.key = const_cast<char *>("rla");
    info.handle = const_cast<char *>(given.c_str());
    PXF_IMAGE *field = PXF_open(&info, "r");
    ASSERT_NE(field, nullptr);
    PXF_IMAGE *frame = PXF__field_init(field);
    ASSERT_NE(frame, field);
    expect_interlaced(frame);
    EXPECT_EQ(PXF_close(frame), 0);
    PXF_exit();
}

}  // namespace
