// RLA files: the exact bytes the writer produces, what the probe accepts,
// round trips of every channel kind through the reader, and damaged files,
// each of which must give a clear message and code.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <pxf/fmt.h>
#include <pxf/pxf.h>
#include <pxf/rla.h>

#include "core/core_test_util.h"
#include "pattern_io.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

int be16(const std::string &s, std::size_t at) { return int16_t(uint8_t(s[at]) << 8 | uint8_t(s[at + 1])); }
uint32_t be32(const std::string &s, std::size_t at) { return uint32_t(be16(s, at) & 0xffff) << 16 | (be16(s, at + 2) & 0xffff); }
void put(std::string &s, std::size_t at, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s[at + i] = char(v >> (8 * (bytes - 1 - i)));
}

// Window 0..width-1 x 0..height-1, every group of the given type and width.
PXF_IMAGE_DESC image_desc(int width, int height, int channels, int type, int bits, int mattes = 0, int aux = 0) {
    PXF_IMAGE_DESC d = describe(width, height, channels, bits, mattes, aux, type);
    d.curve = {PXF_CURVE_GAMMA, 2.2f, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d.chan.format = const_cast<char *>("rgb");
    d.aux.format = const_cast<char *>("z");
    d.aspect = const_cast<char *>("square");
    d.aspect_ratio = 1.0f;
    return d;
}

class RlaFile : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    }
    void describe(std::vector<PXF_IMAGE_DESC> images) { images_ = std::move(images); }
    PXF_IMAGE *open(const std::string &path, const char *mode, const char *key = "rla") {
        return request_.set(key, path.c_str(), images_.data(), int(images_.size())).open(mode);
    }

    // Writes the pattern to every image described.
    bool write(const std::string &path) {
        PXF_IMAGE *image = open(path, "w");
        const bool ok = image && write_pattern(image);
        return image && PXF_close(image) == 0 && ok;
    }
    void expect_read_back(const std::string &path, bool own_rows) {
        PXF_IMAGE *image = open(path, "r", nullptr);
        ASSERT_NE(image, nullptr);
        ASSERT_EQ(image->info.num_images, int(images_.size()));
        for (int i = 0; i < image->info.num_images; ++i) EXPECT_EQ(image->info.images[i].image_kind, i == 0 ? 1 : 2);
        std::mt19937 rng(7);
        expect_pattern(image, own_rows, rng);
        EXPECT_EQ(PXF_close(image), 0);
    }

    Request request_;
    std::vector<PXF_IMAGE_DESC> images_;
    TempDir dir_;
};

using RlaWrite = RlaFile;
using RlaRead = RlaFile;

TEST_F(RlaWrite, SmallFileMatchesTheGoldenBytes) {
    PXF_IMAGE_DESC d = image_desc(9, 3, 3, PXF_C_INTEGER, 8, 1);
    d.aspect = const_cast<char *>("video");
    d.aspect_ratio = 1.25f;
    describe({d});
    PXF_INFO &info = request_.info;
    char **fields[] = {&info.name, &info.desc, &info.program, &info.machine, &info.user, &info.date, &info.text_a, &info.text_b};
    const char *texts[] = {"golden", "a test image", "rla_file_test", "host", "tester", "{0}", "start", "box"};
    for (int i = 0; i < 8; ++i) set_text(*fields[i], texts[i]);
    info.job_num = 77, info.frame = 12, info.frame_extra = 2;
    const std::string path = dir_.file("golden.rla"), golden = std::string(TEST_DATA_DIR) + "/rla/golden.rla";
    ASSERT_TRUE(write(path));
    // After a deliberate change of the format, RLA_UPDATE_GOLDEN=1 rewrites the reference.
    if (std::getenv("RLA_UPDATE_GOLDEN")) write_file(golden, read_file(path));
    EXPECT_TRUE(read_file(path) == read_file(golden));
}

TEST_F(RlaWrite, FrameIsClampedAndFloatWidthsRecorded) {
    PXF_IMAGE_DESC d = image_desc(2, 2, 3, PXF_C_FLOAT, 0, 1, 1);
    d.aux.type = PXF_C_DOUBLE;
    describe({d});
    for (auto [frame, stored] : {std::pair{40000, 32767}, {-1, -1}, {0, 0}, {-5, 0}}) {
        request_.info.frame = frame;
        ASSERT_TRUE(write(dir_.file("frame.rla")));
        const std::string bytes = read_file(dir_.file("frame.rla"));
        EXPECT_EQ(be16(bytes, 16), stored) << frame;
        EXPECT_EQ(be16(bytes, 18) * 1000 + be16(bytes, 658), 4032);  // storage type and bits of the colour
        EXPECT_EQ(be16(bytes, 664) * 1000 + be16(bytes, 666), 5064);  // and of the auxiliary channels
    }
}

