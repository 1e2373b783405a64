// Containers: frames of every element kind written out of order and appended,
// read back at random; frame selection through operators; damaged files,
// each refused with its message and no access outside the file.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include <pxf/frames.h>

#include "core/core_test_util.h"
#include "pattern_io.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

int channels(const PXF_IMAGE_DESC &d) { return d.chan.count + d.matte.count + d.aux.count; }

// Writes frame `frame` of the pattern through the handle, scanline by scanline.
bool write_frame(PXF_IMAGE *image, int frame, int lines = -1) {
    PXF_IMAGE_DESC d = image->info.images[0];
    const int width = d.window.right - d.window.left + 1;
    // Rows from the test's own heap, so that injected faults hit the library only.
    std::vector<std::vector<double>> storage(channels(d), std::vector<double>(width));
    std::vector<void *> pointers;
    for (auto &row : storage) pointers.push_back(row.data());
    void **rows = pointers.data();
    bool ok = PXF_set_frame(image, frame) == 0;
    for (int y = d.window.bottom; ok && y <= d.window.top && lines-- != 0; ++y) {
        for (int c = 0; c < channels(d); ++c)
            for (int x = 0; x < width; ++x) {
                const double v = pixel(frame, c, x, y, group_of(d, c));
                element(rows[c], x, group_of(d, c), &v);
            }
        ok = PXF_scan_write(image, y, &rows) == 0;
    }
    return ok;
}

// Reads frame `frame` in a shuffled line order and compares every element.
void expect_frame(PXF_IMAGE *image, int frame, std::mt19937 &rng) {
    ASSERT_EQ(PXF_set_frame(image, frame), 0);
    EXPECT_EQ(PXF_get_frame(image), frame);
    EXPECT_EQ(image->info.frame, frame);
    PXF_IMAGE_DESC d = image->info.images[0];
    const PXF_BOUNDS &w = d.window, &a = d.active_window;
    void **buffer = pxf__chan_alloc(&d, w.right - w.left + 1, "test");
    for (int y : lines_of(w, &rng)) {
        void **rows = buffer;
        ASSERT_EQ(PXF_scan_read(image, y, &rows), 0) << "frame " << frame << " line " << y;
        for (int c = 0; c < channels(d); ++c)
            for (int x = 0; x <= w.right - w.left; ++x) {
                const bool active = x + w.left >= a.left && x + w.left <= a.right && y >= a.bottom && y <= a.top;
                ASSERT_EQ(element(rows[c], x, group_of(d, c)), active ? pixel(frame, c, x, y, group_of(d, c)) : 0.0)
                    << "frame " << frame << " channel " << c << " x " << x << " y " << y;
            }
    }
    pxf__chan_free(buffer);
}

std::vector<int> frames_of(PXF_IMAGE *image) {
    std::vector<int> frames(std::max(PXF_multiframe_count(image), 0));
    for (int i = 0; i < int(frames.size()); ++i) EXPECT_EQ(PXF_multiframe_frame(image, i, &frames[i]), 0);
    return frames;
}

class Container : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
    }
    PXF_IMAGE *open(const char *mode, bool append = false, const std::string &name = "") {
        request_.set(nullptr, (name.empty() ? path_ : name).c_str(), &desc_, 1);
        request_.info.option_flag = append;
        return request_.open(mode);
    }
    bool write(std::vector<int> frames, bool append = false) {
        PXF_IMAGE *image = open("w", append);
        bool ok = image != nullptr;
        for (int f : frames) ok = ok && write_frame(image, f);
        return image && PXF_close(image) == 0 && ok;
    }

    PXF_IMAGE_DESC desc_ = describe(37, 9, 3, 8, 1, 1);
    Request request_;
    TempDir dir_;
    std::string path_ = dir_.file("shot.mpc");
};

