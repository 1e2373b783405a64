// RLA files: the bytes the writer produces, what the probe accepts, round
// trips through the reader, and the writer's failures.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <pxf/plugin.h>
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
uint32_t be32(const std::string &s, std::size_t at) {
    return uint32_t(uint8_t(s[at])) << 24 | uint32_t(uint8_t(s[at + 1])) << 16 | uint32_t(uint8_t(s[at + 2])) << 8 |
           uint8_t(s[at + 3]);
}
std::string text_at(const std::string &s, std::size_t at) { return std::string(s.c_str() + at); }

class RlaWrite : public pxf::test::RlaFile {
protected:
    // The fixed description of the golden file: 9 x 3, RGB and one matte, 8 bits.
    void describe_golden() {
        PXF_IMAGE_DESC d = image_desc(9, 3, 3, PXF_C_INTEGER, 8, 1);
        d.aspect = const_cast<char *>("video");
        d.aspect_ratio = 1.25f;
        describe({d});
        const char *texts[][2] = {{"name", "golden"}, {"desc", "a test image"}, {"program", "rla_file_test"},
                                  {"machine", "host"}, {"user", "tester"},      {"date", "{0}"},
                                  {"text_a", "start"}, {"text_b", "box"}};
        char **fields[] = {&info_.name, &info_.desc, &info_.program, &info_.machine,
                           &info_.user, &info_.date, &info_.text_a,  &info_.text_b};
        for (int i = 0; i < 8; ++i) fields[i][0] = strdup(texts[i][1]);
        info_.job_num = 77;
        info_.frame = 12;
        info_.frame_extra = 2;
    }
};

TEST_F(RlaWrite, SmallFileMatchesTheGoldenBytes) {
    describe_golden();
    std::string path = dir_.file("golden.rla");
    ASSERT_TRUE(write(path));
    std::string bytes = read_file(path);
    std::string golden_path = std::string(TEST_DATA_DIR) + "/rla/golden.rla";
    // After a deliberate change of the format, RLA_UPDATE_GOLDEN=1 rewrites the reference.
    if (std::getenv("RLA_UPDATE_GOLDEN")) write_file(golden_path, bytes);
    std::string golden = read_file(golden_path);
    ASSERT_EQ(bytes.size(), golden.size());
    EXPECT_TRUE(bytes == golden);
    // A few fields spelled out, so that a change shows where it lies.
    EXPECT_EQ(be16(bytes, 2), 8);
    EXPECT_EQ(be16(bytes, 16), 12);
    EXPECT_EQ(be16(bytes, 26), -2);
    EXPECT_EQ(text_at(bytes, 28), " 2.2000");
    EXPECT_EQ(text_at(bytes, 44), " 0.6700  0.3300");
    EXPECT_EQ(be32(bytes, 140), 77u);
    EXPECT_EQ(text_at(bytes, 548), "video");
    EXPECT_EQ(text_at(bytes, 572), "1.250");
    EXPECT_EQ(text_at(bytes, 614), "00:00:00");
    EXPECT_EQ(be16(bytes, 612), 2);
    EXPECT_EQ(be16(bytes, 658), 8);
    EXPECT_EQ(be32(bytes, 736), 0u);
    // Offsets: three scanlines, each four channel blocks of 2 + packets.
    EXPECT_EQ(be32(bytes, 740), 752u);
    EXPECT_EQ(be32(bytes, 744) - be32(bytes, 740), be32(bytes, 748) - be32(bytes, 744));
}

TEST_F(RlaWrite, FrameIsClampedToSixteenBits) {
    struct {
        int frame, stored;
    } cases[] = {{40000, 32767}, {32767, 32767}, {-1, -1}, {0, 0}, {-5, 0}};
    for (auto c : cases) {
        describe({image_desc(2, 2, 3, PXF_C_INTEGER, 8)});
        info_.frame = c.frame;
        std::string path = dir_.file("frame.rla");
        ASSERT_TRUE(write(path));
        EXPECT_EQ(be16(read_file(path), 16), c.stored) << c.frame;
    }
}

