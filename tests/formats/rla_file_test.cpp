// Writing RLA files: the exact bytes, what the probe accepts, and the
// writer's refusals.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <pxf/rla.h>

#include "foundation/alloc.h"
#include "rla_file_util.h"

namespace {

using pxf::test::image_desc;
using pxf::test::numbered;
using pxf::test::read_file;
using pxf::test::ReportCapture;
using pxf::test::write_file;

int be16(const std::string &s, std::size_t at) { return int16_t(uint8_t(s[at]) << 8 | uint8_t(s[at + 1])); }
uint32_t be32(const std::string &s, std::size_t at) { return uint32_t(be16(s, at) & 0xffff) << 16 | (be16(s, at + 2) & 0xffff); }
std::string text_at(const std::string &s, std::size_t at) { return std::string(s.c_str() + at); }

using RlaWrite = pxf::test::RlaFile;

TEST_F(RlaWrite, SmallFileMatchesTheGoldenBytes) {
    PXF_IMAGE_DESC d = image_desc(9, 3, 3, PXF_C_INTEGER, 8, 1);
    d.aspect = const_cast<char *>("video");
    d.aspect_ratio = 1.25f;
    describe({d});
    char **fields[] = {&info_.name, &info_.desc, &info_.program, &info_.machine,
                       &info_.user, &info_.date, &info_.text_a,  &info_.text_b};
    const char *texts[] = {"golden", "a test image", "rla_file_test", "host", "tester", "{0}", "start", "box"};
    for (int i = 0; i < 8; ++i) *fields[i] = strdup(texts[i]);
    info_.job_num = 77;
    info_.frame = 12;
    info_.frame_extra = 2;
    std::string path = dir_.file("golden.rla");
    ASSERT_TRUE(write(path));
    std::string bytes = read_file(path);
    std::string golden_path = std::string(TEST_DATA_DIR) + "/rla/golden.rla";
    // After a deliberate change of the format, RLA_UPDATE_GOLDEN=1 rewrites the reference.
    if (std::getenv("RLA_UPDATE_GOLDEN")) write_file(golden_path, bytes);
    EXPECT_TRUE(bytes == read_file(golden_path));
    // A few fields spelled out, so that a change shows where it lies.
    EXPECT_EQ(be16(bytes, 16), 12);
    EXPECT_EQ(be16(bytes, 26), -2);
    EXPECT_EQ(text_at(bytes, 28), " 2.2000");
    EXPECT_EQ(text_at(bytes, 44), " 0.6700  0.3300");
    EXPECT_EQ(text_at(bytes, 572), "1.250");
    EXPECT_EQ(text_at(bytes, 614), "00:00:00");
    EXPECT_EQ(be32(bytes, 740), 752u);
}

TEST_F(RlaWrite, FrameIsClampedAndFloatWidthsRecorded) {
    for (auto [frame, stored] : {std::pair{40000, 32767}, {-1, -1}, {0, 0}, {-5, 0}}) {
        PXF_IMAGE_DESC d = image_desc(2, 2, 3, PXF_C_FLOAT, 0, 1, 1);
        d.aux.type = PXF_C_DOUBLE;
        describe({d});
        info_.frame = frame;
        std::string path = dir_.file("frame.rla");
        ASSERT_TRUE(write(path));
        std::string bytes = read_file(path);
        EXPECT_EQ(be16(bytes, 16), stored) << frame;
        EXPECT_EQ(be16(bytes, 18) * 1000 + be16(bytes, 658), 4032);
        EXPECT_EQ(be16(bytes, 664) * 1000 + be16(bytes, 666), 5064);
    }
}

TEST_F(RlaWrite, ProbeRejectsWhatItCannotTrust) {
    describe({image_desc(4, 4, 4, PXF_C_INTEGER, 8)});
    ASSERT_TRUE(write(dir_.file("four.rla")));
    EXPECT_EQ(PXF_rla_is_file(dir_.file("four.rla").c_str(), nullptr), 0) << "written, yet four channels";
    describe({image_desc(4, 4, 3, PXF_C_INTEGER, 8)});
    std::string good = dir_.file("good.rla");
    ASSERT_TRUE(write(good));
    std::FILE *stream = std::fopen(good.c_str(), "rb");
    std::fgetc(stream);
    EXPECT_EQ(PXF_rla_is_file(nullptr, stream), 1) << "the stream is rewound";
    std::fclose(stream);
    std::string bytes = read_file(good);
    auto probe = [&](std::size_t at, std::string patch) {
        std::string changed = bytes;
        changed.replace(at, patch.size(), patch);
        write_file(dir_.file("patched.rla"), changed);
        return PXF_rla_is_file(dir_.file("patched.rla").c_str(), nullptr);
    };
    EXPECT_EQ(probe(0, ""), 1);
    EXPECT_EQ(probe(548, std::string(32, '\0')), 0) << "no aspect and no aspect ratio";
    EXPECT_EQ(probe(548, std::string(24, '\0')), 1) << "the aspect ratio alone will do";
    EXPECT_EQ(probe(0, std::string("\xff\xff", 2)), 0) << "negative window";
    EXPECT_EQ(probe(8, std::string("\x00\x00\x00\x09", 4)), 0) << "active window beyond the window";
    EXPECT_EQ(probe(22, std::string("\x80\x00", 2)), 0) << "negative matte count";
    EXPECT_EQ(probe(18, std::string("\xff\xff", 2)), 0) << "negative storage type";
    write_file(dir_.file("short.rla"), bytes.substr(0, 739));
    EXPECT_EQ(PXF_rla_is_file(dir_.file("short.rla").c_str(), nullptr), 0);
}

TEST_F(RlaWrite, ScanlinesMustComeInSequence) {
    describe({image_desc(4, 6, 3, PXF_C_INTEGER, 8)});
    std::string path = dir_.file("seq.rla");
    PXF_IMAGE *image = open(path, "w");
    ASSERT_NE(image, nullptr);
    void **rows = pxf__chan_alloc(&images_[0], 4, "test");
    for (int y = 0; y < 5; ++y) ASSERT_EQ(PXF_scan_write(image, y, &rows), 0);
    std::fflush(nullptr);
    auto before = std::filesystem::file_size(path);
    ReportCapture capture;
    EXPECT_EQ(PXF_scan_write(image, 4, &rows), -2);
    EXPECT_EQ(PXF_scan_write(image, 6, &rows), -2);
    EXPECT_EQ(capture.last(), numbered(53, "Bad scanline: 6 (out of range, or not in sequence if a sequential file)"));
    std::fflush(nullptr);
    EXPECT_EQ(std::filesystem::file_size(path), before) << "a refused scanline writes nothing";
    EXPECT_EQ(PXF_scan_write(image, 5, &rows), 0);
    EXPECT_EQ(PXF_scan_write(image, 6, &rows), -2) << "past the window top";
    pxf__chan_free(rows);
    EXPECT_EQ(PXF_close(image), 0);
}

TEST_F(RlaWrite, WhatTheFileCannotHoldFailsAtOpenAndLeavesNoFile) {
    struct Case {
        PXF_CHAN_GROUP PXF_IMAGE_DESC::*group;
        int type, width;
        std::string message;
    } cases[] = {
        {&PXF_IMAGE_DESC::chan, PXF_C_INTEGER, 33, numbered(73, "rla cannot handle image channel width")},
        {&PXF_IMAGE_DESC::chan, 7, 8, numbered(72, "rla cannot handle image channel type")},
        {&PXF_IMAGE_DESC::matte, 0, 8, numbered(79, "rla cannot handle matte channel type")},
        {&PXF_IMAGE_DESC::aux, PXF_C_INTEGER, 64, numbered(71, "rla cannot handle auxiliary channel width")},
        {nullptr, 0, 0, numbered(60, "rla cannot handle the image window")},
        {nullptr, 1, 0, numbered(60, "rla cannot handle the image window")},
        {nullptr, 2, 0, numbered(73, "rla cannot handle image channel width")},  // blocks past 16-bit lengths
    };
    std::string path = dir_.file("bad.rla");
    for (const Case &c : cases) {
        PXF_IMAGE_DESC d = image_desc(4, 4, 3, PXF_C_INTEGER, 8, 1, 1);
        if (c.group) (d.*c.group).type = c.type, (d.*c.group).width = c.width;
        if (!c.group && c.type == 0) d.window.left = -1;
        if (!c.group && c.type == 1) d.active_window.top = 4;
        if (!c.group && c.type == 2) d = image_desc(9000, 1, 1, PXF_C_DOUBLE, 64);
        describe({d});
        ReportCapture capture;
        EXPECT_EQ(open(path, "w"), nullptr);
        EXPECT_EQ(pxf__err, -16);
        EXPECT_EQ(capture.last(), c.message);
        EXPECT_NE(access(path.c_str(), F_OK), 0) << c.message;
    }
    describe({image_desc(2, 2, 3, PXF_C_INTEGER, 8)});
    ReportCapture capture;
    EXPECT_EQ(open(dir_.file("no/dir/x.rla"), "w"), nullptr);
    EXPECT_EQ(pxf__err, -5);
    EXPECT_EQ(capture.last(), numbered(52, "Cannot open file " + dir_.file("no/dir/x.rla") + "; No such file or directory"));
}

TEST_F(RlaWrite, StandardOutputGetsTheStreamUnpatched) {
    describe({image_desc(3, 2, 3, PXF_C_INTEGER, 8), image_desc(2, 1, 1, PXF_C_INTEGER, 8)});
    info_.text_a = strdup("begun");
    std::string out = dir_.file("stdout.bin");
    std::fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        _exit(write("/dev/stdout") ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string bytes = read_file(out);
    ASSERT_GE(bytes.size(), 2 * 744u);
    EXPECT_EQ(text_at(bytes, 614), "begun") << "no elapsed time";
    EXPECT_EQ(be32(bytes, 736), 0u) << "no chain patch";
    EXPECT_EQ(be32(bytes, 740), 0u) << "the offset table stays as first written";
    std::size_t second = bytes.size() - 744;  // the second header and its one offset close the stream
    EXPECT_EQ(be16(bytes, second + 2), 1);
    EXPECT_GT(be32(bytes, second + 740), 748u);
}

TEST_F(RlaWrite, RelativeNamesGoToTheImageDirectoryAndOpenSurvivesMemoryFailures) {
    describe({image_desc(5, 4, 3, PXF_C_INTEGER, 16, 1), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    setenv("QV_IMG_DIR", dir_.path().c_str(), 1);
    std::string path = dir_.file("oom.rla");
    ReportCapture capture;
    pxf::test::for_each_allocation_failure(
        [&] {
            PXF_IMAGE *image = open("oom", "w", nullptr);
            return image && PXF_close(image) == 0;
        },
        [&](int) { EXPECT_NE(access(path.c_str(), F_OK), 0) << "a failed open removes its file"; });
    unsetenv("QV_IMG_DIR");
    int decided = 1;
    EXPECT_STREQ(PXF_get_file_type(path.c_str(), nullptr, &decided), "rla");
}

}  // namespace
