// Seeking on sequential plug-in files in both orientations, and on drivers
// that position themselves.
#include <gtest/gtest.h>

#include <cstring>

#include <pxf/plugin.h>
#include <pxf/pxf.h>

#include "core_test_util.h"
#include "support/test_support.h"

namespace {

using pxf::test::describe;
using pxf::test::set_text;

class Seek : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(pxf::test::init_with_plugins({"raw_plugin", "ppm_plugin"}), 0); }
    void TearDown() override { PXF_exit(); }

    // Writes rows whose bytes all equal their line number; returns the reader.
    PXF_IMAGE *write_then_open(const char *key, int height, bool top_down) {
        PXF_IMAGE_DESC d = describe(4, height, 3, 8);
        PXF_INFO info;
        PXF_info_init(&info);
        set_text(info.key, key);
        set_text(info.handle, dir_.file(std::string("seek.") + key).c_str());
        info.images = &d;
        info.num_images = 1;
        PXF_IMAGE *out = PXF_open(&info, "w");
        EXPECT_NE(out, nullptr);
        if (!out) return nullptr;
        void **rows = pxf__chan_alloc(&d, 4, "test");
        for (int i = 0; i < height; ++i) {
            int line = top_down ? height - 1 - i : i;
            for (int c = 0; c < 3; ++c) std::memset(rows[c], line, 4);
            EXPECT_EQ(PXF_scan_write(out, line, &rows), 0);
        }
        pxf__chan_free(rows);
        PXF_close(out);
        info.images = nullptr;
        info.num_images = 0;
        PXF_IMAGE *in = PXF_open(&info, "r");
        PXF_info_cleanup(&info, 1);
        buffer_ = describe(4, 1, 3, 8);
        return in;
    }
    // Reads `line` and checks that it holds its own number.
    void expect_line(PXF_IMAGE *in, int line) {
        void **rows = pxf__chan_alloc(&buffer_, 4, "test");
        void **got = rows;
        EXPECT_EQ(PXF_scan_read(in, line, &got), 0) << line;
        EXPECT_EQ(static_cast<uint8_t *>(got[2])[3], line);
        pxf__chan_free(rows);
    }
    pxf::test::TempDir dir_;
    PXF_IMAGE_DESC buffer_{};
};

TEST_F(Seek, BottomUpFileReopensWhenGoingBack) {
    PXF_IMAGE *in = write_then_open("raw", 6, false);
    ASSERT_NE(in, nullptr);
    for (int line = 0; line < 4; ++line) expect_line(in, line);
    EXPECT_EQ(PXF_seek(&in, 1), 0);
    ASSERT_NE(in, nullptr);
    expect_line(in, 1);
    EXPECT_EQ(PXF_seek(&in, 2), 0);  // the next line: nothing to skip
    EXPECT_EQ(in->current_line, 1);
    expect_line(in, 2);
    EXPECT_EQ(PXF_seek(&in, 5), 0);  // forward: skips 3 and 4
    EXPECT_EQ(in->current_line, 4);
    expect_line(in, 5);
    EXPECT_EQ(PXF_seek(&in, -1), 0);  // the window bottom
    expect_line(in, 0);
    PXF_close(in);
}

TEST_F(Seek, TopDownFileMirrorsIt) {
    PXF_IMAGE *in = write_then_open("ppm", 5, true);
    ASSERT_NE(in, nullptr);
    expect_line(in, 4);
    expect_line(in, 3);
    EXPECT_EQ(PXF_seek(&in, 4), 0);
    expect_line(in, 4);
    EXPECT_EQ(PXF_seek(&in, 1), 0);
    EXPECT_EQ(in->current_line, 2);
    expect_line(in, 1);
    EXPECT_EQ(PXF_seek(&in, -1), 0);  // the window top
    expect_line(in, 4);
    PXF_close(in);
}

TEST_F(Seek, LineBeforeTheWindowCannotBeReached) {
    PXF_IMAGE *in = write_then_open("raw", 3, false);
    ASSERT_NE(in, nullptr);
    pxf::test::StderrCapture err;
    PXF_seek(&in, -5);
    EXPECT_EQ(err.finish(), "PXF_seek: did not advance image pointer correctly\n");
    ASSERT_NE(in, nullptr);
    expect_line(in, 0);
    PXF_close(in);
}

TEST_F(Seek, FailedReopenLeavesNoHandle) {
    PXF_IMAGE *in = write_then_open("raw", 3, false);
    ASSERT_NE(in, nullptr);
    expect_line(in, 0);
    expect_line(in, 1);
    std::remove(dir_.file("seek.raw").c_str());
    PXF_seek(&in, 0);
    EXPECT_EQ(in, nullptr);
}

int seen_line = -100;
int own_seek(void *, int line) {
    seen_line = line;
    pxf__err = -7;
    return 0;
}

TEST_F(Seek, DriverSeekAndRandomAccessNeedNoReopen) {
    PXF_IMAGE_DESC d = describe(4, 4, 3, 8);
    PXF_INFO info;
    PXF_info_init(&info);
    set_text(info.key, "mem");
    set_text(info.handle, "seek.mem");
    info.images = &d;
    info.num_images = 1;
    PXF_IMAGE *out = PXF_open(&info, "w");
    ASSERT_NE(out, nullptr);
    info.images = nullptr;
    info.num_images = 0;
    PXF_IMAGE *in = PXF_open(&info, "r");
    ASSERT_NE(in, nullptr);
    PXF_IMAGE *before = in;
    EXPECT_EQ(PXF_seek(&in, 0), 0);
    EXPECT_EQ(in, before);
    in->seek = own_seek;
    EXPECT_EQ(PXF_seek(&in, 3), -7);
    EXPECT_EQ(seen_line, 3);
    PXF_close(in);
    PXF_close(out);
    PXF_info_cleanup(&info, 1);
}

}  // namespace