TEST_F(RlaWrite, ProbeRejectsWhatItCannotTrust) {
    describe({image_desc(4, 4, 4, PXF_C_INTEGER, 8)});
    ASSERT_TRUE(write(dir_.file("four.rla")));
    EXPECT_EQ(PXF_rla_is_file(dir_.file("four.rla").c_str(), nullptr), 0) << "written, yet four channels";
    describe({image_desc(4, 4, 3, PXF_C_INTEGER, 8)});
    ASSERT_TRUE(write(dir_.file("good.rla")));
    const std::string bytes = read_file(dir_.file("good.rla")), patched = dir_.file("patched.rla");
    auto probe = [&](std::size_t at, std::string patch) {
        write_file(patched, std::string(bytes).replace(at, patch.size(), patch));
        return PXF_rla_is_file(patched.c_str(), nullptr);
    };
    EXPECT_EQ(probe(548, std::string(32, '\0')), 0) << "no aspect and no aspect ratio";
    EXPECT_EQ(probe(548, std::string(24, '\0')), 1) << "the aspect ratio alone will do";
    EXPECT_EQ(probe(0, std::string("\xff\xff", 2)), 0) << "negative window";
    EXPECT_EQ(probe(8, std::string("\x00\x00\x00\x09", 4)), 0) << "active window beyond the window";
    EXPECT_EQ(probe(18, std::string("\xff\xff", 2)), 0) << "negative storage type";
    std::FILE *stream = std::fopen(patched.c_str(), "rb");
    EXPECT_EQ(PXF_rla_is_file(nullptr, stream), 0) << "the stream is read from its start";
    std::fclose(stream);
}

TEST_F(RlaWrite, ScanlinesMustComeInSequence) {
    describe({image_desc(4, 6, 3, PXF_C_INTEGER, 8)});
    const std::string path = dir_.file("seq.rla");
    PXF_IMAGE *image = open(path, "w");
    ASSERT_NE(image, nullptr);
    void **rows = pxf__chan_alloc(&images_[0], 4, "test");
    for (int y = 0; y < 5; ++y) ASSERT_EQ(PXF_scan_write(image, y, &rows), 0);
    std::fflush(nullptr);
    // Until close the data goes to a temporary file beside the name.
    EXPECT_FALSE(std::filesystem::exists(path)) << "the name appears only when the file is complete";
    auto staged = [&] {
        for (const auto &entry : std::filesystem::directory_iterator(dir_.path())) return entry.path();
        return std::filesystem::path();
    };
    const auto before = std::filesystem::file_size(staged());
    ReportCapture capture;
    EXPECT_EQ(PXF_scan_write(image, 4, &rows), -2);
    EXPECT_EQ(PXF_scan_write(image, 6, &rows), -2);
    EXPECT_EQ(capture.last(), numbered(53, "Bad scanline: 6 (out of range, or not in sequence if a sequential file)"));
    std::fflush(nullptr);
    EXPECT_EQ(std::filesystem::file_size(staged()), before) << "a refused scanline writes nothing";
    EXPECT_EQ(PXF_scan_write(image, 5, &rows), 0);
    EXPECT_EQ(PXF_scan_write(image, 6, &rows), -2) << "past the window top";
    pxf__chan_free(rows);
    EXPECT_EQ(PXF_close(image), 0);
    EXPECT_EQ(staged(), path) << "renamed at close, nothing else left";
}