TEST_F(RlaWrite, StorageTypesAndWidthsFollowTheGroups) {
    PXF_IMAGE_DESC d = image_desc(3, 2, 3, PXF_C_FLOAT, 0, 1, 2);
    d.matte.type = PXF_C_INTEGER;
    d.matte.width = 12;
    d.aux.type = PXF_C_DOUBLE;
    describe({d});
    std::string path = dir_.file("types.rla");
    ASSERT_TRUE(write(path));
    std::string bytes = read_file(path);
    EXPECT_EQ(be16(bytes, 18), 4);
    EXPECT_EQ(be16(bytes, 658), 32);
    EXPECT_EQ(be16(bytes, 660), 0);
    EXPECT_EQ(be16(bytes, 662), 12);
    EXPECT_EQ(be16(bytes, 664), 5);
    EXPECT_EQ(be16(bytes, 666), 64);
    EXPECT_EQ(text_at(bytes, 668), "z");
    // A float block holds the values as they stand.
    uint32_t first = be32(bytes, 740);
    EXPECT_EQ(be16(bytes, first), 3 * 4);
}

TEST_F(RlaWrite, ProbeRejectsWhatItCannotTrust) {
    describe({image_desc(4, 4, 3, PXF_C_INTEGER, 8)});
    std::string good = dir_.file("good.rla");
    ASSERT_TRUE(write(good));
    EXPECT_EQ(PXF_rla_is_file(good.c_str(), nullptr), 1);
    std::FILE *stream = std::fopen(good.c_str(), "rb");
    std::fgetc(stream);
    EXPECT_EQ(PXF_rla_is_file(nullptr, stream), 1) << "the stream is rewound";
    std::fclose(stream);

    // Four image channels: the writer writes them, the probe refuses them.
    describe({image_desc(4, 4, 4, PXF_C_INTEGER, 8)});
    std::string four = dir_.file("four.rla");
    ASSERT_TRUE(write(four));
    EXPECT_EQ(PXF_rla_is_file(four.c_str(), nullptr), 0);

    std::string bytes = read_file(good);
    auto probe = [&](std::size_t at, std::string patch) {
        std::string changed = bytes;
        changed.replace(at, patch.size(), patch);
        std::string path = dir_.file("patched.rla");
        write_file(path, changed);
        return PXF_rla_is_file(path.c_str(), nullptr);
    };
    EXPECT_EQ(probe(548, std::string(24 + 8, '\0')), 0) << "no aspect and no aspect ratio";
    EXPECT_EQ(probe(548, std::string(24, '\0')), 1) << "the aspect ratio alone will do";
    EXPECT_EQ(probe(0, std::string("\xff\xff", 2)), 0) << "negative window";
    EXPECT_EQ(probe(0, std::string("\x00\x05", 2)), 0) << "window left beyond right";
    EXPECT_EQ(probe(8, std::string("\x00\x00\x00\x09", 4)), 0) << "active window beyond the window";
    EXPECT_EQ(probe(22, std::string("\x80\x00", 2)), 0) << "negative matte count";
    EXPECT_EQ(probe(660, std::string("\xff\xfe", 2)), 0) << "negative matte storage type";
    EXPECT_EQ(probe(18, std::string("\xff\xff", 2)), 0) << "negative storage type";
    EXPECT_EQ(PXF_rla_is_file(dir_.file("missing.rla").c_str(), nullptr), 0);
    write_file(dir_.file("short.rla"), bytes.substr(0, 739));
    EXPECT_EQ(PXF_rla_is_file(dir_.file("short.rla").c_str(), nullptr), 0);
}

