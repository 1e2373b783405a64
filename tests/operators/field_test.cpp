// Field pairs read as one interlaced frame, over memory images named like
// field files and over real files on disk.
#include "images.h"

namespace {

using namespace pxf::test;

constexpr int W = 6, H = 4;  // one field

// Field file n holds n * 40 + line * 8 + x in every channel.
uint8_t field_value(int n, int line, int x) { return uint8_t(n * 40 + line * 8 + x); }

PXF_IMAGE *write_field(const std::string &name, int n, const std::function<void(PXF_INFO &)> &adjust = nullptr) {
    PXF_IMAGE_DESC d = synthetic_desc(W, H, 3, PXF_C_INTEGER, 8);
    return open_mem(name, &d, [n](int l, int x, int) { return field_value(n, l, x); }, adjust);
}

// Every frame scanline: even ones from file 7, odd ones from file 8.
void expect_interlaced(PXF_IMAGE *frame) {
    expect_rows<uint8_t>(frame, 3, [](int y, int x, int) { return field_value(y % 2 ? 8 : 7, y / 2, x); });
}

class FieldPair : public ::testing::Test {
protected:
    void TearDown() override {
        for (PXF_IMAGE *w : writers_) PXF_close(w);
        PXF_exit();
    }
    // Writes field files 7 and 8 under the given names; `adjust_even` may change file 8.
    void write_pair(const std::string &odd, const std::string &even,
                    const std::function<void(PXF_INFO &)> &adjust_even = nullptr) {
        writers_.push_back(write_field(odd, 7, [](PXF_INFO &i) { i.images[0].active_window = {1, 4, 0, 2}; }));
        writers_.push_back(write_field(even, 8, adjust_even));
    }
    std::vector<PXF_IMAGE *> writers_;
};

TEST_F(FieldPair, TwoFieldsReadAsOneFrameOfTwiceTheHeight) {
    write_pair("shot.0007", "shot.0008", [](PXF_INFO &i) { i.images[0].active_window = {2, 5, 1, 3}; });
    write_pair("take.07", "take.0008");        // the partner always has four digits
    write_pair("clip.0007.mem", "clip.0008");  // and no driver extension
    for (const char *given : {"shot.0007", "shot.0008", "take.07", "clip.0007.mem"}) {
        PXF_IMAGE *field = open_mem(given);
        PXF_IMAGE *frame = PXF__field_init(field);
        ASSERT_NE(frame, field) << given;
        EXPECT_EQ(frame->mode, PXF_MODE_WRITE);
        const PXF_IMAGE_DESC &d = frame->info.images[0];
        EXPECT_EQ(d.window.top, 2 * H - 1);  // doubled, not summed
        // The union of both active windows, doubled vertically.
        const PXF_BOUNDS active = given[0] == 's' ? PXF_BOUNDS{1, 5, 0, 7} : PXF_BOUNDS{0, 5, 0, 7};
        EXPECT_EQ(std::memcmp(&d.active_window, &active, sizeof active), 0) << given;
        expect_interlaced(frame);
        EXPECT_EQ(given[0] == 'c' ? PXF__field_done(frame) : PXF_close(frame), 0);  // closes both fields
    }
}

TEST_F(FieldPair, NamesWithoutAFieldNumberOrPartnerAreLeftAlone) {
    for (const char *name : {"nodot", "shot.00a7", "shot.", "alone.0011"}) {
        writers_.push_back(write_field(name, 1));
        PXF_IMAGE *field = open_mem(name);
        ReportCapture capture;
        EXPECT_EQ(PXF__field_init(field), field) << name;
        EXPECT_TRUE(capture.reports().empty());
        PXF_close(field);
    }
}

TEST_F(FieldPair, MismatchedFieldsAreRefusedAndTheGivenFieldStaysUsable) {
    using Change = void (*)(PXF_IMAGE_DESC &, PXF_INFO &);
    const std::pair<const char *, Change> cases[] = {
        {"color primaries", [](PXF_IMAGE_DESC &, PXF_INFO &i) { i.white_pt[1] += 0.01f; }},
        {"gammas", [](PXF_IMAGE_DESC &d, PXF_INFO &) { d.curve.gamma = 2.2f; }},
        {"image channel properties", [](PXF_IMAGE_DESC &d, PXF_INFO &) { d.chan.format = const_cast<char *>("xyz"); }},
        {"matte channel properties", [](PXF_IMAGE_DESC &d, PXF_INFO &) { d.matte.count = 1; }},
        {"aspect types", [](PXF_IMAGE_DESC &d, PXF_INFO &) { d.aspect_ratio = 1.5f; }},
        {"image window sizes", [](PXF_IMAGE_DESC &d, PXF_INFO &) { d.window.right += 1; }},
        // Two differences: the earlier check speaks.
        {"image channel properties", [](PXF_IMAGE_DESC &d, PXF_INFO &) { d.chan.count = 4, d.window.top += 1; }},
    };
    int n = 0;
    for (const auto &[what, change] : cases) {
        std::string stem = "bad" + std::to_string(n++);
        write_pair(stem + ".0007", stem + ".0008", [change](PXF_INFO &i) { change(i.images[0], i); });
        PXF_IMAGE *field = open_mem(stem + ".0007");
        ReportCapture capture;
        EXPECT_EQ(PXF__field_init(field), field);
        EXPECT_EQ(capture.last(), std::string("Field frames have different ") + what);
        EXPECT_EQ(pxf__err, PXF_E_FIELD_MISMATCH);
        void **rows = nullptr;
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

TEST(FieldFiles, RlaShotPairReadsAsOneFrame) {
    if (!PXF_find("rla")) GTEST_SKIP() << "no rla driver in this build";
    TempDir dir;
    auto rla = [](PXF_INFO &info) { info.key = const_cast<char *>("rla"); };
    for (int n : {7, 8}) {
        std::string name = dir.file("shot.000" + std::to_string(n) + ".rla");
        ASSERT_EQ(PXF_close(write_field(name, n, rla)), 0);
    }
    PXF_IMAGE *field = open_mem(dir.file("shot.0007.rla"), nullptr, nullptr, rla);
    ASSERT_NE(field, nullptr);
    PXF_IMAGE *frame = PXF__field_init(field);
    ASSERT_NE(frame, field);
    expect_interlaced(frame);
    EXPECT_EQ(PXF_close(frame), 0);
    PXF_exit();
}

}  // namespace