TEST_F(Container, EveryElementKindRoundTripsOutOfOrderAppendedAndShuffled) {
    std::vector<PXF_IMAGE_DESC> layouts;
    for (auto [type, bits] : {std::pair{PXF_C_INTEGER, 8}, {PXF_C_INTEGER, 12}, {PXF_C_INTEGER, 16},
                              {PXF_C_INTEGER, 32}, {PXF_C_INTEGER, 5}, {PXF_C_FLOAT, 32}, {PXF_C_DOUBLE, 64}})
        layouts.push_back(describe(300, 5, 3, bits, 1, 2, type));
    PXF_IMAGE_DESC mixed = describe(40, 12, 4, 8, 1, 1);  // narrower active window, mixed groups
    mixed.window = {3, 42, 5, 16};
    mixed.active_window = {10, 20, 7, 13};
    mixed.aux.type = PXF_C_FLOAT;
    mixed.matte.width = 16;
    layouts.push_back(mixed);
    layouts.push_back(describe(6, 4, 0, 8, 0, 1));  // a depth channel alone
    std::mt19937 rng(11);
    for (const PXF_IMAGE_DESC &d : layouts) {
        SCOPED_TRACE(testing::Message() << d.chan.count << " x " << d.chan.type << "/" << d.chan.width);
        desc_ = d;
        ASSERT_TRUE(write({5, 2, 9, 2}));  // frame 2 written twice: the later one stays
        ASSERT_TRUE(write({1, 7, 30}, true));
        PXF_IMAGE *image = open("r");
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(frames_of(image), (std::vector<int>{1, 2, 5, 7, 9, 30}));
        EXPECT_EQ(PXF_get_frame(image), 1) << "the first frame is current after opening";
        std::vector<int> order = {30, 1, 9, 2, 7, 5, 9};
        std::shuffle(order.begin(), order.end(), rng);
        for (int f : order) expect_frame(image, f, rng);
        EXPECT_EQ(PXF_close(image), 0);
    }
}

TEST_F(Container, FrameChoiceReachesThroughStackedOperators) {
    ASSERT_TRUE(write({3, 4}));
    PXF_IMAGE *image = PXF__cast(open("r"));
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(image->info.images[0].chan.type, PXF_C_FLOAT);
    for (int f : {4, 3, 4}) {
        ASSERT_EQ(PXF_set_frame(image, f), 0);
        void **rows = nullptr;
        ASSERT_EQ(PXF_scan_read(image, 2, &rows), 0);
        EXPECT_FLOAT_EQ(static_cast<float *>(rows[1])[17], float(pixel(f, 1, 17, 2, desc_.chan) / 255.0)) << f;
    }
    EXPECT_EQ(PXF_close(image), 0);
}

TEST_F(Container, RefusedRequestsSayWhy) {
    ReportCapture capture;
    PXF_IMAGE *image = open("w");
    ASSERT_NE(image, nullptr);
    ASSERT_TRUE(write_frame(image, 1));
    ASSERT_TRUE(write_frame(image, 2, 4));  // cut short by the next frame
    EXPECT_EQ(PXF_set_frame(image, 3), -2);
    EXPECT_EQ(capture.last(), numbered(708, "Frame 2 of " + path_ + " is incomplete: 4 of 9 scanlines written"));
    ASSERT_TRUE(write_frame(image, 3));
    EXPECT_EQ(PXF_close(image), 0);

    image = open("r");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(frames_of(image), (std::vector<int>{1, 3}));
    EXPECT_EQ(PXF_set_frame(image, 2), PXF_E_NO_FRAME);
    EXPECT_EQ(capture.last(), numbered(706, path_ + ": there is no frame 2"));
    EXPECT_EQ(PXF_get_frame(image), 1) << "a refused choice keeps the frame";
    EXPECT_EQ(PXF_close(image), 0);

    desc_.window.right = 40;  // another size
    desc_.active_window.right = 40;
    EXPECT_EQ(open("w", true), nullptr);
    EXPECT_EQ(capture.last(), numbered(709, path_ + ": frames of another size or layout cannot be added"));
    EXPECT_EQ(pxf__err, -16);

    desc_ = describe(4, 4, 3, 8);
    ASSERT_TRUE(write({}));
    image = open("r");
    ASSERT_NE(image, nullptr);
    void **rows = nullptr;
    EXPECT_EQ(PXF_scan_read(image, 0, &rows), PXF_E_NO_FRAME);
    EXPECT_EQ(capture.last(), numbered(707, path_ + ": the container holds no frames"));
    EXPECT_EQ(PXF_close(image), 0);

    const std::string rla = dir_.file("one.rla");
    image = open("w", false, rla);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(PXF_set_frame(image, 2), -16);
    EXPECT_EQ(capture.last(), numbered(710, rla + " is not a multi-frame image"));
    EXPECT_EQ(PXF_get_frame(image), -1);
    PXF_close(image);
}