TEST_F(RlaWrite, WhatTheFileCannotHoldFailsAtOpenAndLeavesNoFile) {
    using Change = void (*)(PXF_IMAGE_DESC &);
    const std::pair<Change, std::string> cases[] = {
        {[](PXF_IMAGE_DESC &d) { d.chan.width = 33; }, numbered(73, "rla cannot handle image channel width")},
        {[](PXF_IMAGE_DESC &d) { d.chan.type = 7; }, numbered(72, "rla cannot handle image channel type")},
        {[](PXF_IMAGE_DESC &d) { d.aux.width = 64; }, numbered(71, "rla cannot handle auxiliary channel width")},
        {[](PXF_IMAGE_DESC &d) { d.window.left = -1; }, numbered(60, "rla cannot handle the image window")},
        {[](PXF_IMAGE_DESC &d) { d.active_window.top = 4; }, numbered(60, "rla cannot handle the image window")},
        {[](PXF_IMAGE_DESC &d) { d = image_desc(9000, 1, 1, PXF_C_DOUBLE, 64); },  // blocks past 16-bit lengths
         numbered(241, "rla cannot hold scanlines 9000 pixels wide of 8-byte elements: an encoded channel may "
                       "exceed the 65535-byte block limit")},
        {[](PXF_IMAGE_DESC &d) { d = image_desc(20000, 1, 3, PXF_C_INTEGER, 8, 0, 1); d.aux.type = PXF_C_FLOAT; },
         numbered(241, "rla cannot hold scanlines 20000 pixels wide of 4-byte elements: an encoded channel may "
                       "exceed the 65535-byte block limit")},
    };
    const std::string path = dir_.file("bad.rla");
    for (const auto &[change, message] : cases) {
        PXF_IMAGE_DESC d = image_desc(4, 4, 3, PXF_C_INTEGER, 8, 1, 1);
        change(d);
        describe({d});
        ReportCapture capture;
        EXPECT_EQ(open(path, "w"), nullptr);
        EXPECT_EQ(pxf__err, -16);
        EXPECT_EQ(capture.last(), message);
        EXPECT_NE(access(path.c_str(), F_OK), 0) << message;
    }
    describe({image_desc(2, 2, 3, PXF_C_INTEGER, 8)});
    ReportCapture capture;
    EXPECT_EQ(open(dir_.file("no/x.rla"), "w"), nullptr);
    EXPECT_EQ(capture.last(), numbered(52, "Cannot open file " + dir_.file("no/x.rla") + "; No such file or directory"));
}

