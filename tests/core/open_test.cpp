// PXF_open's driver selection and messages, the handle builders, and round
// trips through the plug-ins' files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <pxf/plugin.h>
#include <pxf/pxf.h>

#include "core_test_util.h"
#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using pxf::test::describe;
using pxf::test::numbered;
using pxf::test::ReportCapture;
using pxf::test::Request;
using pxf::test::StderrCapture;

class Open : public pxf::test::Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(pxf::test::init_with_plugins({"raw_plugin", "top_plugin", "raw_read_only"}, catalog_), 0);
    }
    Request request_;
    PXF_IMAGE_DESC desc_{};
    pxf::test::TempDir dir_;
};

TEST_F(Open, ModeMustBeExactlyReadOrWrite) {
    request_.set(nullptr, "x.mem");
    for (const char *mode : {"rw", "R", ""}) {
        ReportCapture capture;
        pxf::fault::arm(1);
        EXPECT_EQ(request_.open(mode), nullptr);
        EXPECT_FALSE(pxf::fault::fired()) << "allocated before checking the mode";
        pxf::fault::disarm();
        EXPECT_EQ(capture.last(),
                  numbered(44, "File open mode (\"" + std::string(mode) + "\") not recognized; expecting \"r\" or \"w\""));
    }
}

TEST_F(Open, RefusedWritesSayWhy) {
    struct Case {
        const char *file, *key;
        int bits, code, number;
        const char *text;
    };
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

TEST_F(Open, UninitialisedInfoIsWarnedAboutButUsed) {
    PXF_INFO raw;
    std::memset(&raw, 0, sizeof raw);
    raw.handle = const_cast<char *>("nothing.mem");
    raw.open_flag = 1;
    StderrCapture err;
    EXPECT_EQ(PXF_open(&raw, "r"), nullptr);  // no memory writer of that name
    EXPECT_EQ(err.finish(),
              "PXF_open: application programming error.\n"
              "The application must call PXF_info_init or PXF_info_alloc\n"
              "on the info structure before passing it to PXF_open.\n");
}

// Writes a 3-channel 8-bit image through `request`, rows in the driver's order.
void write_pattern(Request &request, bool top_down, int mattes = 0) {
    PXF_IMAGE *out = request.open("w");
    ASSERT_NE(out, nullptr);
    const PXF_IMAGE_DESC &d = out->info.images[0];
    int width = d.window.right + 1, height = d.window.top + 1;
    void **rows = pxf__chan_alloc(&out->info.images[0], width, "test");
    for (int i = 0; i < height; ++i) {
        int line = top_down ? height - 1 - i : i;
        for (int c = 0; c < 3 + mattes; ++c)
            for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = uint8_t(line * 31 + x * 7 + c);
        ASSERT_EQ(PXF_scan_write(out, line, &rows), 0) << line;
        EXPECT_EQ(out->current_line, line);
    }
    pxf__chan_free(rows);
    EXPECT_EQ(PXF_close(out), 0);
}

// Reads every line in the file's order and checks the pattern, then closes.
void expect_pattern(PXF_IMAGE *in, int channels, bool top_down) {
    int width = in->info.images[0].window.right + 1, height = in->info.images[0].window.top + 1;
    void **rows = pxf__chan_alloc(&in->info.images[0], width, "test");
    for (int i = 0; i < height; ++i) {
        int line = top_down ? height - 1 - i : i;
        void **got = rows;
        ASSERT_EQ(PXF_scan_read(in, line, &got), 0) << line;
        for (int c = 0; c < channels; ++c)
            for (int x = 0; x < width; ++x)
                ASSERT_EQ(static_cast<uint8_t *>(got[c])[x], uint8_t(line * 31 + x * 7 + c)) << line << "," << c;
    }
    pxf__chan_free(rows);
    EXPECT_EQ(PXF_close(in), 0);
}

TEST_F(Open, RoundTripThroughPluginChosenByExtensionAndByProbe) {
    desc_ = describe(9, 5, 3, 8, 1);
    std::string path = dir_.file("frame.raw");
    write_pattern(request_.set(nullptr, path.c_str(), &desc_), false, 1);

    int decided = 0;
    const char *key = PXF_get_file_type(path.c_str(), nullptr, &decided);
    ASSERT_STREQ(key, "raw");
    Request reading;
    PXF_IMAGE *in = reading.set(key, path.c_str()).open("r");
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->info.ext, ".raw");
    EXPECT_EQ(in->driver, PXF_find("raw"));
    EXPECT_EQ(in->current_line, -1);  // bottom up
    ASSERT_EQ(in->info.num_images, 1);
    EXPECT_EQ(in->info.images[0].matte.count, 1);
    expect_pattern(in, 4, false);
}

TEST_F(Open, KeyWinsOverTheFileNameAndTopDownStartsAboveTheWindow) {
    desc_ = describe(6, 4, 3, 8);
    std::string path = dir_.file("picture.raw");  // the key, not the extension, decides
    write_pattern(request_.set("top", path.c_str(), &desc_), true);
    EXPECT_EQ(pxf::test::read_file(path).substr(0, 5), "PXTOP");

    Request reading;
    PXF_IMAGE *in = reading.set(".top", path.c_str()).open("r");  // an extension works as a key too
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->info.key, "top");
    EXPECT_EQ(in->current_line, 4);
    expect_pattern(in, 3, true);
}

TEST_F(Open, WriteHandleCopiesTheDescriptionWithDefaults) {
    desc_ = describe(4, 3, 3, 8);
    request_.set("mem", "defaults.mem", &desc_);
    request_.info.job_num = 0;
    setenv("QV_JOB_NUM", "4711", 1);
    PXF_IMAGE *out = request_.open("w");
    unsetenv("QV_JOB_NUM");
    ASSERT_NE(out, nullptr);
    const PXF_INFO &i = out->info;
    EXPECT_EQ(i.job_num, 4711);
    EXPECT_STREQ(i.name, "catalogue-name");  // set 901, from the catalogue
    ASSERT_NE(i.date, nullptr);
    EXPECT_EQ(std::string(1, i.date[0]) + std::string(i.date).back(), "{}");
    EXPECT_NE(i.images, &desc_);
    EXPECT_STREQ(i.images[0].chan.format, "catalogue-format");
    EXPECT_EQ(PXF_close(out), 0);
}

TEST_F(Open, ScanWithoutScanFunctionFails) {
    desc_ = describe(4, 4, 3, 8);
    PXF_IMAGE *out = request_.set(nullptr, "stdout.pipe", &desc_).open("w");
    ASSERT_NE(out, nullptr);
    Request reading;
    PXF_IMAGE *in = reading.set(nullptr, "stdout.pipe").open("r");  // the pipe's read open installs nothing
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
    std::string huge(10000, 'x');
    EXPECT_EQ(std::strlen(pxf__build_handle("/d", huge.c_str(), ".rla")), 4095u);
}

}  // namespace
