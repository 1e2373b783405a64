// PXF_open's driver selection and messages, the handle builders, and round
// trips through the plug-ins' files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <pxf/plugin.h>
#include <pxf/pxf.h>

#include "core_test_util.h"
#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using pxf::test::describe;
using pxf::test::init_with_plugins;
using pxf::test::numbered;
using pxf::test::ReportCapture;
using pxf::test::set_text;
using pxf::test::StderrCapture;

class Open : public ::testing::Test {
protected:
    void SetUp() override {
        catalog_ = pxf::test::numbered_catalog();
        ASSERT_NE(catalog_, reinterpret_cast<nl_catd>(-1));
        ASSERT_EQ(init_with_plugins({"raw_plugin", "ppm_plugin", "raw_read_only"}, catalog_), 0);
        PXF_info_init(&info_);
    }
    void TearDown() override {
        info_.images = nullptr;  // the descriptions belong to the test
        info_.num_images = 0;
        PXF_info_cleanup(&info_, 1);
        PXF_exit();
        catclose(catalog_);
        pxf__msg_cat = nullptr;
    }
    void describe_one(PXF_IMAGE_DESC d) {
        desc_ = d;
        info_.images = &desc_;
        info_.num_images = 1;
    }
    nl_catd catalog_{};
    PXF_INFO info_{};
    PXF_IMAGE_DESC desc_{};
    pxf::test::TempDir dir_;
};

TEST_F(Open, ModeMustBeExactlyReadOrWrite) {
    set_text(info_.handle, "x.mem");
    for (const char *mode : {"rw", "R", ""}) {
        ReportCapture capture;
        pxf::fault::arm(1);
        EXPECT_EQ(PXF_open(&info_, mode), nullptr);
        EXPECT_FALSE(pxf::fault::fired()) << "allocated before checking the mode";
        pxf::fault::disarm();
        EXPECT_EQ(capture.last(),
                  numbered(44, "File open mode (\"" + std::string(mode) + "\") not recognized; expecting \"r\" or \"w\""));
    }
}

TEST_F(Open, WritingNeedsAFileName) {
    describe_one(describe(4, 4, 3, 8));
    ReportCapture capture;
    EXPECT_EQ(PXF_open(&info_, "w"), nullptr);
    EXPECT_EQ(pxf__err, PXF_E_MISSING_FIELD);
    EXPECT_EQ(capture.last(), numbered(88, "Required field, handle, uninitialized"));
}

TEST_F(Open, UnknownKeyNamesTheConfiguredDefault) {
    describe_one(describe(4, 4, 3, 8));
    set_text(info_.handle, dir_.file("a.xyz").c_str());
    set_text(info_.key, "nosuch");
    ReportCapture capture;
    EXPECT_EQ(PXF_open(&info_, "w"), nullptr);
    EXPECT_EQ(pxf__err, PXF_E_UNKNOWN_TYPE);
    EXPECT_EQ(capture.last(),
              numbered(51, "Invalid type rla (either the output file format type or the channel type stored in "
                           "the file is incorrect)"));
}

TEST_F(Open, DriverWithoutWriteOpenCannotWrite) {
    describe_one(describe(4, 4, 3, 8));
    set_text(info_.handle, dir_.file("a.rro").c_str());
    ReportCapture capture;
    EXPECT_EQ(PXF_open(&info_, "w"), nullptr);
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(87, "rawro cannot handle the requested action"));
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

