// Every allocation of the open paths failing in turn: PXF_open returns null,
// leaves the code -10, holds no lock and leaks nothing (the ASan build checks
// the leaks).
#include <pthread.h>

#include <gtest/gtest.h>

#include <string>

#include <pxf/clr.h>
#include <pxf/fmt.h>
#include <pxf/pxf.h>

#include "core/registry.h"
#include "core_test_util.h"
#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

using pxf::test::describe;
using pxf::test::for_each_allocation_failure;
using pxf::test::set_text;

void expect_unlocked(int n) {
    EXPECT_EQ(pthread_mutex_trylock(&pxf::open_lock), 0) << "open lock held after failure " << n;
    pthread_mutex_unlock(&pxf::open_lock);
}

class OutOfMemory : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(pxf::test::init_with_plugins({"raw_plugin"}), 0);
        PXF_info_init(&info_);
    }
    void TearDown() override {
        info_.images = nullptr;
        info_.num_images = 0;
        PXF_info_cleanup(&info_, 1);
        PXF_exit();
    }
    void request(const char *key, const std::string &name, PXF_IMAGE_DESC *images, int count) {
        set_text(info_.key, key);
        set_text(info_.handle, name.c_str());
        info_.images = images;
        info_.num_images = count;
    }
    // Opens with every allocation failing in turn; the last run succeeds and is closed.
    int open_each_failure(const char *mode) {
        return for_each_allocation_failure(
            [&] {
                pxf__err = 0;
                PXF_IMAGE *image = PXF_open(&info_, mode);
                if (!image) {
                    EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY);
                    return false;
                }
                EXPECT_EQ(PXF_close(image), 0);
                return true;
            },
            expect_unlocked);
    }
    PXF_INFO info_{};
    pxf::test::TempDir dir_;
};

TEST_F(OutOfMemory, MemoryWriteOpenOfSeveralImages) {
    PXF_IMAGE_DESC d[2] = {describe(4, 3, 3, 8, 1, 1), describe(5, 2, 1, 16)};
    d[0].chan.format = const_cast<char *>("rgb");
    d[0].aspect = const_cast<char *>("square");
    request("mem", "oom", d, 2);
    info_.specific = nullptr;
    pxf::test::ReportCapture capture;
    EXPECT_GT(open_each_failure("w"), 10);
    EXPECT_TRUE(capture.saw("No more internal memory"));
    d[0].chan.format = nullptr;
    d[0].aspect = nullptr;
}

TEST_F(OutOfMemory, MemoryReadOpenDuplicatesTheWriter) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8, 0, 2);
    request("mem", "shared", &d, 1);
    PXF_IMAGE *writer = PXF_open(&info_, "w");
    ASSERT_NE(writer, nullptr);
    info_.images = nullptr;
    info_.num_images = 0;
    EXPECT_GT(open_each_failure("r"), 5);
    PXF_close(writer);
}

TEST_F(OutOfMemory, PipeWriteOpen) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8);
    request(nullptr, "out.pipe", &d, 1);
    EXPECT_GT(open_each_failure("w"), 5);
}

TEST_F(OutOfMemory, PluginWriteAndReadOpens) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8);
    PXF_CAP_SETTING setting{PXF_CAP_INTEGER, {3}};
    PXF_CAP_SETTING *settings[] = {&setting, nullptr};
    request(nullptr, dir_.file("image.raw"), &d, 1);
    info_.specific = settings;  // copied into the handle on write and on read
    EXPECT_GT(open_each_failure("w"), 5);
    info_.images = nullptr;
    info_.num_images = 0;
    EXPECT_GT(open_each_failure("r"), 3);
    info_.specific = nullptr;
}

TEST(OutOfMemoryInit, RegistryGivesUpCleanly) {
    // The format and colour defaults are read first, so that only the
    // registry's own allocations are counted; PXF_init then finds them ready.
    for (int n = 1; n < 1000; ++n) {
        ASSERT_EQ(FMT_init(nullptr), 0);
        ASSERT_EQ(CLR_init(nullptr), 0);
        pxf::fault::arm(n);
        int result = pxf::test::init_with_plugins({"raw_plugin", "ppm_plugin"});
        bool fired = pxf::fault::fired();
        pxf::fault::disarm();
        if (!fired) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(pxf__num_pxf_types_dso, 2);
            EXPECT_GT(n, 5);
            PXF_exit();
            return;
        }
        EXPECT_EQ(result, -1) << n;
        EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY) << n;
        EXPECT_EQ(pxf__num_pxf_types_dso, 0);
        FMT_exit();  // PXF_exit has run already; these are harmless
        CLR_exit();
    }
    ADD_FAILURE() << "allocation-failure loop did not end";
}

}  // namespace
