// PXF_open's driver selection and messages, the handle builders, and round
// trips and seeks through the plug-ins' files.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <pxf/plugin.h>
#include <pxf/pxf.h>

#include "core_test_util.h"
#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

uint8_t pattern(int line, int x, int c) { return uint8_t(line * 31 + x * 7 + c); }

// Writes one line of the pattern, or reads it and checks it.
void transfer(PXF_IMAGE *image, int line, bool writing) {
    PXF_IMAGE_DESC &d = image->info.images[0];
    int width = d.window.right + 1, groups = d.chan.count + d.matte.count;
    void **rows = pxf__chan_alloc(&d, width, "test"), **io = rows;
    for (int c = 0; writing && c < groups; ++c)
        for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = pattern(line, x, c);
    EXPECT_EQ(writing ? PXF_scan_write(image, line, &io) : PXF_scan_read(image, line, &io), 0) << line;
    for (int c = 0; !writing && c < groups; ++c)
        for (int x = 0; x < width; ++x) EXPECT_EQ(static_cast<uint8_t *>(io[c])[x], pattern(line, x, c)) << line;
    pxf__chan_free(rows);
}
void expect_line(PXF_IMAGE *in, int line) { transfer(in, line, false); }

// Writes every line of `request`'s 8-bit image in the driver's order.
void write_pattern(Request &request, bool top_down) {
    PXF_IMAGE *out = request.open("w");
    ASSERT_NE(out, nullptr);
    for (int i = 0, height = out->info.images[0].window.top + 1; i < height; ++i) {
        int line = top_down ? height - 1 - i : i;
        transfer(out, line, true);
        EXPECT_EQ(out->current_line, line);
    }
    EXPECT_EQ(PXF_close(out), 0);
}

class Open : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(init_with_plugins({"raw_plugin", "top_plugin", "raw_read_only"}, catalog_), 0);
    }
    Request request_;
    PXF_IMAGE_DESC desc_{};
    TempDir dir_;
};

TEST_F(Open, ModeMustBeExactlyReadOrWrite) {
    request_.set(nullptr, "x.mem");
    for (std::string mode : {"rw", "R", ""}) {
        ReportCapture capture;
        pxf::fault::arm(1);
        EXPECT_EQ(request_.open(mode.c_str()), nullptr);
        EXPECT_FALSE(pxf::fault::fired()) << "allocated before checking the mode";
        pxf::fault::disarm();
        EXPECT_EQ(capture.last(),
                  numbered(44, "File open mode (\"" + mode + "\") not recognized; expecting \"r\" or \"w\""));
    }
}

TEST_F(Open, RefusedWritesSayWhy) {
    struct Case { const char *file, *key; int bits, code, number; const char *text; };
    const Case cases[] = {
        {nullptr, nullptr, 8, PXF_E_MISSING_FIELD, 88, "Required field, handle, uninitialized"},
        {"a.xyz", "nosuch", 8, PXF_E_UNKNOWN_TYPE, 51,
         "Invalid type rla (either the output file format type or the channel type stored in the file is incorrect)"},
        {"a.rro", nullptr, 8, PXF_E_CANNOT_DO, 87, "rawro cannot handle the requested action"},  // no write open
        {"deep.raw", nullptr, 12, PXF_E_CANNOT_DO, 73, "raw pixels cannot handle image channel width"},
    };
    for (const Case &c : cases) {
        desc_ = describe(4, 4, 3, c.bits);
        request_.set(c.key, c.file ? dir_.file(c.file).c_str() : nullptr, &desc_);
        ReportCapture capture;
        EXPECT_EQ(request_.open("w"), nullptr) << c.number;
        EXPECT_EQ(pxf__err, c.code) << c.number;
        EXPECT_EQ(capture.last(), numbered(c.number, c.text));
    }
}

TEST_F(Open, UninitialisedInfoIsWarnedAboutAndRefused) {
    PXF_INFO raw;
    std::memset(&raw, 0xa5, sizeof raw);  // what the stack held: wild strings and counts
    for (const char *mode : {"r", "w"}) {
        StderrCapture err;
        pxf__err = 0;
        EXPECT_EQ(PXF_open(&raw, mode), nullptr);
        EXPECT_EQ(pxf__err, PXF_E_MISSING_FIELD);
        EXPECT_EQ(err.finish(),
                  "PXF_open: application programming error.\nThe application must call PXF_info_init or PXF_info_alloc\n"
                  "on the info structure before passing it to PXF_open.\n");
    }
}

TEST_F(Open, BottomUpRoundTripChosenByExtensionAndProbeThenSeeks) {
    desc_ = describe(9, 6, 3, 8, 1);
    std::string path = dir_.file("frame.raw");
    write_pattern(request_.set(nullptr, path.c_str(), &desc_), false);
    int decided = 0;
    const char *key = PXF_get_file_type(path.c_str(), nullptr, &decided);
    ASSERT_STREQ(key, "raw");
    PXF_IMAGE *in = request_.set(key, path.c_str()).open("r");
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->info.ext, ".raw");
    EXPECT_EQ(in->driver, PXF_find("raw"));
    EXPECT_EQ(in->current_line, -1);  // below the window
    EXPECT_EQ(in->info.images[0].matte.count, 1);
    for (int line = 0; line < 6; ++line) expect_line(in, line);

    // A sequential file reopens when the line has gone by and skips up to it.
    EXPECT_EQ(PXF_seek(&in, 1), 0);
    expect_line(in, 1);
    EXPECT_EQ(PXF_seek(&in, 2), 0);  // the next line: nothing to skip
    EXPECT_EQ(in->current_line, 1);
    expect_line(in, 2);
    EXPECT_EQ(PXF_seek(&in, 5), 0);  // skips 3 and 4
    EXPECT_EQ(in->current_line, 4);
    expect_line(in, 5);
    EXPECT_EQ(PXF_seek(&in, -1), 0);  // the window bottom
    expect_line(in, 0);

    StderrCapture err;
    PXF_seek(&in, -5);
    EXPECT_EQ(err.finish(), "PXF_seek: did not advance image pointer correctly\n");
    ASSERT_NE(in, nullptr);
    expect_line(in, 0);
    std::remove(path.c_str());
    PXF_seek(&in, 0);
    EXPECT_EQ(in, nullptr);  // the failed reopen leaves no handle
}