// Writes a 3-channel 8-bit image of `width` x `height` through `info`, rows in the driver's order.
void write_pattern(PXF_INFO &info, int width, int height, bool top_down, int mattes = 0) {
    PXF_IMAGE *out = PXF_open(&info, "w");
    ASSERT_NE(out, nullptr);
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

void expect_pattern(PXF_IMAGE *in, int line, int channels) {
    int width = in->info.images[0].window.right + 1;
    void **rows = pxf__chan_alloc(&in->info.images[0], width, "test");
    void **got = rows;
    ASSERT_EQ(PXF_scan_read(in, line, &got), 0) << line;
    for (int c = 0; c < channels; ++c)
        for (int x = 0; x < width; ++x)
            ASSERT_EQ(static_cast<uint8_t *>(got[c])[x], uint8_t(line * 31 + x * 7 + c)) << line << "," << c;
    pxf__chan_free(rows);
}

TEST_F(Open, RoundTripThroughPluginChosenByExtensionAndByProbe) {
    describe_one(describe(9, 5, 3, 8, 1));
    std::string path = dir_.file("frame.raw");
    set_text(info_.handle, path.c_str());
    write_pattern(info_, 9, 5, false, 1);

    int decided = 0;
    const char *key = PXF_get_file_type(path.c_str(), nullptr, &decided);
    ASSERT_STREQ(key, "raw");
    PXF_INFO in_info;
    PXF_info_init(&in_info);
    set_text(in_info.key, key);
    set_text(in_info.handle, path.c_str());
    PXF_IMAGE *in = PXF_open(&in_info, "r");
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->info.ext, ".raw");
    EXPECT_EQ(in->driver, PXF_find("raw"));
    EXPECT_EQ(in->mode, PXF_MODE_READ);
    EXPECT_EQ(in->current_line, -1);  // bottom up
    ASSERT_EQ(in->info.num_images, 1);
    EXPECT_EQ(in->info.images[0].matte.count, 1);
    for (int line = 0; line < 5; ++line) expect_pattern(in, line, 4);
    EXPECT_EQ(PXF_close(in), 0);
    PXF_info_cleanup(&in_info, 1);
}

TEST_F(Open, KeyWinsOverTheFileNameAndTopDownStartsAboveTheWindow) {
    describe_one(describe(6, 4, 3, 8));
    std::string path = dir_.file("picture.raw");  // the key, not the extension, decides
    set_text(info_.handle, path.c_str());
    set_text(info_.key, "ppm");
    write_pattern(info_, 6, 4, true);
    EXPECT_EQ(pxf::test::read_file(path).substr(0, 2), "P6");

    PXF_INFO in_info;
    PXF_info_init(&in_info);
    set_text(in_info.key, ".ppm");  // an extension works as a key too
    set_text(in_info.handle, path.c_str());
    PXF_IMAGE *in = PXF_open(&in_info, "r");
    ASSERT_NE(in, nullptr);
    EXPECT_STREQ(in->info.key, "ppm");
    EXPECT_EQ(in->current_line, 4);
    for (int line = 3; line >= 0; --line) expect_pattern(in, line, 3);
    EXPECT_EQ(PXF_close(in), 0);
    PXF_info_cleanup(&in_info, 1);
}

TEST_F(Open, PluginChecksTheDescriptionThroughTheLibrary) {
    describe_one(describe(4, 4, 3, 12));
    set_text(info_.handle, dir_.file("deep.raw").c_str());
    ReportCapture capture;
    EXPECT_EQ(PXF_open(&info_, "w"), nullptr);
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(73, "raw pixels cannot handle image channel width"));
}

TEST_F(Open, WriteHandleCopiesTheDescriptionWithDefaults) {
    describe_one(describe(4, 3, 3, 8));
    desc_.aspect_ratio = 1.5f;
    set_text(info_.handle, "defaults.mem");
    set_text(info_.key, "mem");
    info_.frame = 7;
    info_.job_num = 0;
    setenv("QV_JOB_NUM", "4711", 1);
    PXF_IMAGE *out = PXF_open(&info_, "w");
    unsetenv("QV_JOB_NUM");
    ASSERT_NE(out, nullptr);
    const PXF_INFO &i = out->info;
    EXPECT_EQ(i.job_num, 4711);
    EXPECT_EQ(i.frame, 7);
    EXPECT_STREQ(i.name, "catalogue-name");  // set 901, from the catalogue
    EXPECT_STREQ(i.desc, "unknown");
    EXPECT_STREQ(i.compression, "unknown");
    EXPECT_STREQ(i.ext, ".mem");
    ASSERT_NE(i.date, nullptr);
    EXPECT_EQ(i.date[0], '{');
    EXPECT_EQ(std::string(i.date).back(), '}');
    EXPECT_NE(i.machine, nullptr);
    EXPECT_NE(i.user, nullptr);
    EXPECT_NE(i.images, &desc_);
    EXPECT_STREQ(i.images[0].chan.format, "catalogue-format");
    EXPECT_STREQ(i.images[0].aspect, "catalogue-aspect");
    EXPECT_EQ(i.images[0].aspect_ratio, 1.5f);
    EXPECT_EQ(out->driver, PXF_find("mem"));
    EXPECT_EQ(PXF_close(out), 0);
}

