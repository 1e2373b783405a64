// ERR_report_rsc with "ERRO" resources from a real resource file.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <pxf/err.h>
#include <pxf/rsc.h>

#include "support/test_support.h"

namespace {

using namespace pxf::test;

// Data of an error resource: the severity, 16-bit big-endian, then the text.
void add_error(const char *name, int16_t severity, const char *format) {
    std::string data(reinterpret_cast<char *>(rsc__mio(&severity, 1)), 2);
    data += format;
    data += '\0';
    ASSERT_EQ(RSC_rsrc_addc("ERRO", name, data.data(), static_cast<uint32_t>(data.size())), 1);
}

// This path hands its handlers no data, so what they see goes to a static.
std::vector<ReportCapture::Report> seen;
int record(const char *, int severity, const char *text, ERR_DESCRIPTOR *descriptor, void *data) {
    EXPECT_EQ(descriptor, nullptr);
    EXPECT_EQ(data, nullptr);
    seen.push_back({severity, text});
    return 0;
}

class ErrorResources : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = dir_.file("errors.rsc");
        ASSERT_EQ(RSC_file_create(path_.c_str()), 1);
        add_error("E_OPEN", ERR_WARNING, "cannot open %s (%d tries)");
        add_error("E_FATAL", ERR_FATAL, "gave up");
        ASSERT_EQ(RSC_rsrc_addc("TEXT", "E_OPEN", "not an error", 12), 1);
        ASSERT_EQ(RSC_file_close(nullptr), 1);
        ASSERT_EQ(RSC_file_open(path_.c_str()), 1);
    }
    void TearDown() override { RSC_exit(); }

    TempDir dir_;
    std::string path_;
};

TEST_F(ErrorResources, ReachGlobalHandlersWithStoredSeverityAndNothingElse) {
    uint32_t counted = ERR_stats(-1);
    int index = error_index;
    ERR_mask_s(ERR_WARNING);  // masks do not apply to this path
    ERR_dcl_handler(nullptr, record, &seen);
    EXPECT_EQ(ERR_report_rsc(nullptr, "E_OPEN", "a.rla", 3), 0);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].severity, ERR_WARNING);
    EXPECT_EQ(seen[0].text, "cannot open a.rla (3 tries)");
    // A FATAL report that a handler takes keeps the process alive.
    EXPECT_EQ(ERR_report_rsc(nullptr, "E_FATAL"), 0);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].severity, ERR_FATAL);
    EXPECT_EQ(seen[1].text, "gave up");
    EXPECT_EQ(ERR_stats(-1), counted);
    EXPECT_EQ(error_index, index);
    EXPECT_EQ(ERR_report_rsc(nullptr, "E_MISSING"), 0);
    EXPECT_EQ(seen.size(), 2u);
    ERR_can_handler(nullptr);
}

TEST_F(ErrorResources, DefaultHandlerPrintsAndFatalExits) {
    StderrCapture err;
    ERR_report_rsc(nullptr, "E_OPEN", "b.rla", 1);
    EXPECT_EQ(err.finish(), "WARNING, cannot open b.rla (1 tries)\n");
    EXPECT_EXIT(ERR_report_rsc(nullptr, "E_FATAL"), ::testing::ExitedWithCode(1), "FATAL, gave up");
}

TEST_F(ErrorResources, ClosedFilesAreNoLongerSearched) {
    ASSERT_EQ(RSC_file_close(nullptr), 1);
    StderrCapture err;
    EXPECT_EQ(ERR_report_rsc(nullptr, "E_OPEN", "c", 1), 0);
    EXPECT_EQ(err.finish(), "");
}

}  // namespace
