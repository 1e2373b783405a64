// Building pathnames from existing names, driver keys and frame numbers.
#include <gtest/gtest.h>

#include <string>

#include <pxf/pxf.h>

#include "support/test_support.h"

namespace {

class Pathname : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(PXF_init(nullptr, nullptr), 0); }

    // Builds with the "mem" driver (syntax "Name.####.Ext") and the extension
    // given; returns the pathname, or "error N".
    std::string build(const char *path, int mode, int frame_in, const char *ext = "rla",
                      unsigned char flag = 0, const char *syntax = "") {
        frame = frame_in;
        char out[PXF_PATHNAME_MAX], name[PXF_PATHNAME_MAX];
        const char *key = nullptr;
        PXF_TYPE *record = nullptr;
        if (!PXF_pathname_build(syntax, path, "mem", ext, mode, flag, &frame, out, name, &key, &record))
            return "error " + std::to_string(pxf__err);
        EXPECT_EQ(pxf__err, 0);
        EXPECT_STREQ(key, "mem");
        EXPECT_EQ(record, PXF_find("mem"));
        name_part = name;
        return out;
    }

    int frame = 0;
    std::string name_part;
};

TEST_F(Pathname, ThreeModesRebuildAFrameName) {
    EXPECT_EQ(build("dir/shot.0007.rla", PXF_PATH_NUMBER, 12), "dir/shot.0012.rla");
    EXPECT_EQ(frame, 7);
    EXPECT_EQ(name_part, "shot");
    EXPECT_EQ(build("dir/shot.0007.rla", PXF_PATH_WILDCARD, 12), "dir/shot.*.rla");
    EXPECT_EQ(build("dir/shot.0007.rla", PXF_PATH_TEMPLATE, 12), "dir/shot.%04d.rla");
    EXPECT_EQ(build("dir/shot.0007.rla", 7, 12), "dir/shot.0012.rla");  // unknown modes are 0
    EXPECT_EQ(build("shot.0007.rla", PXF_PATH_NUMBER, -1), "shot.0007.rla");  // -1: the name's own number
    EXPECT_EQ(frame, 7);
}

TEST_F(Pathname, FrameWidthFollowsTheNameUnlessTheFlagIsSet) {
    EXPECT_EQ(build("shot.7.rla", PXF_PATH_NUMBER, 12), "shot.12.rla");
    EXPECT_EQ(build("shot.7.rla", PXF_PATH_NUMBER, 12, "rla", 1), "shot.0012.rla");
    EXPECT_EQ(build("shot.007.rla", PXF_PATH_TEMPLATE, 5), "shot.%03d.rla");
    EXPECT_EQ(build("shot.12345.rla", PXF_PATH_NUMBER, 3), "shot.0003.rla");
}

TEST_F(Pathname, FieldLettersAreKept) {
    EXPECT_EQ(build("shot.0007e.rla", PXF_PATH_NUMBER, 8), "shot.0008e.rla");
    EXPECT_EQ(build("shot.0007o.rla", PXF_PATH_TEMPLATE, 8), "shot.%04do.rla");
    EXPECT_EQ(frame, 7);
}

TEST_F(Pathname, NamesWithDotsPercentsAndCase) {
    EXPECT_EQ(build("a.b/my.shot.v2.0007.rla", PXF_PATH_NUMBER, 9), "a.b/my.shot.v2.0009.rla");
    EXPECT_EQ(name_part, "my.shot.v2");
    EXPECT_EQ(build("50%/sh%ot.0001.rla", PXF_PATH_TEMPLATE, 2), "50%%/sh%%ot.%04d.rla");
    EXPECT_EQ(build("50%/sh%ot.0001.rla", PXF_PATH_NUMBER, 2), "50%/sh%ot.0002.rla");
    EXPECT_EQ(build("SHOT.0007.RLA", PXF_PATH_NUMBER, 8), "SHOT.0008.RLA");  // the upper-case copy is chosen
    EXPECT_EQ(build("shot.0007.rla", PXF_PATH_NUMBER, 8, ".RLA"), "shot.0008.rla");
    EXPECT_EQ(build("shot.0007.mem", PXF_PATH_NUMBER, 8, nullptr), "shot.0008.mem");  // the driver's extension
}