TEST_F(RlaWrite, ScanlinesMustComeInSequence) {
    describe({image_desc(4, 6, 3, PXF_C_INTEGER, 8)});
    std::string path = dir_.file("seq.rla");
    PXF_IMAGE *image = open(path, "w");
    ASSERT_NE(image, nullptr);
    PXF_IMAGE_DESC d = image->info.images[0];
    void **rows = pxf__chan_alloc(&d, 4, "test");
    for (int y = 0; y < 5; ++y) ASSERT_EQ(PXF_scan_write(image, y, &rows), 0);
    std::fflush(nullptr);
    off_t before = std::filesystem::file_size(path);
    {
        ReportCapture capture;
        EXPECT_EQ(PXF_scan_write(image, 4, &rows), -2);
        EXPECT_EQ(PXF_scan_write(image, 6, &rows), -2);
        EXPECT_EQ(pxf__err, -2);
        EXPECT_EQ(capture.last(),
                  numbered(53, "Bad scanline: 6 (out of range, or not in sequence if a sequential file)"));
    }
    std::fflush(nullptr);
    EXPECT_EQ(off_t(std::filesystem::file_size(path)), before) << "a refused scanline writes nothing";
    ASSERT_EQ(PXF_scan_write(image, 5, &rows), 0);
    {
        ReportCapture capture;
        EXPECT_EQ(PXF_scan_write(image, 6, &rows), -2) << "past the window top";
    }
    pxf__chan_free(rows);
    EXPECT_EQ(PXF_close(image), 0);
}

TEST_F(RlaWrite, UnsupportedChannelsFailAtOpenAndLeaveNoFile) {
    struct {
        PXF_CHAN_GROUP PXF_IMAGE_DESC::*group;
        int type, width;
        std::string message;
    } cases[] = {
        {&PXF_IMAGE_DESC::chan, PXF_C_INTEGER, 33, numbered(73, "rla cannot handle image channel width")},
        {&PXF_IMAGE_DESC::chan, 7, 8, numbered(72, "rla cannot handle image channel type")},
        {&PXF_IMAGE_DESC::matte, 0, 8, numbered(79, "rla cannot handle matte channel type")},
        {&PXF_IMAGE_DESC::matte, PXF_C_INTEGER, 40, numbered(80, "rla cannot handle matte channel width")},
        {&PXF_IMAGE_DESC::aux, -1, 8, numbered(70, "rla cannot handle auxiliary channel type")},
        {&PXF_IMAGE_DESC::aux, PXF_C_INTEGER, 64, numbered(71, "rla cannot handle auxiliary channel width")},
    };
    std::string path = dir_.file("bad.rla");
    for (const auto &c : cases) {
        PXF_IMAGE_DESC d = image_desc(4, 4, 3, PXF_C_INTEGER, 8, 1, 1);
        (d.*c.group).type = c.type;
        (d.*c.group).width = c.width;
        describe({d});
        ReportCapture capture;
        EXPECT_EQ(open(path, "w"), nullptr);
        EXPECT_EQ(pxf__err, -16);
        EXPECT_EQ(capture.last(), c.message);
        EXPECT_NE(access(path.c_str(), F_OK), 0) << c.message;
    }
    // A double row whose block could outgrow its 16-bit length.
    describe({image_desc(9000, 1, 1, PXF_C_DOUBLE, 64)});
    ReportCapture capture;
    EXPECT_EQ(open(path, "w"), nullptr);
    EXPECT_EQ(capture.last(), numbered(73, "rla cannot handle image channel width"));
}