TEST_F(Container, FailedWritesLeaveFilesAsTheyWere) {
    for_each_allocation_failure([&] { return write({2, 1}); },
                                [&](int) { EXPECT_NE(access(path_.c_str(), F_OK), 0) << "a failed new container is removed"; });
    ASSERT_TRUE(write({2, 1}));
    const std::string before = read_file(path_);
    for_each_allocation_failure([&] { return write({3}, true) && (write_file(path_, before), true); },
                                [&](int) { EXPECT_TRUE(read_file(path_) == before); });
    for_each_allocation_failure([&] {
        PXF_IMAGE *image = open("r");
        void **rows = nullptr;  // the reader's own
        bool ok = image && PXF_set_frame(image, 2) == 0 && PXF_scan_read(image, 3, &rows) == 0;
        return image && PXF_close(image) == 0 && ok;
    });
}

// An append cut short at any byte, by a kill (the writer reaches its file-size
// limit and SIGXFSZ ends it) or by writes that fail there, leaves the old
// container readable with its old frames; a failed write leaves it byte for
// byte as it was, a killed one adds nothing but bytes after its old end.
TEST_F(Container, AnAppendCutShortAnywhereKeepsTheOldContainer) {
    ASSERT_TRUE(write({1, 2, 3}));
    const std::string before = read_file(path_);
    ASSERT_TRUE(write({2, 4, 5}, true));  // frame 2 replaced, two added
    const std::size_t whole = read_file(path_).size();
    int killed = 0, refused = 0, finished = 0;
    std::mt19937 rng(5);
    std::vector<std::size_t> limits;  // bytes the append may add: a spread of them, and all it needs
    const std::size_t added = whole - before.size(), index = 16 + 5 * 24;
    for (std::size_t extra = 0; extra < added - index; extra += 1 + added / 16) limits.push_back(extra);
    for (std::size_t extra = added - index - 4; extra < added; extra += 7) limits.push_back(extra);  // in the new index
    limits.push_back(whole - before.size());
    for (std::size_t extra : limits) {
        for (bool kill : {true, false}) {
            SCOPED_TRACE(testing::Message() << (kill ? "killed" : "failing") << " after " << extra << " bytes");
            write_file(path_, before);
            pid_t child = fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                ReportCapture quiet;
                const rlim_t size = rlim_t(before.size() + extra);
                struct rlimit limit = {size, size};
                setrlimit(RLIMIT_FSIZE, &limit);
                std::signal(SIGXFSZ, kill ? SIG_DFL : SIG_IGN);
                _exit(write({2, 4, 5}, true) ? 0 : 1);
            }
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            const std::string after = read_file(path_);
            std::vector<int> expected = {1, 2, 3};
            if (WIFSIGNALED(status)) {
                ASSERT_EQ(WTERMSIG(status), SIGXFSZ);
                ++killed;
                ASSERT_TRUE(after.compare(0, before.size(), before) == 0) << "the old bytes changed";
            } else if (WEXITSTATUS(status) == 1) {
                ++refused;
                ASSERT_TRUE(after == before) << "a failed append is not undone";
            } else {
                ASSERT_EQ(WEXITSTATUS(status), 0);
                ++finished;
                expected = {1, 2, 3, 4, 5};
            }
            PXF_IMAGE *image = open("r");
            ASSERT_NE(image, nullptr);
            EXPECT_EQ(frames_of(image), expected);
            for (int f : expected) expect_frame(image, f, rng);
            EXPECT_EQ(PXF_close(image), 0);
        }
    }
    EXPECT_GT(killed, 10);
    EXPECT_GT(refused, 10);
    EXPECT_EQ(finished, 2) << "only the limit at the whole append's end lets it finish";

    // An empty file (as UTL_output_open leaves one) opened to append starts a container.
    const std::string empty = dir_.file("empty.mpc");
    write_file(empty, "");
    PXF_IMAGE *fresh = open("w", true, empty);
    ASSERT_NE(fresh, nullptr);
    ASSERT_TRUE(write_frame(fresh, 8));
    ASSERT_EQ(PXF_close(fresh), 0);
    fresh = open("r", false, empty);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(frames_of(fresh), std::vector<int>{8});
    expect_frame(fresh, 8, rng);
    EXPECT_EQ(PXF_close(fresh), 0);

    // A killed append's leftover bytes do not stop the next one.
    write_file(path_, before + std::string(100, 'x'));
    ASSERT_TRUE(write({4}, true));
    PXF_IMAGE *image = open("r");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(frames_of(image), (std::vector<int>{1, 2, 3, 4}));
    expect_frame(image, 4, rng);
    EXPECT_EQ(PXF_close(image), 0);
}

