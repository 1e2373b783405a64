// Reading RLA files: round trips of every channel kind, the description the
// reader fills, standard input, and damaged files, each of which must give
// a clear message and code.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>

#include "rla_file_util.h"

namespace {

using pxf::test::image_desc;
using pxf::test::numbered;
using pxf::test::read_file;
using pxf::test::ReportCapture;
using pxf::test::write_file;

void put(std::string &s, std::size_t at, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s[at + i] = char(v >> (8 * (bytes - 1 - i)));
}
uint32_t get32(const std::string &s, std::size_t at) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | uint8_t(s[at + i]);
    return v;
}

using RlaRead = pxf::test::RlaFile;

TEST_F(RlaRead, EveryElementKindRoundTrips) {
    for (auto [type, bits] : {std::pair{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 12}, {PXF_C_INTEGER, 16},
                              {PXF_C_INTEGER, 32}, {PXF_C_INTEGER, 5}, {PXF_C_FLOAT, 32}, {PXF_C_DOUBLE, 64}}) {
        SCOPED_TRACE(std::to_string(type) + "/" + std::to_string(bits));
        describe({image_desc(300, 7, 3, type, bits, 1, 2)});
        ASSERT_TRUE(write(dir_.file("kind.rla")));
        expect_read_back(dir_.file("kind.rla"));
    }
}

TEST_F(RlaRead, MixedGroupsNarrowActiveWindowsAndTwoImages) {
    PXF_IMAGE_DESC a = image_desc(40, 12, 3, PXF_C_INTEGER, 8, 1, 1);
    a.window = {3, 42, 5, 16};
    a.active_window = {10, 20, 7, 13};
    a.aux.type = PXF_C_FLOAT;
    a.matte.width = 16;
    PXF_IMAGE_DESC b = image_desc(9, 4, 2, PXF_C_INTEGER, 32, 0, 1);
    b.active_window = {0, 0, 3, 3};
    b.aux.type = PXF_C_DOUBLE;
    PXF_IMAGE_DESC huge = image_desc(1, 1, 1, PXF_C_INTEGER, 8);
    huge.window = {0, 32767, 0, 9};  // a small file may describe a wide window
    huge.active_window = {32760, 32767, 4, 4};
    describe({a, b, huge});
    ASSERT_TRUE(write(dir_.file("mixed.rla")));
    expect_read_back(dir_.file("mixed.rla"));
    expect_read_back(dir_.file("mixed.rla"), true);
}

TEST_F(RlaRead, DescriptionComesFromTheHeader) {
    PXF_IMAGE_DESC d = image_desc(6, 4, 3, PXF_C_INTEGER, 10, 1, 1);
    d.curve.gamma = 1.8f;
    d.aspect_ratio = 1.85f;
    d.aux.type = PXF_C_DOUBLE;
    describe({d});
    info_.name = strdup("shot");
    info_.text_b = strdup("gauss");
    info_.job_num = 1234;
    info_.frame = 250;
    info_.red_pri[0] = 0.64f;
    ASSERT_TRUE(write(dir_.file("desc.rlb")));  // written as desc.rlb.rla
    std::rename(dir_.file("desc.rlb.rla").c_str(), dir_.file("desc.rlb").c_str());
    PXF_IMAGE *image = open(dir_.file("desc.rlb"), "r", nullptr);
    ASSERT_NE(image, nullptr) << "an unclaimed extension falls to the default key";
    const PXF_INFO &in = image->info;
    EXPECT_STREQ(in.name, "shot");
    EXPECT_STREQ(in.text_a, "00:00:00");
    EXPECT_STREQ(in.text_b, "gauss");
    EXPECT_STREQ(in.compression, "run length encoded");
    EXPECT_STREQ(in.ext, ".rlb");
    EXPECT_EQ(in.job_num * 1000 + in.frame, 1234250);
    EXPECT_FLOAT_EQ(in.red_pri[2], 1 - 0.64f - 0.33f);
    const PXF_IMAGE_DESC &r = in.images[0];
    EXPECT_FLOAT_EQ(r.curve.gamma, 1.8f);
    EXPECT_FLOAT_EQ(r.aspect_ratio, 1.85f);
    EXPECT_STREQ(r.aspect, "square");
    EXPECT_STREQ(r.chan.format, "rgb");
    EXPECT_EQ(r.chan.width, 10);
    EXPECT_EQ(r.aux.type * 100 + r.aux.width, 364);
    EXPECT_EQ(image->current_line, -1) << "scanlines come bottom up";
    EXPECT_EQ(PXF_seek(&image, 2), 0) << "random access needs no reopen";
    EXPECT_EQ(PXF_close(image), 0);
}