TEST_F(Open, InitIfdTakesGammaAndDepthFromTheFormatDefaults) {
    PXF_IMAGE image;
    pxf__init_obj(&image, PXF_MODE_WRITE);
    PXF_IMAGE_DESC d[2];
    std::memset(d, 0x7f, sizeof d);
    image.info.images = d;
    image.info.num_images = 2;
    EXPECT_EQ(pxf__init_ifd(&image), 1);
    EXPECT_EQ(d[1].curve.kind, PXF_CURVE_GAMMA);
    EXPECT_FLOAT_EQ(d[1].curve.gamma, 2.2f);
    EXPECT_EQ(d[1].curve.bits, 12);  // log2 of the 4096-entry gamma tables
    EXPECT_EQ(d[1].aspect, nullptr);
    EXPECT_EQ(d[1].index.width, 16);
    pthread_mutex_destroy(&image.lock);
}

TEST_F(Open, ScanWithoutScanFunctionFails) {
    describe_one(describe(4, 4, 3, 8));
    set_text(info_.handle, "stdout.pipe");
    PXF_IMAGE *out = PXF_open(&info_, "w");
    ASSERT_NE(out, nullptr);
    PXF_INFO reader;
    PXF_info_init(&reader);
    set_text(reader.handle, "stdout.pipe");
    PXF_IMAGE *in = PXF_open(&reader, "r");  // the pipe's read open installs nothing
    ASSERT_NE(in, nullptr);
    void **rows = nullptr;
    EXPECT_EQ(PXF_scan_read(in, 0, &rows), PXF_E_CANNOT_DO);
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_EQ(PXF_direct_scan_read(out, 0, nullptr, 0, 0, 0.0f), PXF_E_CANNOT_DO);
    EXPECT_EQ(PXF_close(in), PXF_E_CANNOT_DO);  // and no close function either
    pxf__free_obj(in);
    EXPECT_EQ(PXF_close(out), 0);
    PXF_info_cleanup(&reader, 1);
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

TEST_F(Open, VerifyHelpersAcceptOnlyEightBitIntegers) {
    PXF_IMAGE image;
    pxf__init_obj(&image, PXF_MODE_WRITE);
    PXF_IMAGE_DESC d = describe(2, 2, 3, 8, 1, 1);
    image.info.images = &d;
    image.info.num_images = 1;
    EXPECT_EQ(pxf__image_verify("drv", &image, 0), 0);
    EXPECT_EQ(pxf__matte_verify("drv", &image, 0), 0);
    EXPECT_EQ(pxf__aux_verify("drv", &image, 0), 0);

    ReportCapture capture;
    EXPECT_EQ(pxf__image_verify("drv", &image, 1), PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(61, "drv cannot store multiple images"));
    d.matte.type = PXF_C_FLOAT;
    EXPECT_EQ(pxf__matte_verify("drv", &image, 0), PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(79, "drv cannot handle matte channel type"));
    d.aux.width = 16;
    EXPECT_EQ(pxf__aux_verify("drv", &image, 0), PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(71, "drv cannot handle auxiliary channel width"));
    d.chan.type = PXF_C_DOUBLE;
    pxf__err = 0;
    EXPECT_EQ(pxf__image_verify("drv", &image, 0), PXF_E_CANNOT_DO);
    EXPECT_EQ(pxf__err, PXF_E_CANNOT_DO);
    EXPECT_EQ(capture.last(), numbered(72, "drv cannot handle image channel type"));
    pthread_mutex_destroy(&image.lock);
}

}  // namespace
