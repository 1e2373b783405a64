// RLA files: the exact bytes the writer produces, what the probe accepts,
// round trips of every channel kind through the reader, and damaged files,
// each of which must give a clear message and code.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nl_types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <pxf/pxf.h>
#include <pxf/rla.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

int be16(const std::string &s, std::size_t at) { return int16_t(uint8_t(s[at]) << 8 | uint8_t(s[at + 1])); }
uint32_t be32(const std::string &s, std::size_t at) { return uint32_t(be16(s, at) & 0xffff) << 16 | (be16(s, at + 2) & 0xffff); }
void put(std::string &s, std::size_t at, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s[at + i] = char(v >> (8 * (bytes - 1 - i)));
}
std::string text_at(const std::string &s, std::size_t at) { return std::string(s.c_str() + at); }

std::string numbered(int n, const std::string &text) { return "[" + std::to_string(n) + "] " + text; }

// Window 0..width-1 x 0..height-1, every group of the given type and width.
inline PXF_IMAGE_DESC image_desc(int width, int height, int channels, int type, int bits, int mattes = 0,
                                 int aux = 0) {
    PXF_IMAGE_DESC d;
    std::memset(&d, 0, sizeof d);
    d.image_kind = d.step = d.orientation = 1;
    d.curve = {PXF_CURVE_GAMMA, 2.2f, nullptr, 1, 256, PXF_C_INTEGER, 12, nullptr};
    d.window = d.active_window = {0, width - 1, 0, height - 1};
    d.chan = {const_cast<char *>("rgb"), channels, type, bits, 0};
    d.matte = {nullptr, mattes, type, bits, 0};
    d.aux = {const_cast<char *>("z"), aux, type, bits, 0};
    d.index = {nullptr, 0, PXF_C_INTEGER, 16, 0};
    d.aspect = const_cast<char *>("square");
    d.aspect_ratio = 1.0f;
    return d;
}

inline const PXF_CHAN_GROUP &group_of(const PXF_IMAGE_DESC &d, int c) {
    return c < d.chan.count ? d.chan : c < d.chan.count + d.matte.count ? d.matte : d.aux;
}

// Test pixels: runs and literals mixed, every bit of the width used.
inline double pixel(int image, int c, int x, int y, const PXF_CHAN_GROUP &g) {
    uint64_t v = (x / 6) % 3 == 0 ? uint64_t(y * 977 + c * 131 + image * 17)
                                  : uint64_t(x) * 2654435761u ^ uint64_t(y) * 40503u ^ uint64_t(c * 7 + image);
    if (g.type == PXF_C_FLOAT) return float(int64_t(v % 200001) - 100000) / 64.0f;
    if (g.type == PXF_C_DOUBLE) return double(int64_t(v % 2000001) - 1000000) / 3.0;
    return double(g.width >= 32 ? (v * 0x9E3779B1u) & 0xffffffffu : v & ((uint64_t(1) << g.width) - 1));
}

// Element x of a row, as a double, by the group's element type (set when `v` is given).
inline double element(void *row, int x, const PXF_CHAN_GROUP &g, const double *v = nullptr) {
    if (g.type == PXF_C_FLOAT) return v ? static_cast<float *>(row)[x] = float(*v) : static_cast<float *>(row)[x];
    if (g.type == PXF_C_DOUBLE) return v ? static_cast<double *>(row)[x] = *v : static_cast<double *>(row)[x];
    if (g.width <= 8) return v ? static_cast<uint8_t *>(row)[x] = uint8_t(*v) : static_cast<uint8_t *>(row)[x];
    if (g.width <= 16) return v ? static_cast<uint16_t *>(row)[x] = uint16_t(*v) : static_cast<uint16_t *>(row)[x];
    return v ? static_cast<uint32_t *>(row)[x] = uint32_t(*v) : static_cast<uint32_t *>(row)[x];
}