TEST_F(RlaRead, StandardInputFromPipeOrFile) {
    describe({image_desc(20, 5, 3, PXF_C_INTEGER, 16), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    std::string path = dir_.file("in.rla"), bytes;
    ASSERT_TRUE(write(path));
    bytes = read_file(path);
    int saved = dup(0), fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
    close(fds[1]);
    dup2(fds[0], 0);  // a pipe cannot seek: the reader reads it ahead
    expect_read_back("/dev/stdin");
    dup2(::open(path.c_str(), O_RDONLY), 0);
    clearerr(stdin);
    expect_read_back("/dev/stdin");
    dup2(saved, 0);
}

TEST_F(RlaRead, ReadOpenSurvivesMemoryFailures) {
    describe({image_desc(5, 4, 3, PXF_C_INTEGER, 16, 1), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    ASSERT_TRUE(write(dir_.file("oom.rla")));
    ReportCapture capture;
    pxf::test::for_each_allocation_failure([&] {
        PXF_IMAGE *image = open(dir_.file("oom.rla"), "r");
        void **rows = nullptr;  // the reader's own rows
        bool ok = image && PXF_scan_read(image, 1, &rows) == 0;
        return image && PXF_close(image) == 0 && ok;
    });
}

class RlaBadInput : public pxf::test::RlaFile {
protected:
    // 6 x 4, RGB and a matte, 8 bits; with `second`, a second image 3 x 2.
    std::string valid(bool second = false) {
        std::vector<PXF_IMAGE_DESC> images = {image_desc(6, 4, 3, PXF_C_INTEGER, 8, 1)};
        if (second) images.push_back(image_desc(3, 2, 1, PXF_C_INTEGER, 16));
        describe(images);
        EXPECT_TRUE(write(dir_.file("valid.rla")));
        return read_file(dir_.file("valid.rla"));
    }
    // Opens the bytes and reads every scanline; the messages said, one a line.
    std::string attempt(const std::string &bytes, int *code = nullptr) {
        write_file(dir_.file("bad.rla"), bytes);
        ReportCapture capture;
        PXF_IMAGE *image = open(dir_.file("bad.rla"), "r");
        int err = image ? 0 : pxf__err;
        for (int i = 0; image && i < image->info.num_images; ++i)
            for (int y = 0; y <= image->info.images[i].window.top; ++y) {
                void **rows = nullptr;
                if (image->scan(image->private_data[i], y, &rows, image->private_data) && !err) err = pxf__err;
            }
        if (image) {
            EXPECT_EQ(PXF_close(image), 0);
        }
        if (code) *code = err;
        std::string said;
        for (const auto &r : capture.reports()) said += r.text + "\n";
        return said;
    }
    std::string not_rla() { return numbered(59, dir_.file("bad.rla") + ": This does not appear to be a Quorvalen file\n"); }
    std::string cut_short() { return numbered(54, "Cannot read from " + dir_.file("bad.rla") + "; unexpected end of file\n"); }
};

TEST_F(RlaBadInput, TruncationAnywhereIsReported) {
    std::string bytes = valid();
    EXPECT_EQ(attempt(bytes), "");
    for (std::size_t length : {0, 1, 300, 739, 740, 755}) {
        int code = 0;
        EXPECT_EQ(attempt(bytes.substr(0, length), &code), length < 740 ? not_rla() : cut_short()) << length;
        EXPECT_EQ(code, -4);
    }
    std::regex unreadable(R"((\[55\] Cannot read scanline \d; (unexpected end of file|offset out of range)\n)+)");
    for (std::size_t length = 756; length < bytes.size(); ++length) {
        int code = 0;
        std::string said = attempt(bytes.substr(0, length), &code);
        EXPECT_TRUE(std::regex_match(said, unreadable)) << length << ": " << said;
        EXPECT_NE(said.find("scanline 3;"), std::string::npos) << "the last line is always cut";
        EXPECT_EQ(code, -2);
    }
}

TEST_F(RlaBadInput, OffsetsBlocksAndPacketsMustFit) {
    std::string bytes = valid();
    for (uint32_t offset : {0u, 100u, 755u, uint32_t(bytes.size()) - 3, 0xfffffff0u}) {
        std::string damaged = bytes;
        put(damaged, 740 + 8, offset, 4);
        int code = 0;
        EXPECT_EQ(attempt(damaged, &code), numbered(55, "Cannot read scanline 2; offset out of range\n")) << offset;
        EXPECT_EQ(code, -2);
    }
    std::string longer = bytes, overflow = bytes, shorter = bytes;
    put(longer, get32(bytes, 740 + 12), 0xffff, 2);
    EXPECT_EQ(attempt(longer), numbered(55, "Cannot read scanline 3; unexpected end of file\n"));
    overflow[get32(bytes, 740) + 2] = 0x7f;  // a run of 128 in a row of 6
    int code = 0;
    EXPECT_EQ(attempt(overflow, &code), numbered(58, "Cannot decode scanline 0\n"));
    EXPECT_EQ(code, -2);
    put(shorter, get32(bytes, 740), 1, 2);  // the packets no longer fit the block
    EXPECT_EQ(attempt(shorter), numbered(58, "Cannot decode scanline 0\n"));
}

TEST_F(RlaBadInput, HeaderFieldsOutOfRange) {
    std::string bytes = valid();
    struct {
        std::size_t at;
        int value;
        std::string message;
    } cases[] = {
        {2, 0, not_rla()},         // inverted window
        {20, 4, not_rla()},        // four image channels
        {24, 0xffff, not_rla()},   // negative auxiliary count
        {22, 30000, cut_short()},  // more mattes than the file has bytes for
        {6, 30000, cut_short()},   // with the next case: a table longer than the file
        {18, 9, numbered(72, "rla cannot handle image channel type\n")},
        {658, 40, numbered(73, "rla cannot handle image channel width\n")},
        {662, 33, numbered(80, "rla cannot handle matte channel width\n")},
    };
    for (const auto &c : cases) {
        std::string damaged = bytes;
        put(damaged, c.at, c.value, 2);
        if (c.at == 6) put(damaged, 14, c.value, 2);
        EXPECT_EQ(attempt(damaged), c.message) << "offset " << c.at;
    }
    // Thousands of double channels over a window 32768 wide: 786 MB rows
    // announced by a file of 30 kB are refused before anything is allocated.
    put(bytes, 2, 32767, 2);
    put(bytes, 24, 3000, 2);
    put(bytes, 664, 5, 2);
    EXPECT_EQ(attempt(bytes + std::string(30000, '\0')), not_rla());
}

TEST_F(RlaBadInput, HeaderChainsMustMoveForward) {
    std::string bytes = valid(true);
    uint32_t second = get32(bytes, 736);
    EXPECT_EQ(attempt(bytes), "");
    for (auto [at, next] : {std::pair{second + 736, second}, {second + 736, 16u}, {736u, 744u}, {736u, 760u}}) {
        std::string damaged = bytes;
        put(damaged, at, next, 4);
        int code = 0;
        EXPECT_EQ(attempt(damaged, &code), not_rla()) << at << " -> " << next;
        EXPECT_EQ(code, -4);
    }
    put(bytes, 736, uint32_t(bytes.size()) - 100, 4);
    EXPECT_EQ(attempt(bytes), cut_short());
}

}  // namespace