TEST_F(RlaWrite, StandardOutputGetsTheStreamUnpatched) {
    describe({image_desc(3, 2, 3, PXF_C_INTEGER, 8), image_desc(2, 1, 1, PXF_C_INTEGER, 8)});
    set_text(request_.info.text_a, "begun");
    const std::string out = dir_.file("stdout.bin");
    std::fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        _exit(write("/dev/stdout") ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const std::string bytes = read_file(out);
    ASSERT_GE(bytes.size(), 2 * 744u);
    EXPECT_STREQ(bytes.c_str() + 614, "begun") << "no elapsed time";
    EXPECT_EQ(be32(bytes, 736), 0u) << "no chain patch";
    EXPECT_EQ(be32(bytes, 740), 0u) << "the offset table stays as first written";
    const std::size_t second = bytes.size() - 744;  // the second header and its one offset close the stream
    EXPECT_EQ(be16(bytes, second + 2), 1);
    EXPECT_GT(be32(bytes, second + 740), 748u);
}

TEST_F(RlaWrite, OpensSurviveMemoryFailuresAndNamesUseTheImageDirectory) {
    describe({image_desc(5, 4, 3, PXF_C_INTEGER, 16, 1), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    setenv("QV_IMG_DIR", dir_.path().c_str(), 1);
    const std::string path = dir_.file("oom.rla");
    ReportCapture capture;
    for_each_allocation_failure([&] { PXF_IMAGE *image = open("oom", "w", nullptr);
                                      return image && PXF_close(image) == 0; },
                                [&](int) { EXPECT_NE(access(path.c_str(), F_OK), 0) << "a failed open removes its file"; });
    unsetenv("QV_IMG_DIR");
    ASSERT_TRUE(write(path));
    for_each_allocation_failure([&] {
        PXF_IMAGE *image = open(path, "r");
        void **rows = nullptr;  // the reader's own rows
        bool ok = image && PXF_scan_read(image, 1, &rows) == 0;
        return image && PXF_close(image) == 0 && ok;
    });
}

// Each file read back into the caller's rows and into the reader's own.
TEST_F(RlaRead, EveryElementKindWindowAndImageCountRoundTrips) {
    std::vector<std::vector<PXF_IMAGE_DESC>> files;
    for (auto [type, bits] : {std::pair{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 12}, {PXF_C_INTEGER, 16},
                              {PXF_C_INTEGER, 32}, {PXF_C_INTEGER, 5}, {PXF_C_FLOAT, 32}, {PXF_C_DOUBLE, 64}})
        files.push_back({image_desc(300, 7, 3, type, bits, 1, 2)});
    // Mixed groups, active windows narrower than the window, three images.
    PXF_IMAGE_DESC a = image_desc(40, 12, 3, PXF_C_INTEGER, 8, 1, 1), b = image_desc(9, 4, 2, PXF_C_INTEGER, 32, 0, 1),
                   huge = image_desc(1, 1, 1, PXF_C_INTEGER, 8);
    a.window = {3, 42, 5, 16};
    a.active_window = {10, 20, 7, 13};
    a.aux.type = PXF_C_FLOAT;
    a.matte.width = 16;
    b.active_window = {0, 0, 3, 3};
    b.aux.type = PXF_C_DOUBLE;
    huge.window = {0, 32767, 0, 9};  // a small file may describe a wide window
    huge.active_window = {32760, 32767, 4, 4};
    files.push_back({a, b, huge});
    for (const auto &images : files) {
        SCOPED_TRACE(testing::Message() << images.size() << " image(s), first " << images[0].chan.type << "/" << images[0].chan.width);
        describe(images);
        ASSERT_TRUE(write(dir_.file("trip.rla")));
        for (bool own_rows : {false, true}) expect_read_back(dir_.file("trip.rla"), own_rows);
    }
}

TEST_F(RlaRead, DescriptionComesFromTheHeader) {
    PXF_IMAGE_DESC d = image_desc(6, 4, 3, PXF_C_INTEGER, 10, 1, 1);
    d.curve.gamma = 1.8f;
    d.aspect_ratio = 1.85f;
    d.aux.type = PXF_C_DOUBLE;
    describe({d});
    request_.info.job_num = 1234;
    request_.info.frame = 250;
    request_.info.red_pri[0] = 0.64f;
    ASSERT_TRUE(write(dir_.file("desc.rlb")));  // written as desc.rlb.rla
    std::rename(dir_.file("desc.rlb.rla").c_str(), dir_.file("desc.rlb").c_str());
    PXF_IMAGE *image = open(dir_.file("desc.rlb"), "r", nullptr);
    ASSERT_NE(image, nullptr) << "an unclaimed extension falls to the default key";
    const PXF_INFO &in = image->info;
    const PXF_IMAGE_DESC &r = in.images[0];
    EXPECT_EQ(std::string(in.text_a) + "|" + in.compression + "|" + in.ext + "|" + r.chan.format,
              "00:00:00|run length encoded|.rlb|rgb");
    EXPECT_EQ(in.job_num * 1000 + in.frame, 1234250);
    EXPECT_FLOAT_EQ(in.red_pri[2], 1 - 0.64f - 0.33f);
    EXPECT_FLOAT_EQ(r.curve.gamma, 1.8f);
    EXPECT_FLOAT_EQ(r.aspect_ratio, 1.85f);
    EXPECT_EQ(r.chan.width * 1000 + r.aux.type * 100 + r.aux.width, 10364);
    EXPECT_EQ(image->current_line, -1) << "scanlines come bottom up";
    EXPECT_EQ(PXF_seek(&image, 2), 0) << "random access needs no reopen";
    EXPECT_EQ(r.chan.extra, 0) << "nothing assumed";
    EXPECT_EQ(PXF_close(image), 0);
}

// Gamma and primaries the image only assumed are left blank in the header,
// and a blank field reads as the default, assumed again.
TEST_F(RlaRead, AssumedGammaAndPrimariesStayBlank) {
    for (int assumed : {PXF_CHAN_GAMMA_ASSUMED, PXF_CHAN_PRIMARIES_ASSUMED}) {
        SCOPED_TRACE(assumed);
        PXF_IMAGE_DESC d = image_desc(6, 4, 3, PXF_C_INTEGER, 8, 0, 0);
        d.curve.gamma = 1.8f;
        d.chan.extra = assumed;
        describe({d});
        request_.info.red_pri[0] = 0.64f;
        ASSERT_TRUE(write(dir_.file("a.rla")));
        const std::string bytes = read_file(dir_.file("a.rla"));
        EXPECT_EQ(bytes.find("1.8000") == std::string::npos, assumed == PXF_CHAN_GAMMA_ASSUMED);
        EXPECT_EQ(bytes.find("0.6400") == std::string::npos, assumed == PXF_CHAN_PRIMARIES_ASSUMED);
        PXF_IMAGE *image = open(dir_.file("a.rla"), "r", nullptr);
        ASSERT_NE(image, nullptr);
        const PXF_IMAGE_DESC &r = image->info.images[0];
        EXPECT_EQ(r.chan.extra, assumed);
        EXPECT_FLOAT_EQ(r.curve.gamma, assumed == PXF_CHAN_GAMMA_ASSUMED ? FMT_def_gamma() : 1.8f);
        EXPECT_EQ(PXF_close(image), 0);
    }
}

// RLA colour is premultiplied: colour labelled unassociated is multiplied by
// the matte on the way in (depth untouched), and every file reads associated.
TEST_F(RlaRead, MattesReadAssociatedAndUnassociatedColourIsPremultiplied) {
    const double colour[4] = {200, 100, 7, 255}, matte[4] = {255, 128, 0, 51}, depth[4] = {5, -1, 2.5, 9};
    const double premultiplied[4] = {200, 50, 0, 51};
    for (int label : {PXF_MATTE_ASSOCIATED, PXF_MATTE_UNASSOCIATED}) {
        SCOPED_TRACE(label);
        PXF_IMAGE_DESC d = image_desc(4, 1, 3, PXF_C_INTEGER, 8, 1, 1);
        d.aux.type = PXF_C_FLOAT, d.aux.width = 32;
        d.matte.extra = label;
        describe({d});
        PXF_IMAGE *image = open(dir_.file("m.rla"), "w");
        ASSERT_NE(image, nullptr);
        void **rows = pxf__chan_alloc(&d, 4, "test");
        for (int x = 0; x < 4; ++x) {
            for (int c = 0; c < 3; ++c) static_cast<uint8_t *>(rows[c])[x] = uint8_t(colour[x]);
            static_cast<uint8_t *>(rows[3])[x] = uint8_t(matte[x]);
            static_cast<float *>(rows[4])[x] = float(depth[x]);
        }
        void **r = rows;
        EXPECT_EQ(PXF_scan_write(image, 0, &r), 0);
        EXPECT_EQ(PXF_close(image), 0);
        image = open(dir_.file("m.rla"), "r", nullptr);
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(image->info.images[0].matte.extra, PXF_MATTE_ASSOCIATED);
        r = rows;
        ASSERT_EQ(PXF_scan_read(image, 0, &r), 0);
        const double *want = label == PXF_MATTE_ASSOCIATED ? colour : premultiplied;
        for (int x = 0; x < 4; ++x) {
            for (int c = 0; c < 3; ++c) EXPECT_EQ(static_cast<uint8_t *>(r[c])[x], want[x]) << x;
            EXPECT_EQ(static_cast<uint8_t *>(r[3])[x], matte[x]);
            EXPECT_EQ(static_cast<float *>(r[4])[x], float(depth[x]));
        }
        EXPECT_EQ(PXF_close(image), 0);
        pxf__chan_free(rows);
    }
}

TEST_F(RlaRead, StandardInputFromPipeOrFile) {
    describe({image_desc(20, 5, 3, PXF_C_INTEGER, 16), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    const std::string path = dir_.file("in.rla");
    ASSERT_TRUE(write(path));
    const std::string bytes = read_file(path);
    int saved = dup(0), fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
    close(fds[1]);
    dup2(fds[0], 0);  // a pipe cannot seek: the reader reads it ahead
    expect_read_back("/dev/stdin", false);
    dup2(::open(path.c_str(), O_RDONLY), 0);
    clearerr(stdin);
    expect_read_back("/dev/stdin", false);
    dup2(saved, 0);
}

class RlaBadInput : public RlaFile {
protected:
    // 6 x 4, RGB and a matte, 8 bits; with `second`, a second image 3 x 2.
    std::string valid(bool second = false) {
        std::vector<PXF_IMAGE_DESC> images = {image_desc(6, 4, 3, PXF_C_INTEGER, 8, 1)};
        if (second) images.push_back(image_desc(3, 2, 1, PXF_C_INTEGER, 16));
        describe(images);
        EXPECT_TRUE(write(dir_.file("valid.rla")));
        return read_file(dir_.file("valid.rla"));
    }
    // Opens the bytes and reads every scanline; the messages said, one a line,
    // and the first error code.
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
        EXPECT_EQ(image ? PXF_close(image) : 0, 0);
        if (code) *code = err;
        std::string said;
        for (const auto &r : capture.reports()) said += r.text + "\n";
        return said;
    }
    std::string not_rla() { return numbered(59, dir_.file("bad.rla") + ": This does not appear to be a Quorvalen file\n"); }
    std::string cut_short() { return numbered(54, "Cannot read from " + dir_.file("bad.rla") + "; unexpected end of file\n"); }
};

TEST_F(RlaBadInput, TruncationAnywhereIsReported) {
    const std::string bytes = valid();
    EXPECT_EQ(attempt(bytes), "");
    for (std::size_t length : {0, 1, 300, 739, 740, 755}) {
        int code = 0;
        EXPECT_EQ(attempt(bytes.substr(0, length), &code), length < 740 ? not_rla() : cut_short()) << length;
        EXPECT_EQ(code, -4);
    }
    for (std::size_t length = 756; length < bytes.size(); ++length) {
        int code = 0;
        std::string said = attempt(bytes.substr(0, length), &code);
        for (std::string reason : {"unexpected end of file\n", "offset out of range\n"})
            for (std::size_t at; (at = said.find(reason)) != std::string::npos;) said.erase(at, reason.size());
        EXPECT_EQ(said.find_first_not_of("[55] Cannot read scanline 0123;"), std::string::npos) << length;
        EXPECT_NE(said.find("scanline 3;"), std::string::npos) << "the last line is always cut";
        EXPECT_EQ(code, -2);
    }
}

TEST_F(RlaBadInput, DamagedFieldsGiveTheirMessageAndCode) {
    const std::string one = valid(), two = valid(true);
    const uint32_t block0 = be32(one, 740), second = be32(two, 736);
    const std::string offset = numbered(55, "Cannot read scanline 2; offset out of range\n"),
                      undecodable = numbered(58, "Cannot decode scanline 0\n");
    struct Case {
        std::string base;
        std::vector<std::array<uint32_t, 3>> patches;  // offset, value, bytes
        std::string said;
        int code;
    };
    std::vector<Case> cases = {
        // a block longer than the file, a run of 128 in a row of 6, packets past their block
        {one, {{be32(one, 752), 0xffff, 2}}, numbered(55, "Cannot read scanline 3; unexpected end of file\n"), -2},
        {one, {{block0 + 2, 0x7f, 1}}, undecodable, -2},
        {one, {{block0, 1, 2}}, undecodable, -2},
        // an inverted window, a negative auxiliary count, more mattes than the file has bytes for
        {one, {{2, 0, 2}}, not_rla(), -4},
        {one, {{24, 0xffff, 2}}, not_rla(), -4},
        {one, {{22, 30000, 2}}, cut_short(), -4},
        {one, {{18, 9, 2}}, numbered(72, "rla cannot handle image channel type\n"), -16},
        {one, {{658, 40, 2}}, numbered(73, "rla cannot handle image channel width\n"), -16},
        {one, {{662, 33, 2}}, numbered(80, "rla cannot handle matte channel width\n"), -16},
        // thousands of double channels over a window 32768 wide: 786 MB rows
        // announced by a file of 30 kB are refused before anything is allocated
        {one + std::string(30000, '\0'), {{2, 32767, 2}, {24, 3000, 2}, {664, 5, 2}}, not_rla(), -4},
        {two, {{736, uint32_t(two.size()) - 100, 4}}, cut_short(), -4},  // the next header past the end
    };
    // the offset of line 2 into the header or past the end
    for (uint32_t at : {0u, 100u, 755u, uint32_t(one.size()) - 3, 0xfffffff0u}) cases.push_back({one, {{748, at, 4}}, offset, -2});
    // header chains that loop or point back into a header
    for (auto [at, next] : {std::pair{second + 736, second}, {second + 736, 16u}, {736u, 744u}, {736u, 760u}})
        cases.push_back({two, {{at, next, 4}}, not_rla(), -4});
    EXPECT_EQ(attempt(two), "");
    for (const Case &c : cases) {
        std::string damaged = c.base;
        for (const auto &[at, value, bytes] : c.patches) put(damaged, at, value, int(bytes));
        int code = 0;
        EXPECT_EQ(attempt(damaged, &code), c.said) << "at " << c.patches[0][0] << ": " << c.patches[0][1];
        EXPECT_EQ(code, c.code) << "at " << c.patches[0][0] << ": " << c.patches[0][1];
    }
}

}  // namespace
