// Reading RLA files back: every element of every channel kind, active
// windows, several images, standard input, and the description the reader fills.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <pxf/rla.h>

#include "foundation/alloc.h"
#include "rla_file_util.h"

namespace {

using pxf::test::image_desc;
using pxf::test::read_file;

class RlaRead : public pxf::test::RlaFile {};

struct Kind {
    const char *name;
    int type, bits;
};

TEST_F(RlaRead, EveryElementKindRoundTrips) {
    const Kind kinds[] = {{"8-bit", PXF_C_INTEGER, 8},  {"12-bit", PXF_C_INTEGER, 12},
                          {"16-bit", PXF_C_INTEGER, 16}, {"32-bit", PXF_C_INTEGER, 32},
                          {"5-bit", PXF_C_INTEGER, 5},  {"24-bit", PXF_C_INTEGER, 24},
                          {"float", PXF_C_FLOAT, 32},   {"double", PXF_C_DOUBLE, 64}};
    for (const Kind &k : kinds) {
        SCOPED_TRACE(k.name);
        describe({image_desc(300, 7, 3, k.type, k.bits, 1, 2)});
        std::string path = dir_.file(std::string(k.name) + ".rla");
        ASSERT_TRUE(write(path));
        expect_read_back(path);
    }
}

TEST_F(RlaRead, MixedGroupsAndNarrowActiveWindows) {
    PXF_IMAGE_DESC a = image_desc(40, 12, 3, PXF_C_INTEGER, 8, 1, 1);
    a.window = {3, 42, 5, 16};
    a.active_window = {10, 20, 7, 13};
    a.aux.type = PXF_C_FLOAT;
    a.matte.width = 16;
    PXF_IMAGE_DESC b = image_desc(9, 4, 2, PXF_C_INTEGER, 32, 0, 1);
    b.active_window = {0, 0, 3, 3};
    b.aux.type = PXF_C_DOUBLE;
    describe({a, b});
    std::string path = dir_.file("mixed.rla");
    ASSERT_TRUE(write(path));
    expect_read_back(path);
    expect_read_back(path, true);
}

TEST_F(RlaRead, DescriptionComesFromTheHeader) {
    PXF_IMAGE_DESC d = image_desc(6, 4, 3, PXF_C_INTEGER, 10, 1, 1);
    d.curve.gamma = 1.8f;
    d.aspect = const_cast<char *>("film");
    d.aspect_ratio = 1.85f;
    d.aux.type = PXF_C_DOUBLE;
    d.aux.format = const_cast<char *>("depth");
    PXF_IMAGE_DESC second = image_desc(2, 2, 1, PXF_C_INTEGER, 8);
    describe({d, second});
    info_.name = strdup("shot");
    info_.desc = strdup("a description");
    info_.program = strdup("prog");
    info_.machine = strdup("box");
    info_.user = strdup("me");
    info_.date = strdup("{42}");
    info_.text_b = strdup("gauss");
    info_.job_num = 1234;
    info_.frame = 250;
    info_.frame_extra = 1;
    info_.red_pri[0] = 0.64f;
    info_.red_pri[1] = 0.33f;
    std::string path = dir_.file("desc.rla");
    ASSERT_TRUE(write(path));

    PXF_IMAGE *image = open(path, "r");
    ASSERT_NE(image, nullptr);
    const PXF_INFO &in = image->info;
    EXPECT_STREQ(in.name, "shot");
    EXPECT_STREQ(in.desc, "a description");
    EXPECT_STREQ(in.program, "prog");
    EXPECT_STREQ(in.machine, "box");
    EXPECT_STREQ(in.user, "me");
    EXPECT_STREQ(in.date, "{42}");
    EXPECT_STREQ(in.text_a, "00:00:00");
    EXPECT_STREQ(in.text_b, "gauss");
    EXPECT_STREQ(in.compression, "run length encoded");
    EXPECT_STREQ(in.key, "rla");
    EXPECT_STREQ(in.ext, ".rla");
    EXPECT_EQ(in.job_num, 1234);
    EXPECT_EQ(in.frame, 250);
    EXPECT_EQ(in.frame_extra, 1);
    EXPECT_FLOAT_EQ(in.red_pri[0], 0.64f);
    EXPECT_FLOAT_EQ(in.red_pri[1], 0.33f);
    EXPECT_FLOAT_EQ(in.red_pri[2], 0.03f);
    ASSERT_EQ(in.num_images, 2);
    const PXF_IMAGE_DESC &r = in.images[0];
    EXPECT_EQ(r.image_kind, 1);
    EXPECT_EQ(in.images[1].image_kind, 2);
    EXPECT_FLOAT_EQ(r.curve.gamma, 1.8f);
    EXPECT_STREQ(r.aspect, "film");
    EXPECT_FLOAT_EQ(r.aspect_ratio, 1.85f);
    EXPECT_EQ(r.x_res, 6);
    EXPECT_EQ(r.y_res, 4);
    EXPECT_EQ(r.orientation, 1);
    EXPECT_STREQ(r.chan.format, "rgb");
    EXPECT_EQ(r.chan.count, 3);
    EXPECT_EQ(r.chan.type, PXF_C_INTEGER);
    EXPECT_EQ(r.chan.width, 10);
    EXPECT_EQ(r.matte.count, 1);
    EXPECT_EQ(r.aux.type, PXF_C_DOUBLE);
    EXPECT_EQ(r.aux.width, 64);
    EXPECT_STREQ(r.aux.format, "depth");
    EXPECT_EQ(image->current_line, -1) << "scanlines come bottom up";
    EXPECT_EQ(PXF_seek(&image, 2), 0) << "random access needs no reopen";
    EXPECT_EQ(PXF_close(image), 0);
}

TEST_F(RlaRead, AlternativeExtensionAndBareNames) {
    describe({image_desc(4, 3, 3, PXF_C_INTEGER, 8)});
    ASSERT_TRUE(write(dir_.file("other.rla")));
    std::rename(dir_.file("other.rla").c_str(), dir_.file("other.rlb").c_str());
    PXF_IMAGE *image = open(dir_.file("other.rlb"), "r", nullptr);
    ASSERT_NE(image, nullptr) << "unknown extensions fall to the default key";
    EXPECT_STREQ(image->info.ext, ".rlb");
    PXF_close(image);
    std::rename(dir_.file("other.rlb").c_str(), dir_.file("bare").c_str());
    image = open(dir_.file("bare"), "r");
    ASSERT_NE(image, nullptr) << "a name without extension is tried as it stands";
    PXF_close(image);
}

TEST_F(RlaRead, StandardInputSeekableOrNot) {
    describe({image_desc(20, 5, 3, PXF_C_INTEGER, 16), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    std::string path = dir_.file("in.rla");
    ASSERT_TRUE(write(path));
    int saved = dup(0);
    // A pipe (read ahead into memory), then a redirected file.
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    std::string bytes = read_file(path);
    ASSERT_LT(bytes.size(), 60000u) << "must fit in the pipe";
    ASSERT_EQ(::write(pipe_fds[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
    close(pipe_fds[1]);
    dup2(pipe_fds[0], 0);
    close(pipe_fds[0]);
    clearerr(stdin);
    expect_read_back("/dev/stdin");
    int file = ::open(path.c_str(), O_RDONLY);
    dup2(file, 0);
    close(file);
    clearerr(stdin);
    expect_read_back("/dev/stdin");
    dup2(saved, 0);
    close(saved);
}

TEST_F(RlaRead, ReadOpenSurvivesEveryAllocationFailure) {
    describe({image_desc(5, 4, 3, PXF_C_INTEGER, 16, 1), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    std::string path = dir_.file("oom.rla");
    ASSERT_TRUE(write(path));
    pxf::test::ReportCapture capture;
    pxf::test::for_each_allocation_failure([&] {
        PXF_IMAGE *image = open(path, "r");
        if (!image) return false;
        void **rows = nullptr;  // the reader's own rows
        bool ok = PXF_scan_read(image, 1, &rows) == 0;
        return PXF_close(image) == 0 && ok;
    });
}

}  // namespace
