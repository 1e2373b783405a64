// Playback over a container: stepping and looping with the cache at its
// budget, and one thread prefetching while another steps and reads.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include <pxf/frames.h>

#include "core/core_test_util.h"
#include "pattern_io.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

constexpr int kFrames = 12;

class Playback : public Numbered {
protected:
    void SetUp() override {
        Numbered::SetUp();
        ASSERT_EQ(PXF_init(catalog_, nullptr), 0);
        PXF_IMAGE *image = request_.set(nullptr, path_.c_str(), &desc_).open("w");
        ASSERT_NE(image, nullptr);
        void **rows = pxf__chan_alloc(&desc_, 16, "test");
        for (int f = kFrames; f >= 1; --f) {  // frames 10, 20, ... 120
            ASSERT_EQ(PXF_set_frame(image, 10 * f), 0);
            for (int y = 0; y < 5; ++y) {
                for (int c = 0; c < 4; ++c)
                    for (int x = 0; x < 16; ++x) static_cast<uint8_t *>(rows[c])[x] = uint8_t(f * 16 + y * 4 + c + x);
                ASSERT_EQ(PXF_scan_write(image, y, &rows), 0);
            }
        }
        pxf__chan_free(rows);
        ASSERT_EQ(PXF_close(image), 0);
        ASSERT_NE(image_ = request_.open("r"), nullptr);
    }
    void TearDown() override {
        PXF_close(image_);
        Numbered::TearDown();
    }
    // Whether line y of what the playhead shows is frame `frame`'s.
    static bool shows(PXF_PLAYBACK *p, int frame, int y) {
        void **rows = nullptr;
        if (PXF_playback_read(p, y, &rows) != 0) return false;
        return static_cast<uint8_t *>(rows[3])[9] == uint8_t(frame / 10 * 16 + y * 4 + 3 + 9);
    }
    PXF_IMAGE_DESC desc_ = describe(16, 5, 3, 8, 1);
    const std::size_t frame_bytes_ = 16 * 5 * 4;
    Request request_;
    TempDir dir_;
    std::string path_ = dir_.file("play.mpc");
    PXF_IMAGE *image_ = nullptr;
};

TEST_F(Playback, StepsLoopsAndKeepsTheCacheWithinItsBudget) {
    PXF_PLAYBACK *p = PXF_playback_open(image_, 4 * frame_bytes_ + 100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(PXF_playback_frame(p), 10);
    EXPECT_FLOAT_EQ(PXF_playback_rate(p), 30.0f) << "the configured default";
    EXPECT_EQ(PXF_playback_prefetch(p, 20), 4) << "as many as the budget holds";
    std::size_t bytes = 0;
    EXPECT_EQ(PXF_playback_cached(p, &bytes), 4);
    EXPECT_EQ(bytes, 4 * frame_bytes_);
    EXPECT_EQ(PXF_playback_prefetch(p, 20), 0) << "nothing farther displaces nearer frames";
    for (int f = 10; f <= 120; f += 10) {
        EXPECT_TRUE(shows(p, f, 2)) << f;
        EXPECT_EQ(PXF_playback_step(p, 1), f < 120 ? f + 10 : -1);
    }
    EXPECT_EQ(PXF_playback_frame(p), 120) << "stops at the end";
    EXPECT_EQ(PXF_playback_step(p, -3), 90);
    EXPECT_TRUE(shows(p, 90, 4));
    EXPECT_EQ(PXF_playback_cached(p, nullptr), 4);
    PXF_playback_set_mode(p, PXF_PLAY_LOOP);
    EXPECT_EQ(PXF_playback_step(p, 4), 10) << "wraps forward";
    EXPECT_EQ(PXF_playback_step(p, -2), 110) << "and backward";
    EXPECT_TRUE(shows(p, 110, 0));
    PXF_playback_set_rate(p, 24.0f);
    EXPECT_EQ(PXF_playback_advance(p, 0.1), 10) << "2.4 frames: two steps, around the end";
    EXPECT_EQ(PXF_playback_advance(p, 0.1), 30) << "2.4 and the carried 0.4";
    EXPECT_EQ(PXF_playback_advance(p, 0.01), 40) << "0.24 and the carried 0.8";
    EXPECT_EQ(PXF_playback_advance(p, -1.0), 50) << "23 frames back around 12";
    PXF_playback_close(p);

    ReportCapture capture;
    EXPECT_EQ(PXF_playback_open(image_, frame_bytes_ - 1), nullptr);
    EXPECT_EQ(capture.last(), numbered(715, "Playback cache budget of 319 bytes cannot hold one frame of 320 bytes"));
    for_each_allocation_failure([&] {
        PXF_PLAYBACK *q = PXF_playback_open(image_, 2 * frame_bytes_);
        void **rows = nullptr;
        bool ok = q && PXF_playback_read(q, 1, &rows) == 0;
        PXF_playback_close(q);
        return ok;
    });
}

// A worker prefetches while the main thread steps and reads; every line read
// must be the right frame's (run under ThreadSanitizer by scripts/test.sh).
TEST_F(Playback, ThreadsPrefetchWhileAnotherReads) {
    PXF_PLAYBACK *p = PXF_playback_open(image_, 3 * frame_bytes_);
    ASSERT_NE(p, nullptr);
    PXF_playback_set_mode(p, PXF_PLAY_LOOP);
    std::atomic<bool> done{false};
    std::thread worker([&] {
        while (!done) PXF_playback_prefetch(p, 3);
    });
    int wrong = 0;
    for (int i = 0; i < 300; ++i) {
        int frame = PXF_playback_step(p, i % 7 == 6 ? -2 : 1);
        for (int y = 0; y < 5; ++y) wrong += !shows(p, frame, y);
    }
    done = true;
    worker.join();
    EXPECT_EQ(wrong, 0);
    std::size_t bytes = 0;
    PXF_playback_cached(p, &bytes);
    EXPECT_LE(bytes, 3 * frame_bytes_);
    PXF_playback_close(p);
}

}  // namespace
