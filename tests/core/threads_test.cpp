// Eight threads opening, writing, reading and closing images at once; run
// clean under ThreadSanitizer as well (cmake -DPXF_TSAN=ON).
#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <pxf/err.h>
#include <pxf/pxf.h>

#include "core_test_util.h"

// pxf__err is one process-wide variable by design: the last failure of any
// thread.  Its unordered stores are expected, not a defect of the test.
extern "C" const char *__tsan_default_suppressions() { return "race:pxf__err\n"; }

namespace {

using pxf::test::describe;
using pxf::test::set_text;

constexpr int kThreads = 8;
constexpr int kRounds = 25;

uint8_t value(int thread, int round, int line, int channel, int x) {
    return uint8_t(thread * 37 + round * 11 + line * 5 + channel * 3 + x);
}

// One thread's work: its own writer and reader per round.
int own_images(int thread) {
    int failures = 0;
    for (int round = 0; round < kRounds; ++round) {
        int width = 5 + (thread + round) % 7, height = 3 + round % 5;
        PXF_IMAGE_DESC d = describe(width, height, 3, 8, 1);
        std::string name = "t" + std::to_string(thread) + "-" + std::to_string(round);
        PXF_INFO info;
        PXF_info_init(&info);
        set_text(info.key, "mem");
        set_text(info.handle, name.c_str());
        info.images = &d;
        info.num_images = 1;
        PXF_IMAGE *out = PXF_open(&info, "w");
        if (!out) return failures + 1000;
        void **rows = pxf__chan_alloc(&d, width, "thread");
        for (int line = height - 1; line >= 0; --line) {
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = value(thread, round, line, c, x);
            failures += PXF_scan_write(out, line, &rows) != 0;
        }
        pxf__chan_free(rows);
        info.images = nullptr;
        info.num_images = 0;
        PXF_IMAGE *in = PXF_open(&info, "r");
        if (!in) return failures + 1000;
        for (int line = 0; line < height; ++line) {
            void **got = nullptr;
            if (PXF_scan_read(in, line, &got) != 0) {
                ++failures;
                continue;
            }
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < width; ++x) failures += static_cast<uint8_t *>(got[c])[x] != value(thread, round, line, c, x);
        }
        failures += PXF_close(in) != 0;
        failures += PXF_close(out) != 0;
        PXF_info_cleanup(&info, 1);
    }
    return failures;
}

TEST(Threads, EachThreadsImagesStayItsOwnWhileOthersOpenAndClose) {
    pthread_mutex_t report_lock = PTHREAD_MUTEX_INITIALIZER;
    ERR_report_mp(&report_lock, 1);
    ASSERT_EQ(PXF_init(nullptr, nullptr), 0);

    // One writer shared by every thread as well: its handle lock serialises the scans.
    const int width = 16, height = kThreads * 4;
    PXF_IMAGE_DESC shared_desc = describe(width, height, 3, 16);
    PXF_INFO shared_info;
    PXF_info_init(&shared_info);
    set_text(shared_info.key, "mem");
    set_text(shared_info.handle, "shared");
    shared_info.images = &shared_desc;
    shared_info.num_images = 1;
    PXF_IMAGE *shared = PXF_open(&shared_info, "w");
    ASSERT_NE(shared, nullptr);

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &failures, shared, &shared_desc] {
            void **rows = pxf__chan_alloc(&shared_desc, width, "thread");
            for (int line = t; line < height; line += kThreads) {
                for (int c = 0; c < 3; ++c)
                    for (int x = 0; x < width; ++x) static_cast<uint16_t *>(rows[c])[x] = uint16_t(line * 1000 + c * 100 + x);
                failures += PXF_scan_write(shared, line, &rows) != 0;
            }
            pxf__chan_free(rows);
            failures += own_images(t);
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);

    shared_info.images = nullptr;
    shared_info.num_images = 0;
    PXF_IMAGE *in = PXF_open(&shared_info, "r");
    ASSERT_NE(in, nullptr);
    for (int line = 0; line < height; ++line) {
        void **got = nullptr;
        ASSERT_EQ(PXF_scan_read(in, line, &got), 0);
        for (int c = 0; c < 3; ++c)
            for (int x = 0; x < width; ++x)
                ASSERT_EQ(static_cast<uint16_t *>(got[c])[x], uint16_t(line * 1000 + c * 100 + x));
    }
    PXF_close(in);
    PXF_close(shared);
    PXF_info_cleanup(&shared_info, 1);
    PXF_exit();
    ERR_report_mp(nullptr, 0);
}

}  // namespace