TEST_F(RlaWrite, WindowsTheHeaderCannotHoldAreRefused) {
    PXF_BOUNDS windows[][2] = {{{-1, 9, 0, 9}, {0, 9, 0, 9}},
                               {{0, 40000, 0, 9}, {0, 9, 0, 9}},
                               {{5, 2, 0, 9}, {5, 2, 0, 9}},
                               {{0, 9, 0, 9}, {0, 10, 0, 9}},
                               {{0, 9, 2, 9}, {0, 9, 1, 9}}};
    std::string path = dir_.file("window.rla");
    for (auto &w : windows) {
        PXF_IMAGE_DESC d = image_desc(1, 1, 3, PXF_C_INTEGER, 8);
        d.window = w[0];
        d.active_window = w[1];
        describe({d});
        ReportCapture capture;
        EXPECT_EQ(open(path, "w"), nullptr);
        EXPECT_EQ(pxf__err, -16);
        EXPECT_EQ(capture.last(), numbered(60, "rla cannot handle the image window"));
        EXPECT_NE(access(path.c_str(), F_OK), 0);
    }
}

TEST_F(RlaWrite, OpenFailuresReportThePath) {
    describe({image_desc(2, 2, 3, PXF_C_INTEGER, 8)});
    std::string path = dir_.file("no/such/dir/x.rla");
    ReportCapture capture;
    EXPECT_EQ(open(path, "w"), nullptr);
    EXPECT_EQ(pxf__err, -5);
    EXPECT_EQ(capture.last(), numbered(52, "Cannot open file " + path + "; No such file or directory"));
}

TEST_F(RlaWrite, RelativeNamesGoToTheImageDirectory) {
    describe({image_desc(2, 2, 3, PXF_C_INTEGER, 8)});
    setenv("QV_IMG_DIR", dir_.path().c_str(), 1);
    bool written = write("picture");
    unsetenv("QV_IMG_DIR");
    ASSERT_TRUE(written);
    EXPECT_EQ(PXF_rla_is_file(dir_.file("picture.rla").c_str(), nullptr), 1);
    // Chosen without a key: the extension, then the default key.
    int decided = 1;
    const char *type = PXF_get_file_type(dir_.file("picture.rla").c_str(), nullptr, &decided);
    EXPECT_STREQ(type, "rla");
    PXF_TYPE *rla = PXF_find("rla");
    ASSERT_NE(rla, nullptr);
    EXPECT_EQ(rla->access & (PXF_ACCESS_READ | PXF_ACCESS_RANDOM), PXF_ACCESS_READ | PXF_ACCESS_RANDOM);
}

TEST_F(RlaWrite, StandardOutputGetsTheStreamUnpatched) {
    describe({image_desc(3, 2, 3, PXF_C_INTEGER, 8), image_desc(2, 1, 1, PXF_C_INTEGER, 8)});
    info_.text_a = strdup("begun");
    std::string out = dir_.file("stdout.bin");
    std::fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        _exit(write("/dev/stdout") ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string bytes = read_file(out);
    ASSERT_GE(bytes.size(), 740u + 8);
    EXPECT_EQ(text_at(bytes, 614), "begun") << "no elapsed time";
    EXPECT_EQ(be32(bytes, 736), 0u) << "no chain patch";
    EXPECT_EQ(be32(bytes, 740), 0u) << "the offset table stays as first written";
    // The second image's header follows the scanline data, with its offsets filled in.
    std::size_t second = bytes.size() - 740 - 4;
    EXPECT_EQ(be16(bytes, second + 2), 1);
    EXPECT_GT(be32(bytes, second + 740), 748u);
    EXPECT_LT(be32(bytes, second + 740), second);
}

TEST_F(RlaWrite, WriteOpenSurvivesEveryAllocationFailure) {
    describe({image_desc(5, 4, 3, PXF_C_INTEGER, 16, 1), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    std::string path = dir_.file("oom.rla");
    ReportCapture capture;
    pxf::test::for_each_allocation_failure(
        [&] {
            // Open allocates before the driver runs; only the driver's share matters here.
            PXF_IMAGE *image = open(path, "w");
            if (!image) return false;
            return PXF_close(image) == 0;
        },
        [&](int) { EXPECT_NE(access(path.c_str(), F_OK), 0) << "a failed open removes its file"; });
}

}  // namespace