TEST_F(Open, TopDownRoundTripByKeyThenSeeks) {
    desc_ = describe(6, 5, 3, 8);
    std::string path = dir_.file("picture.raw");  // the key, not the extension, decides
    write_pattern(request_.set("top", path.c_str(), &desc_), true);
    EXPECT_EQ(read_file(path).substr(0, 5), "PXTOP");
    PXF_IMAGE *in = request_.set(".top", path.c_str()).open("r");  // an extension works as a key too
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->info.key, "top");
    EXPECT_EQ(in->current_line, 5);  // above the window
    for (int line = 4; line >= 0; --line) expect_line(in, line);

    EXPECT_EQ(PXF_seek(&in, 4), 0);
    expect_line(in, 4);
    EXPECT_EQ(PXF_seek(&in, 1), 0);
    EXPECT_EQ(in->current_line, 2);
    expect_line(in, 1);
    EXPECT_EQ(PXF_seek(&in, -1), 0);  // the window top
    expect_line(in, 4);
    EXPECT_EQ(PXF_close(in), 0);
}

int own_seek(void *, int line) { return (pxf__err = -line), 0; }

TEST_F(Open, DriverSeekAndRandomAccessNeedNoReopen) {
    desc_ = describe(4, 4, 3, 8);
    PXF_IMAGE *out = request_.set("mem", "seek.mem", &desc_).open("w");
    PXF_IMAGE *in = request_.set("mem", "seek.mem").open("r"), *before = in;
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(PXF_seek(&in, 0), 0);
    EXPECT_EQ(in, before);
    in->seek = own_seek;
    EXPECT_EQ(PXF_seek(&in, 3), -3);  // the driver's answer
    PXF_close(in);
    PXF_close(out);
}

TEST_F(Open, WriteHandleFillsDefaultsFromEnvironmentAndCatalogue) {
    desc_ = describe(4, 3, 3, 8);
    request_.set("mem", "defaults.mem", &desc_);
    request_.info.job_num = 0;
    setenv("QV_JOB_NUM", "4711", 1);
    PXF_IMAGE *out = request_.open("w");
    unsetenv("QV_JOB_NUM");
    ASSERT_NE(out, nullptr);
    const PXF_INFO &i = out->info;
    EXPECT_EQ(i.job_num, 4711);
    EXPECT_STREQ(i.name, "catalogue-name");
    ASSERT_NE(i.date, nullptr);
    EXPECT_EQ(std::string(1, i.date[0]) + std::string(i.date).back(), "{}");
    EXPECT_STREQ(i.images[0].chan.format, "catalogue-format");
    EXPECT_EQ(PXF_close(out), 0);
}

TEST_F(Open, ScanWithoutScanFunctionFails) {
    desc_ = describe(4, 4, 3, 8);
    PXF_IMAGE *out = request_.set(nullptr, "stdout.pipe", &desc_).open("w");
    PXF_IMAGE *in = request_.set(nullptr, "stdout.pipe").open("r");  // the pipe's read open installs nothing
    ASSERT_NE(out, nullptr);
    ASSERT_NE(in, nullptr);
    void **rows = nullptr;
    EXPECT_EQ(PXF_scan_read(in, 0, &rows), PXF_E_CANNOT_DO);
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_EQ(PXF_direct_scan_read(out, 0, nullptr, 0, 0, 0.0f), PXF_E_CANNOT_DO);
    EXPECT_EQ(PXF_close(in), PXF_E_CANNOT_DO);  // and no close function either
    pxf__free_obj(in);
    EXPECT_EQ(PXF_close(out), 0);
}

TEST(BuildHandle, JoinsDirectoryNameAndExtension) {
    EXPECT_STREQ(pxf__build_handle("/a/b", "img", ".rla"), "/a/b/img.rla");
    EXPECT_STREQ(pxf__build_handle("/a/b", "img.", ".rla"), "/a/b/img.rla");
    EXPECT_STREQ(pxf__build_handle("/a/b", "./img.rla", ".rla"), "./img.rla");
    EXPECT_STREQ(pxf__build_handle("/a/b/", "/abs/img", ".rla"), "/abs/img.rla");
    EXPECT_STREQ(pxf__build_handle("/a/b/", "img.rla", ".rla"), "/a/b/img.rla");
    EXPECT_STREQ(pxf__build_handle("", "img", ".rla"), "img.rla");
    EXPECT_STREQ(pxf__build_handle(nullptr, "img", ""), "img");
    EXPECT_EQ(std::strlen(pxf__build_handle("/d", std::string(10000, 'x').c_str(), ".rla")), 4095u);
}

}  // namespace
