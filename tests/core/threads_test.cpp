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

using namespace pxf::test;

constexpr int kThreads = 8;
constexpr int kRounds = 25;

uint8_t value(int seed, int line, int channel, int x) { return uint8_t(seed * 37 + line * 5 + channel * 3 + x); }

// With `rows`, writes one line of the pattern through them; without, reads
// one (into the driver's rows).  Returns the wrong values; a failed scan counts 1.
int transfer(PXF_IMAGE *image, void **rows, int seed, int line) {
    const PXF_IMAGE_DESC &d = image->info.images[0];
    int width = d.window.right + 1, groups = d.chan.count + d.matte.count, faults = 0;
    bool writing = rows != nullptr;
    for (int c = 0; writing && c < groups; ++c)
        for (int x = 0; x < width; ++x) static_cast<uint8_t *>(rows[c])[x] = value(seed, line, c, x);
    if ((writing ? PXF_scan_write : PXF_scan_read)(image, line, &rows) != 0) return 1;
    for (int c = 0; !writing && c < groups; ++c)
        for (int x = 0; x < width; ++x) faults += static_cast<uint8_t *>(rows[c])[x] != value(seed, line, c, x);
    return faults;
}

// One thread's work: its own writer and reader per round.
int own_images(int thread) {
    int failures = 0;
    for (int round = 0; round < kRounds; ++round) {
        int seed = thread * kRounds + round, w = 5 + (thread + round) % 7, height = 3 + round % 5;
        PXF_IMAGE_DESC d = describe(w, height, 3, 8, 1);
        std::string name = "t" + std::to_string(seed);
        Request request;
        PXF_IMAGE *out = request.set("mem", name.c_str(), &d).open("w");
        if (!out) return failures + 1000;
        void **rows = pxf__chan_alloc(&d, w, "thread");
        for (int line = height - 1; line >= 0; --line) failures += transfer(out, rows, seed, line);
        pxf__chan_free(rows);
        PXF_IMAGE *in = request.set("mem", name.c_str()).open("r");
        if (!in) return failures + 1000;
        for (int line = 0; line < height; ++line) failures += transfer(in, nullptr, seed, line);
        failures += (PXF_close(in) != 0) + (PXF_close(out) != 0);
    }
    return failures;
}

TEST(Threads, EachThreadsImagesStayItsOwnWhileOthersOpenAndClose) {
    pthread_mutex_t report_lock = PTHREAD_MUTEX_INITIALIZER;
    ERR_report_mp(&report_lock, 1);
    ASSERT_EQ(PXF_init(nullptr, nullptr), 0);

    // One writer shared by every thread as well: its handle lock serialises the scans.
    const int shared_seed = -1, height = kThreads * 4;
    PXF_IMAGE_DESC shared_desc = describe(16, height, 3, 8);
    Request request;
    PXF_IMAGE *shared = request.set("mem", "shared", &shared_desc).open("w");
    ASSERT_NE(shared, nullptr);

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &failures, shared, &shared_desc] {
            void **rows = pxf__chan_alloc(&shared_desc, 16, "thread");
            for (int line = t; line < height; line += kThreads) failures += transfer(shared, rows, shared_seed, line);
            pxf__chan_free(rows);
            failures += own_images(t);
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);

    PXF_IMAGE *in = request.set("mem", "shared").open("r");
    ASSERT_NE(in, nullptr);
    for (int line = 0; line < height; ++line) EXPECT_EQ(transfer(in, nullptr, shared_seed, line), 0) << line;
    PXF_close(in);
    PXF_close(shared);
    PXF_exit();
    ERR_report_mp(nullptr, 0);
}

}  // namespace
