// The plug-in loader beside PXF_init, and the calling thread's last error.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>

#include <pxf/pxf.h>

#include "core_test_util.h"
#include "foundation/report.h"
#include "support/test_support.h"

namespace {

using namespace pxf::test;

bool mentioned(const ReportCapture &capture, const std::string &part) {
    for (const auto &r : capture.reports())
        if (r.text.find(part) != std::string::npos) return true;
    return false;
}

// PXF_PLUGIN_PATH for one test.
class PluginPath {
public:
    explicit PluginPath(const char *value) {
        if (const char *old = getenv("PXF_PLUGIN_PATH")) saved_ = old, had_ = true;
        if (value) setenv("PXF_PLUGIN_PATH", value, 1);
        else unsetenv("PXF_PLUGIN_PATH");
    }
    ~PluginPath() {
        if (had_) setenv("PXF_PLUGIN_PATH", saved_.c_str(), 1);
        else unsetenv("PXF_PLUGIN_PATH");
    }

private:
    std::string saved_;
    bool had_ = false;
};

TEST(LoadPlugins, LoadsEveryModuleInNameOrderAndPassesOverTheRejected) {
    PluginPath env(nullptr);
    TempDir empty;
    ReportCapture capture;
    std::string list = empty.path() + ":/nonexistent/dir::" + PLUGIN_DIR;
    ASSERT_EQ(PXF_load_plugins(nullptr, list.c_str()), 0);
    ASSERT_NE(PXF_find("top"), nullptr);
    ASSERT_NE(PXF_find("rawro"), nullptr);
    // raw_second.so comes after raw_plugin.so and takes the key "raw" over.
    ASSERT_NE(PXF_find("raw"), nullptr);
    EXPECT_STREQ(PXF_find("raw")->name, "raw pixels, second");
    EXPECT_EQ(PXF_find("declined"), nullptr);
    // The rejected modules are named by their paths; a missing directory is not mentioned.
    EXPECT_TRUE(mentioned(capture, std::string(PLUGIN_DIR) + "/raw_no_key.so"));
    EXPECT_TRUE(mentioned(capture, "\"3.1\""));
    for (const auto &r : capture.reports()) EXPECT_EQ(r.text.find("/nonexistent"), std::string::npos) << r.text;
    // With the registry in place, nothing more is loaded.
    EXPECT_EQ(PXF_load_plugins(nullptr, nullptr), 0);
    PXF_exit();
}

TEST(LoadPlugins, EnvironmentComesLastAndAnUnreadableDirectoryIsAWarning) {
    TempDir dir;
    std::string not_a_directory = dir.path() + "/file";
    write_file(not_a_directory, "x");
    PluginPath env(PLUGIN_DIR);
    ReportCapture capture;
    ASSERT_EQ(PXF_load_plugins(nullptr, not_a_directory.c_str()), 0);
    EXPECT_NE(PXF_find("top"), nullptr);
    ASSERT_FALSE(capture.reports().empty());
    EXPECT_EQ(capture.reports().front().severity, ERR_WARNING);
    EXPECT_TRUE(capture.saw("Cannot read the plug-in directory " + not_a_directory));
    PXF_exit();
}

TEST(LoadPlugins, OutOfMemoryLoadsNothingAndLeaksNothing) {
    PluginPath env(nullptr);
    ReportCapture capture;
    int runs = for_each_allocation_failure([] {
        int result = PXF_load_plugins(nullptr, PLUGIN_DIR);
        bool loaded = result == 0 && PXF_find("top") != nullptr;
        EXPECT_TRUE(result == 0 || result == -1);
        PXF_exit();
        return loaded;
    });
    EXPECT_GT(runs, 5);
}

TEST(LastError, KeepsTheThreadsErrorsWhateverTheMasks) {
    ReportCapture capture;
    const char *text = nullptr;
    PXF_clear_last_error();
    EXPECT_EQ(PXF_last_error(&text), 0);
    EXPECT_STREQ(text, "");
    ERR_printf(ERR_WARNING, "only a warning");
    EXPECT_EQ(PXF_last_error(nullptr), 0);
    // A failure made through the library's helper keeps its own code even
    // when pxf__err has moved on.
    pxf::fail(-1, PXF_E_CANNOT_DO, pxf::kSetMessages, 1, "cannot %s", "do it");
    pxf__err = 0;
    EXPECT_EQ(PXF_last_error(&text), PXF_E_CANNOT_DO);
    EXPECT_STREQ(text, "cannot do it");
    // Masked reports reach no handler but still describe the failure.
    error_mask = 1;
    ERR_report_cat(nullptr, 902, 1, ERR_ERROR, "masked %d", 7);
    error_mask = 0;
    pxf__err = PXF_E_FLUSH;
    EXPECT_EQ(PXF_last_error(&text), PXF_E_FLUSH);  // no code of its own: the shared one
    EXPECT_STREQ(text, "masked 7");
    EXPECT_FALSE(capture.saw("masked 7"));
    pxf__err = 0;
    PXF_clear_last_error();
}

}  // namespace