// Damaged containers: each gives its message and code, never a crash (the
// sanitizer builds watch for reads outside the file's buffers).
class DamagedContainer : public Container {
protected:
    static uint64_t be(const std::string &s, std::size_t at, int bytes) {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v = v << 8 | uint8_t(s[at + i]);
        return v;
    }
    static std::string patch(std::string s, std::size_t at, uint64_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) s[at + i] = char(v >> (8 * (bytes - 1 - i)));
        return s;
    }
    // Opens the bytes, reads every line of every frame; what was said and the first code.
    std::string attempt(const std::string &bytes, int *code) {
        write_file(path_, bytes);
        ReportCapture capture;
        PXF_IMAGE *image = open("r");
        *code = image ? 0 : pxf__err;
        for (int f : image ? frames_of(image) : std::vector<int>{}) {
            if (PXF_set_frame(image, f) != 0 && !*code) *code = pxf__err;
            for (int y = 0; y < 9; ++y) {
                void **rows = nullptr;
                if (PXF_scan_read(image, y, &rows) != 0 && !*code) *code = pxf__err;
            }
        }
        if (image) PXF_close(image);
        return capture.reports().empty() ? "" : capture.reports()[0].text;
    }
};

TEST_F(DamagedContainer, EveryDamageIsRefusedWithItsMessage) {
    ASSERT_TRUE(write({1, 2, 3}));
    const std::string good = read_file(path_);
    const uint64_t index = be(good, 16, 8), entries = index + 16, block2 = be(good, entries + 24 + 8, 8);
    const std::string not_mpc = numbered(700, path_ + ": This does not appear to be a multi-frame container"),
                      bad_index = numbered(702, path_ + ": the frame index lies outside the file or is damaged"),
                      entry1 = numbered(703, path_ + ": index entry 1 (frame 2) points outside the frame data"),
                      frame2 = numbered(705, path_ + ": frame 2 does not match the container's frame layout");
    struct Case {
        std::string bytes, said;
        int code;
    };
    const std::vector<Case> cases = {
        {"", not_mpc, -4},
        {good.substr(0, 100), not_mpc, -4},
        {patch(good, 0, 'Q', 1), not_mpc, -4},
        {patch(good, 8, 2, 2), numbered(701, path_ + ": container version 2 is not supported"), -4},
        {patch(good, 28, 0x80000000u, 4), numbered(714, path_ + ": the container's image description is damaged"), -4},
        {patch(good, 60, 9, 4), numbered(72, "mpc cannot handle image channel type"), -16},
        {patch(good, 64, 40, 4), numbered(73, "mpc cannot handle image channel width"), -16},
        {good.substr(0, good.size() - 1), bad_index, -4},                 // truncated inside the index
        {good.substr(0, index), bad_index, -4},                            // the index cut off
        {patch(good, 16, good.size() + 64, 8), bad_index, -4},             // index past the end
        {patch(good, 12, 0x40000000u, 4), bad_index, -4},                  // count beyond the file
        {patch(patch(good, 12, 4, 4), index + 8, 4, 4), bad_index, -4},    // one entry more than the file holds
        {patch(good, entries + 24 + 8, good.size() - 10, 8), entry1, -4},  // block past the end
        {patch(good, entries + 24 + 8, index, 8), entry1, -4},             // block in the index
        {patch(good, entries + 24 + 8, 8, 8), entry1, -4},                 // block in the header
        {patch(good, entries + 24 + 16, uint64_t(1) << 62, 8), entry1, -4},
        {patch(good, entries + 24, 5, 4), numbered(704, path_ + ": the frame index is not in ascending frame order at entry 2"), -4},
        {patch(good, block2 + 8, 8, 4), frame2, -4},     // another frame size
        {patch(good, block2 + 4, 7, 4), frame2, -4},     // another frame number
        {patch(good, block2 + 16, 1, 4), frame2, -4},    // a scanline inside the table
        {patch(good, block2 + 20, 0xfffffff, 4), frame2, -4},
        {patch(good, be(good, block2 + 16, 4) + block2, 0xffff, 4), numbered(58, "Cannot decode scanline 0"), -2},
        {patch(good, be(good, block2 + 16, 4) + block2 + 4, 0x7f, 1), numbered(58, "Cannot decode scanline 0"), -2},
    };
    int code = 0;
    EXPECT_EQ(attempt(good, &code), "");
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(attempt(cases[i].bytes, &code), cases[i].said) << "case " << i;
        EXPECT_EQ(code, cases[i].code) << "case " << i;
    }
    // Every truncation of the frame data leaves the index unreachable.
    for (std::size_t length = 256; length < index; length += 97)
        EXPECT_EQ(attempt(good.substr(0, length), &code), bad_index) << length;
}

}  // namespace