TEST_F(Pathname, NameWithoutFrameDigits) {
    // A name without digits is matched without the frame; a file that does not
    // exist gets the whole name, one that exists stops at the missing frame.
    EXPECT_EQ(build("missing/shot.rla", PXF_PATH_NUMBER, 12), "missing/shot.0012.rla");
    EXPECT_EQ(frame, -1);
    pxf::test::TempDir dir;
    std::string existing = dir.file("shot.rla");
    pxf::test::write_file(existing, "x");
    EXPECT_EQ(build(existing.c_str(), PXF_PATH_NUMBER, 12), dir.path() + "/shot");
    EXPECT_EQ(build(existing.c_str(), PXF_PATH_NUMBER, 12, "rla", 1), dir.path() + "/shot.0012.rla");
}

TEST_F(Pathname, Failures) {
    char out[PXF_PATHNAME_MAX];
    int f = 1;
    EXPECT_EQ(PXF_pathname_build("", "a.0001.rla", "nope", "rla", 0, 0, &f, out, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, -9);
    EXPECT_EQ(PXF_pathname_build("", "a.0001.rla", nullptr, "rla", 0, 0, &f, out, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, -9);
    EXPECT_EQ(build("", PXF_PATH_NUMBER, 1), "error -15");
    EXPECT_EQ(build("shot.0007.tif", PXF_PATH_NUMBER, 1), "error -12");
    EXPECT_EQ(build("shot.0007.rla", PXF_PATH_NUMBER, 1, "rla", 0, "name.#.#.ext"), "error -11");
    EXPECT_EQ(PXF_pathname_build("", "a.0001.rla", "mem", "rla", 0, 0, nullptr, out, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, -17);
    EXPECT_EQ(PXF_pathname_build("", "a.0001.rla", "mem", "rla", 0, 0, &f, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, -17);
    std::string deep(5000, 'd');
    EXPECT_EQ(build((deep + "/shot.0001.rla").c_str(), PXF_PATH_NUMBER, 1), "error -14");
}

TEST_F(Pathname, FromTheDriverFormatString) {
    char out[PXF_PATHNAME_MAX], name[PXF_PATHNAME_MAX];
    const char *key = nullptr;
    int f = 12;
    ASSERT_EQ(PXF_pathname_build(nullptr, "dir/shot.0007.mem", "mem", nullptr, 0, 0, &f, out, name, &key, nullptr), 1);
    EXPECT_STREQ(out, "dir/shot.0012.mem");
    EXPECT_STREQ(name, "shot");
    EXPECT_STREQ(key, "mem");
    EXPECT_EQ(f, 7);
    f = 3;
    ASSERT_EQ(PXF_pathname_build(nullptr, "d%/shot.mem", "mem", nullptr, 2, 0, &f, out, nullptr, nullptr, nullptr), 1);
    EXPECT_STREQ(out, "d%%/shot.%04d.mem");
    EXPECT_EQ(f, -1);
    pxf__err = 0;
    EXPECT_EQ(PXF_pathname_build(nullptr, "", "mem", nullptr, 0, 0, &f, out, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, 0);  // an empty pathname is refused without a code
    std::string longest(PXF_PATHNAME_MAX, 'p');
    EXPECT_EQ(PXF_pathname_build(nullptr, longest.c_str(), "mem", nullptr, 0, 0, &f, out, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, -14);
    EXPECT_EQ(PXF_pathname_build(nullptr, "shot.0001.xyz", nullptr, nullptr, 0, 0, &f, out, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(pxf__err, -9);
}

}  // namespace