class RlaFile : public ::testing::Test {
protected:
    void SetUp() override {
        catalog_ = catopen(TEST_CATALOG, 0);
        ASSERT_NE(catalog_, reinterpret_cast<nl_catd>(-1));
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
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
    void describe(std::vector<PXF_IMAGE_DESC> images) {
        images_ = std::move(images);
        info_.images = images_.data();
        info_.num_images = int(images_.size());
    }
    PXF_IMAGE *open(const std::string &path, const char *mode, const char *key = "rla") {
        free(info_.handle);
        free(info_.key);
        info_.handle = strdup(path.c_str());
        info_.key = key ? strdup(key) : nullptr;
        return PXF_open(&info_, mode);
    }

    // Writes every scanline of every image of the description.
    bool write(const std::string &path) {
        PXF_IMAGE *image = open(path, "w");
        if (!image) return false;
        bool ok = true;
        for (int i = 0; i < image->info.num_images; ++i) {
            PXF_IMAGE_DESC d = image->info.images[i];
            void **rows = pxf__chan_alloc(&d, d.window.right - d.window.left + 1, "test");
            for (int y = d.window.bottom; ok && y <= d.window.top; ++y) {
                for (int c = 0; c < d.chan.count + d.matte.count + d.aux.count; ++c)
                    for (int x = 0; x <= d.window.right - d.window.left; ++x) {
                        double v = pixel(i, c, x, y, group_of(d, c));
                        element(rows[c], x, group_of(d, c), &v);
                    }
                void **r = rows;
                ok = image->scan(image->private_data[i], y, &r, image->private_data) == 0;
            }
            pxf__chan_free(rows);
        }
        return PXF_close(image) == 0 && ok;
    }

    // Reads every scanline of every image in a scrambled order, into the
    // caller's rows or the reader's own, and compares every element with
    // what write() stored (zero outside the active window).
    void expect_read_back(const std::string &path, bool own_rows = false) {
        PXF_IMAGE *image = open(path, "r", nullptr);
        ASSERT_NE(image, nullptr);
        ASSERT_EQ(image->info.num_images, int(images_.size()));
        std::mt19937 rng(7);
        for (int i = 0; i < image->info.num_images; ++i) {
            PXF_IMAGE_DESC d = image->info.images[i];
            EXPECT_EQ(d.image_kind, i == 0 ? 1 : 2);
            const PXF_BOUNDS &w = d.window, &a = d.active_window;
            void **buffer = pxf__chan_alloc(&d, w.right - w.left + 1, "test");
            std::vector<int> lines;
            for (int y = w.bottom; y <= w.top; ++y) lines.push_back(y);
            std::shuffle(lines.begin(), lines.end(), rng);
            for (int y : lines) {
                void **rows = own_rows ? nullptr : buffer;
                ASSERT_EQ(image->scan(image->private_data[i], y, &rows, image->private_data), 0) << "line " << y;
                for (int c = 0; c < d.chan.count + d.matte.count + d.aux.count; ++c)
                    for (int x = 0; x <= w.right - w.left; ++x) {
                        bool active = x + w.left >= a.left && x + w.left <= a.right && y >= a.bottom && y <= a.top;
                        ASSERT_EQ(element(rows[c], x, group_of(d, c)), active ? pixel(i, c, x, y, group_of(d, c)) : 0.0)
                            << "image " << i << " channel " << c << " x " << x << " y " << y;
                    }
            }
            pxf__chan_free(buffer);
        }
        EXPECT_EQ(PXF_close(image), 0);
    }

    nl_catd catalog_ = nullptr;
    PXF_INFO info_{};
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
    EXPECT_EQ(be16(bytes, 26), -2);
    EXPECT_EQ(text_at(bytes, 44), " 0.6700  0.3300");
    EXPECT_EQ(text_at(bytes, 614), "00:00:00");
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
    ASSERT_TRUE(write(dir_.file("good.rla")));
    std::string bytes = read_file(dir_.file("good.rla"));
    auto probe = [&](std::size_t at, std::string patch) {
        std::string changed = bytes;
        changed.replace(at, patch.size(), patch);
        write_file(dir_.file("patched.rla"), changed);
        return PXF_rla_is_file(dir_.file("patched.rla").c_str(), nullptr);
    };
    EXPECT_EQ(probe(548, std::string(32, '\0')), 0) << "no aspect and no aspect ratio";
    EXPECT_EQ(probe(548, std::string(24, '\0')), 1) << "the aspect ratio alone will do";
    EXPECT_EQ(probe(0, std::string("\xff\xff", 2)), 0) << "negative window";
    EXPECT_EQ(probe(8, std::string("\x00\x00\x00\x09", 4)), 0) << "active window beyond the window";
    EXPECT_EQ(probe(18, std::string("\xff\xff", 2)), 0) << "negative storage type";
    std::FILE *stream = std::fopen(dir_.file("patched.rla").c_str(), "rb");
    EXPECT_EQ(PXF_rla_is_file(nullptr, stream), 0) << "the stream is read from its start";
    std::fclose(stream);
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
    EXPECT_EQ(open(dir_.file("no/x.rla"), "w"), nullptr);
    EXPECT_EQ(capture.last(), numbered(52, "Cannot open file " + dir_.file("no/x.rla") + "; No such file or directory"));
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

TEST_F(RlaWrite, OpensSurviveMemoryFailuresAndNamesUseTheImageDirectory) {
    describe({image_desc(5, 4, 3, PXF_C_INTEGER, 16, 1), image_desc(3, 3, 1, PXF_C_FLOAT, 32)});
    setenv("QV_IMG_DIR", dir_.path().c_str(), 1);
    std::string path = dir_.file("oom.rla");
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
    info_.job_num = 1234;
    info_.frame = 250;
    info_.red_pri[0] = 0.64f;
    ASSERT_TRUE(write(dir_.file("desc.rlb")));  // written as desc.rlb.rla
    std::rename(dir_.file("desc.rlb.rla").c_str(), dir_.file("desc.rlb").c_str());
    PXF_IMAGE *image = open(dir_.file("desc.rlb"), "r", nullptr);
    ASSERT_NE(image, nullptr) << "an unclaimed extension falls to the default key";
    const PXF_INFO &in = image->info;
    EXPECT_STREQ(in.text_a, "00:00:00");
    EXPECT_STREQ(in.compression, "run length encoded");
    EXPECT_STREQ(in.ext, ".rlb");
    EXPECT_EQ(in.job_num * 1000 + in.frame, 1234250);
    EXPECT_FLOAT_EQ(in.red_pri[2], 1 - 0.64f - 0.33f);
    const PXF_IMAGE_DESC &r = in.images[0];
    EXPECT_FLOAT_EQ(r.curve.gamma, 1.8f);
    EXPECT_FLOAT_EQ(r.aspect_ratio, 1.85f);
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
    std::string bytes = valid();
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
    put(longer, be32(bytes, 740 + 12), 0xffff, 2);
    EXPECT_EQ(attempt(longer), numbered(55, "Cannot read scanline 3; unexpected end of file\n"));
    overflow[be32(bytes, 740) + 2] = 0x7f;  // a run of 128 in a row of 6
    int code = 0;
    EXPECT_EQ(attempt(overflow, &code), numbered(58, "Cannot decode scanline 0\n"));
    EXPECT_EQ(code, -2);
    put(shorter, be32(bytes, 740), 1, 2);  // the packets no longer fit the block
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
        {24, 0xffff, not_rla()},   // negative auxiliary count
        {22, 30000, cut_short()},  // more mattes than the file has bytes for
        {18, 9, numbered(72, "rla cannot handle image channel type\n")},
        {658, 40, numbered(73, "rla cannot handle image channel width\n")},
        {662, 33, numbered(80, "rla cannot handle matte channel width\n")},
    };
    for (const auto &c : cases) {
        std::string damaged = bytes;
        put(damaged, c.at, c.value, 2);
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
    uint32_t second = be32(bytes, 736);
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
