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

using namespace pxf::test;

class OutOfMemory : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(init_with_plugins({"raw_plugin"}), 0); }
    void TearDown() override { PXF_exit(); }
    // Opens with every allocation failing in turn; the last run succeeds and is closed.
    int open_each_failure(const char *mode) {
        return for_each_allocation_failure(
            [&] {
                pxf__err = 0;
                PXF_IMAGE *image = request_.open(mode);
                EXPECT_EQ(pxf__err, image ? 0 : PXF_E_NO_MEMORY);
                return image && PXF_close(image) == 0;
            },
            [](int n) {
                EXPECT_EQ(pthread_mutex_trylock(&pxf::open_lock), 0) << "open lock held after failure " << n;
                pthread_mutex_unlock(&pxf::open_lock);
            });
    }
    Request request_;
    TempDir dir_;
};

TEST_F(OutOfMemory, MemoryAndPipeOpens) {
    PXF_IMAGE_DESC d[2] = {describe(4, 3, 3, 8, 1, 1), describe(5, 2, 1, 16)};
    d[0].chan.format = const_cast<char *>("rgb");
    d[0].aspect = const_cast<char *>("square");
    request_.set("mem", "oom", d, 2);
    ReportCapture capture;
    EXPECT_GT(open_each_failure("w"), 10);
    EXPECT_TRUE(capture.saw("No more internal memory"));
    PXF_IMAGE *writer = request_.open("w");
    ASSERT_NE(writer, nullptr);
    request_.set("mem", "oom");
    EXPECT_GT(open_each_failure("r"), 5);  // a reader duplicates the writer's records
    PXF_close(writer);
    request_.set(nullptr, "out.pipe", d);
    EXPECT_GT(open_each_failure("w"), 5);
}

TEST_F(OutOfMemory, PluginWriteAndReadOpens) {
    PXF_IMAGE_DESC d = describe(4, 3, 3, 8);
    PXF_CAP_SETTING setting{PXF_CAP_INTEGER, {3}};
    PXF_CAP_SETTING *settings[] = {&setting, nullptr};
    std::string path = dir_.file("image.raw");
    request_.set(nullptr, path.c_str(), &d);
    request_.info.specific = settings;  // copied into the handle on write and on read
    EXPECT_GT(open_each_failure("w"), 5);
    request_.set(nullptr, path.c_str());
    EXPECT_GT(open_each_failure("r"), 3);
    request_.info.specific = nullptr;
}

TEST(OutOfMemoryInit, RegistryGivesUpCleanly) {
    // The format and colour defaults are read beforehand (again after each failure,
    // whose clean-up exits them), so only the registry's own allocations count.
    auto read_defaults = [](int) {
        FMT_exit();
        CLR_exit();
        ASSERT_EQ(FMT_init(nullptr), 0);
        ASSERT_EQ(CLR_init(nullptr), 0);
    };
    read_defaults(0);
    int made = for_each_allocation_failure(
        [] {
            int result = init_with_plugins({"raw_plugin", "top_plugin"});
            if (result == 0) return pxf__num_pxf_types_dso == 2;
            EXPECT_EQ(result, -1);
            EXPECT_EQ(pxf__err, PXF_E_NO_MEMORY);
            EXPECT_EQ(pxf__num_pxf_types_dso, 0);
            return false;
        },
        read_defaults);
    EXPECT_GT(made, 5);
    PXF_exit();
}

}  // namespace
